#pragma once
// Reaches the configuration and inspection entry points of the log.dll of this process: the one
// already loaded, or else the one beside the program, loaded just for the call (so that a test
// still sees the library unloaded afterwards). The lines survive unloads of log.dll.
#include <windows.h>
#include <cstdint>
#include <string>
#include <vector>

namespace avhost {

struct LogLine {
    uint16_t nesting = 0;
    uint32_t severity = 0;
    std::wstring function;
    std::wstring text;
    DWORD thread = 0;
    HMODULE module = nullptr;
};

struct LogCounters {
    int initCalls = 0;
    int deinitCalls = 0;
    int removeModuleCalls = 0;
};

// Every line recorded since the last clear, oldest first. Empty when log.dll cannot be reached.
std::vector<LogLine> CapturedLines();
void ClearCapturedLines();
// True when the text of some recorded line contains the given text.
bool Contains(const std::wstring& text);
LogCounters Counters();
// The lifecycle calls log.dll received since the last clear, e.g.
// "LogInit;LogDeinit;LogUninitDeskMetrics;LogRemoveModule(logging::CLogDLL::~CLogDLL);".
std::wstring LifecycleJournal();
// Lines also go to a file (appended; empty path: none) and/or the standard error stream.
bool ConfigureLogOutput(const std::wstring& filePath, bool toConsole);
// Makes every later write block for that long, to widen races in fault tests; 0 turns it off.
void SetLogWriteDelay(DWORD milliseconds);
// The folder of the running program, with a trailing backslash.
std::wstring ProgramFolder();

} // namespace avhost
