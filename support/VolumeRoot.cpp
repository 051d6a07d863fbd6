#include "support/VolumeRoot.h"

#include "support/FileCalls.h"

namespace qv {
namespace file {

namespace {

bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }
bool IsLetter(wchar_t c) { return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z'); }
bool IsDrive(const wchar_t* p) { return IsLetter(p[0]) && p[1] == L':'; }

// "\\?\" or "\\.\" (either separator), the prefixes of device and long paths.
bool HasDevicePrefix(const wchar_t* p) {
    return IsSeparator(p[0]) && IsSeparator(p[1]) && (p[2] == L'?' || p[2] == L'.') && IsSeparator(p[3]);
}

bool StartsWithNoCase(const wchar_t* text, const wchar_t* prefix) {
    const int n = static_cast<int>(wcslen(prefix));
    return static_cast<int>(wcsnlen(text, static_cast<size_t>(n))) == n &&
           CompareStringOrdinal(text, n, prefix, n, TRUE) == CSTR_EQUAL;
}

bool FullPathName(const wchar_t* path, StringW& out) {
    DWORD capacity = MAX_PATH;
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (!out.HasStorage() || out.Capacity() < capacity) out.Reserve(capacity);
        const DWORD n = Calls().fullPathName(path, capacity, out.Buffer(), nullptr);
        if (n == 0) break;
        if (n < capacity) {
            out.SetLength(n);
            return true;
        }
        capacity = n + 1;
    }
    return false;
}

bool EqualNoCase(const StringW& a, const StringW& b) {
    return a.Length() == b.Length() && CompareStringOrdinal(a.c_str(), static_cast<int>(a.Length()), b.c_str(),
                                                            static_cast<int>(b.Length()), TRUE) == CSTR_EQUAL;
}

void TrimSeparators(StringW& path) {
    size_t length = path.Length();
    while (length && IsSeparator(path[length - 1])) --length;
    path.SetLength(length);
}

// Roots by their canonical text: "X:", "\\server\share" (or less), and a device path of one element.
bool IsRootText(const StringW& folder) {
    const wchar_t* p = folder.c_str();
    if (folder.IsEmpty()) return true;
    if (IsDrive(p) && folder.Length() == 2) return true;
    if (!(IsSeparator(p[0]) && IsSeparator(p[1]))) return false;
    const size_t skip = HasDevicePrefix(p) ? 4 : 2;
    int elements = 0;
    bool inElement = false;
    for (size_t i = skip; i < folder.Length(); ++i) {
        if (IsSeparator(p[i])) {
            inElement = false;
        } else if (!inElement) {
            inElement = true;
            ++elements;
        }
    }
    return elements <= (skip == 2 ? 2 : 1);
}

} // namespace

bool IsRootPath(const StringW& canonical) { return IsRootText(canonical); }

bool IsFullPath(const wchar_t* path) {
    if (!path) return false;
    if (IsDrive(path)) return IsSeparator(path[2]);
    return IsSeparator(path[0]) && IsSeparator(path[1]) && path[2] && !IsSeparator(path[2]);
}

bool CanonicalPath(const wchar_t* path, StringW& canonical) {
    if (!IsFullPath(path)) return false;
    StringW plain;
    if (HasDevicePrefix(path) && IsDrive(path + 4)) {
        plain = path + 4; // \\?\X:\... and \\.\X:\...
    } else if (HasDevicePrefix(path) && StartsWithNoCase(path + 4, L"UNC\\")) {
        plain = L"\\\\";
        plain.Append(path + 8); // \\?\UNC\server\share\...
    } else {
        plain = path;
    }
    if (!IsFullPath(plain.c_str()) || !FullPathName(plain.c_str(), canonical)) return false;
    TrimSeparators(canonical);
    return !canonical.IsEmpty();
}

bool ParentPath(const StringW& canonical, StringW& parent) {
    parent = canonical;
    TrimSeparators(parent);
    size_t cut = parent.Length();
    while (cut && !IsSeparator(parent[cut - 1])) --cut;
    if (cut == 0) return false;
    parent.SetLength(cut);
    TrimSeparators(parent);
    return true;
}

bool IsVolumeRoot(const FolderHandle& folder, const StringW& path) {
    if (IsRootText(path)) return true;
    bool answered = false;
    // Its path within its own volume: "\" for the root of a drive, of a volume mounted in a folder
    // (opening the folder reached the mounted volume) and of a share.
    wchar_t inVolume[8];
    const DWORD n = Calls().finalPathName(folder.Get(), inVolume, 8, FILE_NAME_NORMALIZED | VOLUME_NAME_NONE);
    if (n != 0) {
        answered = true;
        if (n < 8) {
            bool onlySeparators = true;
            for (DWORD i = 0; i < n; ++i) onlySeparators = onlySeparators && IsSeparator(inVolume[i]);
            if (onlySeparators) return true;
        }
    }
    // The mount point the system finds for the folder's path: the folder itself when a volume is
    // mounted there or it is a share's root.
    StringW volume;
    const DWORD capacity = static_cast<DWORD>(path.Length() + 2);
    volume.Reserve(capacity);
    if (Calls().volumePathName(path.c_str(), volume.Buffer(), capacity)) {
        volume.SetLength(wcsnlen(volume.c_str(), capacity));
        answered = true;
        StringW mine(path);
        TrimSeparators(volume);
        TrimSeparators(mine);
        if (EqualNoCase(volume, mine)) return true;
    }
    return !answered;
}

} // namespace file
} // namespace qv
