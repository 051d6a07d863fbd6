#pragma once
// How Windows deletes a file or folder through a handle of its own, and what each kind of volume
// answers on the way (Microsoft's documentation of FILE_DISPOSITION_INFO_EX and of NtCreateFile;
// the same policy as Rust's std::fs::remove_dir_all). Wine's gaps are not handled here but in
// support/WineChecks.h.
#include <windows.h>

namespace qv {
namespace file {

// What a volume has answered so far to the disposition requests. Kept by one walk, which stays
// on one volume (it never crosses a reparse point), and never beyond it: one USB stick that
// refuses POSIX semantics says nothing about the NTFS volume deleted next.
struct VolumeAnswers {
    bool posixDelete = true;        // FILE_DISPOSITION_FLAG_POSIX_SEMANTICS (Windows 10 1709, NTFS)
    bool ignoreReadOnlyFlag = true; // FILE_DISPOSITION_FLAG_IGNORE_READONLY_ATTRIBUTE (Windows 10 1809)
};

// Whether a read-only entry is deleted all the same (inside a tree, as the recursive removal
// does) or stays (a top-level file, as DeleteFileW leaves it).
enum class ReadOnlyBit { Keep, Clear };

// Deletes exactly what `h` names. With POSIX semantics the name goes at once, so that its folder
// can go next even while another process still holds the file; else when the last handle closes.
// Returns a Win32 error code; ERROR_ACCESS_DENIED for a read-only entry that is kept.
DWORD DeleteByHandle(HANDLE h, ReadOnlyBit readOnly, VolumeAnswers& answers);

// Deletes a folder whose entries were just deleted: entries of a volume without POSIX semantics
// leave when their last handle closes, which a scanner or indexer may hold a moment longer, so
// "directory not empty" is asked again a few times after a short wait.
DWORD DeleteFolderByHandle(HANDLE h, ReadOnlyBit readOnly, VolumeAnswers& answers);

// Opens `name` in the folder `parent` for deletion, never following a link: DELETE and
// FILE_READ_ATTRIBUTES (FILE_LIST_DIRECTORY and FILE_TRAVERSE too for a folder), and
// FILE_WRITE_ATTRIBUTES only when `clearsReadOnly` (and then only if the entry's ACL grants it:
// without it the open is made again without). A sharing violation, often a filter driver or
// scanner holding the file a moment, is retried a few times after short waits. ERROR_DELETE_PENDING
// means someone else is already deleting the entry, which the caller counts as deleted.
DWORD OpenForDelete(HANDLE parent, const wchar_t* name, size_t length, bool directory, bool clearsReadOnly,
                    HANDLE* out);

// True when `h` is a link: a reparse point whose tag is a name surrogate (symbolic link, junction,
// mount point). Other reparse points (cloud placeholders, ProjFS, container layers) are the files
// and folders they stand for. `known` is false when the tag could not be read.
bool IsLink(HANDLE h, bool& known);

} // namespace file
} // namespace qv
