#include "tests/common/ChildProcess.h"

#include <string>

namespace testing_support {

ChildMode::ChildMode(const char* name, void (*routine)()) {
    std::string wanted = std::string("--child=") + name;
    std::string line = GetCommandLineA();
    size_t at = line.find(wanted);
    if (at == std::string::npos) return;
    size_t end = at + wanted.size();
    if (end < line.size() && line[end] != ' ' && line[end] != '"') return;
    routine();
    ExitProcess(0);
}

DWORD RunChild(const char* name, DWORD timeoutMs) {
    wchar_t exe[MAX_PATH];
    GetModuleFileNameW(nullptr, exe, MAX_PATH);
    std::wstring command = L"\"" + std::wstring(exe) + L"\" --child=";
    for (const char* p = name; *p; ++p) command += static_cast<wchar_t>(*p);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process)) {
        return 0xFFFFFFFF;
    }
    DWORD code = 0xFFFFFFFF;
    if (WaitForSingleObject(process.hProcess, timeoutMs) == WAIT_OBJECT_0) {
        GetExitCodeProcess(process.hProcess, &code);
    } else {
        TerminateProcess(process.hProcess, 0xFFFFFFFF);
    }
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return code;
}

} // namespace testing_support
