// The guarded wide string: growth, block layout, formatting, UTF-8, parsing and corruption.
#include "sdk/StringT.h"
#include "tests/common/ChildProcess.h"
#include "tests/common/ImportFaults.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <string>

using qv::StringW;
using testing_support::ChildMode;
using testing_support::RunChild;

namespace {

struct CountingManager : qv::StringMemMgr {
    int allocations = 0;
    void* Allocate(size_t bytes) override {
        ++allocations;
        return StringMemMgr::Allocate(bytes);
    }
};

TEST(String, GrowthRule) {
    // before: characters assigned first (or reserved, when negative), then `assigned` characters.
    struct Case {
        int before;
        size_t assigned, capacity;
    };
    for (const Case& c : {Case{0, 10, 64}, Case{0, 65, 65}, Case{10, 200, 200}, Case{-1500, 2000, 2524}}) {
        StringW s;
        if (c.before > 0) s.Assign(std::wstring(c.before, L'x').c_str());
        if (c.before < 0) s.Reserve(-c.before);
        s.Assign(std::wstring(c.assigned, L'x').c_str());
        EXPECT_EQ(c.capacity, s.Capacity()) << c.before << " then " << c.assigned;
        EXPECT_EQ(c.assigned, s.Length());
    }
}

TEST(String, BlockLayoutHasGuardsAroundTheText) {
    StringW s(L"abc");
    const uint8_t* chars = reinterpret_cast<const uint8_t*>(s.c_str());
    uint32_t lead0, lead1, trail;
    const StringW::Header* header;
    memcpy(&lead0, chars - 16, 4);
    memcpy(&header, chars - 12, sizeof header);
    memcpy(&lead1, chars - 4, 4);
    memcpy(&trail, chars + s.Capacity() * 2 + 2, 4);
    EXPECT_EQ(0xABCDu, lead0);
    EXPECT_EQ(0xABCDu, lead1);
    EXPECT_EQ(0xABCDu, trail);
    EXPECT_EQ(header, s.GetHeader());
    EXPECT_EQ(3u, header->length);
    EXPECT_EQ(64u, header->growth);
    EXPECT_EQ(0, s.c_str()[s.Capacity()]);
}

TEST(String, CopiesDoNotShareAndMovesAllocateNothing) {
    StringW a(L"hello");
    StringW b(a);
    EXPECT_NE(a.c_str(), b.c_str());
    EXPECT_EQ(a, b);

    CountingManager manager;
    const_cast<StringW::Header*>(a.GetHeader())->manager = &manager;
    const wchar_t* storage = a.c_str();
    StringW c;
    c = std::move(a);
    EXPECT_EQ(storage, c.c_str());
    EXPECT_FALSE(a.HasStorage());
    c.Append(L" more text that still fits");
    EXPECT_EQ(0, manager.allocations);
    const_cast<StringW::Header*>(c.GetHeader())->manager = &qv::StringMemMgr::Default();

    StringW e(L"0123456789");
    e.Assign(e.c_str() + 2, 3); // overlapping source
    EXPECT_STREQ(L"234", e.c_str());
}

TEST(String, FormatUsesMicrosoftWideConventions) {
    StringW s;
    s.Format(L"[path = %s] [error = %d] [count = %llu] %S", L"C:\\x", 5, 18446744073709551615ull, "narrow");
    EXPECT_STREQ(L"[path = C:\\x] [error = 5] [count = 18446744073709551615] narrow", s.c_str());
    s.Format(L"%s", std::wstring(5000, L'z').c_str());
    EXPECT_EQ(5000u, s.Length());
}

TEST(String, Utf8RoundTripsOutsideTheBasicPlane) {
    const std::string utf8 = "caf\xC3\xA9 \xF0\x9F\x98\x80 \xE6\x97\xA5"; // é, U+1F600, 日
    StringW s = StringW::FromUtf8(utf8);
    ASSERT_EQ(9u, s.Length());
    EXPECT_EQ(0xD83D, s[5]);
    EXPECT_EQ(0xDE00, s[6]);
    EXPECT_EQ(utf8, s.ToUtf8());
    StringW bad = StringW::FromUtf8("a\xFF\xFE"
                                    "b"); // replacement characters, not a failure
    EXPECT_EQ(L'a', bad[0]);
    EXPECT_EQ(L'b', bad[bad.Length() - 1]);
}

// Windows refuses UTF-8 conversions asked with any flag but the invalid-character one
// (ERROR_INVALID_FLAGS); Wine converts all the same. The program's own imports are held to the
// documented rule, so that a conversion asked with another flag fails here as it would there.
using MultiByteToWideCharFn = int(WINAPI*)(UINT, DWORD, LPCCH, int, LPWSTR, int);
using WideCharToMultiByteFn = int(WINAPI*)(UINT, DWORD, LPCWCH, int, LPSTR, int, LPCCH, LPBOOL);
MultiByteToWideCharFn realToWide = nullptr;
WideCharToMultiByteFn realToUtf8 = nullptr;

int WINAPI StrictToWide(UINT page, DWORD flags, LPCCH text, int count, LPWSTR out, int room) {
    if (page == CP_UTF8 && (flags & ~static_cast<DWORD>(MB_ERR_INVALID_CHARS)) != 0) {
        SetLastError(ERROR_INVALID_FLAGS);
        return 0;
    }
    return realToWide(page, flags, text, count, out, room);
}

int WINAPI StrictToUtf8(UINT page, DWORD flags, LPCWCH text, int count, LPSTR out, int room, LPCCH fill, LPBOOL used) {
    if (page == CP_UTF8 && ((flags & ~static_cast<DWORD>(WC_ERR_INVALID_CHARS)) != 0 || fill || used)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    return realToUtf8(page, flags, text, count, out, room, fill, used);
}

TEST(String, Utf8ConversionsKeepToWindowsFlagRules) {
    const HMODULE self = GetModuleHandleW(nullptr);
    ASSERT_TRUE(testing_support::PatchImport(self, "kernel32.dll", "MultiByteToWideChar",
                                             reinterpret_cast<void*>(&StrictToWide),
                                             reinterpret_cast<void**>(&realToWide)));
    ASSERT_TRUE(testing_support::PatchImport(self, "kernel32.dll", "WideCharToMultiByte",
                                             reinterpret_cast<void*>(&StrictToUtf8),
                                             reinterpret_cast<void**>(&realToUtf8)));
    const std::string utf8 = "\xC3\xA9t\xC3\xA9 \xE6\x97\xA5";
    const StringW wide = StringW::FromUtf8(utf8);
    EXPECT_EQ(std::wstring(L"\u00E9t\u00E9 \u65E5"), std::wstring(wide.c_str()));
    EXPECT_EQ(utf8, wide.ToUtf8());
    void* ignored = nullptr;
    testing_support::PatchImport(self, "kernel32.dll", "MultiByteToWideChar", reinterpret_cast<void*>(realToWide),
                                 &ignored);
    testing_support::PatchImport(self, "kernel32.dll", "WideCharToMultiByte", reinterpret_cast<void*>(realToUtf8),
                                 &ignored);
}

TEST(String, ComparesAndScans) {
    StringW s(L"Antivirus");
    EXPECT_EQ(0, s.Compare(L"Antivirus"));
    EXPECT_NE(0, s.Compare(L"antivirus"));
    EXPECT_TRUE(s.EqualsNoCase(L"ANTIVIRUS"));
    EXPECT_FALSE(s.EqualsNoCase(L"Antivirus2"));
    EXPECT_TRUE(StringW(L"a") < StringW(L"b"));

    unsigned long long a = 0, b = 0, e = 0;
    EXPECT_EQ(3, StringW(L"872DA2C0-CDA8-02768709E306").Scan(L"%llx-%llx-%llx", &a, &b, &e));
    EXPECT_EQ(0x872DA2C0ull, a);
    EXPECT_EQ(0xCDA8ull, b);
    EXPECT_EQ(0x02768709E306ull, e);
}

const ChildMode corruptTrailing("corrupt-trailing", [] {
    StringW s(L"abc");
    const_cast<wchar_t*>(s.c_str())[s.Capacity() + 1] = 0x1234; // the word after the terminator slot
    s.Append(L"d");
});
const ChildMode corruptLeading("corrupt-leading", [] {
    StringW s(L"abc");
    reinterpret_cast<uint8_t*>(const_cast<wchar_t*>(s.c_str()))[-4] = 0;
    (void)s.Length();
});
const ChildMode overrun("overrun", [] {
    StringW s(L"abc");
    s.SetLength(s.Capacity() + 1);
});

TEST(String, BrokenGuardsEndTheProcess) {
    for (const char* name : {"corrupt-trailing", "corrupt-leading", "overrun"}) {
        const DWORD code = RunChild(name);
        EXPECT_NE(0u, code) << name;
        EXPECT_NE(0xFFFFFFFFu, code) << name;
    }
}

// A manager whose reallocation leaves the new tail of the block dirty, as realloc may.
struct DirtyTailManager : qv::StringMemMgr {
    void* Reallocate(void* block, size_t bytes) override {
        const size_t old = _msize(block);
        void* grown = std::malloc(bytes);
        if (!grown) return nullptr;
        std::memset(grown, 0xEE, bytes);
        std::memcpy(grown, block, old < bytes ? old : bytes);
        std::free(block);
        return grown;
    }
};

// Whatever the block held, the text ends with its terminator at the new length.
TEST(String, AssignmentsTerminateTheTextAtItsLength) {
    DirtyTailManager manager;
    StringW s(std::wstring(64, L'x').c_str());
    const_cast<StringW::Header*>(s.GetHeader())->manager = &manager;
    s.Assign(std::wstring(100, L'y').c_str()); // grows through the manager
    EXPECT_EQ(100u, wcslen(s.c_str()));
    s.Assign(L"short", 5); // fits
    EXPECT_STREQ(L"short", s.c_str());
    const_cast<StringW::Header*>(s.GetHeader())->manager = &qv::StringMemMgr::Default();
}

// Growing a block the string owns asks the manager to reallocate it first; only when that fails
// is a new block allocated, the text copied over and the old block freed.
// A block the header does not own (a host's own buffer) is never reallocated nor freed: growing
// copies the text into a block of the string's own, and the old block is the host's to free.
TEST(String, GrowthOutOfABlockItDoesNotOwnKeepsTheText) {
    StringW s(L"abc");
    auto* header = const_cast<StringW::Header*>(s.GetHeader());
    void* hostBlock = const_cast<wchar_t*>(s.c_str()) - StringW::kCharsOffset / sizeof(wchar_t);
    header->ownsBlock = 0;
    s.Append(std::wstring(100, L'd').c_str());
    EXPECT_EQ(L"abc" + std::wstring(100, L'd'), std::wstring(s.c_str()));
    EXPECT_EQ(1, header->ownsBlock);
    EXPECT_NE(hostBlock, static_cast<void*>(const_cast<wchar_t*>(s.c_str()) - StringW::kCharsOffset / sizeof(wchar_t)));
    header->manager->Free(hostBlock);
}

TEST(String, GrowthReallocatesBeforeItAllocatesAnew) {
    struct Manager : qv::StringMemMgr {
        bool refuse = false;
        int reallocations = 0, allocations = 0, frees = 0;
        void* Allocate(size_t bytes) override { return ++allocations, StringMemMgr::Allocate(bytes); }
        void* Reallocate(void* block, size_t bytes) override {
            ++reallocations;
            return refuse ? nullptr : StringMemMgr::Reallocate(block, bytes);
        }
        void Free(void* block) override { ++frees, StringMemMgr::Free(block); }
    };
    for (bool refuse : {false, true}) {
        Manager manager;
        manager.refuse = refuse;
        StringW s(L"abc");
        const_cast<StringW::Header*>(s.GetHeader())->manager = &manager;
        s.Append(std::wstring(100, L'd').c_str());
        EXPECT_EQ(1, manager.reallocations);
        EXPECT_EQ(refuse ? 1 : 0, manager.allocations);
        EXPECT_EQ(refuse ? 1 : 0, manager.frees);
        EXPECT_EQ(L"abc" + std::wstring(100, L'd'), std::wstring(s.c_str()));
        const_cast<StringW::Header*>(s.GetHeader())->manager = &qv::StringMemMgr::Default();
    }
}

} // namespace
