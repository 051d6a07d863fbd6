#include "tests/common/UpdateFileModel.h"

#include <stdlib.h>
#include <vector>

namespace testing_support {

namespace {

std::wstring LastWord(const std::wstring& line) {
    size_t end = line.size();
    while (end && (line[end - 1] == L' ' || line[end - 1] == L'\t' || line[end - 1] == L'\n')) --end;
    size_t space = line.rfind(L' ', end ? end - 1 : 0);
    if (end == 0) return std::wstring();
    size_t start = space == std::wstring::npos || space >= end ? 0 : space + 1;
    return line.substr(start, end - start);
}

} // namespace

ExpectedEngines ExpectedFromUpdateFile(const std::string& bytes) {
    std::vector<std::wstring> lines;
    size_t start = 0;
    while (lines.size() < 4 && start < bytes.size()) {
        size_t feed = bytes.find('\n', start);
        size_t end = feed == std::string::npos ? bytes.size() : feed;
        if ((feed == std::string::npos ? end : end + 1) > kUpdateFileHeadBytes) return ExpectedEngines();
        std::wstring line;
        for (size_t i = start; i < end; ++i) line += static_cast<wchar_t>(static_cast<unsigned char>(bytes[i]));
        lines.push_back(line);
        start = feed == std::string::npos ? bytes.size() : feed + 1;
    }
    ExpectedEngines expected;
    if (lines.size() < 4) return expected;
    expected.read = true;
    expected.version = LastWord(lines[3]);
    expected.count = static_cast<uint64_t>(_wtoi64(LastWord(lines[1]).c_str()));
    return expected;
}

} // namespace testing_support
