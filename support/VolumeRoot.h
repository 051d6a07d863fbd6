#pragma once
// Whether a folder is the root of something bigger than itself: a volume (drive letter or a
// volume mounted in a folder) or a network share. Decided from what the folder really is, not from
// how its path happens to be written.
#include "sdk/StringT.h"
#include "support/FolderHandle.h"

namespace qv {
namespace file {

// True for a path that names the same folder whatever the current folder and drive are:
// "X:\...", "\\server\share\..." and the "\\?\" and "\\.\" forms. "X:name", "\name" and plain
// names are relative.
bool IsFullPath(const wchar_t* path);

// The full path `path` stands for: the "\\?\" or "\\.\" prefix of a drive or UNC path dropped,
// "." and ".." resolved and slashes made backslashes (GetFullPathNameW), no trailing backslash
// unless it is a drive root. False when the path is relative or cannot be resolved.
bool CanonicalPath(const wchar_t* path, StringW& canonical);

// The folder holding the last element of a canonical path; false when there is none.
bool ParentPath(const StringW& canonical, StringW& parent);

// True for a canonical path that is a root by its text alone: "X:", "\\server\share", a device
// path of one element. Such a path must not be opened as a folder ("X:" is the current folder
// of drive X).
bool IsRootPath(const StringW& canonical);

// True when `folder`, opened from the canonical path `path`, is a drive or volume root, a share
// root or a folder in which a volume is mounted. Asked of the opened folder (its path within
// its volume) and of the system's volume path for its name; when neither can answer, it is taken
// as a root, the safe side.
bool IsVolumeRoot(const FolderHandle& folder, const StringW& path);

} // namespace file
} // namespace qv
