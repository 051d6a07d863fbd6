#pragma once
// The identity a volume gives a file: 128 bits (FILE_ID_128) where it offers them, else the
// 64-bit file index widened. A volume that has no stable identity to give answers 0 or -1
// (MS-FSCC: FAT gives entry offsets, ReFS -1 for an id that does not fit in 64 bits); such an
// identity is unknown and compares neither equal nor different.
#include <windows.h>

#include <cstring>

namespace qv {
namespace file {

struct FileId {
    ULONGLONG low = 0;
    ULONGLONG high = 0;

    bool Known() const {
        const ULONGLONG none = ~0ULL;
        return !(low == 0 && high == 0) && !(low == none && (high == 0 || high == none));
    }
    bool operator==(const FileId& other) const { return low == other.low && high == other.high; }
    bool operator!=(const FileId& other) const { return !(*this == other); }

    static FileId From64(LONGLONG id) {
        FileId out;
        out.low = static_cast<ULONGLONG>(id);
        return out;
    }
    static FileId From128(const BYTE (&bytes)[16]) {
        FileId out;
        std::memcpy(&out.low, bytes, 8);
        std::memcpy(&out.high, bytes + 8, 8);
        return out;
    }
};

// The identity of what `h` names: FileIdInfo where the volume answers it, else the 64-bit index
// of GetFileInformationByHandle. False when neither query succeeded.
bool IdentityOf(HANDLE h, FileId& id);

} // namespace file
} // namespace qv
