// Configuration and inspection entry points for the host and the tests.
#include "host/logdll/LogTestApi.h"
#include "host/logdll/LogStore.h"

#include <cwchar>

using namespace logdll;

namespace {

void CopyTruncated(const HeapString& source, wchar_t* buffer, int capacity) {
    if (buffer == nullptr || capacity <= 0) return;
    size_t count =
        source.size() < static_cast<size_t>(capacity - 1) ? source.size() : static_cast<size_t>(capacity - 1);
    wmemcpy(buffer, source.data(), count);
    buffer[count] = L'\0';
}

} // namespace

extern "C" {

int LogConfigure(const wchar_t* filePath, int toConsole) {
    LogStore* store = Store();
    if (store == nullptr) return 0;
    StoreLock guard(store);
    store->console = toConsole != 0;
    return OpenOutputFile(store, filePath) ? 1 : 0;
}

int LogTestLineCount() {
    LogStore* store = Store();
    if (store == nullptr) return 0;
    StoreLock guard(store);
    return static_cast<int>(store->records.size());
}

int LogTestGetLine(int index, LogTestLineInfo* info, wchar_t* function, int functionCapacity, wchar_t* text,
                   int textCapacity) {
    LogStore* store = Store();
    if (store == nullptr) return 0;
    StoreLock guard(store);
    if (index < 0 || static_cast<size_t>(index) >= store->records.size()) return 0;
    const LogRecord& record = store->records[static_cast<size_t>(index)];
    if (info != nullptr) {
        info->nesting = record.nesting;
        info->severity = record.severity;
        info->thread = record.thread;
        info->module = reinterpret_cast<uintptr_t>(record.module);
        info->functionLength = static_cast<int32_t>(record.function.size());
        info->textLength = static_cast<int32_t>(record.text.size());
    }
    CopyTruncated(record.function, function, functionCapacity);
    CopyTruncated(record.text, text, textCapacity);
    return 1;
}

void LogTestClear() {
    LogStore* store = Store();
    if (store == nullptr) return;
    StoreLock guard(store);
    store->records.clear();
    store->journal.clear();
}

void LogTestCounters(int* initCalls, int* deinitCalls, int* removeModuleCalls) {
    LogStore* store = Store();
    int init = 0, deinit = 0, removed = 0;
    if (store != nullptr) {
        StoreLock guard(store);
        init = store->initCalls;
        deinit = store->deinitCalls;
        removed = store->removeModuleCalls;
    }
    if (initCalls != nullptr) *initCalls = init;
    if (deinitCalls != nullptr) *deinitCalls = deinit;
    if (removeModuleCalls != nullptr) *removeModuleCalls = removed;
}

int LogTestJournal(wchar_t* buffer, int capacity) {
    LogStore* store = Store();
    if (store == nullptr) return 0;
    StoreLock guard(store);
    CopyTruncated(store->journal, buffer, capacity);
    return static_cast<int>(store->journal.size());
}

void LogTestSetWriteDelay(DWORD milliseconds) {
    LogStore* store = Store();
    if (store != nullptr) InterlockedExchange(&store->writeDelay, static_cast<LONG>(milliseconds));
}

void LogTestSetRecording(int mode) {
    LogStore* store = Store();
    if (store == nullptr) return;
    const LONG value = mode == kFormatOnly || mode == kDropLines ? static_cast<LONG>(mode) : LONG{kRecordLines};
    InterlockedExchange(&store->recording, value);
}

} // extern "C"
