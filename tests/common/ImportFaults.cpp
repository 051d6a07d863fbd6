#include "tests/common/ImportFaults.h"

#include <winternl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <malloc.h>

namespace testing_support {
namespace {

volatile LONG g_armed;   // 0 none, else 1 + Kind
volatile LONG g_failAt;  // 0: count only
volatile LONG g_counted; // calls of the armed kind since Arm
volatile LONG g_reached;
size_t* g_sizes;
long g_sizesRoom;
void* g_failedFrames[12];
volatile LONG g_failedDepth;
DWORD g_error = ERROR_ACCESS_DENIED;

wchar_t g_confined[MAX_PATH];
volatile LONG g_outside;
wchar_t g_firstOutside[MAX_PATH];

bool FailNow(ImportFaults::Kind kind, size_t bytes = 0) {
    if (g_armed != static_cast<LONG>(kind) + 1) return false;
    const LONG n = InterlockedIncrement(&g_counted);
    if (g_sizes && n <= g_sizesRoom) g_sizes[n - 1] = bytes;
    if (n != g_failAt) return false;
    g_failedDepth = CaptureStackBackTrace(2, 12, g_failedFrames, nullptr);
    InterlockedExchange(&g_reached, 1);
    return true;
}

// "\\?\C:\x" and "C:\x" name the same place; folders compare without regard to case.
void NotePath(const wchar_t* path) {
    if (!g_confined[0] || !path) return;
    if (wcsncmp(path, L"\\\\?\\", 4) == 0) path += 4;
    const size_t n = wcslen(g_confined);
    if (_wcsnicmp(path, g_confined, n) == 0 && (path[n] == 0 || path[n] == L'\\')) return;
    if (InterlockedIncrement(&g_outside) == 1) wcsncpy_s(g_firstOutside, MAX_PATH, path, _TRUNCATE);
}

using MallocFn = void*(__cdecl*)(size_t);
using CallocFn = void*(__cdecl*)(size_t, size_t);
using ReallocFn = void*(__cdecl*)(void*, size_t);
using CreateFileWFn = HANDLE(WINAPI*)(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE);
using ReadFileFn = BOOL(WINAPI*)(HANDLE, LPVOID, DWORD, LPDWORD, LPOVERLAPPED);
using FindFirstFileWFn = HANDLE(WINAPI*)(LPCWSTR, LPWIN32_FIND_DATAW);
using FindNextFileWFn = BOOL(WINAPI*)(HANDLE, LPWIN32_FIND_DATAW);
using SetFileInformationByHandleFn = BOOL(WINAPI*)(HANDLE, FILE_INFO_BY_HANDLE_CLASS, LPVOID, DWORD);
using GetFileInformationByHandleFn = BOOL(WINAPI*)(HANDLE, LPBY_HANDLE_FILE_INFORMATION);
using GetFileInformationByHandleExFn = BOOL(WINAPI*)(HANDLE, FILE_INFO_BY_HANDLE_CLASS, LPVOID, DWORD);
using CreateDirectoryWFn = BOOL(WINAPI*)(LPCWSTR, LPSECURITY_ATTRIBUTES);
using GetProcAddressFn = FARPROC(WINAPI*)(HMODULE, LPCSTR);
using NtCreateFileFn = NTSTATUS(NTAPI*)(PHANDLE, ACCESS_MASK, POBJECT_ATTRIBUTES, PIO_STATUS_BLOCK, PLARGE_INTEGER,
                                        ULONG, ULONG, ULONG, ULONG, PVOID, ULONG);

MallocFn realMalloc;
CallocFn realCalloc;
ReallocFn realRealloc;
CreateFileWFn realCreateFileW;
ReadFileFn realReadFile;
FindFirstFileWFn realFindFirstFileW;
FindNextFileWFn realFindNextFileW;
SetFileInformationByHandleFn realSetFileInformationByHandle;
GetFileInformationByHandleFn realGetFileInformationByHandle;
GetFileInformationByHandleExFn realGetFileInformationByHandleEx;
CreateDirectoryWFn realCreateDirectoryW;
GetProcAddressFn realGetProcAddress;
NtCreateFileFn realNtCreateFile;

void* __cdecl HookMalloc(size_t bytes) {
    if (FailNow(ImportFaults::Kind::Allocation, bytes)) {
        errno = ENOMEM;
        return nullptr;
    }
    return realMalloc(bytes);
}
void* __cdecl HookCalloc(size_t count, size_t bytes) {
    if (FailNow(ImportFaults::Kind::Allocation, count * bytes)) {
        errno = ENOMEM;
        return nullptr;
    }
    return realCalloc(count, bytes);
}
// A resize to zero frees: it is not an allocation.
void* __cdecl HookRealloc(void* block, size_t bytes) {
    if (bytes && FailNow(ImportFaults::Kind::Allocation, bytes)) {
        errno = ENOMEM;
        return nullptr;
    }
    return realRealloc(block, bytes);
}

bool FailFile() {
    if (!FailNow(ImportFaults::Kind::File)) return false;
    SetLastError(g_error);
    return true;
}

HANDLE WINAPI HookCreateFileW(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                              DWORD disposition, DWORD flags, HANDLE model) {
    NotePath(path);
    if (FailFile()) return INVALID_HANDLE_VALUE;
    return realCreateFileW(path, access, share, security, disposition, flags, model);
}
BOOL WINAPI HookReadFile(HANDLE file, LPVOID buffer, DWORD size, LPDWORD read, LPOVERLAPPED overlapped) {
    if (FailFile()) return FALSE;
    return realReadFile(file, buffer, size, read, overlapped);
}
HANDLE WINAPI HookFindFirstFileW(LPCWSTR pattern, LPWIN32_FIND_DATAW data) {
    NotePath(pattern);
    if (FailFile()) return INVALID_HANDLE_VALUE;
    return realFindFirstFileW(pattern, data);
}
BOOL WINAPI HookFindNextFileW(HANDLE find, LPWIN32_FIND_DATAW data) {
    if (FailFile()) return FALSE;
    return realFindNextFileW(find, data);
}
BOOL WINAPI HookSetFileInformationByHandle(HANDLE file, FILE_INFO_BY_HANDLE_CLASS kind, LPVOID data, DWORD size) {
    if (FailFile()) return FALSE;
    return realSetFileInformationByHandle(file, kind, data, size);
}
BOOL WINAPI HookGetFileInformationByHandle(HANDLE file, LPBY_HANDLE_FILE_INFORMATION data) {
    if (FailFile()) return FALSE;
    return realGetFileInformationByHandle(file, data);
}
BOOL WINAPI HookGetFileInformationByHandleEx(HANDLE file, FILE_INFO_BY_HANDLE_CLASS kind, LPVOID data, DWORD size) {
    if (FailFile()) return FALSE;
    return realGetFileInformationByHandleEx(file, kind, data, size);
}
BOOL WINAPI HookCreateDirectoryW(LPCWSTR path, LPSECURITY_ATTRIBUTES security) {
    NotePath(path);
    if (FailFile()) return FALSE;
    return realCreateDirectoryW(path, security);
}

NTSTATUS StatusOf(DWORD error) {
    switch (error) {
    case ERROR_SHARING_VIOLATION:
        return static_cast<NTSTATUS>(0xC0000043L);
    case ERROR_DISK_FULL:
        return static_cast<NTSTATUS>(0xC000007FL);
    default:
        return static_cast<NTSTATUS>(0xC0000022L); // access denied
    }
}

// Names are relative to a folder handle opened by path, and that path was checked.
NTSTATUS NTAPI HookNtCreateFile(PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes, PIO_STATUS_BLOCK io,
                                PLARGE_INTEGER size, ULONG fileAttributes, ULONG share, ULONG disposition,
                                ULONG options, PVOID ea, ULONG eaLength) {
    if (FailNow(ImportFaults::Kind::File)) return StatusOf(g_error);
    return realNtCreateFile(handle, access, attributes, io, size, fileAttributes, share, disposition, options, ea,
                            eaLength);
}

FARPROC WINAPI HookGetProcAddress(HMODULE module, LPCSTR name) {
    FARPROC found = realGetProcAddress(module, name);
    const bool byName = reinterpret_cast<ULONG_PTR>(name) > 0xFFFF;
    if (!found || !byName || strcmp(name, "NtCreateFile") != 0) return found;
    realNtCreateFile = reinterpret_cast<NtCreateFileFn>(reinterpret_cast<void*>(found));
    return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&HookNtCreateFile));
}

template <class Fn> bool Patch(HMODULE module, const char* library, const char* function, Fn hook, Fn* real) {
    auto* base = reinterpret_cast<BYTE*>(module);
    auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const IMAGE_DATA_DIRECTORY& imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (!imports.VirtualAddress) return false;
    for (auto* d = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress); d->Name; ++d) {
        if (_stricmp(reinterpret_cast<const char*>(base + d->Name), library) != 0) continue;
        auto* names =
            reinterpret_cast<IMAGE_THUNK_DATA*>(base + (d->OriginalFirstThunk ? d->OriginalFirstThunk : d->FirstThunk));
        auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + d->FirstThunk);
        for (; names->u1.AddressOfData; ++names, ++slots) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
            const auto* byName = reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
            if (strcmp(reinterpret_cast<const char*>(byName->Name), function) != 0) continue;
            DWORD old = 0;
            if (!VirtualProtect(&slots->u1.Function, sizeof slots->u1.Function, PAGE_READWRITE, &old)) return false;
            *real = reinterpret_cast<Fn>(slots->u1.Function);
            slots->u1.Function = reinterpret_cast<ULONG_PTR>(hook);
            VirtualProtect(&slots->u1.Function, sizeof slots->u1.Function, old, &old);
            return true;
        }
    }
    return false;
}

} // namespace

bool PatchImport(HMODULE module, const char* library, const char* function, void* hook, void** real) {
    return Patch(module, library, function, hook, real);
}

bool ImportFaults::Install(HMODULE module) {
    bool ok = true;
    ok &= Patch(module, "msvcrt.dll", "malloc", &HookMalloc, &realMalloc);
    ok &= Patch(module, "msvcrt.dll", "calloc", &HookCalloc, &realCalloc);
    ok &= Patch(module, "msvcrt.dll", "realloc", &HookRealloc, &realRealloc);
    ok &= Patch(module, "kernel32.dll", "CreateFileW", &HookCreateFileW, &realCreateFileW);
    ok &= Patch(module, "kernel32.dll", "ReadFile", &HookReadFile, &realReadFile);
    ok &= Patch(module, "kernel32.dll", "FindFirstFileW", &HookFindFirstFileW, &realFindFirstFileW);
    ok &= Patch(module, "kernel32.dll", "FindNextFileW", &HookFindNextFileW, &realFindNextFileW);
    ok &= Patch(module, "kernel32.dll", "SetFileInformationByHandle", &HookSetFileInformationByHandle,
                &realSetFileInformationByHandle);
    ok &= Patch(module, "kernel32.dll", "GetFileInformationByHandle", &HookGetFileInformationByHandle,
                &realGetFileInformationByHandle);
    ok &= Patch(module, "kernel32.dll", "GetFileInformationByHandleEx", &HookGetFileInformationByHandleEx,
                &realGetFileInformationByHandleEx);
    ok &= Patch(module, "kernel32.dll", "CreateDirectoryW", &HookCreateDirectoryW, &realCreateDirectoryW);
    ok &= Patch(module, "kernel32.dll", "GetProcAddress", &HookGetProcAddress, &realGetProcAddress);
    return ok;
}

void ImportFaults::Arm(Kind kind, long failAt, DWORD error) {
    InterlockedExchange(&g_armed, 0);
    g_error = error;
    InterlockedExchange(&g_counted, 0);
    InterlockedExchange(&g_reached, 0);
    g_failedDepth = 0;
    InterlockedExchange(&g_failAt, failAt);
    InterlockedExchange(&g_armed, static_cast<LONG>(kind) + 1);
}

bool ImportFaults::Disarm() {
    InterlockedExchange(&g_armed, 0);
    return g_reached != 0;
}

long ImportFaults::Counted() { return g_counted; }

void ImportFaults::KeepSizes(size_t* into, long room) {
    g_sizes = into;
    g_sizesRoom = into ? room : 0;
}
int ImportFaults::FailedStack(void** frames, int room) {
    int n = 0;
    for (; n < g_failedDepth && n < room; ++n) frames[n] = g_failedFrames[n];
    return n;
}

void ImportFaults::Confine(const wchar_t* folder) {
    wcsncpy_s(g_confined, MAX_PATH, folder ? folder : L"", _TRUNCATE);
    InterlockedExchange(&g_outside, 0);
    g_firstOutside[0] = 0;
}

long ImportFaults::OutsideCount() { return g_outside; }
const wchar_t* ImportFaults::FirstOutside() { return g_firstOutside; }

HeapUse CrtHeapInUse() {
    HeapUse use;
    HANDLE heap = reinterpret_cast<HANDLE>(_get_heap_handle());
    if (!HeapLock(heap)) return use;
    PROCESS_HEAP_ENTRY entry{};
    while (HeapWalk(heap, &entry)) {
        if (!(entry.wFlags & PROCESS_HEAP_ENTRY_BUSY)) continue;
        use.bytes += entry.cbData;
        ++use.blocks;
    }
    HeapUnlock(heap);
    return use;
}

} // namespace testing_support
