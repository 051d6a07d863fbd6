#pragma once
// Files and folders reached through open folder handles, never again by path. A folder is opened
// once; its entries are listed through that handle, opened relative to it without following a
// link, checked on their own handle and deleted through that same handle. A name swapped for a
// link between the check and the action therefore cannot redirect the action: a link is removed
// as a link, or kept, and never followed. Nothing here logs (the logging code uses these helpers);
// entries kept are reported to the caller instead.
#include "sdk/StringT.h"
#include "support/WinHandle.h"

#include <functional>

namespace qv {
namespace file {

enum class EntryResult {
    Done,        // deleted, created or opened as asked
    Absent,      // the entry, or a folder on the way to it, does not exist
    NotFollowed, // a link (or an entry the platform reached through a link) was left alone
    Failed       // refused by the file system; the error says why
};

// Called with the path of every entry kept because it is a link that cannot be removed as one.
using KeptEntryFn = std::function<void(const StringW& path)>;

class FolderHandle {
public:
    // Opens a folder by its full path. Links within the path itself are followed: the path comes
    // from the configuration and is the caller's to trust. Returns a Win32 error code.
    DWORD Open(const wchar_t* path);

    // Opens the child folder `name` of this folder without following a link; `fileId` is the
    // entry's identity as this folder's listing gave it. Returns NotFollowed for a link (or,
    // where the platform resolves links, for a name that opened as anything but that entry); the
    // child is then left unopened. `forDelete` also asks for the rights to delete the child.
    EntryResult OpenChild(const wchar_t* name, size_t length, LONGLONG fileId, FolderHandle& child, DWORD& error,
                          bool forDelete = false) const;

    HANDLE Get() const { return handle.Get(); }
    bool IsOpen() const { return handle.IsValid(); }
    // What the handle really names, as GetFinalPathNameByHandleW gives it.
    const StringW& RealName() const { return real; }

private:
    UniqueHFile handle;
    StringW real;
};

// Deletes the file `relative` (one or more names joined by backslashes) below the folder `base`.
// Every folder on the way is opened relative to the previous one; a trailing blank or dot of a
// name is dropped, as Windows does for paths. A read-only file is not deleted (as DeleteFileW).
EntryResult DeleteFileBelow(const wchar_t* base, const wchar_t* relative, DWORD& error);

// Creates the empty file `relative` below `base`, failing if the name exists in any form (a
// dangling link included). Folders on the way are reached as for DeleteFileBelow.
EntryResult CreateFileBelow(const wchar_t* base, const wchar_t* relative, DWORD& error);

// Deletes the entry `name` of `parent`: a file, or a folder with everything inside it. Read-only
// entries go too. `parentPath` is the path the caller knows the parent by, for `onKept`. Done
// only if everything went; NotFollowed when links were kept (each reported); Failed otherwise.
// `fileId` as the parent's listing gave it.
EntryResult DeleteEntry(const FolderHandle& parent, const StringW& parentPath, const wchar_t* name, size_t length,
                        bool isDirectory, LONGLONG fileId, const KeptEntryFn& onKept);

// The same for a folder known only by name: its identity is looked up in the parent's listing.
EntryResult DeleteFolderNamed(const FolderHandle& parent, const StringW& parentPath, const wchar_t* name, size_t length,
                              const KeptEntryFn& onKept);

} // namespace file
} // namespace qv
