#include "tests/common/SymbolicLinks.h"

namespace testing_support {

namespace {

bool Exists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

std::wstring Quoted(const std::string& s) { return L"\"" + std::wstring(s.begin(), s.end()) + L"\""; }

} // namespace

bool OnWine() { return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr; }

std::string UnixPath(const std::wstring& path) {
    using Fn = char*(CDECL*)(const wchar_t*);
    auto fn = reinterpret_cast<Fn>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
    if (!fn) return std::string();
    char* unix = fn(path.c_str());
    std::string out = unix ? unix : "";
    HeapFree(GetProcessHeap(), 0, unix);
    return out;
}

bool StartUnix(const wchar_t* program, const std::wstring& args) {
    std::wstring cmd = std::wstring(program) + L" " + args;
    std::wstring app = std::wstring(L"Z:\\bin\\") + program;
    STARTUPINFOW si{};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi{};
    if (!CreateProcessW(app.c_str(), &cmd[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) return false;
    if (pi.hProcess) {
        WaitForSingleObject(pi.hProcess, 30000);
        CloseHandle(pi.hProcess);
    }
    if (pi.hThread) CloseHandle(pi.hThread);
    return true;
}

LinkKind MakeSymbolicLink(const std::wstring& link, const std::wstring& target, bool directory) {
    DWORD flags = (directory ? SYMBOLIC_LINK_FLAG_DIRECTORY : 0) | 0x2 /* unprivileged */;
    if (CreateSymbolicLinkW(link.c_str(), target.c_str(), flags) && Exists(link)) return LinkKind::Native;
    std::string unixLink = UnixPath(link), unixTarget = UnixPath(target);
    if (unixLink.empty() || unixTarget.empty()) return LinkKind::None;
    if (!StartUnix(L"ln", L"-s " + Quoted(unixTarget) + L" " + Quoted(unixLink))) return LinkKind::None;
    return WaitFor([&] { return Exists(link); }) ? LinkKind::Unix : LinkKind::None;
}

bool RemoveTreeFromUnix(const std::wstring& path) {
    std::string unix = UnixPath(path);
    if (unix.empty() || !StartUnix(L"rm", L"-rf " + Quoted(unix))) return false;
    return WaitFor([&] { return !Exists(path); });
}

} // namespace testing_support
