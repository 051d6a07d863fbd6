#pragma once
// Wide UTF-16 string of the SDK interfaces: one pointer to guarded character storage that comes
// from a pluggable memory manager. A broken guard word means the heap is corrupt, so the
// process is ended rather than allowed to go on with bad memory.
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <wchar.h>

#include "sdk/LayoutCheck.h"

namespace qv {

struct IMemMgr {
    virtual void* Allocate(size_t bytes) = 0;
    virtual void* Reallocate(void* block, size_t bytes) = 0;
    virtual void Free(void* block) = 0;
    // Called once each time a string gives its storage back.
    virtual void OnRelease() = 0;
};

class StringMemMgr : public IMemMgr {
public:
    constexpr StringMemMgr() = default;
    void* Allocate(size_t bytes) override;
    void* Reallocate(void* block, size_t bytes) override;
    void Free(void* block) override;
    void OnRelease() override {}
    static StringMemMgr& Default();
};

template <class Ch> struct ChTraitsCRT;
template <> struct ChTraitsCRT<wchar_t> {
    static size_t Length(const wchar_t* s) { return s ? wcslen(s) : 0; }
};

template <class Ch, class Mgr, class Traits, int Flags> class StringT;

template <> class StringT<wchar_t, StringMemMgr, ChTraitsCRT<wchar_t>, 1> {
public:
    static constexpr size_t npos = static_cast<size_t>(-1);
    static constexpr uint32_t kGuard = 0x0000ABCD;
    static constexpr size_t kGrowth = 64;

    // The character block, in byte offsets from its start: guard, header pointer, guard, the
    // characters (where the string points) with the terminator and one more zero slot, and the
    // trailing guard behind them. Every module that touches a string reads these same offsets.
    static constexpr size_t kFirstGuardOffset = 0;
    static constexpr size_t kHeaderPointerOffset = 4;
    static constexpr size_t kSecondGuardOffset = 12;
    static constexpr size_t kCharsOffset = 16;
    // Bytes of a block besides its capacity's characters.
    static constexpr size_t kBlockOverhead = 22;
    static constexpr uint64_t TrailingGuardOffset(uint64_t capacity) {
        return kCharsOffset + capacity * sizeof(wchar_t) + sizeof(wchar_t);
    }

    struct Header {
        IMemMgr* manager;
        uint64_t length;
        uint64_t capacity;
        uint64_t growth;
        uint8_t ownsBlock;
        uint8_t ownsHeader;
    };

    StringT() noexcept : p_(nullptr) {}
    StringT(const wchar_t* text);
    StringT(const wchar_t* text, size_t count);
    StringT(const StringT& other);
    StringT(StringT&& other) noexcept;
    ~StringT();

    StringT& operator=(const StringT& other);
    // Not noexcept: between strings of different managers the characters are copied.
    // NOLINTNEXTLINE(performance-noexcept-move-constructor)
    StringT& operator=(StringT&& other);
    StringT& operator=(const wchar_t* text);

    static StringT FromUtf8(const char* text, size_t count = npos);
    static StringT FromUtf8(const std::string& text) { return FromUtf8(text.data(), text.size()); }
    std::string ToUtf8() const;
    void AssignUtf8(const char* text, size_t count = npos);

    // Never null: a string without storage reads as "".
    const wchar_t* c_str() const { return p_ ? p_ : L""; }
    operator const wchar_t*() const { return c_str(); }
    size_t Length() const {
        CheckValid();
        const Header* h = HeaderPtr();
        return h ? static_cast<size_t>(h->length) : 0;
    }
    size_t Capacity() const {
        CheckValid();
        const Header* h = HeaderPtr();
        return h ? static_cast<size_t>(h->capacity) : 0;
    }
    bool IsEmpty() const { return Length() == 0; }
    bool HasStorage() const { return p_ != nullptr; }
    wchar_t operator[](size_t i) const { return c_str()[i]; }
    const Header* GetHeader() const;

    // Raw access for Windows calls that write in place: reserve, write, then SetLength.
    wchar_t* Buffer() { return p_; }
    void Reserve(size_t count);
    void SetLength(size_t count);
    void Assign(const wchar_t* text, size_t count = npos);
    void Append(const wchar_t* text, size_t count = npos);
    void Append(wchar_t ch) { Append(&ch, 1); }
    void Append(const StringT& other) { Append(other.c_str(), other.Length()); }
    void Clear();

    void Format(const wchar_t* format, ...);
    void FormatV(const wchar_t* format, va_list args);
    int Scan(const wchar_t* format, ...) const;

    int Compare(const wchar_t* other) const;
    int CompareNoCase(const wchar_t* other) const;
    bool EqualsNoCase(const wchar_t* other) const { return CompareNoCase(other) == 0; }
    bool EndsWith(wchar_t ch) const {
        size_t n = Length();
        return n && p_[n - 1] == ch;
    }

    // Terminates the process if a guard word is broken. Inline: it runs before nearly every use.
    void CheckValid() const {
        const Header* h = HeaderPtr();
        if (!h || !p_) return;
        const unsigned char* block = reinterpret_cast<const unsigned char*>(p_) - kCharsOffset;
        if (ReadWord(block + kFirstGuardOffset) != kGuard || ReadWord(block + kSecondGuardOffset) != kGuard ||
            ReadWord(block + TrailingGuardOffset(h->capacity)) != kGuard) {
            Corrupt();
        }
    }

private:
    static uint32_t ReadWord(const unsigned char* at) {
        uint32_t v;
        memcpy(&v, at, sizeof v);
        return v;
    }
    Header* HeaderPtr() const {
        if (!p_) return nullptr;
        Header* h;
        // NOLINTNEXTLINE(bugprone-sizeof-expression): the block holds the pointer itself.
        memcpy(&h, reinterpret_cast<const unsigned char*>(p_) - kCharsOffset + kHeaderPointerOffset, sizeof h);
        return h;
    }
    [[noreturn]] static void Corrupt();
    void Release() noexcept;
    void Grow(size_t needed);
    IMemMgr* Manager() const;

    wchar_t* p_;
};

using StringW = StringT<wchar_t, StringMemMgr, ChTraitsCRT<wchar_t>, 1>;

// The block's parts follow each other without gaps, on every target.
static_assert(StringW::kHeaderPointerOffset == StringW::kFirstGuardOffset + sizeof(uint32_t), "string block");
static_assert(StringW::kSecondGuardOffset == StringW::kHeaderPointerOffset + sizeof(StringW::Header*), "string block");
static_assert(StringW::kCharsOffset == StringW::kSecondGuardOffset + sizeof(uint32_t), "string block");
static_assert(StringW::kBlockOverhead == StringW::kCharsOffset + sizeof(wchar_t) + sizeof(uint32_t), "string block");
static_assert(sizeof(StringW::kGuard) == 4, "string block guard word");

#if QV_SDK_CHECK_LAYOUT
static_assert(sizeof(wchar_t) == 2, "UTF-16 code units");
static_assert(sizeof(StringW) == 8, "a string is one pointer");
static_assert(StringW::kFirstGuardOffset == 0 && StringW::kHeaderPointerOffset == 4 &&
                  StringW::kSecondGuardOffset == 12 && StringW::kCharsOffset == 16 && StringW::kBlockOverhead == 22 &&
                  StringW::TrailingGuardOffset(64) == 146,
              "string block offsets");
static_assert(sizeof(StringW::Header) == 40, "string header");
static_assert(offsetof(StringW::Header, manager) == 0, "string header");
static_assert(offsetof(StringW::Header, length) == 8, "string header");
static_assert(offsetof(StringW::Header, capacity) == 16, "string header");
static_assert(offsetof(StringW::Header, growth) == 24, "string header");
static_assert(offsetof(StringW::Header, ownsBlock) == 32, "string header");
static_assert(offsetof(StringW::Header, ownsHeader) == 33, "string header");
#endif

inline bool operator==(const StringW& a, const StringW& b) { return a.Compare(b.c_str()) == 0; }
inline bool operator!=(const StringW& a, const StringW& b) { return !(a == b); }
inline bool operator==(const StringW& a, const wchar_t* b) { return a.Compare(b) == 0; }
inline bool operator!=(const StringW& a, const wchar_t* b) { return !(a == b); }
inline bool operator<(const StringW& a, const StringW& b) { return a.Compare(b.c_str()) < 0; }

} // namespace qv
