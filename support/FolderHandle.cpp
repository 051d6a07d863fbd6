#include "support/FolderHandle.h"

#include "support/FileCalls.h"
#include "support/FileUtil.h"
#include "support/NtFile.h"
#include "support/WineChecks.h"

#include <string>

namespace qv {
namespace file {

namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr ACCESS_MASK kListAccess = FILE_LIST_DIRECTORY | FILE_TRAVERSE | FILE_READ_ATTRIBUTES;
// Past this depth a tree is left as it is rather than risk the caller's stack.
constexpr int kMaxDepth = 128;

bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }

bool IsNotFound(DWORD error) {
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND || error == ERROR_DIRECTORY ||
           error == ERROR_BAD_NETPATH || error == ERROR_BAD_NET_NAME;
}

// A folder's entry that the listing showed as a reparse point: a link unless its tag says it is
// something else (a tag the listing did not give counts as a link until its own handle tells).
bool ListedAsLink(const Listed& listed) {
    return (listed.attributes & FILE_ATTRIBUTE_REPARSE_POINT) &&
           (listed.tag == 0 || IsReparseTagNameSurrogate(listed.tag));
}

StringW PathOf(const StringW& parentPath, const wchar_t* name, size_t length) {
    StringW path(parentPath);
    JoinPath(path, std::wstring(name, length).c_str());
    return path;
}

// One deletion from its caller's call to its end: the notes go to the caller, and what the
// volume answered is kept for the rest of it.
struct Walk {
    const NoteFn& note;
    VolumeAnswers answers;
    ListingClass listing = ListingClass::IdExtd;

    void Tell(Note what, const StringW& path, DWORD error = ERROR_SUCCESS) const {
        if (note) note(what, path, error);
    }
};

// Finds `name` in the listing of `folder`, as it was listed.
bool FindListed(const FolderHandle& folder, const wchar_t* name, size_t length, Listed& listed, DWORD& error) {
    DirectoryWalker walker(folder.Get());
    while (walker.Next()) {
        const std::wstring& entry = walker.Name();
        if (entry.size() != length || CompareStringOrdinal(entry.c_str(), static_cast<int>(length), name,
                                                           static_cast<int>(length), TRUE) != CSTR_EQUAL)
            continue;
        listed = Listed::Of(walker);
        return true;
    }
    error = walker.Error() ? walker.Error() : ERROR_PATH_NOT_FOUND;
    return false;
}

// Finds `name` in the listing of `folder` as a folder that can be walked into.
EntryResult FindFolderEntry(const FolderHandle& folder, const wchar_t* name, size_t length, Listed& listed,
                            DWORD& error) {
    DWORD listError = ERROR_SUCCESS;
    if (!FindListed(folder, name, length, listed, listError)) {
        error = listError;
        return listError == ERROR_PATH_NOT_FOUND ? EntryResult::Absent : EntryResult::Failed;
    }
    if (listed.tag && IsReparseTagNameSurrogate(listed.tag)) return EntryResult::NotFollowed;
    if (!(listed.attributes & FILE_ATTRIBUTE_DIRECTORY)) {
        error = ERROR_PATH_NOT_FOUND;
        return EntryResult::Absent;
    }
    return EntryResult::Done;
}

// Windows drops trailing blanks and dots of every element of a path it is given; a name opened
// relative to a handle keeps them. Names that come from the configuration are trimmed here so
// that they reach the same entries as the path functions do ("nnml.cvd " is the file nnml.cvd).
size_t TrimmedLength(const wchar_t* name, size_t length) {
    while (length && (name[length - 1] == L' ' || name[length - 1] == L'.')) --length;
    return length;
}

// Opens every folder of `relative` but its last name below `base`; `last` and `lastLength` then
// hold that name, trimmed, and `path` the path of its folder.
EntryResult OpenParentOf(const wchar_t* base, const wchar_t* relative, FolderHandle& folder, StringW& path,
                         const wchar_t*& last, size_t& lastLength, DWORD& error, const NoteFn& note, bool& told) {
    error = folder.Open(base);
    if (error != ERROR_SUCCESS) return IsNotFound(error) ? EntryResult::Absent : EntryResult::Failed;
    path = base;
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
        Listed listed;
        EntryResult result = FindFolderEntry(folder, name, length, listed, error);
        if (result != EntryResult::Done) return result;
        FolderHandle child;
        bool undecided = false;
        result = folder.OpenChild(name, length, listed, child, error, undecided);
        path = PathOf(path, name, length);
        if (undecided && note && !told) note(Note::Undecided, path, ERROR_SUCCESS);
        told = told || undecided;
        if (result != EntryResult::Done) return result;
        folder = std::move(child);
        name = next;
    }
}

EntryResult DeleteTree(Walk& walk, const FolderHandle& folder, const StringW& path, int depth);

EntryResult DeleteChild(Walk& walk, const FolderHandle& parent, const StringW& parentPath, const wchar_t* name,
                        size_t length, const Listed& listed, ReadOnlyBit readOnly, int depth, bool& undecidedTold) {
    const bool directory = (listed.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    // Write-attributes only where a read-only bit may have to be cleared: a folder's always (the
    // recursive removal clears it), a file's only inside a tree.
    const bool clears =
        (directory || readOnly == ReadOnlyBit::Clear) && (listed.attributes & FILE_ATTRIBUTE_READONLY) != 0;
    UniqueHFile entry;
    DWORD error = OpenForDelete(parent.Get(), name, length, directory, clears, entry.Put());
    if (IsNotFound(error) || error == ERROR_DELETE_PENDING) return EntryResult::Done; // gone, or going
    if (error != ERROR_SUCCESS) {
        walk.Tell(Note::EntryKept, PathOf(parentPath, name, length), error);
        return EntryResult::Failed;
    }
    StringW real;
    Verdict verdict = NamedAsChild(entry.Get(), parent.RealName(), name, length, directory ? &real : nullptr);
    // The folder itself was checked when it was entered (identity and ".."), and a file is
    // opened within the folder the handle holds; a file's own identity is not asked again here,
    // entry by entry, as that query alone would make a large clean several times slower.
    bool undecided = verdict == Verdict::Undecided;
    if (directory && verdict != Verdict::Different) {
        for (Verdict more : {IsListedEntry(entry.Get(), listed.id), SitsIn(entry.Get(), parent.Get(), &walk.listing)}) {
            if (more == Verdict::Different) verdict = more;
            undecided = undecided || more == Verdict::Undecided;
        }
    }
    if (verdict == Verdict::Different) {
        walk.Tell(Note::LinkKept, PathOf(parentPath, name, length));
        return EntryResult::NotFollowed;
    }
    if (undecided && !undecidedTold) {
        undecidedTold = true;
        walk.Tell(Note::Undecided, PathOf(parentPath, name, length));
    }
    if (!directory) {
        error = DeleteByHandle(entry.Get(), readOnly, walk.answers);
        if (error == ERROR_SUCCESS) return EntryResult::Done;
        walk.Tell(Note::EntryKept, PathOf(parentPath, name, length), error);
        return EntryResult::Failed;
    }
    bool tagKnown = false;
    const bool link = IsLink(entry.Get(), tagKnown) || (!tagKnown && ListedAsLink(listed));
    EntryResult result = EntryResult::Done;
    // A link opened as itself (Windows) goes as a link, its target untouched; any other reparse
    // point is the folder it stands for.
    if (!link) {
        if (depth >= kMaxDepth) {
            walk.Tell(Note::EntryKept, PathOf(parentPath, name, length), ERROR_FILENAME_EXCED_RANGE);
            return EntryResult::Failed;
        }
        FolderHandle child;
        child.Adopt(std::move(entry), real);
        result = DeleteTree(walk, child, PathOf(parentPath, name, length), depth + 1);
        entry = UniqueHFile(child.Release());
    }
    error = DeleteFolderByHandle(entry.Get(), ReadOnlyBit::Clear, walk.answers);
    if (error == ERROR_SUCCESS) return result;
    // A folder that kept an entry cannot go; that entry was told about already.
    if (result == EntryResult::Done) {
        walk.Tell(Note::EntryKept, PathOf(parentPath, name, length), error);
        result = EntryResult::Failed;
    }
    return result;
}

EntryResult DeleteTree(Walk& walk, const FolderHandle& folder, const StringW& path, int depth) {
    EntryResult result = EntryResult::Done;
    auto merge = [&](EntryResult r) {
        if (r == EntryResult::Failed || (r == EntryResult::NotFollowed && result == EntryResult::Done)) result = r;
    };
    bool undecidedTold = false;
    DirectoryWalker walker(folder.Get(), &walk.listing);
    while (walker.Next()) {
        const std::wstring& name = walker.Name();
        merge(DeleteChild(walk, folder, path, name.c_str(), name.size(), Listed::Of(walker), ReadOnlyBit::Clear, depth,
                          undecidedTold));
    }
    if (walker.Error() != ERROR_SUCCESS) {
        walk.Tell(Note::ListingFailed, path, walker.Error());
        merge(EntryResult::Failed);
    }
    return result;
}

} // namespace

DWORD FolderHandle::Open(const wchar_t* path) {
    handle.Reset(Calls().createFile(path, kListAccess | SYNCHRONIZE, kShareAll, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (!handle) return GetLastError();
    // A volume the mount manager does not know gives no final name; the folder is still usable.
    if (!FinalName(handle.Get(), real)) real.SetLength(0);
    return ERROR_SUCCESS;
}

void FolderHandle::Adopt(UniqueHFile opened, const StringW& realName) {
    handle = std::move(opened);
    real = realName;
}

EntryResult FolderHandle::OpenChild(const wchar_t* name, size_t length, const Listed& listed, FolderHandle& child,
                                    DWORD& error, bool& undecided) const {
    UniqueHFile opened;
    error = nt::OpenRelative(handle.Get(), name, length, kListAccess, kShareAll, nt::kFileOpen,
                             nt::kDirectoryFile | nt::kOpenReparsePoint, opened.Put());
    if (error == ERROR_DELETE_PENDING) error = ERROR_PATH_NOT_FOUND;
    if (error != ERROR_SUCCESS) return IsNotFound(error) ? EntryResult::Absent : EntryResult::Failed;
    StringW real;
    undecided = false;
    for (Verdict verdict : {NamedAsChild(opened.Get(), this->real, name, length, &real),
                            IsListedEntry(opened.Get(), listed.id), SitsIn(opened.Get(), handle.Get())}) {
        if (verdict == Verdict::Different) return EntryResult::NotFollowed;
        undecided = undecided || verdict == Verdict::Undecided;
    }
    bool tagKnown = false;
    if (IsLink(opened.Get(), tagKnown) || (!tagKnown && ListedAsLink(listed))) return EntryResult::NotFollowed;
    child.Adopt(std::move(opened), real);
    return EntryResult::Done;
}

namespace {
// The folder of the last element of a relative path, and that element.
struct LastBelow {
    FolderHandle folder;
    StringW folderPath;
    const wchar_t* name = nullptr;
    size_t length = 0;
};
} // namespace

EntryResult DeleteFileBelow(const wchar_t* base, const wchar_t* relative, DWORD& error, const NoteFn& note) {
    LastBelow last;
    bool told = false;
    const EntryResult reached =
        OpenParentOf(base, relative, last.folder, last.folderPath, last.name, last.length, error, note, told);
    if (reached != EntryResult::Done) return reached;
    Listed listed;
    if (!FindListed(last.folder, last.name, last.length, listed, error)) {
        if (error != ERROR_PATH_NOT_FOUND) return EntryResult::Failed;
        error = ERROR_FILE_NOT_FOUND;
        return EntryResult::Absent;
    }
    UniqueHFile file;
    error = OpenForDelete(last.folder.Get(), last.name, last.length, false, false, file.Put());
    if (IsNotFound(error) || error == ERROR_DELETE_PENDING) return EntryResult::Absent;
    if (error != ERROR_SUCCESS) return EntryResult::Failed;
    // As for the entries of a tree: the file opened must be the one the folder's listing showed.
    bool undecided = false;
    for (Verdict verdict : {NamedAsChild(file.Get(), last.folder.RealName(), last.name, last.length),
                            IsListedEntry(file.Get(), listed.id)}) {
        if (verdict == Verdict::Different) return EntryResult::NotFollowed;
        undecided = undecided || verdict == Verdict::Undecided;
    }
    if (undecided && note && !told)
        note(Note::Undecided, PathOf(last.folderPath, last.name, last.length), ERROR_SUCCESS);
    VolumeAnswers answers;
    error = DeleteByHandle(file.Get(), ReadOnlyBit::Keep, answers);
    return error == ERROR_SUCCESS ? EntryResult::Done : EntryResult::Failed;
}

EntryResult CreateFileBelow(const wchar_t* base, const wchar_t* relative, DWORD& error, const NoteFn& note) {
    LastBelow last;
    bool told = false;
    const EntryResult reached =
        OpenParentOf(base, relative, last.folder, last.folderPath, last.name, last.length, error, note, told);
    if (reached != EntryResult::Done) return reached;
    UniqueHFile file;
    error = nt::CreateRelative(last.folder.Get(), last.name, last.length, GENERIC_WRITE, FILE_SHARE_READ, file.Put());
    // CreateFileW's answer for a name that exists, which the native call words differently.
    if (error == ERROR_ALREADY_EXISTS) error = ERROR_FILE_EXISTS;
    return error == ERROR_SUCCESS ? EntryResult::Done : EntryResult::Failed;
}

EntryResult DeleteEntry(const FolderHandle& parent, const StringW& parentPath, const wchar_t* name, size_t length,
                        const Listed& listed, ReadOnlyBit topReadOnly, const NoteFn& note) {
    Walk walk{note, VolumeAnswers(), ListingClass::IdExtd};
    bool undecidedTold = false;
    return DeleteChild(walk, parent, parentPath, name, length, listed, topReadOnly, 0, undecidedTold);
}

EntryResult DeleteFolderNamed(const FolderHandle& parent, const StringW& parentPath, const wchar_t* name, size_t length,
                              const NoteFn& note) {
    Listed listed;
    DWORD error = ERROR_SUCCESS;
    if (!FindListed(parent, name, length, listed, error))
        return error == ERROR_PATH_NOT_FOUND ? EntryResult::Absent : EntryResult::Failed;
    if (!(listed.attributes & FILE_ATTRIBUTE_DIRECTORY)) return EntryResult::Failed;
    return DeleteEntry(parent, parentPath, name, length, listed, ReadOnlyBit::Clear, note);
}

} // namespace file
} // namespace qv
