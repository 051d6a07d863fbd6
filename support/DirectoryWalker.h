#pragma once
// Lists a folder through a handle that is already open, so that what is listed is the folder
// that was opened and checked, whatever its name has become since. Every folder enumeration of
// the plug-in goes through here.
#include <windows.h>

#include <memory>
#include <string>

namespace qv {
namespace file {

class DirectoryWalker {
public:
    // `folder` must be open with FILE_LIST_DIRECTORY; it stays the caller's.
    explicit DirectoryWalker(HANDLE folder);

    // Moves to the next entry other than "." and ".."; false at the end or on a failure.
    bool Next();
    // 0 after the last entry, otherwise why the listing stopped.
    DWORD Error() const { return error; }

    const std::wstring& Name() const { return name; }
    DWORD Attributes() const { return attributes; }
    bool IsDirectory() const { return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
    // The file system's identity of the entry, as GetFileInformationByHandle gives it once open.
    LONGLONG FileId() const { return fileId; }

private:
    bool Fill();

    HANDLE folder;
    std::unique_ptr<LONGLONG[]> buffer; // LONGLONG: the records hold 64-bit fields
    const FILE_ID_BOTH_DIR_INFO* current = nullptr;
    bool done = false;
    bool started = false;
    DWORD error = 0;
    std::wstring name;
    DWORD attributes = 0;
    LONGLONG fileId = 0;
};

} // namespace file
} // namespace qv
