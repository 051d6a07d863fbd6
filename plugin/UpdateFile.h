#pragma once
// Reader of the engines kit's "Plugins\update.txt": line 2 carries the signature count and
// line 4 the version, each as the last blank-separated word of its line.
#include "sdk/StringT.h"

#include <cstddef>

namespace qv {

struct UpdateFileInfo {
    StringW countText;
    StringW version;
};

enum class UpdateFileRead {
    Read,       // four lines were there
    Unreadable, // cannot be opened or read, or fewer than four lines
    TooLong,    // the first four lines, line feeds included, exceed kUpdateFileHeadLimit bytes
};

// The file comes from an engines kit on disk: only its first four lines are looked at, and only
// up to this many bytes of them, however large the file is.
constexpr size_t kUpdateFileHeadLimit = 1u << 20;

// Each byte of the file becomes one character, as a wide stream with the default locale reads
// it; lines end at a line feed, the fourth also at the end of the file. The work is linear in
// the bytes read and stops after the fourth line. `info` is written only when the file is read.
UpdateFileRead ReadUpdateFile(const wchar_t* path, UpdateFileInfo& info);

} // namespace qv
