#include "support/NtFile.h"

#include <winternl.h>

namespace qv {
namespace file {
namespace nt {

namespace {

using NtCreateFileFn = NTSTATUS(NTAPI*)(PHANDLE, ACCESS_MASK, POBJECT_ATTRIBUTES, PIO_STATUS_BLOCK, PLARGE_INTEGER,
                                        ULONG, ULONG, ULONG, ULONG, PVOID, ULONG);
using RtlNtStatusToDosErrorFn = ULONG(NTAPI*)(NTSTATUS);

struct Native {
    NtCreateFileFn createFile;
    RtlNtStatusToDosErrorFn toDosError;
};

// Resolved once through the system's one-time initialisation: no allocation and no C++ runtime
// guard on the way, so a process short of memory gets an error code here, never an exception.
INIT_ONCE g_once = INIT_ONCE_STATIC_INIT;
Native g_native; // written once, inside the one-time call

BOOL CALLBACK ResolveNative(PINIT_ONCE, PVOID, PVOID*) {
    // ntdll is mapped into every process before any other module; it is never unloaded.
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    if (!ntdll) return TRUE; // the entries stay null and every open answers ERROR_PROC_NOT_FOUND
    g_native.createFile =
        reinterpret_cast<NtCreateFileFn>(reinterpret_cast<void*>(GetProcAddress(ntdll, "NtCreateFile")));
    g_native.toDosError = reinterpret_cast<RtlNtStatusToDosErrorFn>(
        reinterpret_cast<void*>(GetProcAddress(ntdll, "RtlNtStatusToDosError")));
    return TRUE;
}

// Null when the one-time call itself failed.
const Native* Resolved() {
    if (!InitOnceExecuteOnce(&g_once, &ResolveNative, nullptr, nullptr)) return nullptr;
    return &g_native;
}

constexpr ULONG kSynchronousIo = 0x20; // FILE_SYNCHRONOUS_IO_NONALERT
constexpr size_t kMaxNameBytes = 0xFFFE;

} // namespace

DWORD OpenRelative(HANDLE root, const wchar_t* name, size_t length, ACCESS_MASK access, ULONG share, ULONG disposition,
                   ULONG options, HANDLE* out) {
    *out = INVALID_HANDLE_VALUE;
    const Native* native = Resolved();
    if (!native || !native->createFile || !native->toDosError) return ERROR_PROC_NOT_FOUND;
    // An empty name would open the root itself; a separator would walk below it by path.
    if (!root || length == 0 || length * sizeof(wchar_t) > kMaxNameBytes) return ERROR_INVALID_NAME;
    for (size_t i = 0; i < length; ++i)
        if (name[i] == L'\\' || name[i] == L'/' || name[i] == 0) return ERROR_INVALID_NAME;
    UNICODE_STRING text;
    text.Buffer = const_cast<PWSTR>(name);
    text.Length = text.MaximumLength = static_cast<USHORT>(length * sizeof(wchar_t));
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, root, nullptr);
    IO_STATUS_BLOCK io{};
    HANDLE handle = nullptr;
    const NTSTATUS status =
        native->createFile(&handle, access | SYNCHRONIZE, &attributes, &io, nullptr, FILE_ATTRIBUTE_NORMAL, share,
                           disposition, options | kSynchronousIo, nullptr, 0);
    if (status < 0) return native->toDosError(status);
    *out = handle;
    return ERROR_SUCCESS;
}

} // namespace nt
} // namespace file
} // namespace qv
