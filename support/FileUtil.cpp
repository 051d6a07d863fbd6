#include "support/FileUtil.h"

#include <windows.h>
#include <shlwapi.h>

// Start of the module this code is linked into (the plug-in, or a test program).
extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace qv { namespace file {

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

bool SameText(const StringW& a, const StringW& b) {
    return CompareStringOrdinal(a.c_str(), static_cast<int>(a.Length()), b.c_str(),
                                static_cast<int>(b.Length()), TRUE) == CSTR_EQUAL;
}

// Opens the entry a path names, not a link's target where the platform honours that.
HANDLE OpenEntry(const wchar_t* path, DWORD access) {
    return CreateFileW(path, access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                       OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
}

// What an open handle really names.
bool HandleName(HANDLE h, StringW& out) {
    const DWORD cap = 1024;
    if (!out.HasStorage() || out.Capacity() < cap) out.Reserve(cap);
    DWORD n = GetFinalPathNameByHandleW(h, out.Buffer(), cap, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    if (n == 0 || n >= cap) return false;
    out.SetLength(n);
    return true;
}

// What a path really names, without following a link at its end.
bool FinalName(const wchar_t* path, StringW& out) {
    HANDLE h = OpenEntry(path, FILE_READ_ATTRIBUTES);
    if (h == INVALID_HANDLE_VALUE) return false;
    const bool named = HandleName(h, out);
    CloseHandle(h);
    return named;
}

// True when opening the entry reaches the entry itself. Some platforms resolve symbolic links
// even when asked not to, and do not always flag them as reparse points; deleting through such
// a path would hit the link's target, so these entries are never deleted by name.
bool NamesItself(const StringW& path, const StringW& expected) {
    StringW real;
    return FinalName(path, real) && SameText(real, expected);
}

bool ClearReadOnly(const wchar_t* path) {
    DWORD attr = GetFileAttributesW(path);
    return attr != INVALID_FILE_ATTRIBUTES &&
           SetFileAttributesW(path, attr & ~static_cast<DWORD>(FILE_ATTRIBUTE_READONLY));
}

bool DeleteFileOrReadOnly(const wchar_t* path) {
    if (DeleteFileW(path)) return true;
    if (GetLastError() != ERROR_ACCESS_DENIED || !ClearReadOnly(path)) return false;
    return DeleteFileW(path) != FALSE;
}

bool RemoveFolderOrReadOnly(const wchar_t* path) {
    if (RemoveDirectoryW(path)) return true;
    if (GetLastError() != ERROR_ACCESS_DENIED || !ClearReadOnly(path)) return false;
    return RemoveDirectoryW(path) != FALSE;
}

// A link goes as a link: RemoveDirectoryW and DeleteFileW act on the link, not on its target.
bool RemoveLink(const wchar_t* path, DWORD attr) {
    return (attr & FILE_ATTRIBUTE_DIRECTORY) ? RemoveDirectoryW(path) != FALSE
                                             : DeleteFileW(path) != FALSE;
}

// Where the platform resolved a link to a file (the name opens as something else), deleting
// the name would delete the file it points to. Renaming a fresh file onto the name replaces the
// directory entry itself, since a rename never follows a link at its destination; that fresh
// file is deleted only once the name is seen to open as itself. A link to a folder cannot be
// replaced this way and stays where it is.
bool ReplaceLinkToFile(const StringW& path, const StringW& expected) {
    StringW folder(path);
    if (!RemoveFileName(folder)) return false;
    for (int attempt = 0; attempt < 16; ++attempt) {
        StringW name;
        name.Format(L"~avdel%08lx%02d.tmp", static_cast<unsigned long>(GetTickCount()), attempt);
        StringW temp(folder);
        JoinPath(temp, name);
        if (temp.Length() >= MAX_PATH) return false;
        HANDLE h = CreateFileW(temp, GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (h == INVALID_HANDLE_VALUE) {
            if (GetLastError() == ERROR_FILE_EXISTS) continue;
            return false;
        }
        CloseHandle(h);
        if (!MoveFileExW(temp, path, MOVEFILE_REPLACE_EXISTING)) {
            DeleteFileW(temp);
            return false;
        }
        return NamesItself(path, expected) && DeleteFileW(path) != FALSE;
    }
    return false;
}

// A plain file is checked and deleted through one handle: what is deleted is exactly what was
// found to name itself, and the file is opened once rather than twice (on a platform that
// resolves links the check costs a request to the system for every file, so the delete must
// not cost another). A read-only file refuses the deletion here and goes the way by name.
bool DeleteCheckedFile(const StringW& path, const StringW& expected) {
    HANDLE h = OpenEntry(path, DELETE | FILE_READ_ATTRIBUTES);
    if (h == INVALID_HANDLE_VALUE) return false;
    StringW real;
    FILE_DISPOSITION_INFO disposition{TRUE};
    const bool deleted = HandleName(h, real) && SameText(real, expected) &&
                         SetFileInformationByHandle(h, FileDispositionInfo, &disposition, sizeof disposition);
    CloseHandle(h);
    return deleted;
}

// One entry that is not walked into: a file, or any kind of link.
bool DeleteLeaf(const StringW& path, const StringW& expected, DWORD attr) {
    // Anything short of a checked delete (a link, no delete access, a failure) goes the way
    // below, by name after looking at the name again; that way is the same as before.
    if (!(attr & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY)) && DeleteCheckedFile(path, expected))
        return true;
    StringW real;
    if (!FinalName(path, real)) return false;
    if (SameText(real, expected)) {
        if (attr & FILE_ATTRIBUTE_REPARSE_POINT) return RemoveLink(path, attr);
        return DeleteFileOrReadOnly(path);
    }
    if (attr & FILE_ATTRIBUTE_DIRECTORY) return false;
    return ReplaceLinkToFile(path, expected);
}

bool DeleteTree(const StringW& folder, const StringW& real);

bool DeleteEntry(const StringW& folder, const StringW& real, const WIN32_FIND_DATAW& entry) {
    const wchar_t* name = entry.cFileName;
    if (wcscmp(name, L".") == 0 || wcscmp(name, L"..") == 0) return true;
    StringW path(folder);
    JoinPath(path, name);
    if (path.Length() >= MAX_PATH) return false;
    StringW expected(real);
    JoinPath(expected, name);
    const DWORD attr = entry.dwFileAttributes;
    if ((attr & FILE_ATTRIBUTE_DIRECTORY) && !(attr & FILE_ATTRIBUTE_REPARSE_POINT)) {
        if (!NamesItself(path, expected)) return false;
        return DeleteTree(path, expected);
    }
    return DeleteLeaf(path, expected, attr);
}

bool DeleteTree(const StringW& folder, const StringW& real) {
    bool ok = true;
    StringW pattern(folder);
    JoinPath(pattern, L"*");
    if (pattern.Length() < MAX_PATH) {
        WIN32_FIND_DATAW entry;
        HANDLE find = FindFirstFileW(pattern, &entry);
        if (find != INVALID_HANDLE_VALUE) {
            do {
                if (!DeleteEntry(folder, real, entry)) ok = false;
            } while (FindNextFileW(find, &entry));
            FindClose(find);
        }
    } else {
        ok = false;
    }
    if (!RemoveFolderOrReadOnly(folder)) ok = false;
    return ok;
}

// The real path that the name `path` would have if it named itself: its folder's real path
// joined with its last component.
bool ExpectedName(const StringW& path, StringW& expected) {
    StringW parent(path);
    StringW name(PathFindFileNameW(parent.Buffer()));
    if (!RemoveFileName(parent) || parent.IsEmpty()) parent = L".";
    if (!FinalName(parent, expected)) return false;
    JoinPath(expected, name);
    return true;
}

// The caller named a link: it goes, its target stays.
bool DeleteTopLink(const StringW& folder) {
    StringW expected;
    if (!ExpectedName(folder, expected) || !NamesItself(folder, expected)) return false;
    return RemoveDirectoryW(folder) != FALSE;
}

} // namespace

void RemoveBackslash(StringW& path) {
    MakeRoom(path);
    PathRemoveBackslashW(path.Buffer());
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
    DWORD attr = GetFileAttributesW(folder);
    if (attr == INVALID_FILE_ATTRIBUTES) return false;
    if (attr & FILE_ATTRIBUTE_REPARSE_POINT) return DeleteTopLink(folder);
    StringW real;
    if (!FinalName(folder, real)) return false;
    return DeleteTree(folder, real);
}

bool StaysWithin(const wchar_t* base, const wchar_t* path) {
    if (!base || !path || !*base || TooLong(base) || TooLong(path)) return false;
    StringW root(base), full(path);
    // The base may be given with a trailing separator of either kind; a drive root keeps its own.
    size_t rootLength = root.Length();
    while (rootLength > 1 && IsSeparator(root[rootLength - 1]) && !(rootLength == 3 && root[1] == L':')) --rootLength;
    root.SetLength(rootLength);
    // Windows drops trailing blanks and dots of a path's last element when it opens it.
    size_t length = full.Length();
    while (length && (full[length - 1] == L' ' || full[length - 1] == L'.')) --length;
    full.SetLength(length);
    if (full.Length() <= root.Length() || _wcsnicmp(full.c_str(), root.c_str(), root.Length()) != 0 ||
        !IsSeparator(full[root.Length()]))
        return false;
    StringW realRoot, realFull;
    if (!FinalName(root, realRoot) || !FinalName(full, realFull)) return false;
    StringW expected(realRoot);
    JoinPath(expected, full.c_str() + root.Length());
    return SameText(realFull, expected);
}

bool DeleteFileEntry(const wchar_t* path) {
    if (!path || !*path || TooLong(path)) return false;
    StringW file(path);
    const DWORD attr = GetFileAttributesW(file);
    if (attr == INVALID_FILE_ATTRIBUTES || (attr & FILE_ATTRIBUTE_DIRECTORY)) return false;
    StringW expected;
    if (!ExpectedName(file, expected)) return false;
    return DeleteLeaf(file, expected, attr);
}

}} // namespace qv::file
