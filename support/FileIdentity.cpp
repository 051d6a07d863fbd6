#include "support/FileIdentity.h"

#include "support/FileCalls.h"

namespace qv {
namespace file {

namespace {
constexpr int kFileIdInfo = 18; // FILE_INFO_BY_HANDLE_CLASS FileIdInfo (Windows 8 and later)
struct IdInfo {                 // FILE_ID_INFO
    ULONGLONG volumeSerialNumber;
    BYTE fileId[16];
};
} // namespace

bool IdentityOf(HANDLE h, FileId& id) {
    IdInfo info{};
    if (Calls().getInfo(h, static_cast<FILE_INFO_BY_HANDLE_CLASS>(kFileIdInfo), &info, sizeof info)) {
        id = FileId::From128(info.fileId);
        return true;
    }
    BY_HANDLE_FILE_INFORMATION classic{};
    if (!Calls().getFileInformation(h, &classic)) return false;
    id = FileId::From64(
        static_cast<LONGLONG>((static_cast<ULONGLONG>(classic.nFileIndexHigh) << 32) | classic.nFileIndexLow));
    return true;
}

} // namespace file
} // namespace qv
