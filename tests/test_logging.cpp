// Call traces and messages of this program's own logging instance, written into the real
// log.dll and read back through the host's capture helper.
#include "host/LogCapture.h"
#include "support/Log.h"

#include <gtest/gtest.h>

#include <cwchar>
#include <mmsystem.h>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace logging;
using avhost::LogLine;

namespace {

const wchar_t kJournalOneCycle[] =
    L"LogInit;LogDeinit;LogUninitDeskMetrics;LogRemoveModule(logging::CLogDLL::~CLogDLL);";

bool LogLibraryLoaded() { return GetModuleHandleW(L"log.dll") != nullptr; }

// "<- title [N]" gives N, or -1 when the line does not have that shape.
long ElapsedOf(const std::wstring& text, const std::wstring& title) {
    const std::wstring head = L"<- " + title + L" [";
    if (text.compare(0, head.size(), head) != 0 || text.back() != L']') return -1;
    const std::wstring number = text.substr(head.size(), text.size() - head.size() - 1);
    if (number.empty() || number.find_first_not_of(L"0123456789") != std::wstring::npos) return -1;
    return std::wcstol(number.c_str(), nullptr, 10);
}

void RunThreads(int count, const std::function<void(int)>& job) {
    std::vector<std::thread> threads;
    for (int t = 0; t < count; ++t) threads.emplace_back(job, t);
    for (std::thread& thread : threads) thread.join();
}

class Logging : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, UseCount()) << "a reference leaked from an earlier test";
        ASSERT_FALSE(LogLibraryLoaded());
        avhost::ClearCapturedLines();
    }
    void TearDown() override {
        EXPECT_EQ(0, UseCount());
        EXPECT_EQ(nullptr, CurrentInstance());
    }
};

TEST_F(Logging, TracedCallWritesEntryAndExitLines) {
    // The exit line carries the milliseconds the traced scope took, on the same clock as ours:
    // never more than the time around it. How long tracing takes is for the benchmarks.
    const DWORD before = timeGetTime();
    { QV_TRACE(L"Foo::Bar"); }
    const DWORD around = timeGetTime() - before;
    std::vector<LogLine> lines = avhost::CapturedLines();
    ASSERT_EQ(2u, lines.size());
    for (const LogLine& line : lines) {
        EXPECT_EQ(32u, line.severity);
        EXPECT_EQ(L"Foo::Bar", line.function);
        EXPECT_EQ(GetModuleHandleW(nullptr), line.module);
        EXPECT_EQ(GetCurrentThreadId(), line.thread);
    }
    EXPECT_EQ(1, lines[0].nesting);
    EXPECT_EQ(L"-> Foo::Bar()", lines[0].text);
    EXPECT_EQ(0xFFFF, lines[1].nesting);
    const long elapsed = ElapsedOf(lines[1].text, L"Foo::Bar()");
    EXPECT_GE(elapsed, 0) << lines[1].text;
    EXPECT_LE(elapsed, static_cast<long>(around)) << lines[1].text;
}

TEST_F(Logging, LongFunctionNamesAreTruncated) {
    std::wstring name;
    for (int i = 0; i < 300; ++i) name += static_cast<wchar_t>(L'a' + i % 26);
    const std::wstring title = name.substr(0, 257) + L"()";
    {
        CFunctionTrace trace(name.c_str());
        EXPECT_EQ(title, trace.Title());
        EXPECT_EQ(name.substr(0, 259), trace.Function());
    }
    std::vector<LogLine> lines = avhost::CapturedLines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(L"-> " + title, lines[0].text);
    EXPECT_EQ(name.substr(0, 259), lines[0].function);
    EXPECT_GE(ElapsedOf(lines[1].text, title), 0) << lines[1].text;
    EXPECT_EQ(title, CFunctionTrace(name.substr(0, 258).c_str()).Title());
}

TEST_F(Logging, WithoutAReferenceMessagesAreDroppedAndTracesLoadPerLine) {
    const avhost::LogCounters before = avhost::Counters();
    {
        QV_FUNCTION(L"Test::Unheld");
        QV_LOG(LOG_SEV_ERROR, L"dropped %d", 1);
    }
    EXPECT_FALSE(LogLibraryLoaded());
    EXPECT_TRUE(avhost::CapturedLines().empty());
    EXPECT_EQ(before.initCalls, avhost::Counters().initCalls);
    {
        QV_TRACE(L"Test::Unheld");
        EXPECT_FALSE(LogLibraryLoaded()); // the trace keeps no reference between its lines
        QV_LOG(LOG_SEV_INFO, L"inside");
    }
    EXPECT_FALSE(LogLibraryLoaded());
    const avhost::LogCounters after = avhost::Counters();
    EXPECT_EQ(2, after.initCalls - before.initCalls);
    EXPECT_EQ(2, after.deinitCalls - before.deinitCalls);
    EXPECT_EQ(std::wstring(kJournalOneCycle) + kJournalOneCycle, avhost::LifecycleJournal());
    std::vector<LogLine> lines = avhost::CapturedLines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(L"-> Test::Unheld()", lines[0].text);
    EXPECT_FALSE(avhost::Contains(L"inside"));
}

TEST_F(Logging, HolderResolvesEveryEntryPointByName) {
    CLogDLLRef holder;
    holder.Acquire();
    CLogDLL* dll = holder.Get();
    ASSERT_NE(nullptr, dll);
    const HMODULE module = GetModuleHandleW(L"log.dll");
    ASSERT_NE(nullptr, module);
    EXPECT_EQ(module, dll->module.Get());
    const std::pair<void*, const char*> slots[] = {
        {dll->applySettings, "LogApplySettings"},
        {dll->setSettingsFile, "LogSetSettingsFile"},
        {dll->enable, "LogEnable"},
        {dll->setLevel, "LogSetLevel"},
        {dll->setPath, "LogSetPath"},
        {dll->setType, "LogSetType"},
        {dll->setMode, "LogSetMode"},
        {dll->setMaxSize, "LogSetMaxSize"},
        {dll->setDepth, "LogSetDepth"},
        {reinterpret_cast<void*>(dll->write), "LogWrite"},
        {dll->isEnabled, "LogIsEnabled"},
        {dll->monitorSettings, "LogMonitorSettings"},
        {reinterpret_cast<void*>(dll->uninitDeskMetrics), "LogUninitDeskMetrics"},
        {dll->trackEvent, "LogTrackEvent"},
        {dll->trackEventData, "LogTrackEventData"},
        {reinterpret_cast<void*>(dll->removeModule), "LogRemoveModule"},
        {dll->getLevel, "LogGetLevel"},
    };
    for (const auto& slot : slots) {
        EXPECT_NE(nullptr, slot.first) << slot.second;
        EXPECT_EQ(reinterpret_cast<void*>(GetProcAddress(module, slot.second)), slot.first) << slot.second;
    }
    holder.Release();
    EXPECT_FALSE(LogLibraryLoaded());
}

TEST_F(Logging, HolderAcquiredTwiceGivesBothBackOnOneRelease) {
    const avhost::LogCounters before = avhost::Counters();
    CLogDLLRef holder;
    holder.Acquire();
    CLogDLL* first = holder.Get();
    holder.Acquire();
    EXPECT_EQ(first, holder.Get());
    EXPECT_EQ(2, UseCount());
    holder.Release();
    EXPECT_EQ(0, holder.Count());
    EXPECT_EQ(0, UseCount());
    EXPECT_EQ(0, SecondCount());
    EXPECT_FALSE(LogLibraryLoaded());
    EXPECT_EQ(1, avhost::Counters().initCalls - before.initCalls);
    EXPECT_EQ(1, avhost::Counters().deinitCalls - before.deinitCalls);
    holder.Release(); // nothing left to give back
    EXPECT_EQ(0, UseCount());
}

// A log.dll the host loaded itself is shared, not pinned: once the holder has given its reference
// back, the host's own FreeLibrary unloads it.
TEST_F(Logging, HolderSharesALogDllTheHostLoadedAndLeavesItUnloadable) {
    const HMODULE hosts = LoadLibraryW((avhost::ProgramFolder() + L"log.dll").c_str());
    ASSERT_NE(nullptr, hosts);
    CLogDLLRef holder;
    holder.Acquire();
    holder.Release();
    EXPECT_TRUE(LogLibraryLoaded());
    FreeLibrary(hosts);
    EXPECT_FALSE(LogLibraryLoaded());
}

TEST_F(Logging, MessagesCarrySeverityFunctionAndFormattedText) {
    CLogDLLRef holder;
    holder.Acquire();
    {
        QV_FUNCTION(L"Test::Messages");
        QV_LOG(LOG_SEV_ERROR, L"Cannot delete file [error = %d] [path = %s]", 5, L"C:\\x\\y.bin");
    }
    std::vector<LogLine> lines = avhost::CapturedLines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(4u, lines[0].severity);
    EXPECT_EQ(0, lines[0].nesting);
    EXPECT_EQ(L"Test::Messages", lines[0].function);
    EXPECT_EQ(L"Cannot delete file [error = 5] [path = C:\\x\\y.bin]", lines[0].text);
}

TEST_F(Logging, ConcurrentWritersLoseAndTearNoLine) {
    constexpr int kThreads = 8, kLines = 250;
    const std::wstring payload(80, L'x');
    CLogDLLRef holder;
    holder.Acquire();
    std::vector<DWORD> threadIds(kThreads);
    RunThreads(kThreads, [&](int t) {
        threadIds[t] = GetCurrentThreadId();
        QV_FUNCTION(L"Test::Concurrent");
        for (int i = 0; i < kLines; ++i) QV_LOG(LOG_SEV_DETAIL, L"thread %d line %d %s", t, i, payload.c_str());
    });
    std::vector<LogLine> lines = avhost::CapturedLines();
    ASSERT_EQ(static_cast<size_t>(kThreads * kLines), lines.size());
    std::set<std::wstring> seen;
    std::map<int, int> nextLine;
    for (const LogLine& line : lines) {
        int t = -1, i = -1;
        wchar_t rest[128] = {};
        ASSERT_EQ(3, swscanf(line.text.c_str(), L"thread %d line %d %127ls", &t, &i, rest)) << line.text;
        ASSERT_TRUE(t >= 0 && t < kThreads) << line.text;
        EXPECT_EQ(payload, rest);
        EXPECT_EQ(threadIds[t], line.thread);
        EXPECT_EQ(nextLine[t]++, i) << "lines of one thread keep their order";
        EXPECT_TRUE(seen.insert(line.text).second) << line.text;
    }
}

} // namespace
