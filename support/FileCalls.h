#pragma once
// The one table through which support/ makes every call into the file system: the native open,
// the handle queries and changes, the path and volume look-ups, the loading of a library and the
// short waits of the retries. The system's functions fill it; a test program replaces it to play
// what a volume Wine does not have (FAT, ReFS, a share, a filter driver) would answer, and to see
// the flags each call was made with.
#include <windows.h>

namespace qv {
namespace file {

struct FileCalls {
    // NtCreateFile, with its arguments as ntdll takes them (OBJECT_ATTRIBUTES and IO_STATUS_BLOCK
    // passed as void* so that this header needs no native headers); returns the NTSTATUS.
    LONG(NTAPI* ntCreateFile)
    (HANDLE* out, ACCESS_MASK access, void* attributes, void* io, LARGE_INTEGER* size, ULONG fileAttributes,
     ULONG share, ULONG disposition, ULONG options, void* ea, ULONG eaLength);
    HANDLE(WINAPI* createFile)(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE);
    BOOL(WINAPI* getInfo)(HANDLE, FILE_INFO_BY_HANDLE_CLASS, LPVOID, DWORD);
    BOOL(WINAPI* setInfo)(HANDLE, FILE_INFO_BY_HANDLE_CLASS, LPVOID, DWORD);
    BOOL(WINAPI* getFileInformation)(HANDLE, LPBY_HANDLE_FILE_INFORMATION);
    DWORD(WINAPI* finalPathName)(HANDLE, LPWSTR, DWORD, DWORD);
    DWORD(WINAPI* fullPathName)(LPCWSTR, DWORD, LPWSTR, LPWSTR*);
    BOOL(WINAPI* volumePathName)(LPCWSTR, LPWSTR, DWORD);
    HMODULE(WINAPI* loadLibraryEx)(LPCWSTR, HANDLE, DWORD);
    VOID(WINAPI* sleep)(DWORD);
};

// The table in force.
const FileCalls& Calls();
// The system's own functions.
const FileCalls& SystemCalls();
// Puts `calls` in force (null: the system's again). The table must outlive its use; a test
// replaces it while no file call of the plug-in is running.
void ReplaceCalls(const FileCalls* calls);

} // namespace file
} // namespace qv
