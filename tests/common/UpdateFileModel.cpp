#include "tests/common/UpdateFileModel.h"

#include <stdlib.h>
#include <sstream>

namespace testing_support {

namespace {

// The last blank-separated word, worked forwards: find where the kept text ends (after the last
// character outside " \t\n"), then where the word starts (after the last U+0020 before that end).
std::wstring LastWord(const std::wstring& line) {
    size_t keptEnd = 0;
    for (size_t i = 0; i < line.size(); ++i)
        if (line[i] != L' ' && line[i] != L'\t' && line[i] != L'\n') keptEnd = i + 1;
    size_t wordStart = 0;
    for (size_t i = 0; i < keptEnd; ++i)
        if (line[i] == L' ') wordStart = i + 1;
    return line.substr(wordStart, keptEnd - wordStart);
}

} // namespace

ExpectedEngines ExpectedFromUpdateFile(const std::string& bytes) {
    // Lines are read as a standard input stream reads them: a read fails only when it finds the
    // end of the file before any character; each byte widens to one character.
    std::istringstream stream(bytes);
    std::wstring lines[4];
    for (std::wstring& line : lines) {
        std::string narrow;
        if (!std::getline(stream, narrow)) return ExpectedEngines{};
        for (char byte : narrow) line += static_cast<wchar_t>(static_cast<unsigned char>(byte));
    }
    // Where the stream stands after the fourth line is how many bytes the four lines took.
    const std::streamoff taken =
        stream.eof() ? static_cast<std::streamoff>(bytes.size()) : std::streamoff(stream.tellg());
    if (taken > static_cast<std::streamoff>(kUpdateFileHeadBytes)) return ExpectedEngines{};
    ExpectedEngines expected;
    expected.read = true;
    expected.version = LastWord(lines[3]);
    // The documented conversion: _wtoi64, whose result the unsigned count keeps bit for bit.
    expected.count = static_cast<uint64_t>(_wtoi64(LastWord(lines[1]).c_str()));
    return expected;
}

} // namespace testing_support
