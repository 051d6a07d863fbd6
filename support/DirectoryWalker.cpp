#include "support/DirectoryWalker.h"

#include "support/FileCalls.h"

#include <cstring>
#include <new>

namespace qv {
namespace file {

namespace {
constexpr size_t kBufferBytes = size_t{16} * 1024;

// The records of the three classes (MS-FSCC 2.4.17, 2.4.18 and the 128-bit form), declared here
// because not every SDK's headers have them. Offsets as the file system writes them.
struct FullRecord { // FILE_FULL_DIR_INFO
    DWORD next, index;
    LARGE_INTEGER times[4], endOfFile, allocation;
    DWORD attributes, nameBytes, eaSize; // eaSize: the reparse tag of a reparse point
    WCHAR name[1];
};
struct IdBothRecord { // FILE_ID_BOTH_DIR_INFO
    DWORD next, index;
    LARGE_INTEGER times[4], endOfFile, allocation;
    DWORD attributes, nameBytes, eaSize;
    CCHAR shortNameLength;
    WCHAR shortName[12];
    LARGE_INTEGER fileId;
    WCHAR name[1];
};
struct IdExtdRecord { // FILE_ID_EXTD_DIR_INFO
    DWORD next, index;
    LARGE_INTEGER times[4], endOfFile, allocation;
    DWORD attributes, nameBytes, eaSize, reparseTag;
    BYTE fileId[16];
    WCHAR name[1];
};

// FILE_INFO_BY_HANDLE_CLASS values, the restarting one of each pair first.
FILE_INFO_BY_HANDLE_CLASS ClassOf(ListingClass listing, bool restart) {
    switch (listing) {
    case ListingClass::IdExtd:
        return static_cast<FILE_INFO_BY_HANDLE_CLASS>(restart ? 20 : 19);
    case ListingClass::IdBoth:
        return restart ? FileIdBothDirectoryRestartInfo : FileIdBothDirectoryInfo;
    case ListingClass::Full:
        break;
    }
    return static_cast<FILE_INFO_BY_HANDLE_CLASS>(restart ? 15 : 14);
}

bool IsDots(const wchar_t* text, size_t length) {
    return (length == 1 && text[0] == L'.') || (length == 2 && text[0] == L'.' && text[1] == L'.');
}
} // namespace

DirectoryWalker::DirectoryWalker(HANDLE folder, ListingClass* learned, bool withDots)
    : folder(folder), listing(learned ? learned : &own), withDots(withDots),
      buffer(new (std::nothrow) LONGLONG[kBufferBytes / sizeof(LONGLONG)]) {}

bool DirectoryWalker::Fill() {
    if (done) return false;
    if (!buffer) {
        error = ERROR_NOT_ENOUGH_MEMORY;
        done = true;
        return false;
    }
    // The first batch restarts the listing: a handle listed before (to check who sits in it)
    // is listed whole again.
    const bool restart = !current && !started;
    started = true;
    // A batch after the first continues with the class that listed the first.
    ListingClass asked = restart ? *listing : active;
    for (;;) {
        if (Calls().getInfo(folder, ClassOf(asked, restart), buffer.get(), kBufferBytes)) break;
        const DWORD last = GetLastError();
        // A class the volume does not know is refused on the first batch, with one of several
        // codes depending on the file system and the redirector; the next class down is asked.
        // What the volume answers is learnt only from a class that worked: a folder that cannot
        // be listed at all says nothing about the classes of its volume.
        if (restart && last != ERROR_NO_MORE_FILES && asked != ListingClass::Full) {
            asked = asked == ListingClass::IdExtd ? ListingClass::IdBoth : ListingClass::Full;
            continue;
        }
        error = last == ERROR_NO_MORE_FILES ? 0 : (last ? last : ERROR_INVALID_FUNCTION);
        done = true;
        return false;
    }
    active = *listing = asked;
    current = reinterpret_cast<const char*>(buffer.get());
    return true;
}

void DirectoryWalker::Take(const void* record) {
    id = FileId();
    switch (active) {
    case ListingClass::IdExtd: {
        const auto* r = static_cast<const IdExtdRecord*>(record);
        name.assign(r->name, r->nameBytes / sizeof(wchar_t));
        attributes = r->attributes;
        tag = r->reparseTag;
        id = FileId::From128(r->fileId);
        break;
    }
    case ListingClass::IdBoth: {
        const auto* r = static_cast<const IdBothRecord*>(record);
        name.assign(r->name, r->nameBytes / sizeof(wchar_t));
        attributes = r->attributes;
        tag = r->eaSize;
        id = FileId::From64(r->fileId.QuadPart);
        break;
    }
    case ListingClass::Full: {
        const auto* r = static_cast<const FullRecord*>(record);
        name.assign(r->name, r->nameBytes / sizeof(wchar_t));
        attributes = r->attributes;
        tag = r->eaSize;
        break;
    }
    }
    if (!(attributes & FILE_ATTRIBUTE_REPARSE_POINT)) tag = 0;
}

bool DirectoryWalker::Next() {
    for (;;) {
        DWORD next = 0;
        if (current) std::memcpy(&next, current, sizeof next);
        if (current && next) {
            current += next;
        } else if (!Fill()) {
            current = nullptr;
            return false;
        }
        Take(current);
        if (name.empty() || (!withDots && IsDots(name.c_str(), name.size()))) continue;
        return true;
    }
}

} // namespace file
} // namespace qv
