#pragma once
// Checks that close gaps of Wine 8, the lab this plug-in is tested in; on Windows each of them
// holds by construction. Windows opens the entry itself when asked not to follow a reparse point
// (FILE_OPEN_REPARSE_POINT), so the handle is always the entry the folder's listing showed. Wine 8
// resolves a symbolic link even when asked not to, and builds a listing entry and names a handle
// from separate look-ups of the path, so a name flipped between a folder and a link can be listed
// as one and opened as the other. These checks tell such an entry apart.
//
// A volume may have nothing to answer a check with (no ".." entry, no file id, no final name:
// SMB servers, exFAT, ReFS, volumes the mount manager does not know). The check is then
// Undecided, and the caller goes on as Windows documents it, through the handle it opened,
// and says so once: a check made for Wine never stops a real volume from doing its work.
#include "sdk/StringT.h"
#include "support/DirectoryWalker.h"
#include "support/FileIdentity.h"

#include <windows.h>

namespace qv {
namespace file {

enum class Verdict { Same, Different, Undecided };

// The final name of `h` (GetFinalPathNameByHandleW, DOS form); false when the volume gives none.
bool FinalName(HANDLE h, StringW& out);

// Whether `child`, opened by `name` relative to the folder whose final name is `parentReal`,
// is named as that folder's entry. Under Wine the handle of a link names the link's target.
// `parentReal` empty (no final names on this volume) is Undecided; `real`, when given, gets the
// child's name.
Verdict NamedAsChild(HANDLE child, const StringW& parentReal, const wchar_t* name, size_t length,
                     StringW* real = nullptr);

// Whether the open handle is the entry the parent's listing showed with `listed`.
Verdict IsListedEntry(HANDLE h, const FileId& listed);

// Whether the folder `child` has `parent` as its parent, by the ".." entry of the child's own
// listing: under Wine an entry listed while its name flipped can carry the link target's
// identity and open as that target with every other check agreeing; the target's ".." is elsewhere.
// `listing` is the listing class the volume answered so far (support/DirectoryWalker.h).
Verdict SitsIn(HANDLE child, HANDLE parent, ListingClass* listing = nullptr);

} // namespace file
} // namespace qv
