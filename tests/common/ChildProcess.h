#pragma once
// Runs part of a test in a child process, for behaviour that ends the process (corruption,
// lock misuse). A ChildMode registered at namespace scope runs instead of the tests when the
// executable is started with --child=<name>; RunChild starts that child and returns its exit code.
#include <windows.h>

#include <string>

namespace testing_support {

class ChildMode {
public:
    ChildMode(const char* name, void (*routine)());
};

// Exit code of the child, or 0xFFFFFFFF when it could not be started or did not end in time.
DWORD RunChild(const char* name, DWORD timeoutMs = 60000);

// Runs `program arguments` with `folder` as its current folder (none: this one); exit code as above.
DWORD RunProgram(const std::wstring& program, const std::wstring& arguments, const wchar_t* folder = nullptr,
                 DWORD timeoutMs = 60000);

} // namespace testing_support
