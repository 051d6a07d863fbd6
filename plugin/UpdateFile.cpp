#include "plugin/UpdateFile.h"

#include <windows.h>

namespace qv {

StringW LastWord(const StringW& line) {
    const wchar_t* text = line.c_str();
    size_t end = line.Length();
    while (end && (text[end - 1] == L' ' || text[end - 1] == L'\t' || text[end - 1] == L'\n')) --end;
    size_t start = end;
    while (start && text[start - 1] != L' ') --start;
    return StringW(text + start, end - start);
}

bool ReadUpdateFile(const wchar_t* path, UpdateFileInfo& info) {
    HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;

    // Only the first four lines are read; a line without its line feed ends at the end of file.
    StringW lines[4];
    int line = 0;
    bool sawAny = false;
    char buffer[8192];
    wchar_t widened[8192];
    DWORD got = 0;
    while (line < 4 && ReadFile(file, buffer, sizeof buffer, &got, nullptr) && got > 0) {
        size_t start = 0;
        for (DWORD i = 0; i < got && line < 4; ++i) {
            if (buffer[i] != '\n') continue;
            for (size_t k = start; k < i; ++k) widened[k - start] = static_cast<unsigned char>(buffer[k]);
            lines[line].Append(widened, i - start);
            ++line;
            sawAny = false;
            start = i + 1;
        }
        if (line < 4 && start < got) {
            for (size_t k = start; k < got; ++k) widened[k - start] = static_cast<unsigned char>(buffer[k]);
            lines[line].Append(widened, got - start);
            sawAny = true;
        }
    }
    CloseHandle(file);
    if (line < 4 && sawAny) ++line;
    if (line < 4) return false;

    info.countText = LastWord(lines[1]);
    (void)LastWord(lines[2]);
    info.version = LastWord(lines[3]);
    return true;
}

} // namespace qv
