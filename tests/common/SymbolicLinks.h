#pragma once
// Symbolic links for file-system tests. Where CreateSymbolicLinkW is not implemented (Wine), the
// link is planted from the Unix side: Wine maps Windows paths to Unix ones and runs Unix programs
// started from a Windows process.
#include <windows.h>

#include <string>

namespace testing_support {

bool OnWine();

// The Unix path of a Windows path under Wine; empty elsewhere.
std::string UnixPath(const std::wstring& path);

// Starts Z:\bin\<program> with the arguments. Wine hands back no process handle for Unix
// programs, so callers poll for the effect rather than wait for an exit code.
bool StartUnix(const wchar_t* program, const std::wstring& args);

// Polls `done` for the effect of a Unix program, which gives no handle to wait on; the
// thirty-second watchdog only ends a run whose program never did its work.
template <class F> bool WaitFor(F done) {
    const DWORD start = GetTickCount();
    while (GetTickCount() - start < 30000) {
        if (done()) return true;
        Sleep(20);
    }
    return done();
}

enum class LinkKind { None, Native, Unix };

// A symbolic link at `link` to `target`: natively when the platform can, else from the Unix side.
// None when neither worked.
LinkKind MakeSymbolicLink(const std::wstring& link, const std::wstring& target, bool directory);

// Removes a tree that may hold links planted from the Unix side, as `rm -rf` does (links go as
// links), and waits until it is gone.
bool RemoveTreeFromUnix(const std::wstring& path);

} // namespace testing_support
