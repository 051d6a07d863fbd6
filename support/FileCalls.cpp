#include "support/FileCalls.h"

#include "support/NtFile.h"

#include <atomic>

namespace qv {
namespace file {

namespace {

// The system's functions are imported, and an imported function's address is known only once the
// module is bound; these forwarders are this module's own, so the table below is made at compile
// time and is complete before any code of the module runs, a static initialiser's included.
HANDLE WINAPI SystemCreateFile(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                               DWORD disposition, DWORD flags, HANDLE templ) {
    return CreateFileW(path, access, share, security, disposition, flags, templ);
}
BOOL WINAPI SystemGetInfo(HANDLE h, FILE_INFO_BY_HANDLE_CLASS type, LPVOID buffer, DWORD size) {
    return GetFileInformationByHandleEx(h, type, buffer, size);
}
BOOL WINAPI SystemSetInfo(HANDLE h, FILE_INFO_BY_HANDLE_CLASS type, LPVOID buffer, DWORD size) {
    return SetFileInformationByHandle(h, type, buffer, size);
}
BOOL WINAPI SystemFileInformation(HANDLE h, LPBY_HANDLE_FILE_INFORMATION info) {
    return GetFileInformationByHandle(h, info);
}
DWORD WINAPI SystemFinalPathName(HANDLE h, LPWSTR buffer, DWORD size, DWORD flags) {
    return GetFinalPathNameByHandleW(h, buffer, size, flags);
}
DWORD WINAPI SystemFullPathName(LPCWSTR path, DWORD size, LPWSTR buffer, LPWSTR* part) {
    return GetFullPathNameW(path, size, buffer, part);
}
BOOL WINAPI SystemVolumePathName(LPCWSTR path, LPWSTR buffer, DWORD size) {
    return GetVolumePathNameW(path, buffer, size);
}
HMODULE WINAPI SystemLoadLibraryEx(LPCWSTR path, HANDLE file, DWORD flags) { return LoadLibraryExW(path, file, flags); }
VOID WINAPI SystemSleep(DWORD milliseconds) { Sleep(milliseconds); }

constexpr FileCalls kSystem = {
    &nt::SystemNtCreateFile, &SystemCreateFile,   &SystemGetInfo,        &SystemSetInfo,       &SystemFileInformation,
    &SystemFinalPathName,    &SystemFullPathName, &SystemVolumePathName, &SystemLoadLibraryEx, &SystemSleep,
};

std::atomic<const FileCalls*> g_calls{&kSystem};

} // namespace

const FileCalls& Calls() { return *g_calls.load(std::memory_order_acquire); }

const FileCalls& SystemCalls() { return kSystem; }

void ReplaceCalls(const FileCalls* calls) { g_calls.store(calls ? calls : &kSystem, std::memory_order_release); }

} // namespace file
} // namespace qv
