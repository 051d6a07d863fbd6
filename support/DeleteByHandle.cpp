#include "support/DeleteByHandle.h"

#include "support/FileCalls.h"
#include "support/NtFile.h"

namespace qv {
namespace file {

namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr ACCESS_MASK kListAccess = FILE_LIST_DIRECTORY | FILE_TRAVERSE | FILE_READ_ATTRIBUTES;

// FILE_DISPOSITION_INFO_EX and its flags, not in every SDK's headers.
struct DispositionEx {
    DWORD flags;
};
constexpr DWORD kDispositionDelete = 0x1;
constexpr DWORD kDispositionPosix = 0x2;
constexpr DWORD kDispositionIgnoreReadOnly = 0x10;
constexpr int kFileDispositionInfoEx = 21;

// Bounded retries: five attempts, waits of 1, 2, 4 and 8 ms between them.
constexpr int kAttempts = 5;

template <class Attempt> DWORD Retried(DWORD transient, Attempt attempt) {
    DWORD error = attempt();
    for (int i = 1; i < kAttempts && error == transient; ++i) {
        Calls().sleep(1u << (i - 1));
        error = attempt();
    }
    return error;
}

// The answers of a volume or system that does not know a request (class or flag).
bool IsUnknownRequest(DWORD error) {
    return error == ERROR_INVALID_PARAMETER || error == ERROR_INVALID_FUNCTION || error == ERROR_NOT_SUPPORTED;
}

DWORD SetDispositionEx(HANDLE h, DWORD flags) {
    DispositionEx ex{flags};
    if (Calls().setInfo(h, static_cast<FILE_INFO_BY_HANDLE_CLASS>(kFileDispositionInfoEx), &ex, sizeof ex))
        return ERROR_SUCCESS;
    return GetLastError();
}

DWORD SetDisposition(HANDLE h) {
    FILE_DISPOSITION_INFO disposition{TRUE};
    if (Calls().setInfo(h, FileDispositionInfo, &disposition, sizeof disposition)) return ERROR_SUCCESS;
    return GetLastError();
}

// Clears the read-only bit through the handle (which needs FILE_WRITE_ATTRIBUTES); false when
// the bit was not set or could not be cleared.
bool ClearReadOnly(HANDLE h) {
    FILE_BASIC_INFO basic{};
    if (!Calls().getInfo(h, FileBasicInfo, &basic, sizeof basic)) return false;
    if (!(basic.FileAttributes & FILE_ATTRIBUTE_READONLY)) return false;
    basic.FileAttributes &= ~static_cast<DWORD>(FILE_ATTRIBUTE_READONLY);
    if (!basic.FileAttributes) basic.FileAttributes = FILE_ATTRIBUTE_NORMAL;
    // Times of zero leave them as they are.
    basic.CreationTime.QuadPart = basic.LastAccessTime.QuadPart = 0;
    basic.LastWriteTime.QuadPart = basic.ChangeTime.QuadPart = 0;
    return Calls().setInfo(h, FileBasicInfo, &basic, sizeof basic) != FALSE;
}

} // namespace

DWORD DeleteByHandle(HANDLE h, ReadOnlyBit readOnly, VolumeAnswers& answers) {
    const bool clear = readOnly == ReadOnlyBit::Clear;
    if (answers.posixDelete) {
        DWORD error = ERROR_INVALID_PARAMETER;
        if (clear && answers.ignoreReadOnlyFlag) {
            error = SetDispositionEx(h, kDispositionDelete | kDispositionPosix | kDispositionIgnoreReadOnly);
            if (error == ERROR_SUCCESS) return error;
            // Windows Server 2016 knows POSIX semantics but not this flag, and refuses the
            // request as a whole: asked again without it.
            if (error == ERROR_INVALID_PARAMETER) answers.ignoreReadOnlyFlag = false;
        }
        if (error == ERROR_INVALID_PARAMETER) {
            error = SetDispositionEx(h, kDispositionDelete | kDispositionPosix);
            if (error == ERROR_ACCESS_DENIED && clear && ClearReadOnly(h))
                error = SetDispositionEx(h, kDispositionDelete | kDispositionPosix);
        }
        if (!IsUnknownRequest(error)) return error;
        // FAT, exFAT, older systems and some redirectors know only the classic request.
        answers.posixDelete = false;
    }
    DWORD error = SetDisposition(h);
    if (error == ERROR_ACCESS_DENIED && clear && ClearReadOnly(h)) error = SetDisposition(h);
    return error;
}

DWORD DeleteFolderByHandle(HANDLE h, ReadOnlyBit readOnly, VolumeAnswers& answers) {
    return Retried(ERROR_DIR_NOT_EMPTY, [&] { return DeleteByHandle(h, readOnly, answers); });
}

DWORD OpenForDelete(HANDLE parent, const wchar_t* name, size_t length, bool directory, bool clearsReadOnly,
                    HANDLE* out) {
    const ACCESS_MASK base = DELETE | FILE_READ_ATTRIBUTES | (directory ? kListAccess : 0);
    const ULONG options = (directory ? nt::kDirectoryFile : nt::kNonDirectoryFile) | nt::kOpenReparsePoint;
    auto open = [&](ACCESS_MASK access) {
        return Retried(ERROR_SHARING_VIOLATION, [&] {
            return nt::OpenRelative(parent, name, length, access, kShareAll, nt::kFileOpen, options, out);
        });
    };
    if (!clearsReadOnly) return open(base);
    const DWORD error = open(base | FILE_WRITE_ATTRIBUTES);
    // An ACL may grant delete (or the folder delete-child) without write-attributes: DeleteFileW
    // deletes such a file, and so does a handle without that right where the volume ignores the
    // read-only bit on request.
    return error == ERROR_ACCESS_DENIED ? open(base) : error;
}

bool IsLink(HANDLE h, bool& known) {
    FILE_ATTRIBUTE_TAG_INFO tag{};
    known = Calls().getInfo(h, FileAttributeTagInfo, &tag, sizeof tag) != FALSE;
    if (!known) return false;
    return (tag.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) && IsReparseTagNameSurrogate(tag.ReparseTag);
}

} // namespace file
} // namespace qv
