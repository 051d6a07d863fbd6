#include "support/DirectoryWalker.h"

namespace qv {
namespace file {

namespace {
constexpr size_t kBufferBytes = size_t{16} * 1024;

bool IsDots(const wchar_t* text, size_t length) {
    return (length == 1 && text[0] == L'.') || (length == 2 && text[0] == L'.' && text[1] == L'.');
}
} // namespace

DirectoryWalker::DirectoryWalker(HANDLE folder)
    : folder(folder), buffer(new LONGLONG[kBufferBytes / sizeof(LONGLONG)]) {}

bool DirectoryWalker::Fill() {
    if (done) return false;
    // The first batch restarts the listing: a handle listed before (to check who sits in it)
    // is listed whole again.
    const FILE_INFO_BY_HANDLE_CLASS batch =
        current || started ? FileIdBothDirectoryInfo : FileIdBothDirectoryRestartInfo;
    started = true;
    if (!GetFileInformationByHandleEx(folder, batch, buffer.get(), kBufferBytes)) {
        const DWORD last = GetLastError();
        error = last == ERROR_NO_MORE_FILES ? 0 : last;
        done = true;
        return false;
    }
    current = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(buffer.get());
    return true;
}

bool DirectoryWalker::Next() {
    for (;;) {
        if (current && current->NextEntryOffset) {
            current = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(reinterpret_cast<const char*>(current) +
                                                                     current->NextEntryOffset);
        } else if (!Fill()) {
            current = nullptr;
            return false;
        }
        const size_t length = current->FileNameLength / sizeof(wchar_t);
        if (length == 0 || IsDots(current->FileName, length)) continue;
        name.assign(current->FileName, length);
        attributes = current->FileAttributes;
        fileId = current->FileId.QuadPart;
        return true;
    }
}

} // namespace file
} // namespace qv
