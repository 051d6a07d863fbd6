#pragma once
// What the plug-in is to make of an engines kit's "Plugins\update.txt", from the reading rule and
// not from the reader: four lines read as an input stream reads them (a line ends at a line feed
// or at the end of the file; a read at the very end fails), each byte one character; lines 2 and 4
// give their last blank-separated word after trailing blanks, tabs and line feeds are dropped.
// Fewer than four lines give nothing, and so do four lines that, line feeds included, take more
// than kUpdateFileHeadBytes together. Computed another way than the reader's, so that a
// misreading of the rule cannot be shared.
#include <cstdint>
#include <string>

namespace testing_support {

constexpr size_t kUpdateFileHeadBytes = 1u << 20;

struct ExpectedEngines {
    bool read = false;    // four lines were there
    std::wstring version; // line 4's last word; "" when not read
    uint64_t count = 0;   // line 2's last word as _wtoi64 reads it; 0 when not read
};

ExpectedEngines ExpectedFromUpdateFile(const std::string& bytes);

} // namespace testing_support
