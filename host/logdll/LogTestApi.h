#pragma once
// The test and configuration entry points that this build's log.dll offers beside the ones the
// plug-in resolves. Shared by log.dll and by the host-side helper that reads them.
#include <windows.h>
#include <cstdint>

extern "C" {

// One recorded line, without its two strings; their lengths (in wide characters, without the
// terminating zero) tell the caller how much room to offer.
struct LogTestLineInfo {
    uint16_t nesting;
    uint32_t severity;
    uint32_t thread;
    uint64_t module;
    int32_t functionLength;
    int32_t textLength;
};

// Output besides the in-memory lines: a file (appended, UTF-8; null or empty closes it) and/or
// the process's standard error. Returns 0 when the file cannot be opened.
using LogConfigureFn = int (*)(const wchar_t* filePath, int toConsole);
using LogTestLineCountFn = int (*)();
// Returns 0 when index is out of range. Strings are truncated to the capacities and always
// zero-terminated when a buffer is given.
using LogTestGetLineFn = int (*)(int index, LogTestLineInfo* info, wchar_t* function, int functionCapacity,
                                 wchar_t* text, int textCapacity);
// Forgets the recorded lines and the lifecycle journal; the counters keep counting.
using LogTestClearFn = void (*)();
using LogTestCountersFn = void (*)(int* initCalls, int* deinitCalls, int* removeModuleCalls);
// The lifecycle calls received so far, as "LogInit;LogDeinit;LogUninitDeskMetrics;
// LogRemoveModule(name);". Returns the full length; copies what fits, zero-terminated.
using LogTestJournalFn = int (*)(wchar_t* buffer, int capacity);
// Makes every write block for that many milliseconds before it records its line.
using LogTestSetWriteDelayFn = void (*)(DWORD milliseconds);
// What every later write keeps: 0 records and emits its line (the default), 1 only formats the
// message text, 2 does nothing. Besides 0 the lifecycle journal is not kept either. For the
// benchmarks, which compare writers without the cost of the store.
using LogTestSetRecordingFn = void (*)(int mode);

} // extern "C"
