#pragma once
// Reader of the engines kit's "Plugins\update.txt": line 2 carries the signature count and
// line 4 the version, each as the last blank-separated word of its line.
#include "support/StringT.h"

namespace qv {

struct UpdateFileInfo {
    StringW countText;
    StringW version;
};

// Each byte of the file becomes one character, as a wide stream with the default locale reads
// it. False when the file cannot be opened or has fewer than four lines.
bool ReadUpdateFile(const wchar_t* path, UpdateFileInfo& info);

// Trailing blanks, tabs and line feeds are dropped (a carriage return stays); the word is what
// follows the last blank, or the whole line without one.
StringW LastWord(const StringW& line);

} // namespace qv
