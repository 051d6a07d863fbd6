#include "support/FolderHandle.h"

#include "support/DirectoryWalker.h"
#include "support/FileUtil.h"
#include "support/NtFile.h"

#include <atomic>
#include <memory>

namespace qv {
namespace file {

namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr ACCESS_MASK kListAccess = FILE_LIST_DIRECTORY | FILE_TRAVERSE | FILE_READ_ATTRIBUTES;
constexpr ACCESS_MASK kDeleteAccess = DELETE | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES;
// Past this depth a tree is left as it is rather than risk the caller's stack.
constexpr int kMaxDepth = 128;

// FILE_DISPOSITION_INFO_EX and its flags, not in every SDK's headers.
struct DispositionEx {
    DWORD flags;
};
constexpr DWORD kDispositionDelete = 0x1;
constexpr DWORD kDispositionPosix = 0x2;
constexpr DWORD kDispositionIgnoreReadOnly = 0x10;
constexpr int kFileDispositionInfoEx = 21;

bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }

bool IsNotFound(DWORD error) {
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND || error == ERROR_DIRECTORY;
}

bool FinalName(HANDLE h, StringW& out) {
    DWORD capacity = 512;
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (!out.HasStorage() || out.Capacity() < capacity) out.Reserve(capacity);
        const DWORD n = GetFinalPathNameByHandleW(h, out.Buffer(), capacity, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
        if (n == 0) break;
        if (n < capacity) {
            out.SetLength(n);
            return true;
        }
        capacity = n + 1;
    }
    out.SetLength(0);
    return false;
}

// True when `child`, opened by `name` relative to a folder whose real name is `parent`, is that
// folder's own entry. Windows opens the entry itself when asked not to follow a reparse point,
// so this always holds there. Wine 8 resolves a symbolic link even when asked not to (and shows
// no reparse point on the handle); the handle then names the link's target, and this is how such
// an entry is told apart from the folder's own.
bool NamesChild(HANDLE child, const StringW& parent, const wchar_t* name, size_t length, StringW& real) {
    if (!FinalName(child, real)) return false;
    size_t prefix = parent.Length();
    const bool separated = prefix && IsSeparator(parent[prefix - 1]);
    const size_t expected = prefix + (separated ? 0 : 1) + length;
    if (real.Length() != expected) return false;
    if (CompareStringOrdinal(real.c_str(), static_cast<int>(prefix), parent.c_str(), static_cast<int>(prefix), TRUE) !=
        CSTR_EQUAL)
        return false;
    if (!separated && real[prefix++] != L'\\') return false;
    return CompareStringOrdinal(real.c_str() + prefix, static_cast<int>(length), name, static_cast<int>(length),
                                TRUE) == CSTR_EQUAL;
}

// True when the open handle is the entry the parent's listing showed. Wine 8 resolves a link
// when it opens it and names the handle by a second, separate look-up of the path, so a name
// flipped between a folder and a link can open one and be named as the other; the identity of
// what was really opened is what tells. (Windows opens the entry itself; the identity agrees.)
bool IsListedEntry(HANDLE h, LONGLONG fileId) {
    BY_HANDLE_FILE_INFORMATION info{};
    if (!GetFileInformationByHandle(h, &info)) return false;
    const LONGLONG id = static_cast<LONGLONG>((static_cast<ULONGLONG>(info.nFileIndexHigh) << 32) | info.nFileIndexLow);
    return id == fileId;
}

// Finds `name` in the listing of `folder`: its identity, and whether it can be walked into.
EntryResult FindFolderEntry(const FolderHandle& folder, const wchar_t* name, size_t length, LONGLONG& fileId,
                            DWORD& error) {
    DirectoryWalker walker(folder.Get());
    while (walker.Next()) {
        const std::wstring& entry = walker.Name();
        if (entry.size() != length || CompareStringOrdinal(entry.c_str(), static_cast<int>(length), name,
                                                           static_cast<int>(length), TRUE) != CSTR_EQUAL)
            continue;
        fileId = walker.FileId();
        if (walker.Attributes() & FILE_ATTRIBUTE_REPARSE_POINT) return EntryResult::NotFollowed;
        if (!walker.IsDirectory()) {
            error = ERROR_PATH_NOT_FOUND;
            return EntryResult::Absent;
        }
        return EntryResult::Done;
    }
    error = walker.Error() ? walker.Error() : ERROR_PATH_NOT_FOUND;
    return walker.Error() ? EntryResult::Failed : EntryResult::Absent;
}

// The identity the listing of `folder` shows for `name`, of whatever kind; false when unlisted.
bool ListedId(const FolderHandle& folder, const wchar_t* name, size_t length, LONGLONG& fileId) {
    DirectoryWalker walker(folder.Get());
    while (walker.Next()) {
        const std::wstring& entry = walker.Name();
        if (entry.size() == length && CompareStringOrdinal(entry.c_str(), static_cast<int>(length), name,
                                                           static_cast<int>(length), TRUE) == CSTR_EQUAL) {
            fileId = walker.FileId();
            return true;
        }
    }
    return false;
}

LONGLONG IdOf(HANDLE h) {
    BY_HANDLE_FILE_INFORMATION info{};
    if (!GetFileInformationByHandle(h, &info)) return -1;
    return static_cast<LONGLONG>((static_cast<ULONGLONG>(info.nFileIndexHigh) << 32) | info.nFileIndexLow);
}

// True when the folder `child` has `parent` as its parent, by the ".." entry of the child's own
// listing. Wine 8 builds a listing entry from more than one look-up of its name, so a name flipped
// between a folder and a link at that moment can be listed with the link target's identity and
// then opened as that target with every other check agreeing; the target's ".." is elsewhere.
// (Windows lists and opens the entry itself; its ".." is the parent, and so is a link's.)
bool SitsIn(HANDLE child, HANDLE parent) {
    // "." and ".." come first: a batch of a few entries is enough.
    LONGLONG buffer[128];
    if (!GetFileInformationByHandleEx(child, FileIdBothDirectoryRestartInfo, buffer, sizeof buffer)) return false;
    const auto* entry = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(buffer);
    for (;;) {
        if (entry->FileNameLength == 2 * sizeof(wchar_t) && entry->FileName[0] == L'.' && entry->FileName[1] == L'.')
            return entry->FileId.QuadPart == IdOf(parent);
        if (!entry->NextEntryOffset) return false;
        entry = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(reinterpret_cast<const char*>(entry) +
                                                               entry->NextEntryOffset);
    }
}

bool IsReparsePoint(HANDLE h) {
    FILE_ATTRIBUTE_TAG_INFO tag{};
    return !GetFileInformationByHandleEx(h, FileAttributeTagInfo, &tag, sizeof tag) ||
           (tag.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

bool ClearReadOnly(HANDLE h) {
    FILE_BASIC_INFO basic{};
    if (!GetFileInformationByHandleEx(h, FileBasicInfo, &basic, sizeof basic)) return false;
    if (!(basic.FileAttributes & FILE_ATTRIBUTE_READONLY)) return false;
    basic.FileAttributes &= ~static_cast<DWORD>(FILE_ATTRIBUTE_READONLY);
    if (!basic.FileAttributes) basic.FileAttributes = FILE_ATTRIBUTE_NORMAL;
    return SetFileInformationByHandle(h, FileBasicInfo, &basic, sizeof basic) != FALSE;
}

// Deletes exactly what `h` names: the name goes with the handle's object, never with what a
// name reaches. POSIX semantics (Windows 10 1709 and later, NTFS) take the name away at once, so
// that the folder holding it can go next; elsewhere the deletion happens when the last handle
// closes. Wine 8 knows only the classic request, and itself unlinks by the path the entry had
// when it was opened, after checking that the path still leads to the same file.
DWORD DeleteByHandle(HANDLE h, bool clearReadOnly) {
    static std::atomic<bool> exUnknown{false};
    if (!exUnknown.load(std::memory_order_relaxed)) {
        DispositionEx ex{kDispositionDelete | kDispositionPosix | (clearReadOnly ? kDispositionIgnoreReadOnly : 0)};
        if (SetFileInformationByHandle(h, static_cast<FILE_INFO_BY_HANDLE_CLASS>(kFileDispositionInfoEx), &ex,
                                       sizeof ex))
            return ERROR_SUCCESS;
        const DWORD error = GetLastError();
        // An unknown class (older systems, Wine) is unknown for good; an unsupported flag is the
        // file system's (FAT) and is asked again for the next entry.
        if (error == ERROR_INVALID_PARAMETER || error == ERROR_INVALID_FUNCTION)
            exUnknown.store(true, std::memory_order_relaxed);
        else if (error != ERROR_NOT_SUPPORTED)
            return error;
    }
    FILE_DISPOSITION_INFO disposition{TRUE};
    if (SetFileInformationByHandle(h, FileDispositionInfo, &disposition, sizeof disposition)) return ERROR_SUCCESS;
    const DWORD error = GetLastError();
    if (error != ERROR_ACCESS_DENIED || !clearReadOnly || !ClearReadOnly(h)) return error;
    if (SetFileInformationByHandle(h, FileDispositionInfo, &disposition, sizeof disposition)) return ERROR_SUCCESS;
    return GetLastError();
}

// Windows drops trailing blanks and dots of every element of a path it is given; a name opened
// relative to a handle keeps them. Names that come from the configuration are trimmed here so
// that they reach the same entries as the path functions do ("nnml.cvd " is the file nnml.cvd).
size_t TrimmedLength(const wchar_t* name, size_t length) {
    while (length && (name[length - 1] == L' ' || name[length - 1] == L'.')) --length;
    return length;
}

// Opens every folder of `relative` but its last name below `base`; `last` and `lastLength` then
// hold that name, trimmed.
EntryResult OpenParentOf(const wchar_t* base, const wchar_t* relative, FolderHandle& folder, const wchar_t*& last,
                         size_t& lastLength, DWORD& error) {
    error = folder.Open(base);
    if (error != ERROR_SUCCESS) return IsNotFound(error) ? EntryResult::Absent : EntryResult::Failed;
    const wchar_t* name = relative;
    for (;;) {
        while (IsSeparator(*name)) ++name;
        const wchar_t* end = name;
        while (*end && !IsSeparator(*end)) ++end;
        const size_t length = TrimmedLength(name, static_cast<size_t>(end - name));
        const wchar_t* next = end;
        while (IsSeparator(*next)) ++next;
        if (!*next) {
            last = name;
            lastLength = length;
            if (length) return EntryResult::Done;
            error = ERROR_INVALID_NAME;
            return EntryResult::Failed;
        }
        LONGLONG fileId = 0;
        EntryResult result = FindFolderEntry(folder, name, length, fileId, error);
        if (result != EntryResult::Done) return result;
        FolderHandle child;
        result = folder.OpenChild(name, length, fileId, child, error);
        if (result != EntryResult::Done) return result;
        folder = std::move(child);
        name = next;
    }
}

EntryResult DeleteTree(const FolderHandle& folder, const StringW& path, const KeptEntryFn& onKept, int depth);

EntryResult DeleteChild(const FolderHandle& parent, const StringW& parentPath, const wchar_t* name, size_t length,
                        bool isDirectory, LONGLONG fileId, const KeptEntryFn& onKept, int depth) {
    auto kept = [&] {
        if (onKept) {
            StringW path(parentPath);
            JoinPath(path, std::wstring(name, length).c_str());
            onKept(path);
        }
        return EntryResult::NotFollowed;
    };
    if (isDirectory) {
        FolderHandle child;
        DWORD error = ERROR_SUCCESS;
        const EntryResult opened = parent.OpenChild(name, length, fileId, child, error, true);
        if (opened == EntryResult::Absent) return EntryResult::Done; // gone meanwhile
        if (opened != EntryResult::Done || !child.IsOpen()) return opened == EntryResult::NotFollowed ? kept() : opened;
        EntryResult result = EntryResult::Done;
        if (depth >= kMaxDepth) return EntryResult::Failed;
        if (!IsReparsePoint(child.Get())) {
            StringW path(parentPath);
            JoinPath(path, std::wstring(name, length).c_str());
            result = DeleteTree(child, path, onKept, depth + 1);
        }
        // A link opened as itself (Windows) goes as a link, its target untouched.
        if (DeleteByHandle(child.Get(), true) != ERROR_SUCCESS && result == EntryResult::Done)
            result = EntryResult::Failed;
        return result;
    }
    HANDLE raw = INVALID_HANDLE_VALUE;
    const DWORD error = nt::OpenRelative(parent.Get(), name, length, kDeleteAccess, kShareAll, nt::kFileOpen,
                                         nt::kNonDirectoryFile | nt::kOpenReparsePoint, &raw);
    UniqueHFile file(raw);
    if (IsNotFound(error)) return EntryResult::Done;
    if (error != ERROR_SUCCESS) return EntryResult::Failed;
    // The folder itself was checked when it was entered (identity and ".."), and a name is
    // opened within the folder the handle holds; the file's own identity is not asked again here,
    // entry by entry, as that query alone would make a large clean several times slower.
    StringW real;
    if (!NamesChild(file.Get(), parent.RealName(), name, length, real)) return kept();
    return DeleteByHandle(file.Get(), true) == ERROR_SUCCESS ? EntryResult::Done : EntryResult::Failed;
}

EntryResult DeleteTree(const FolderHandle& folder, const StringW& path, const KeptEntryFn& onKept, int depth) {
    EntryResult result = EntryResult::Done;
    auto merge = [&](EntryResult r) {
        if (r == EntryResult::Failed || (r == EntryResult::NotFollowed && result == EntryResult::Done)) result = r;
    };
    DirectoryWalker walker(folder.Get());
    while (walker.Next()) {
        const std::wstring& name = walker.Name();
        merge(
            DeleteChild(folder, path, name.c_str(), name.size(), walker.IsDirectory(), walker.FileId(), onKept, depth));
    }
    if (walker.Error() != ERROR_SUCCESS) merge(EntryResult::Failed);
    return result;
}

} // namespace

DWORD FolderHandle::Open(const wchar_t* path) {
    handle.Reset(CreateFileW(path, kListAccess | SYNCHRONIZE, kShareAll, nullptr, OPEN_EXISTING,
                             FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (!handle) return GetLastError();
    if (!FinalName(handle.Get(), real)) {
        const DWORD error = GetLastError();
        handle.Reset();
        return error ? error : ERROR_INVALID_NAME;
    }
    return ERROR_SUCCESS;
}

EntryResult FolderHandle::OpenChild(const wchar_t* name, size_t length, LONGLONG fileId, FolderHandle& child,
                                    DWORD& error, bool forDelete) const {
    HANDLE raw = INVALID_HANDLE_VALUE;
    error = nt::OpenRelative(handle.Get(), name, length, kListAccess | (forDelete ? kDeleteAccess : 0), kShareAll,
                             nt::kFileOpen, nt::kDirectoryFile | nt::kOpenReparsePoint, &raw);
    UniqueHFile opened(raw);
    if (error != ERROR_SUCCESS) return IsNotFound(error) ? EntryResult::Absent : EntryResult::Failed;
    if (!NamesChild(opened.Get(), real, name, length, child.real) || !IsListedEntry(opened.Get(), fileId) ||
        !SitsIn(opened.Get(), handle.Get()))
        return EntryResult::NotFollowed;
    // A caller deleting the child removes a link as a link; any other caller stops at it.
    if (!forDelete && IsReparsePoint(opened.Get())) return EntryResult::NotFollowed;
    child.handle = std::move(opened);
    return EntryResult::Done;
}

namespace {
// The last element of a relative path, opened with the native call in its parent folder.
struct LastBelow {
    FolderHandle folder;
    const wchar_t* name = nullptr;
    size_t length = 0;
    UniqueHFile file;
};

// The folders on the way are reached as OpenParentOf does; Done means the native open was made
// and `error` says how it went. With `listedId`, a name the parent's listing does not show is
// Absent and not opened, and the identity the listing shows is given back.
EntryResult OpenLastBelow(const wchar_t* base, const wchar_t* relative, ACCESS_MASK access, ULONG share,
                          ULONG disposition, ULONG options, LastBelow& last, DWORD& error,
                          LONGLONG* listedId = nullptr) {
    const EntryResult reached = OpenParentOf(base, relative, last.folder, last.name, last.length, error);
    if (reached != EntryResult::Done) return reached;
    if (listedId && !ListedId(last.folder, last.name, last.length, *listedId)) {
        error = ERROR_FILE_NOT_FOUND;
        return EntryResult::Absent;
    }
    error = nt::OpenRelative(last.folder.Get(), last.name, last.length, access, share, disposition, options,
                             last.file.Put());
    return EntryResult::Done;
}
} // namespace

EntryResult DeleteFileBelow(const wchar_t* base, const wchar_t* relative, DWORD& error) {
    LastBelow last;
    LONGLONG fileId = 0;
    const EntryResult reached = OpenLastBelow(base, relative, DELETE | FILE_READ_ATTRIBUTES, kShareAll, nt::kFileOpen,
                                              nt::kNonDirectoryFile | nt::kOpenReparsePoint, last, error, &fileId);
    if (reached != EntryResult::Done) return reached;
    if (error != ERROR_SUCCESS) return IsNotFound(error) ? EntryResult::Absent : EntryResult::Failed;
    // As for the entries of a tree: the file opened must be the one the folder's listing showed.
    StringW real;
    if (!NamesChild(last.file.Get(), last.folder.RealName(), last.name, last.length, real) ||
        !IsListedEntry(last.file.Get(), fileId))
        return EntryResult::NotFollowed;
    error = DeleteByHandle(last.file.Get(), false);
    return error == ERROR_SUCCESS ? EntryResult::Done : EntryResult::Failed;
}

EntryResult CreateFileBelow(const wchar_t* base, const wchar_t* relative, DWORD& error) {
    LastBelow last;
    const EntryResult reached = OpenLastBelow(base, relative, GENERIC_WRITE, FILE_SHARE_READ, nt::kFileCreate,
                                              nt::kNonDirectoryFile, last, error);
    if (reached != EntryResult::Done) return reached;
    // CreateFileW's answer for a name that exists, which the native call words differently.
    if (error == ERROR_ALREADY_EXISTS) error = ERROR_FILE_EXISTS;
    return error == ERROR_SUCCESS ? EntryResult::Done : EntryResult::Failed;
}

EntryResult DeleteEntry(const FolderHandle& parent, const StringW& parentPath, const wchar_t* name, size_t length,
                        bool isDirectory, LONGLONG fileId, const KeptEntryFn& onKept) {
    return DeleteChild(parent, parentPath, name, length, isDirectory, fileId, onKept, 0);
}

EntryResult DeleteFolderNamed(const FolderHandle& parent, const StringW& parentPath, const wchar_t* name, size_t length,
                              const KeptEntryFn& onKept) {
    LONGLONG fileId = 0;
    DWORD error = ERROR_SUCCESS;
    const EntryResult found = FindFolderEntry(parent, name, length, fileId, error);
    // A link is still deleted as one where the platform can (the identity check then decides).
    if (found != EntryResult::Done && found != EntryResult::NotFollowed) return found;
    return DeleteChild(parent, parentPath, name, length, true, fileId, onKept, 0);
}

} // namespace file
} // namespace qv
