#include "tests/common/FileSeam.h"

#include "host/PluginLibrary.h"
#include "support/FileCalls.h"

#include <winternl.h>

#include <cstring>
#include <map>
#include <mutex>

namespace testing_support {

namespace {

using qv::file::FileCalls;
using qv::file::SystemCalls;

struct State {
    std::mutex lock;
    VolumePlay play;
    std::vector<FileCall> calls;
    std::map<std::wstring, int> counts; // per name and trait, how often it was played
    int sleeps = 0;
    DWORD longestSleep = 0;
};
State g_state;

constexpr LONG kAccessDenied = static_cast<LONG>(0xC0000022);
constexpr LONG kSharingViolation = static_cast<LONG>(0xC0000043);
constexpr LONG kDeletePending = static_cast<LONG>(0xC0000056);
constexpr DWORD kCloudTag = 0x9000601A; // IO_REPARSE_TAG_CLOUD_6: not a name surrogate
constexpr ULONGLONG kWideHigh = 0x5A5A;

void Record(FileCall call) {
    std::lock_guard<std::mutex> hold(g_state.lock);
    g_state.calls.push_back(std::move(call));
}

VolumePlay Play() {
    std::lock_guard<std::mutex> hold(g_state.lock);
    return g_state.play;
}

// True the first `limit` times it is asked for this name and trait.
bool Budget(const std::wstring& key, int limit) {
    std::lock_guard<std::mutex> hold(g_state.lock);
    return g_state.counts[key]++ < limit;
}

bool Begins(const std::wstring& name, const wchar_t* prefix) {
    return _wcsnicmp(name.c_str(), prefix, wcslen(prefix)) == 0;
}

std::wstring FinalOf(HANDLE h) {
    wchar_t buffer[1024];
    const DWORD n = SystemCalls().finalPathName(h, buffer, 1024, 0);
    return n && n < 1024 ? std::wstring(buffer, n) : std::wstring();
}

std::wstring LastName(const std::wstring& path) {
    const size_t cut = path.find_last_of(L"\\/");
    return cut == std::wstring::npos ? path : path.substr(cut + 1);
}

ULONGLONG OffsetId(ULONGLONG id) { return ((id * 2654435761ULL) & 0xFFFFF) * 32 + 32; }

// --- the table -------------------------------------------------------------------------------

LONG NTAPI NtCreate(HANDLE* out, ACCESS_MASK access, void* attributes, void* io, LARGE_INTEGER* size,
                    ULONG fileAttributes, ULONG share, ULONG disposition, ULONG options, void* ea, ULONG eaLength) {
    const auto* object = static_cast<OBJECT_ATTRIBUTES*>(attributes);
    const std::wstring name(object->ObjectName->Buffer, object->ObjectName->Length / sizeof(wchar_t));
    Record({"NtCreateFile", name, access, options, object->Attributes, disposition});
    const VolumePlay play = Play();
    if (play.noWriteAttributes && (access & FILE_WRITE_ATTRIBUTES)) return kAccessDenied;
    if (play.noDontReparse && (object->Attributes & 0x1000)) return static_cast<LONG>(0xC000000D);
    if ((access & DELETE) && Budget(L"busy:" + name, play.sharingViolations)) return kSharingViolation;
    bool pending = false;
    for (const std::wstring& p : play.pending) pending = pending || _wcsicmp(p.c_str(), name.c_str()) == 0;
    if (pending && (access & DELETE)) {
        // Someone else has set the entry's disposition; it leaves when that other handle closes.
        DeleteFileW((FinalOf(object->RootDirectory) + L"\\" + name).c_str());
        return kDeletePending;
    }
    return SystemCalls().ntCreateFile(out, access, attributes, io, size, fileAttributes, share, disposition, options,
                                      ea, eaLength);
}

HANDLE WINAPI Create(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD disposition,
                     DWORD flags, HANDLE templ) {
    Record({"CreateFileW", path ? path : L"", access, flags, 0, disposition});
    return SystemCalls().createFile(path, access, share, security, disposition, flags, templ);
}

// Record layouts of the listing classes the plug-in asks (see support/DirectoryWalker.cpp).
constexpr size_t kFullName = 68, kIdBothName = 104, kIdBothId = 96, kAttributes = 56, kEaSize = 64;

// Drops "." and ".." and plays the traits on the records of one listing batch; false when the
// batch is left empty.
bool Rework(void* buffer, bool idBoth, const VolumePlay& play) {
    char* base = static_cast<char*>(buffer);
    std::vector<std::vector<char>> kept;
    for (char* record = base;;) {
        DWORD next, nameBytes;
        std::memcpy(&next, record, 4);
        std::memcpy(&nameBytes, record + 60, 4);
        const size_t nameAt = idBoth ? kIdBothName : kFullName;
        const std::wstring name(reinterpret_cast<wchar_t*>(record + nameAt), nameBytes / sizeof(wchar_t));
        if (!(play.noDots && (name == L"." || name == L".."))) {
            std::vector<char> copy(record, record + nameAt + nameBytes);
            if (play.cloud && Begins(name, L"cloud")) {
                DWORD attributes;
                std::memcpy(&attributes, copy.data() + kAttributes, 4);
                attributes |= FILE_ATTRIBUTE_REPARSE_POINT;
                std::memcpy(copy.data() + kAttributes, &attributes, 4);
                std::memcpy(copy.data() + kEaSize, &kCloudTag, 4);
            }
            if (idBoth && (play.offsetIds || play.wideIds)) {
                ULONGLONG id;
                std::memcpy(&id, copy.data() + kIdBothId, 8);
                id = play.wideIds ? ~0ULL : OffsetId(id);
                std::memcpy(copy.data() + kIdBothId, &id, 8);
            }
            kept.push_back(std::move(copy));
        }
        if (!next) break;
        record += next;
    }
    size_t at = 0;
    for (size_t i = 0; i < kept.size(); ++i) {
        const size_t size = (kept[i].size() + 7) & ~size_t(7);
        std::memcpy(base + at, kept[i].data(), kept[i].size());
        const DWORD next = i + 1 < kept.size() ? static_cast<DWORD>(size) : 0;
        std::memcpy(base + at, &next, 4);
        at += size;
    }
    return !kept.empty();
}

// The 128-bit listing (FILE_ID_EXTD_DIR_INFO) of a volume with wide ids, made from Wine's 64-bit
// one: the id's upper half is the volume's, the reparse tag moves to its own field.
BOOL WideListing(HANDLE h, bool restart, LPVOID buffer, DWORD size) {
    std::vector<LONGLONG> raw(size / sizeof(LONGLONG) + 1);
    if (!SystemCalls().getInfo(h, restart ? FileIdBothDirectoryRestartInfo : FileIdBothDirectoryInfo, raw.data(), size))
        return FALSE;
    const char* record = reinterpret_cast<const char*>(raw.data());
    char* out = static_cast<char*>(buffer);
    char* previous = nullptr;
    for (;;) {
        DWORD next, nameBytes, attributes, ea;
        std::memcpy(&next, record, 4);
        std::memcpy(&attributes, record + kAttributes, 4);
        std::memcpy(&nameBytes, record + 60, 4);
        std::memcpy(&ea, record + kEaSize, 4);
        const DWORD tag = (attributes & FILE_ATTRIBUTE_REPARSE_POINT) ? ea : 0, zero = 0;
        std::memcpy(out, record, kEaSize);
        std::memcpy(out + kEaSize, &zero, 4);
        std::memcpy(out + 68, &tag, 4);
        std::memcpy(out + 72, record + kIdBothId, 8);
        std::memcpy(out + 80, &kWideHigh, 8);
        std::memcpy(out + 88, record + kIdBothName, nameBytes);
        const DWORD length = static_cast<DWORD>((88 + nameBytes + 7) & ~size_t(7));
        std::memcpy(out, &zero, 4);
        if (previous) {
            const DWORD offset = static_cast<DWORD>(out - previous);
            std::memcpy(previous, &offset, 4);
        }
        previous = out;
        out += length;
        if (!next) return TRUE;
        record += next;
    }
}

BOOL WINAPI GetInfo(HANDLE h, FILE_INFO_BY_HANDLE_CLASS type, LPVOID buffer, DWORD size) {
    const VolumePlay play = Play();
    const int cls = static_cast<int>(type);
    if ((cls == 19 || cls == 20) && play.wideIds) return WideListing(h, cls == 20, buffer, size);
    if (cls == 19 || cls == 20 || (play.noIdListing && (cls == 10 || cls == 11))) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (cls == 18 && play.offsetIds) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (cls == 10 || cls == 11 || cls == 14 || cls == 15) {
        if (!play.refuseListing.empty() && LastName(FinalOf(h)) == play.refuseListing) {
            SetLastError(ERROR_ACCESS_DENIED);
            return FALSE;
        }
        const bool idBoth = cls == 10 || cls == 11;
        FILE_INFO_BY_HANDLE_CLASS ask = type;
        for (;;) {
            if (!SystemCalls().getInfo(h, ask, buffer, size)) return FALSE;
            if (Rework(buffer, idBoth, play)) return TRUE;
            ask = static_cast<FILE_INFO_BY_HANDLE_CLASS>(idBoth ? 10 : 14); // the batch after
        }
    }
    if (!SystemCalls().getInfo(h, type, buffer, size)) return FALSE;
    if (cls == 18 && play.wideIds) std::memcpy(static_cast<char*>(buffer) + 16, &kWideHigh, 8);
    if (type == FileAttributeTagInfo && play.cloud && Begins(LastName(FinalOf(h)), L"cloud")) {
        auto* tag = static_cast<FILE_ATTRIBUTE_TAG_INFO*>(buffer);
        tag->FileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
        tag->ReparseTag = kCloudTag;
    }
    return TRUE;
}

BOOL WINAPI GetFileInformation(HANDLE h, LPBY_HANDLE_FILE_INFORMATION info) {
    if (!SystemCalls().getFileInformation(h, info)) return FALSE;
    const VolumePlay play = Play();
    ULONGLONG id = (static_cast<ULONGLONG>(info->nFileIndexHigh) << 32) | info->nFileIndexLow;
    if (play.offsetIds) id = OffsetId(id);
    if (play.wideIds) id = ~0ULL;
    info->nFileIndexHigh = static_cast<DWORD>(id >> 32);
    info->nFileIndexLow = static_cast<DWORD>(id);
    return TRUE;
}

BOOL ClassicDelete(HANDLE h) {
    FILE_DISPOSITION_INFO disposition{TRUE};
    return SystemCalls().setInfo(h, FileDispositionInfo, &disposition, sizeof disposition);
}

BOOL WINAPI SetInfo(HANDLE h, FILE_INFO_BY_HANDLE_CLASS type, LPVOID buffer, DWORD size) {
    const int cls = static_cast<int>(type);
    DWORD flags = 0;
    if (cls == 21) std::memcpy(&flags, buffer, 4);
    Record({"SetInfo", LastName(FinalOf(h)), 0, static_cast<DWORD>(cls), 0, flags});
    const VolumePlay play = Play();
    if (cls == 21 || type == FileDispositionInfo) {
        const std::wstring name = LastName(FinalOf(h));
        if (name == play.refuseDelete) {
            SetLastError(ERROR_ACCESS_DENIED);
            return FALSE;
        }
        FILE_ATTRIBUTE_TAG_INFO tag{};
        const bool folder = SystemCalls().getInfo(h, FileAttributeTagInfo, &tag, sizeof tag) &&
                            (tag.FileAttributes & FILE_ATTRIBUTE_DIRECTORY);
        if (folder && Budget(L"slow:" + name, play.notEmpty)) {
            SetLastError(ERROR_DIR_NOT_EMPTY);
            return FALSE;
        }
    }
    if (cls != 21) return SystemCalls().setInfo(h, type, buffer, size);
    // Wine knows only the classic request; the flags a volume knows are played over it.
    const bool ignoreReadOnly = (flags & 0x10) != 0;
    if (play.dispose == VolumePlay::Dispose::ClassicOnly ||
        (play.dispose == VolumePlay::Dispose::PosixWithoutReadOnlyFlag && ignoreReadOnly)) {
        SetLastError(play.dispose == VolumePlay::Dispose::ClassicOnly ? play.unknownRequest : ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (ignoreReadOnly) {
        const std::wstring path = FinalOf(h);
        const DWORD attributes = GetFileAttributesW(path.c_str());
        if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY))
            SetFileAttributesW(path.c_str(), attributes & ~static_cast<DWORD>(FILE_ATTRIBUTE_READONLY));
    }
    return ClassicDelete(h);
}

DWORD WINAPI FinalPath(HANDLE h, LPWSTR buffer, DWORD size, DWORD flags) {
    if (Play().noFinalName) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return 0;
    }
    return SystemCalls().finalPathName(h, buffer, size, flags);
}

BOOL WINAPI VolumePath(LPCWSTR path, LPWSTR buffer, DWORD size) {
    const VolumePlay play = Play();
    if (!play.mountedAt.empty() && _wcsnicmp(path, play.mountedAt.c_str(), play.mountedAt.size()) == 0) {
        const std::wstring mount = play.mountedAt + L"\\";
        if (mount.size() + 1 > size) {
            SetLastError(ERROR_FILENAME_EXCED_RANGE);
            return FALSE;
        }
        wcscpy_s(buffer, size, mount.c_str());
        return TRUE;
    }
    return SystemCalls().volumePathName(path, buffer, size);
}

DWORD WINAPI FullPath(LPCWSTR path, DWORD size, LPWSTR buffer, LPWSTR* part) {
    return SystemCalls().fullPathName(path, size, buffer, part);
}

HMODULE WINAPI LoadEx(LPCWSTR path, HANDLE file, DWORD flags) {
    Record({"LoadLibraryExW", path ? path : L"", 0, flags, 0, 0});
    return SystemCalls().loadLibraryEx(path, file, flags);
}

VOID WINAPI Wait(DWORD milliseconds) {
    std::lock_guard<std::mutex> hold(g_state.lock);
    ++g_state.sleeps; // the retries are counted, not waited for
    if (milliseconds > g_state.longestSleep) g_state.longestSleep = milliseconds;
}

constexpr FileCalls kTable = {&NtCreate,  &Create,   &GetInfo,    &SetInfo, &GetFileInformation,
                              &FinalPath, &FullPath, &VolumePath, &LoadEx,  &Wait};

using ReplaceFn = void (*)(const FileCalls*);

ReplaceFn Replace() {
    HMODULE seam = GetModuleHandleW(L"AntivirusScanSeam.AL");
    return seam ? reinterpret_cast<ReplaceFn>(reinterpret_cast<void*>(GetProcAddress(seam, "AvscanReplaceFileCalls")))
                : nullptr;
}

} // namespace

std::wstring SeamPluginPath() { return host::ExeFolder() + L"\\AntivirusScanSeam.AL"; }

FileSeam::FileSeam() {
    Play(VolumePlay());
    Clear();
    if (ReplaceFn replace = Replace()) {
        replace(&kTable);
        installed = true;
    }
}

FileSeam::~FileSeam() {
    if (ReplaceFn replace = installed ? Replace() : nullptr) replace(nullptr);
}

void FileSeam::Play(const VolumePlay& play) {
    std::lock_guard<std::mutex> hold(g_state.lock);
    g_state.play = play;
    g_state.counts.clear();
}

std::vector<FileCall> FileSeam::Calls() const {
    std::lock_guard<std::mutex> hold(g_state.lock);
    return g_state.calls;
}

void FileSeam::Clear() {
    std::lock_guard<std::mutex> hold(g_state.lock);
    g_state.calls.clear();
    g_state.sleeps = 0;
    g_state.longestSleep = 0;
}

int FileSeam::Sleeps() const {
    std::lock_guard<std::mutex> hold(g_state.lock);
    return g_state.sleeps;
}

DWORD FileSeam::LongestSleep() const {
    std::lock_guard<std::mutex> hold(g_state.lock);
    return g_state.longestSleep;
}

} // namespace testing_support
