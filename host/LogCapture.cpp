#include "host/LogCapture.h"

#include "host/logdll/LogTestApi.h"

namespace avhost {
namespace {

// A reference on log.dll for the length of one call.
class LogLibrary {
public:
    LogLibrary() {
        if (!GetModuleHandleExW(0, L"log.dll", &module_))
            module_ = LoadLibraryW((ProgramFolder() + L"log.dll").c_str());
    }
    ~LogLibrary() {
        if (module_ != nullptr) FreeLibrary(module_);
    }
    LogLibrary(const LogLibrary&) = delete;
    LogLibrary& operator=(const LogLibrary&) = delete;

    template <class Fn> Fn Entry(const char* name) const {
        if (module_ == nullptr) return nullptr;
        return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module_, name)));
    }

private:
    HMODULE module_ = nullptr;
};

bool ReadLine(LogTestGetLineFn getLine, int index, LogLine& line) {
    LogTestLineInfo info{};
    if (!getLine(index, &info, nullptr, 0, nullptr, 0)) return false;
    std::vector<wchar_t> function(static_cast<size_t>(info.functionLength) + 1);
    std::vector<wchar_t> text(static_cast<size_t>(info.textLength) + 1);
    if (!getLine(index, &info, function.data(), static_cast<int>(function.size()), text.data(),
                 static_cast<int>(text.size())))
        return false;
    line.nesting = info.nesting;
    line.severity = info.severity;
    line.thread = info.thread;
    line.module = reinterpret_cast<HMODULE>(static_cast<uintptr_t>(info.module));
    line.function = function.data();
    line.text = text.data();
    return true;
}

} // namespace

std::wstring ProgramFolder() {
    std::vector<wchar_t> path(32768);
    DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    std::wstring folder(path.data(), length);
    size_t slash = folder.rfind(L'\\');
    folder.erase(slash == std::wstring::npos ? 0 : slash + 1);
    return folder;
}

std::vector<LogLine> CapturedLines() {
    std::vector<LogLine> lines;
    LogLibrary library;
    auto count = library.Entry<LogTestLineCountFn>("LogTestLineCount");
    auto getLine = library.Entry<LogTestGetLineFn>("LogTestGetLine");
    if (count == nullptr || getLine == nullptr) return lines;
    int total = count();
    lines.reserve(static_cast<size_t>(total));
    for (int index = 0; index < total; ++index) {
        LogLine line;
        if (!ReadLine(getLine, index, line)) break;
        lines.push_back(std::move(line));
    }
    return lines;
}

void ClearCapturedLines() {
    LogLibrary library;
    if (auto clear = library.Entry<LogTestClearFn>("LogTestClear")) clear();
}

bool Contains(const std::wstring& text) {
    for (const LogLine& line : CapturedLines()) {
        if (line.text.find(text) != std::wstring::npos) return true;
    }
    return false;
}

LogCounters Counters() {
    LogCounters counters;
    LogLibrary library;
    if (auto read = library.Entry<LogTestCountersFn>("LogTestCounters"))
        read(&counters.initCalls, &counters.deinitCalls, &counters.removeModuleCalls);
    return counters;
}

std::wstring LifecycleJournal() {
    LogLibrary library;
    auto journal = library.Entry<LogTestJournalFn>("LogTestJournal");
    if (journal == nullptr) return std::wstring();
    std::vector<wchar_t> buffer(static_cast<size_t>(journal(nullptr, 0)) + 1);
    journal(buffer.data(), static_cast<int>(buffer.size()));
    return buffer.data();
}

bool ConfigureLogOutput(const std::wstring& filePath, bool toConsole) {
    LogLibrary library;
    auto configure = library.Entry<LogConfigureFn>("LogConfigure");
    return configure != nullptr && configure(filePath.c_str(), toConsole ? 1 : 0) != 0;
}

void SetLogWriteDelay(DWORD milliseconds) {
    LogLibrary library;
    if (auto setDelay = library.Entry<LogTestSetWriteDelayFn>("LogTestSetWriteDelay")) setDelay(milliseconds);
}

} // namespace avhost
