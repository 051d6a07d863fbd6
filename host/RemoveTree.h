#pragma once
// Removing a folder the host made, with all below it: the host's sandbox and the benchmarks'
// fresh folders. Read-only entries are made writable first so that a copied read-only file does
// not keep its folder alive.
#include <string>

namespace host {

// True when the folder itself is gone; entries that cannot be removed are passed over.
bool RemoveTree(const std::wstring& folder);

} // namespace host
