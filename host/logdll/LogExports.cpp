// The entry points that the plug-in's loader resolves by name. Only LogWrite, the lifecycle
// calls and LogRemoveModule do anything; the settings entry points accept and ignore their call,
// since this library configures itself from the host (LogConfigure) or the environment.
#include "host/logdll/LogLine.h"
#include "host/logdll/LogStore.h"

#include <cstdarg>
#include <cstdint>
#include <cwchar>

using namespace logdll;

namespace {

void Journal(const wchar_t* entry) {
    LogStore* store = Store();
    if (store == nullptr || store->recording != kRecordLines) return;
    StoreLock guard(store);
    try {
        store->journal += entry;
    } catch (...) {
    }
}

HeapString FormatText(const wchar_t* format, va_list args) {
    if (format == nullptr) return HeapString();
    va_list measure;
    va_copy(measure, args);
    int length = _vscwprintf(format, measure);
    va_end(measure);
    if (length < 0) return HeapString(format);
    HeapString text(static_cast<size_t>(length) + 1, L'\0');
    va_list copy;
    va_copy(copy, args);
    int written = _vsnwprintf(&text[0], text.size(), format, copy);
    va_end(copy);
    text.resize(written < 0 ? 0 : static_cast<size_t>(written));
    return text;
}

// Call depth of the writing thread: an entry line is written at the current depth and opens a
// level, an exit line closes one and is written at the level it closed.
int AdvanceDepth(LogStore* store, uint16_t nesting) {
    auto depth = reinterpret_cast<intptr_t>(TlsGetValue(store->depthSlot));
    if (nesting == 0xFFFF && depth > 0) --depth;
    int current = static_cast<int>(depth);
    if (nesting == 1) ++depth;
    TlsSetValue(store->depthSlot, reinterpret_cast<void*>(depth));
    return current;
}

} // namespace

extern "C" {

int LogInit() {
    LogStore* store = Store();
    if (store == nullptr) return 0;
    {
        StoreLock guard(store);
        ++store->initCalls;
    }
    Journal(L"LogInit;");
    return 1;
}

void LogDeinit() {
    LogStore* store = Store();
    if (store == nullptr) return;
    {
        StoreLock guard(store);
        ++store->deinitCalls;
    }
    Journal(L"LogDeinit;");
}

void LogUninitDeskMetrics() { Journal(L"LogUninitDeskMetrics;"); }

void LogRemoveModule(const char* name) {
    LogStore* store = Store();
    if (store == nullptr) return;
    wchar_t entry[300];
    _snwprintf(entry, 299, L"LogRemoveModule(%hs);", name != nullptr ? name : "");
    entry[299] = L'\0';
    {
        StoreLock guard(store);
        ++store->removeModuleCalls;
    }
    Journal(entry);
}

HRESULT LogWrite(uint16_t nesting, const uint32_t* severity, HMODULE module, const wchar_t* function,
                 const wchar_t* format, va_list args) {
    LogStore* store = Store();
    if (store == nullptr) return E_FAIL;
    LONG delay = store->writeDelay;
    if (delay > 0) Sleep(static_cast<DWORD>(delay));
    const LONG recording = store->recording;
    if (recording == kDropLines) return S_OK;
    try {
        if (recording == kFormatOnly) {
            FormatText(format, args);
            return S_OK;
        }
        LogRecord record{nesting,
                         severity != nullptr ? *severity : 0u,
                         GetCurrentThreadId(),
                         module,
                         HeapString(function != nullptr ? function : L""),
                         FormatText(format, args)};
        int depth = AdvanceDepth(store, nesting);
        std::wstring line = FormatLine(record, depth);
        StoreLock guard(store);
        EmitLine(store, line);
        if (store->records.size() >= kMaxRecords) store->records.pop_front();
        store->records.push_back(std::move(record));
        return S_OK;
    } catch (...) {
        return E_OUTOFMEMORY;
    }
}

int LogApplySettings() { return 0; }
int LogSetSettingsFile() { return 0; }
int LogEnable() { return 0; }
int LogSetLevel() { return 0; }
int LogSetPath() { return 0; }
int LogSetType() { return 0; }
int LogSetMode() { return 0; }
int LogSetMaxSize() { return 0; }
int LogSetDepth() { return 0; }
int LogIsEnabled() { return 1; }
int LogMonitorSettings() { return 0; }
int LogTrackEvent() { return 0; }
int LogTrackEventData() { return 0; }
uint32_t LogGetLevel() { return 0xFFFFFFFFu; }

} // extern "C"
