#include "tests/common/LogAndFileChecks.h"

namespace testing_support {

std::string Narrow(const std::wstring& text) {
    std::string out;
    for (wchar_t c : text) out += c < 128 ? static_cast<char>(c) : '?';
    return out;
}

std::string ReadBytes(const std::wstring& path) {
    HANDLE h = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE) return "<missing>";
    std::string bytes;
    char buffer[65536];
    DWORD got = 0;
    while (ReadFile(h, buffer, sizeof buffer, &got, nullptr) && got > 0) bytes.append(buffer, got);
    CloseHandle(h);
    return bytes;
}

std::vector<std::wstring> Names(const std::wstring& folder) {
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW entry;
    HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &entry);
    if (find == INVALID_HANDLE_VALUE) return names;
    do {
        const std::wstring name = entry.cFileName;
        if (name != L"." && name != L"..") names.push_back(name);
    } while (FindNextFileW(find, &entry));
    FindClose(find);
    return names;
}

HANDLE HoldOpen(const std::wstring& path) {
    return CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
}

int CountLines(const std::wstring& text, uint32_t severity) {
    int n = 0;
    for (const auto& line : avhost::CapturedLines()) n += line.text == text && line.severity == severity;
    return n;
}

int CountStartingWith(const std::wstring& prefix) {
    int n = 0;
    for (const auto& line : avhost::CapturedLines()) n += line.text.rfind(prefix, 0) == 0;
    return n;
}

int CountFramed(const std::wstring& prefix, const std::wstring& suffix, uint32_t severity) {
    int n = 0;
    for (const auto& line : avhost::CapturedLines()) {
        const std::wstring& t = line.text;
        n += line.severity == severity && t.rfind(prefix, 0) == 0 && t.size() >= prefix.size() + suffix.size() &&
             t.compare(t.size() - suffix.size(), std::wstring::npos, suffix) == 0;
    }
    return n;
}

int IndexOf(const std::wstring& text) {
    const auto lines = avhost::CapturedLines();
    for (size_t i = 0; i < lines.size(); ++i)
        if (lines[i].text == text) return static_cast<int>(i);
    return -1;
}

std::wstring Entry(const wchar_t* operation) { return std::wstring(L"-> AntivirusScanAL::") + operation + L"()"; }

} // namespace testing_support
