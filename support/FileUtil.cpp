#include "support/FileUtil.h"

#include "support/FolderHandle.h"

#include <windows.h>
#include <shlwapi.h>

// Start of the module this code is linked into (the plug-in, or a test program).
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's name for it.
extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace qv {
namespace file {

namespace {

constexpr size_t kRoom = 64;
constexpr size_t kMaxModulePath = 32768;

void MakeRoom(StringW& s) {
    size_t need = s.Length() + kRoom;
    if (!s.HasStorage() || s.Capacity() < need) s.Reserve(need);
}

void SyncLength(StringW& s) { s.SetLength(wcslen(s.Buffer())); }

bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }

// The shell path functions and the classic file API stop at MAX_PATH.
bool TooLong(const wchar_t* path) { return wcsnlen(path, MAX_PATH) >= MAX_PATH; }

} // namespace

void RemoveBackslash(StringW& path) {
    MakeRoom(path);
    (void)PathRemoveBackslashW(path.Buffer());
    SyncLength(path);
}

bool RemoveFileName(StringW& path) {
    MakeRoom(path);
    BOOL removed = PathRemoveFileSpecW(path.Buffer());
    SyncLength(path);
    return removed != FALSE;
}

bool GetModuleFolder(StringW& folder) {
    HMODULE self = reinterpret_cast<HMODULE>(&__ImageBase);
    // Start from a full classic path and grow for long-path installations.
    size_t cap = folder.Capacity() > MAX_PATH ? folder.Capacity() : MAX_PATH;
    for (;;) {
        if (!folder.HasStorage() || folder.Capacity() < cap) folder.Reserve(cap);
        DWORD n = GetModuleFileNameW(self, folder.Buffer(), static_cast<DWORD>(cap));
        if (n == 0) {
            folder.SetLength(0);
            return false;
        }
        if (n < cap) {
            folder.SetLength(n);
            break;
        }
        if (cap >= kMaxModulePath) {
            folder.SetLength(0);
            return false;
        }
        cap *= 2;
    }
    RemoveFileName(folder);
    MakeRoom(folder);
    if (!PathAddBackslashW(folder.Buffer())) {
        SyncLength(folder);
        if (!folder.EndsWith(L'\\')) folder.Append(L'\\');
        return true;
    }
    SyncLength(folder);
    return true;
}

bool JoinPath(StringW& base, const wchar_t* name) {
    if (!base.IsEmpty() && !IsSeparator(base[base.Length() - 1])) base.Append(L'\\');
    if (name) {
        while (IsSeparator(*name)) ++name;
        base.Append(name);
    }
    return true;
}

bool CreateFolderTree(const wchar_t* path) {
    if (!path || !*path || TooLong(path)) return false;
    if (PathFileExistsW(path)) return true;
    StringW parent(path);
    RemoveBackslash(parent);
    if (RemoveFileName(parent) && !parent.IsEmpty() && !CreateFolderTree(parent)) return false;
    return CreateDirectoryW(path, nullptr) || GetLastError() == ERROR_ALREADY_EXISTS;
}

bool DeleteFolderTree(const wchar_t* path) {
    if (!path || !*path || TooLong(path)) return false;
    // "link\" would reach through the link to its target: look at the name itself.
    StringW folder(path);
    RemoveBackslash(folder);
    if (!PathFileExistsW(folder) || !PathIsDirectoryW(folder)) return false;
    const StringW name(PathFindFileNameW(folder.c_str()));
    StringW parent(folder);
    // A root has no parent to delete it from.
    if (!RemoveFileName(parent) || parent.Length() == folder.Length() || name.IsEmpty()) return false;
    if (parent.IsEmpty()) parent = L".";
    FolderHandle base;
    if (base.Open(parent) != ERROR_SUCCESS) return false;
    return DeleteFolderNamed(base, parent, name.c_str(), name.Length(), NoteFn()) == EntryResult::Done;
}

} // namespace file
} // namespace qv
