#include "support/WineChecks.h"

#include "support/DirectoryWalker.h"
#include "support/FileCalls.h"

namespace qv {
namespace file {

namespace {
bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }
} // namespace

bool FinalName(HANDLE h, StringW& out) {
    DWORD capacity = 512;
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (!out.HasStorage() || out.Capacity() < capacity) out.Reserve(capacity);
        const DWORD n = Calls().finalPathName(h, out.Buffer(), capacity, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
        if (n == 0) break;
        if (n < capacity) {
            out.SetLength(n);
            return true;
        }
        capacity = n + 1;
    }
    out.SetLength(0);
    return false;
}

namespace {
// Whether `real` is `parentReal` with one separator and `name` after it, without case.
Verdict Compare(const wchar_t* real, size_t realLength, const StringW& parentReal, const wchar_t* name, size_t length) {
    size_t prefix = parentReal.Length();
    const bool separated = prefix && IsSeparator(parentReal[prefix - 1]);
    if (realLength != prefix + (separated ? 0 : 1) + length) return Verdict::Different;
    if (CompareStringOrdinal(real, static_cast<int>(prefix), parentReal.c_str(), static_cast<int>(prefix), TRUE) !=
        CSTR_EQUAL)
        return Verdict::Different;
    if (!separated && real[prefix++] != L'\\') return Verdict::Different;
    return CompareStringOrdinal(real + prefix, static_cast<int>(length), name, static_cast<int>(length), TRUE) ==
                   CSTR_EQUAL
               ? Verdict::Same
               : Verdict::Different;
}
} // namespace

Verdict NamedAsChild(HANDLE child, const StringW& parentReal, const wchar_t* name, size_t length, StringW* real) {
    if (parentReal.IsEmpty()) return Verdict::Undecided;
    // Most names fit here: this runs for every file of a tree, and the heap is left alone.
    wchar_t local[512];
    const DWORD n = Calls().finalPathName(child, local, 512, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    // The volume named the folder: a child it cannot name is not taken on trust.
    if (n == 0) return Verdict::Different;
    if (n < 512) {
        if (real) *real = StringW(local, n);
        return Compare(local, n, parentReal, name, length);
    }
    StringW longer;
    if (!FinalName(child, longer)) return Verdict::Different;
    const Verdict verdict = Compare(longer.c_str(), longer.Length(), parentReal, name, length);
    if (real) *real = std::move(longer);
    return verdict;
}

Verdict IsListedEntry(HANDLE h, const FileId& listed) {
    if (!listed.Known()) return Verdict::Undecided;
    FileId opened;
    if (!IdentityOf(h, opened)) return Verdict::Different;
    if (!opened.Known()) return Verdict::Undecided;
    if (opened == listed) return Verdict::Same;
    // A listing of 64-bit ids against a handle's 128-bit one that does not fit: nothing to compare.
    if (listed.high == 0 && opened.high != 0) return Verdict::Undecided;
    return Verdict::Different;
}

Verdict SitsIn(HANDLE child, HANDLE parent, ListingClass* listing) {
    FileId parentId;
    if (!IdentityOf(parent, parentId)) return Verdict::Different;
    DirectoryWalker walker(child, listing, true);
    // "." and ".." come first where a volume lists them at all.
    for (int seen = 0; seen < 2 && walker.Next(); ++seen) {
        if (walker.Name() != L"..") continue;
        const FileId& dots = walker.Id();
        if (!dots.Known() || !parentId.Known()) return Verdict::Undecided;
        if (dots.high == 0 && parentId.high != 0) return Verdict::Undecided;
        return dots == parentId ? Verdict::Same : Verdict::Different;
    }
    // No ".." entry (SMB servers, exFAT), or a folder that cannot be listed at all, which the
    // deletion that lists it next reports on its own.
    return Verdict::Undecided;
}

} // namespace file
} // namespace qv
