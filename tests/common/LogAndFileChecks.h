#pragma once
// Small checks shared by the file-system and recovery tests: captured log lines counted or
// located, file contents, and folder listings.
#include "tests/common/ScanSlots.h"

#include <string>
#include <vector>

namespace testing_support {

std::string Narrow(const std::wstring& text);                // non-ASCII becomes '?'
std::string ReadBytes(const std::wstring& path);             // "<missing>" when it cannot be opened
std::vector<std::wstring> Names(const std::wstring& folder); // entries without "." and ".."
HANDLE HoldOpen(const std::wstring& path);                   // opened without sharing; close it yourself

int CountLines(const std::wstring& text, uint32_t severity);
int CountStartingWith(const std::wstring& prefix);
// Lines of this severity that start with `prefix` and end with `suffix`.
int CountFramed(const std::wstring& prefix, const std::wstring& suffix, uint32_t severity);
int IndexOf(const std::wstring& text); // first captured line with exactly this text, or -1
// The entry line of one of the plug-in's operations.
std::wstring Entry(const wchar_t* operation);

} // namespace testing_support
