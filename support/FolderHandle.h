#pragma once
// Files and folders reached through open folder handles, never again by path. A folder is opened
// once; its entries are listed through that handle, opened relative to it without following a
// link, checked on their own handle and deleted through that same handle. A name swapped for a
// link between the check and the action therefore cannot redirect the action: a link is removed
// as a link, or kept, and never followed. Nothing here logs (the logging code uses these helpers);
// what a caller should hear of is handed to its note function instead.
#include "sdk/StringT.h"
#include "support/DeleteByHandle.h"
#include "support/DirectoryWalker.h"
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

// What a deletion tells its caller about, one note per entry (per folder for Undecided).
enum class Note {
    LinkKept,      // a link that could not be removed as one was left alone
    EntryKept,     // an entry the file system refused to delete; the error says why
    ListingFailed, // a folder could not be listed to the end; the error says why
    Undecided      // the volume cannot answer the identity checks of this folder's entries: they were
                   // taken as opened (see support/WineChecks.h)
};
using NoteFn = std::function<void(Note note, const StringW& path, DWORD error)>;

// An entry as its folder's listing showed it.
struct Listed {
    FileId id;
    DWORD attributes = 0;
    DWORD tag = 0;
    static Listed Of(const DirectoryWalker& walker) {
        return Listed{walker.Id(), walker.Attributes(), walker.ReparseTag()};
    }
};

class FolderHandle {
public:
    // Opens a folder by its full path. Links within the path itself are followed: the path comes
    // from the configuration and is the caller's to trust. Returns a Win32 error code.
    DWORD Open(const wchar_t* path);

    // Opens the child folder `name` of this folder, listed as `listed`, without following a link.
    // Returns NotFollowed for a link (or, where the platform resolves links, for a name that
    // opened as anything but that entry); the child is then left unopened. `undecided` is set
    // when the volume could not answer the identity checks.
    EntryResult OpenChild(const wchar_t* name, size_t length, const Listed& listed, FolderHandle& child, DWORD& error,
                          bool& undecided) const;

    HANDLE Get() const { return handle.Get(); }
    bool IsOpen() const { return handle.IsValid(); }
    // What the handle really names, as GetFinalPathNameByHandleW gives it; empty on a volume
    // that gives no final names.
    const StringW& RealName() const { return real; }

    // Takes over a folder handle opened and checked elsewhere in this layer, with its real name.
    void Adopt(UniqueHFile opened, const StringW& realName);
    HANDLE Release() { return handle.Release(); }

private:
    UniqueHFile handle;
    StringW real;
};

// Deletes the file `relative` (one or more names joined by backslashes) below the folder `base`.
// Every folder on the way is opened relative to the previous one; a trailing blank or dot of a
// name is dropped, as Windows does for paths. A read-only file is not deleted (as DeleteFileW).
EntryResult DeleteFileBelow(const wchar_t* base, const wchar_t* relative, DWORD& error, const NoteFn& note);

// Creates the empty file `relative` below `base`, failing if the name exists in any form (a
// dangling link included). Folders on the way are reached as for DeleteFileBelow.
EntryResult CreateFileBelow(const wchar_t* base, const wchar_t* relative, DWORD& error, const NoteFn& note);

// Deletes the entry `name` of `parent`, listed as `listed`: a file, or a folder with everything
// inside it (read-only entries within it go too). A read-only file given here directly stays
// when `topReadOnly` is Keep. `parentPath` is the path the caller knows the parent by, for the
// notes. Done only if everything went; NotFollowed when links were kept; Failed otherwise.
EntryResult DeleteEntry(const FolderHandle& parent, const StringW& parentPath, const wchar_t* name, size_t length,
                        const Listed& listed, ReadOnlyBit topReadOnly, const NoteFn& note);

// The same for a folder known only by name: its identity is looked up in the parent's listing.
EntryResult DeleteFolderNamed(const FolderHandle& parent, const StringW& parentPath, const wchar_t* name, size_t length,
                              const NoteFn& note);

} // namespace file
} // namespace qv
