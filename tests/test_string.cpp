// The guarded wide string: growth, formatting, UTF-8, comparisons, parsing and corruption.
#include "support/StringT.h"
#include "tests/common/ChildProcess.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using qv::StringW;
using testing_support::ChildMode;
using testing_support::RunChild;

namespace {

std::wstring Repeat(wchar_t ch, size_t n) { return std::wstring(n, ch); }

// Counts the memory manager's calls so that a move can be shown to allocate nothing.
struct CountingManager : qv::StringMemMgr {
    int allocations = 0;
    void* Allocate(size_t bytes) override { ++allocations; return StringMemMgr::Allocate(bytes); }
};

TEST(StringGrowth, FollowsTheGrowthRule) {
    StringW s;
    EXPECT_FALSE(s.HasStorage());
    EXPECT_TRUE(s.IsEmpty());
    EXPECT_STREQ(L"", s.c_str());

    s.Assign(Repeat(L'a', 10).c_str());
    EXPECT_EQ(64u, s.Capacity());

    StringW t;
    t.Assign(Repeat(L'b', 65).c_str());
    EXPECT_EQ(65u, t.Capacity());

    StringW u(Repeat(L'c', 10).c_str());
    ASSERT_EQ(64u, u.Capacity());
    u.Assign(Repeat(L'd', 200).c_str());
    EXPECT_EQ(200u, u.Capacity());
    EXPECT_EQ(Repeat(L'd', 200), u.c_str());

    StringW v;
    v.Reserve(1500);
    v.Assign(Repeat(L'e', 2000).c_str());
    EXPECT_EQ(2524u, v.Capacity());
    EXPECT_EQ(2000u, v.Length());
}

TEST(StringGrowth, BlockLayoutHasGuardsAroundTheText) {
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
    EXPECT_EQ(1, header->ownsBlock);
    EXPECT_EQ(1, header->ownsHeader);
    EXPECT_EQ(0, s.c_str()[s.Capacity()]);
}

TEST(StringCopyMove, CopiesDoNotShareAndMovesTakeThePointer) {
    StringW a(L"hello");
    StringW b(a);
    EXPECT_NE(a.c_str(), b.c_str());
    EXPECT_EQ(a, b);

    const wchar_t* storage = a.c_str();
    StringW c(std::move(a));
    EXPECT_EQ(storage, c.c_str());
    EXPECT_FALSE(a.HasStorage());

    StringW d(L"x");
    d = std::move(c);
    EXPECT_EQ(storage, d.c_str());
    EXPECT_FALSE(c.HasStorage());

    d = d;  // self-assignment keeps the text
    EXPECT_STREQ(L"hello", d.c_str());

    StringW e(L"0123456789");
    e.Assign(e.c_str() + 2, 3);  // overlapping source
    EXPECT_STREQ(L"234", e.c_str());
}

TEST(StringFormat, UsesMicrosoftWideConventions) {
    StringW s;
    s.Format(L"[path = %s] [error = %d] [count = %llu]", L"C:\\x", 5, 18446744073709551615ull);
    EXPECT_STREQ(L"[path = C:\\x] [error = 5] [count = 18446744073709551615]", s.c_str());

    s.Format(L"%S", "narrow");
    EXPECT_STREQ(L"narrow", s.c_str());

    StringW empty;
    empty.Format(nullptr);
    EXPECT_TRUE(empty.HasStorage());
    EXPECT_TRUE(empty.IsEmpty());

    StringW big;
    big.Format(L"%s", Repeat(L'z', 5000).c_str());
    EXPECT_EQ(5000u, big.Length());
}

TEST(StringUtf8, RoundTripsOutsideTheBasicPlane) {
    const std::string utf8 = "caf\xC3\xA9 \xF0\x9F\x98\x80 \xE6\x97\xA5";  // é, U+1F600, 日
    StringW s = StringW::FromUtf8(utf8);
    ASSERT_EQ(9u, s.Length());  // the emoji is a surrogate pair
    EXPECT_EQ(0xD83D, s[5]);
    EXPECT_EQ(0xDE00, s[6]);
    EXPECT_EQ(utf8, s.ToUtf8());

    EXPECT_EQ("", StringW().ToUtf8());
    EXPECT_TRUE(StringW::FromUtf8("").IsEmpty());
    // Invalid sequences become replacement characters, never a failure.
    StringW bad = StringW::FromUtf8("a\xFF\xFE" "b");
    EXPECT_EQ(L'a', bad[0]);
    EXPECT_EQ(L'b', bad[bad.Length() - 1]);
}

TEST(StringCompare, CaseSensitiveAndInsensitive) {
    StringW s(L"Antivirus");
    EXPECT_EQ(0, s.Compare(L"Antivirus"));
    EXPECT_NE(0, s.Compare(L"antivirus"));
    EXPECT_TRUE(s.EqualsNoCase(L"ANTIVIRUS"));
    EXPECT_FALSE(s.EqualsNoCase(L"Antivirus2"));
    EXPECT_TRUE(StringW(L"a") < StringW(L"b"));
    EXPECT_TRUE(StringW() == StringW(L""));
}

TEST(StringScan, ParsesWithWideFormats) {
    unsigned long long a = 0, b = 0, e = 0;
    StringW text(L"872DA2C0-CDA8-02768709E306");
    EXPECT_EQ(3, text.Scan(L"%llx-%llx-%llx", &a, &b, &e));
    EXPECT_EQ(0x872DA2C0ull, a);
    EXPECT_EQ(0xCDA8ull, b);
    EXPECT_EQ(0x02768709E306ull, e);
}

TEST(StringMemory, MoveBetweenSameManagerAllocatesNothing) {
    CountingManager manager;
    StringW a(L"payload");
    const_cast<StringW::Header*>(a.GetHeader())->manager = &manager;
    StringW b;
    b = std::move(a);
    EXPECT_EQ(0, manager.allocations);
    b.Append(L" more text that still fits");
    EXPECT_EQ(0, manager.allocations);
    const_cast<StringW::Header*>(b.GetHeader())->manager = &qv::StringMemMgr::Default();
}

void CorruptTrailingGuard() {
    StringW s(L"abc");
    wchar_t* chars = const_cast<wchar_t*>(s.c_str());
    chars[s.Capacity() + 1] = 0x1234;  // the word after the terminator slot
    s.Append(L"d");
}
ChildMode corruptTrailing("corrupt-trailing", CorruptTrailingGuard);

void CorruptLeadingGuard() {
    StringW s(L"abc");
    uint8_t* chars = reinterpret_cast<uint8_t*>(const_cast<wchar_t*>(s.c_str()));
    chars[-4] = 0;
    (void)s.Length();
}
ChildMode corruptLeading("corrupt-leading", CorruptLeadingGuard);

void OverrunCapacity() {
    StringW s(L"abc");
    s.SetLength(s.Capacity() + 1);
}
ChildMode overrun("overrun", OverrunCapacity);

TEST(StringCorruption, BrokenGuardsEndTheProcess) {
    EXPECT_NE(0u, RunChild("corrupt-trailing"));
    EXPECT_NE(0u, RunChild("corrupt-leading"));
    EXPECT_NE(0u, RunChild("overrun"));
}

} // namespace
