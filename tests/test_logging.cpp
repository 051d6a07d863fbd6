// Call traces and messages of this program's own logging instance, written into the real
// log.dll and read back through the host's capture helper.
#include "host/LogCapture.h"
#include "support/Log.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace logging;
using avhost::LogLine;

namespace {

constexpr uint16_t kEntry = 1;
constexpr uint16_t kExit = 0xFFFF;
const wchar_t kJournalOneCycle[] =
    L"LogInit;LogDeinit;LogUninitDeskMetrics;LogRemoveModule(logging::CLogDLL::~CLogDLL);";

bool LogLibraryLoaded()
{
    return GetModuleHandleW(L"log.dll") != nullptr;
}

HMODULE ThisProgram()
{
    return GetModuleHandleW(nullptr);
}

void TracedCall(const wchar_t* name)
{
    CFunctionTrace trace(name);
}

// "<- title [N]" gives N, or -1 when the line does not have that shape.
long ElapsedOf(const std::wstring& text, const std::wstring& title)
{
    std::wstring head = L"<- " + title + L" [";
    if (text.compare(0, head.size(), head) != 0 || text.back() != L']')
        return -1;
    std::wstring number = text.substr(head.size(), text.size() - head.size() - 1);
    if (number.empty() || number.find_first_not_of(L"0123456789") != std::wstring::npos)
        return -1;
    return std::wcstol(number.c_str(), nullptr, 10);
}

class Logging : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(UseCount(), 0) << "a reference leaked from an earlier test";
        ASSERT_FALSE(LogLibraryLoaded());
        avhost::ClearCapturedLines();
    }
    void TearDown() override
    {
        EXPECT_EQ(UseCount(), 0);
        EXPECT_EQ(CurrentInstance(), nullptr);
    }
};

TEST_F(Logging, TracedCallWritesEntryAndExitLines)
{
    {
        QV_TRACE(L"Foo::Bar");
        Sleep(30);
    }
    std::vector<LogLine> lines = avhost::CapturedLines();
    ASSERT_EQ(lines.size(), 2u);

    EXPECT_EQ(lines[0].nesting, kEntry);
    EXPECT_EQ(lines[0].severity, 32u);
    EXPECT_EQ(lines[0].function, L"Foo::Bar");
    EXPECT_EQ(lines[0].text, L"-> Foo::Bar()");
    EXPECT_EQ(lines[0].module, ThisProgram());
    EXPECT_EQ(lines[0].thread, GetCurrentThreadId());

    EXPECT_EQ(lines[1].nesting, kExit);
    EXPECT_EQ(lines[1].severity, 32u);
    EXPECT_EQ(lines[1].function, L"Foo::Bar");
    EXPECT_EQ(lines[1].module, ThisProgram());
    EXPECT_GE(ElapsedOf(lines[1].text, L"Foo::Bar()"), 20) << lines[1].text;
}

TEST_F(Logging, LongFunctionNamesAreTruncated)
{
    std::wstring name;
    for (int i = 0; i < 300; ++i)
        name += static_cast<wchar_t>(L'a' + i % 26);
    {
        CFunctionTrace trace(name.c_str());
        EXPECT_EQ(trace.Title(), name.substr(0, 257) + L"()");
        EXPECT_EQ(trace.Function(), name.substr(0, 259));
    }
    std::vector<LogLine> lines = avhost::CapturedLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, L"-> " + name.substr(0, 257) + L"()");
    EXPECT_EQ(lines[0].function, name.substr(0, 259));
    EXPECT_GE(ElapsedOf(lines[1].text, name.substr(0, 257) + L"()"), 0) << lines[1].text;

    // At the edge: 257 characters still fit the title whole, 258 lose the last one there.
    CFunctionTrace fits(name.substr(0, 257).c_str());
    EXPECT_EQ(fits.Title(), name.substr(0, 257) + L"()");
    CFunctionTrace cut(name.substr(0, 258).c_str());
    EXPECT_EQ(cut.Title(), name.substr(0, 257) + L"()");
    EXPECT_EQ(cut.Function(), name.substr(0, 258));
}

TEST_F(Logging, PlainMessageWithoutReferenceWritesNothingAndLoadsNothing)
{
    avhost::LogCounters before = avhost::Counters();
    QV_FUNCTION(L"Test::Unheld");
    QV_LOG(LOG_SEV_ERROR, L"dropped %d", 1);

    EXPECT_FALSE(LogLibraryLoaded());
    EXPECT_EQ(CurrentInstance(), nullptr);
    EXPECT_TRUE(avhost::CapturedLines().empty());
    EXPECT_EQ(avhost::Counters().initCalls, before.initCalls);
}

TEST_F(Logging, TraceWithoutReferenceLoadsAndUnloadsForEachLine)
{
    avhost::LogCounters before = avhost::Counters();
    {
        QV_TRACE(L"Test::Unheld");
        // The trace keeps no reference between its lines, so this message is dropped.
        EXPECT_FALSE(IsLoggingInUse());
        EXPECT_FALSE(LogLibraryLoaded());
        QV_LOG(LOG_SEV_INFO, L"inside");
    }
    EXPECT_FALSE(LogLibraryLoaded());
    avhost::LogCounters after = avhost::Counters();
    EXPECT_EQ(after.initCalls - before.initCalls, 2);
    EXPECT_EQ(after.deinitCalls - before.deinitCalls, 2);
    EXPECT_EQ(after.removeModuleCalls - before.removeModuleCalls, 2);
    EXPECT_EQ(avhost::LifecycleJournal(), std::wstring(kJournalOneCycle) + kJournalOneCycle);

    std::vector<LogLine> lines = avhost::CapturedLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, L"-> Test::Unheld()");
    EXPECT_FALSE(avhost::Contains(L"inside"));
}

TEST_F(Logging, HolderResolvesEveryEntryPointByName)
{
    CLogDLLRef holder;
    holder.Acquire();
    CLogDLL* dll = holder.Get();
    ASSERT_NE(dll, nullptr);
    HMODULE module = GetModuleHandleW(L"log.dll");
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(dll->module, module);

    auto entry = [module](const char* name) { return reinterpret_cast<void*>(GetProcAddress(module, name)); };
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
        EXPECT_NE(slot.first, nullptr) << slot.second;
        EXPECT_EQ(slot.first, entry(slot.second)) << slot.second;
    }

    uint32_t severity = LOG_SEV_INFO;
    EXPECT_EQ(Write(dll, 0, &severity, ThisProgram(), L"Test::Write", L"direct %d", 7), S_OK);
    EXPECT_TRUE(avhost::Contains(L"direct 7"));
    holder.Release();
    EXPECT_FALSE(LogLibraryLoaded());
}

TEST_F(Logging, HolderGivesBackEveryReferenceItTook)
{
    avhost::LogCounters before = avhost::Counters();
    CLogDLLRef holder;
    holder.Acquire();
    CLogDLL* first = holder.Get();
    holder.Acquire();
    EXPECT_EQ(holder.Get(), first);
    EXPECT_EQ(holder.Count(), 2);
    EXPECT_EQ(UseCount(), 2);
    EXPECT_TRUE(IsLoggingInUse());

    holder.Release();
    EXPECT_EQ(holder.Count(), 0);
    EXPECT_EQ(holder.Get(), nullptr);
    EXPECT_EQ(UseCount(), 0);
    EXPECT_EQ(SecondCount(), 0);
    EXPECT_FALSE(IsLoggingInUse());
    EXPECT_FALSE(LogLibraryLoaded());
    EXPECT_EQ(avhost::Counters().initCalls - before.initCalls, 1);
    EXPECT_EQ(avhost::Counters().deinitCalls - before.deinitCalls, 1);

    // A second cycle gets a fresh instance and loads the library again.
    {
        CLogDLLRef again;
        again.Acquire();
        EXPECT_TRUE(LogLibraryLoaded());
    }
    EXPECT_FALSE(LogLibraryLoaded());
}

TEST_F(Logging, ReleasingAHolderThatTookNothingChangesNothing)
{
    CLogDLLRef keeper;
    keeper.Acquire();
    CLogDLL* instance = CurrentInstance();

    CLogDLLRef idle;
    idle.Release();
    idle.Release();
    EXPECT_EQ(idle.Count(), 0);
    EXPECT_EQ(UseCount(), 1);
    EXPECT_EQ(CurrentInstance(), instance);
    EXPECT_TRUE(LogLibraryLoaded());

    keeper.Release();
    keeper.Release();
    EXPECT_EQ(keeper.Count(), 0);
    EXPECT_EQ(UseCount(), 0);
}

TEST_F(Logging, MessagesCarrySeverityFunctionAndFormattedText)
{
    CLogDLLRef holder;
    holder.Acquire();
    {
        QV_FUNCTION(L"Test::Messages");
        QV_LOG(LOG_SEV_ERROR, L"Cannot delete file [error = %d] [path = %s]", 5, L"C:\\x\\y.bin");
        QV_LOG(LOG_SEV_WARNING, L"Error %d getting plugin \"%s\"", 1168, L"ctc");
        QV_LOG(LOG_SEV_DETAIL, L"Deleting [%s]", L"C:\\cache");
        QV_LOG(LOG_SEV_INFO, L"[count = %llu]", 18446744073709551615ULL);
    }
    std::vector<LogLine> lines = avhost::CapturedLines();
    ASSERT_EQ(lines.size(), 4u);
    const std::pair<uint32_t, const wchar_t*> expected[] = {
        {4, L"Cannot delete file [error = 5] [path = C:\\x\\y.bin]"},
        {8, L"Error 1168 getting plugin \"ctc\""},
        {16, L"Deleting [C:\\cache]"},
        {32, L"[count = 18446744073709551615]"},
    };
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].nesting, 0);
        EXPECT_EQ(lines[i].severity, expected[i].first);
        EXPECT_EQ(lines[i].text, expected[i].second);
        EXPECT_EQ(lines[i].function, L"Test::Messages");
        EXPECT_EQ(lines[i].module, ThisProgram());
    }
}

TEST_F(Logging, FileOutputIndentsByCallDepth)
{
    wchar_t folder[MAX_PATH];
    ASSERT_NE(GetTempPathW(MAX_PATH, folder), 0u);
    std::wstring path = std::wstring(folder) + L"avscan-test-logging-" + std::to_wstring(GetCurrentProcessId()) + L".log";
    DeleteFileW(path.c_str());
    ASSERT_TRUE(avhost::ConfigureLogOutput(path, false));
    {
        CLogDLLRef holder;
        holder.Acquire();
        QV_TRACE(L"Test::Outer");
        QV_LOG(LOG_SEV_WARNING, L"inner message");
    }
    ASSERT_TRUE(avhost::ConfigureLogOutput(L"", false));

    std::ifstream file(path.c_str(), std::ios::binary);
    std::string content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    file.close();
    DeleteFileW(path.c_str());

    size_t entry = content.find("-> Test::Outer()");
    size_t message = content.find("Test::Outer: inner message");
    size_t exit = content.find("<- Test::Outer() [");
    ASSERT_NE(entry, std::string::npos) << content;
    ASSERT_NE(message, std::string::npos) << content;
    ASSERT_NE(exit, std::string::npos) << content;
    auto column = [&content](size_t at) { return at - (content.rfind('\n', at) + 1); };
    EXPECT_EQ(column(message), column(entry) + 2) << content;
    EXPECT_EQ(column(exit), column(entry)) << content;
    EXPECT_NE(content.find("WARNING"), std::string::npos);
}

TEST_F(Logging, ConcurrentWritersLoseAndTearNoLine)
{
    constexpr int kThreads = 8;
    constexpr int kLines = 250;
    const std::wstring payload(80, L'x');
    CLogDLLRef holder;
    holder.Acquire();

    std::vector<DWORD> threadIds(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &threadIds, &payload] {
            threadIds[t] = GetCurrentThreadId();
            QV_FUNCTION(L"Test::Concurrent");
            for (int i = 0; i < kLines; ++i)
                QV_LOG(LOG_SEV_DETAIL, L"thread %d line %d %s", t, i, payload.c_str());
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    std::vector<LogLine> lines = avhost::CapturedLines();
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    std::set<std::wstring> seen;
    std::map<int, int> nextLine;
    for (const LogLine& line : lines) {
        int t = -1, i = -1;
        wchar_t rest[128] = {};
        ASSERT_EQ(swscanf(line.text.c_str(), L"thread %d line %d %127ls", &t, &i, rest), 3) << line.text;
        ASSERT_TRUE(t >= 0 && t < kThreads) << line.text;
        EXPECT_EQ(rest, payload) << line.text;
        EXPECT_EQ(line.thread, threadIds[t]);
        EXPECT_EQ(i, nextLine[t]++) << "lines of one thread keep their order";
        EXPECT_TRUE(seen.insert(line.text).second) << line.text;
    }
}

TEST_F(Logging, ConcurrentTracesLoadAndUnloadSafely)
{
    constexpr int kThreads = 8;
    constexpr int kCalls = 25;
    avhost::SetLogWriteDelay(1);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < kCalls; ++i)
                TracedCall(L"Test::Race");
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    avhost::SetLogWriteDelay(0);

    EXPECT_FALSE(LogLibraryLoaded());
    std::map<DWORD, std::pair<int, int>> perThread;
    std::vector<LogLine> lines = avhost::CapturedLines();
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kCalls * 2));
    for (const LogLine& line : lines) {
        if (line.nesting == kEntry) {
            EXPECT_EQ(line.text, L"-> Test::Race()");
            ++perThread[line.thread].first;
        } else {
            EXPECT_GE(ElapsedOf(line.text, L"Test::Race()"), 0) << line.text;
            ++perThread[line.thread].second;
        }
    }
    EXPECT_EQ(perThread.size(), static_cast<size_t>(kThreads));
    for (const auto& counts : perThread) {
        EXPECT_EQ(counts.second.first, kCalls);
        EXPECT_EQ(counts.second.second, kCalls);
    }
    avhost::LogCounters counters = avhost::Counters();
    EXPECT_EQ(counters.initCalls, counters.deinitCalls);
}

} // namespace
