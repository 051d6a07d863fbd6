#include "plugin/UpdateFile.h"

#include "support/FileCalls.h"
#include "support/WinHandle.h"

#include <windows.h>

#include <cstring>
#include <memory>
#include <string>

namespace qv {

namespace {

// Trailing blanks, tabs and line feeds are dropped (a carriage return stays); the word is what
// follows the last blank, or the whole line without one. Bytes widen one to one, so the word of
// the widened line is the widened word of the bytes.
StringW LastWord(const std::string& line) {
    size_t end = line.size();
    while (end && (line[end - 1] == ' ' || line[end - 1] == '\t' || line[end - 1] == '\n')) --end;
    size_t start = end;
    while (start && line[start - 1] != ' ') --start;
    StringW word;
    const size_t length = end - start;
    if (length == 0) return word;
    word.Reserve(length);
    wchar_t* chars = word.Buffer();
    for (size_t i = 0; i < length; ++i) chars[i] = static_cast<unsigned char>(line[start + i]);
    word.SetLength(length);
    return word;
}

} // namespace

UpdateFileRead ReadUpdateFile(const wchar_t* path, UpdateFileInfo& info) {
    // A name that reaches a named pipe would let the pipe's server act as this service: it gets
    // no more than the identification level.
    UniqueHFile file(file::Calls().createFile(
        path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
        FILE_ATTRIBUTE_NORMAL | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
    if (!file) return UpdateFileRead::Unreadable;

    // Lines 1 and 3 are only counted; lines 2 and 4 are kept, and never beyond the limit. Line 3
    // carries nothing asked of this plug-in, but it must be read through to reach line 4.
    std::string count, version;
    int line = 0;         // lines completed so far
    bool pending = false; // some bytes of the current line were seen
    size_t taken = 0;     // bytes of the first four lines so far
    const size_t kChunk = size_t{64} * 1024;
    std::unique_ptr<char[]> buffer(new char[kChunk]);
    while (line < 4) {
        DWORD got = 0;
        if (!ReadFile(file.Get(), buffer.get(), static_cast<DWORD>(kChunk), &got, nullptr)) {
            return UpdateFileRead::Unreadable;
        }
        if (got == 0) break;
        const char* at = buffer.get();
        const char* const end = at + got;
        while (at < end && line < 4) {
            const char* feed = static_cast<const char*>(memchr(at, '\n', static_cast<size_t>(end - at)));
            const char* stop = feed ? feed + 1 : end;
            taken += static_cast<size_t>(stop - at);
            if (taken > kUpdateFileHeadLimit) return UpdateFileRead::TooLong;
            const size_t bytes = static_cast<size_t>((feed ? feed : end) - at);
            if (line == 1) count.append(at, bytes);
            if (line == 3) version.append(at, bytes);
            pending = !feed;
            if (feed) ++line;
            at = stop;
        }
    }
    // The last line may end at the end of the file.
    if (line < 4 && pending) ++line;
    if (line < 4) return UpdateFileRead::Unreadable;

    info.countText = LastWord(count);
    info.version = LastWord(version);
    return UpdateFileRead::Read;
}

} // namespace qv
