#pragma once
// Path and folder helpers on wide paths. File-system failures come back as false; nothing here
// logs, so the helpers can be used by the logging code itself.
#include "sdk/StringT.h"

namespace qv {
namespace file {

// PathRemoveBackslashW in place.
void RemoveBackslash(StringW& path);
// PathRemoveFileSpecW in place; true if something was removed.
bool RemoveFileName(StringW& path);
// Folder of the module that contains this code, ending with a backslash.
bool GetModuleFolder(StringW& folder);
// Appends name to base with exactly one separator between them.
bool JoinPath(StringW& base, const wchar_t* name);
// Creates the folder and every missing parent; true if the folder exists afterwards.
bool CreateFolderTree(const wchar_t* path);
// Deletes the folder with everything inside it; true only if everything was deleted. The tree
// is walked through folder handles (support/FolderHandle.h): symbolic links and junctions are
// removed as links and never followed; where the platform cannot remove a link without reaching
// through it, the link stays and the result is false. Folders more than 128 levels below `path`
// stay too (the walk recurses, and the caller's stack is not risked on a tree of any depth).
bool DeleteFolderTree(const wchar_t* path);

} // namespace file
} // namespace qv
