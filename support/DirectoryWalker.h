#pragma once
// Lists a folder through a handle that is already open, so that what is listed is the folder
// that was opened and checked, whatever its name has become since. Every folder enumeration of
// the plug-in goes through here.
#include "support/FileIdentity.h"

#include <windows.h>

#include <memory>
#include <string>

namespace qv {
namespace file {

// The listing classes a volume answers, best first: 128-bit ids and reparse tags (NTFS, ReFS on
// Windows 8 and later), 64-bit ids, or no ids at all (some SMB servers). What the first folder of
// a walk answered is kept for the next folders of the same walk, which are on the same volume.
enum class ListingClass { IdExtd, IdBoth, Full };

class DirectoryWalker {
public:
    // `folder` must be open with FILE_LIST_DIRECTORY; it stays the caller's. `learned`, when
    // given, starts the listing at that class and is moved down when the volume refuses it.
    // With `withDots`, "." and ".." are listed too, where the volume lists them.
    explicit DirectoryWalker(HANDLE folder, ListingClass* learned = nullptr, bool withDots = false);

    // Moves to the next entry (other than "." and ".." unless asked); false at the end or on a failure.
    bool Next();
    // 0 after the last entry, otherwise why the listing stopped.
    DWORD Error() const { return error; }

    const std::wstring& Name() const { return name; }
    DWORD Attributes() const { return attributes; }
    bool IsDirectory() const { return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
    // The file system's identity of the entry; unknown where the volume lists none.
    const FileId& Id() const { return id; }
    // The reparse tag of a reparse point as listed; 0 when not listed.
    DWORD ReparseTag() const { return tag; }

private:
    bool Fill();
    void Take(const void* record);

    HANDLE folder;
    ListingClass own = ListingClass::IdExtd;
    ListingClass* listing;                    // where the walk starts, shared with its other folders
    ListingClass active = ListingClass::Full; // what this folder's records are
    bool withDots;
    std::unique_ptr<LONGLONG[]> buffer; // LONGLONG: the records hold 64-bit fields
    const char* current = nullptr;
    bool done = false;
    bool started = false;
    DWORD error = 0;
    std::wstring name;
    DWORD attributes = 0;
    FileId id;
    DWORD tag = 0;
};

} // namespace file
} // namespace qv
