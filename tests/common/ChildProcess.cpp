#include "tests/common/ChildProcess.h"

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

DWORD RunProgram(const std::wstring& program, const std::wstring& arguments, const wchar_t* folder, DWORD timeoutMs) {
    std::wstring command = L"\"" + program + L"\" " + arguments;
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!CreateProcessW(program.c_str(), &command[0], nullptr, nullptr, FALSE, 0, nullptr, folder, &startup,
                        &process)) {
        return 0xFFFFFFFF;
    }
    DWORD code = 0xFFFFFFFF;
    if (WaitForSingleObject(process.hProcess, timeoutMs) == WAIT_OBJECT_0) {
        GetExitCodeProcess(process.hProcess, &code);
    } else {
        TerminateProcess(process.hProcess, 0xFFFFFFFF);
        WaitForSingleObject(process.hProcess, 10000);
        code = 0xFFFFFFFF;
    }
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return code;
}

DWORD RunChild(const char* name, DWORD timeoutMs) {
    wchar_t exe[MAX_PATH];
    GetModuleFileNameW(nullptr, exe, MAX_PATH);
    std::wstring argument = L"--child=";
    for (const char* p = name; *p; ++p) argument += static_cast<wchar_t>(*p);
    return RunProgram(exe, argument, nullptr, timeoutMs);
}

} // namespace testing_support
