#pragma once
// The few native calls the file helpers need, resolved from ntdll at run time so that the
// plug-in's import list stays what the host expects. Only for support/.
#include <windows.h>

namespace qv {
namespace file {
namespace nt {

// Opens or creates `name` (length in characters, not NUL-terminated) relative to the folder
// `root`, never by path. `options` are NtCreateFile's create options; FILE_SYNCHRONOUS_IO_NONALERT is always
// added. Returns a Win32 error code; on success `out` holds the handle.
DWORD OpenRelative(HANDLE root, const wchar_t* name, size_t length, ACCESS_MASK access, ULONG share, ULONG disposition,
                   ULONG options, HANDLE* out);

// Creates the file `name` relative to `root` (FILE_CREATE, the name itself never followed, no
// reparse point crossed where the system can refuse one). As OpenRelative otherwise.
DWORD CreateRelative(HANDLE root, const wchar_t* name, size_t length, ACCESS_MASK access, ULONG share, HANDLE* out);

// NtCreateFile of ntdll, or STATUS_PROCEDURE_NOT_FOUND where it cannot be found: the system's
// entry of the file-call table (support/FileCalls.h).
LONG NTAPI SystemNtCreateFile(HANDLE* out, ACCESS_MASK access, void* attributes, void* io, LARGE_INTEGER* size,
                              ULONG fileAttributes, ULONG share, ULONG disposition, ULONG options, void* ea,
                              ULONG eaLength);

// NtCreateFile's dispositions and options used here.
constexpr ULONG kFileOpen = 1;        // FILE_OPEN
constexpr ULONG kFileCreate = 2;      // FILE_CREATE
constexpr ULONG kDirectoryFile = 0x1; // FILE_DIRECTORY_FILE
constexpr ULONG kNonDirectoryFile = 0x40;
constexpr ULONG kOpenReparsePoint = 0x200000;
// OBJECT_ATTRIBUTES flags.
constexpr ULONG kObjCaseInsensitive = 0x40;
constexpr ULONG kObjDontReparse = 0x1000;

} // namespace nt
} // namespace file
} // namespace qv
