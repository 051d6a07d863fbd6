#include "sdk/StringT.h"

#include <windows.h>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <stdio.h>

namespace qv {

namespace {
// Constant-initialised, so strings built during static initialisation of any module can use it.
StringMemMgr g_defaultManager;

constexpr size_t kLeadBytes = StringW::kCharsOffset;
constexpr size_t kOverheadBytes = StringW::kBlockOverhead;

size_t BlockBytes(size_t capacity) { return capacity * 2 + kOverheadBytes; }

uint8_t* BlockOf(wchar_t* chars) { return reinterpret_cast<uint8_t*>(chars) - kLeadBytes; }

void WriteWord(uint8_t* at, uint32_t v) { memcpy(at, &v, sizeof v); }
} // namespace

void* StringMemMgr::Allocate(size_t bytes) { return malloc(bytes); }
void* StringMemMgr::Reallocate(void* block, size_t bytes) { return realloc(block, bytes); }
void StringMemMgr::Free(void* block) { free(block); }
StringMemMgr& StringMemMgr::Default() { return g_defaultManager; }

StringW::StringT(const wchar_t* text) : p_(nullptr) { Assign(text); }
StringW::StringT(const wchar_t* text, size_t count) : p_(nullptr) { Assign(text, count); }
StringW::StringT(const StringT& other) : p_(nullptr) {
    other.CheckValid();
    if (other.p_) Assign(other.p_, other.Length());
}
StringW::StringT(StringT&& other) noexcept : p_(nullptr) { *this = static_cast<StringT&&>(other); }
StringW::~StringT() { Release(); }

StringW& StringW::operator=(const StringT& other) {
    if (this != &other) {
        other.CheckValid();
        Assign(other.c_str(), other.Length());
    }
    return *this;
}

// Not noexcept: between strings of different managers the characters are copied, which can
// run out of memory.
// NOLINTNEXTLINE(performance-noexcept-move-constructor)
StringW& StringW::operator=(StringT&& other) {
    if (this == &other) return *this;
    other.CheckValid();
    if (!other.p_) {
        Clear();
        return *this;
    }
    if (Manager() == other.Manager() || !p_) {
        Release();
        p_ = other.p_;
        other.p_ = nullptr;
    } else {
        Assign(other.p_, other.Length());
    }
    return *this;
}

StringW& StringW::operator=(const wchar_t* text) {
    Assign(text);
    return *this;
}

const StringW::Header* StringW::GetHeader() const {
    CheckValid();
    return HeaderPtr();
}

IMemMgr* StringW::Manager() const {
    Header* h = HeaderPtr();
    return h ? h->manager : &g_defaultManager;
}

void StringW::Corrupt() { std::terminate(); }

void StringW::Reserve(size_t count) {
    CheckValid();
    if (count > (static_cast<size_t>(-1) - kOverheadBytes) / 2) throw std::bad_alloc();
    const size_t bytes = BlockBytes(count);
    Header* h = HeaderPtr();
    bool freshHeader = false;
    if (!h) {
        h = static_cast<Header*>(malloc(sizeof(Header)));
        if (!h) throw std::bad_alloc();
        *h = Header{&g_defaultManager, 0, 0, kGrowth, 0, 1};
        freshHeader = true;
    }
    uint8_t* block = nullptr;
    if (h->ownsBlock && p_) {
        uint8_t* old = BlockOf(p_);
        block = static_cast<uint8_t*>(h->manager->Reallocate(old, bytes));
        if (!block) {
            block = static_cast<uint8_t*>(h->manager->Allocate(bytes));
            if (!block) throw std::bad_alloc();
            memcpy(block, old, BlockBytes(h->capacity) < bytes ? BlockBytes(h->capacity) : bytes);
            h->manager->Free(old);
        }
    } else {
        block = static_cast<uint8_t*>(h->manager->Allocate(bytes));
        if (!block) {
            if (freshHeader) free(h);
            throw std::bad_alloc();
        }
        memset(block, 0, bytes);
        if (p_) {
            size_t keep = h->length < count ? static_cast<size_t>(h->length) : count;
            memcpy(block + kLeadBytes, p_, keep * sizeof(wchar_t));
        }
    }
    WriteWord(block + kFirstGuardOffset, kGuard);
    // NOLINTNEXTLINE(bugprone-sizeof-expression): the block holds the pointer itself.
    memcpy(block + kHeaderPointerOffset, &h, sizeof h);
    WriteWord(block + kSecondGuardOffset, kGuard);
    WriteWord(block + TrailingGuardOffset(count), kGuard);
    p_ = reinterpret_cast<wchar_t*>(block + kLeadBytes);
    p_[count] = 0;
    h->capacity = count;
    h->ownsBlock = 1;
    if (h->length > count) {
        h->length = count;
    }
    p_[h->length] = 0;
}

void StringW::Grow(size_t needed) {
    Header* h = HeaderPtr();
    size_t c = h ? static_cast<size_t>(h->capacity) : 0;
    if (p_ && needed <= c) return;
    size_t growth = h ? static_cast<size_t>(h->growth) : kGrowth;
    size_t extra = needed > c ? needed - c : 0;
    if (extra < growth) extra = growth;
    size_t step = c < 1024 ? (extra > c ? extra : c) : (extra > 1024 ? extra : 1024);
    Reserve(c + step);
}

void StringW::SetLength(size_t count) {
    CheckValid();
    Header* h = HeaderPtr();
    if (!h) {
        if (count == 0) return;
        std::terminate();
    }
    if (count > h->capacity) std::terminate();
    h->length = count;
    p_[count] = 0;
}

void StringW::Assign(const wchar_t* text, size_t count) {
    CheckValid();
    if (count == npos) count = ChTraitsCRT<wchar_t>::Length(text);
    if (!text) count = 0;
    // The common case: the text fits and lives elsewhere. Writing within the capacity leaves
    // every guard word as it was.
    if (Header* h = HeaderPtr()) {
        if (count <= h->capacity && (text < p_ || text > p_ + h->capacity)) {
            if (count) memcpy(p_, text, count * sizeof(wchar_t));
            h->length = count;
            p_[count] = 0;
            return;
        }
    }
    // Text that lives inside this string's own block must survive a reallocation.
    if (p_ && text >= p_ && text <= p_ + Capacity()) {
        StringT copy(text, count);
        *this = static_cast<StringT&&>(copy);
        return;
    }
    Grow(count);
    Header* h = HeaderPtr();
    if (count > h->capacity) std::terminate();
    if (count) memcpy(p_, text, count * sizeof(wchar_t));
    h->length = count;
    p_[count] = 0;
    CheckValid();
}

void StringW::Append(const wchar_t* text, size_t count) {
    CheckValid();
    if (count == npos) count = ChTraitsCRT<wchar_t>::Length(text);
    if (!text || !count) return;
    if (p_ && text >= p_ && text <= p_ + Capacity()) {
        StringT copy(text, count);
        Append(copy.c_str(), count);
        return;
    }
    size_t len = Length();
    Grow(len + count);
    memcpy(p_ + len, text, count * sizeof(wchar_t));
    SetLength(len + count);
}

void StringW::Clear() {
    if (p_) SetLength(0);
}

void StringW::Release() noexcept {
    CheckValid();
    Header* h = HeaderPtr();
    if (!p_ || !h) {
        p_ = nullptr;
        // The analyzer loses the header pointer that Reserve wrote into the block and read back.
        // NOLINTNEXTLINE(clang-analyzer-unix.Malloc)
        return;
    }
    IMemMgr* mgr = h->manager;
    if (h->ownsBlock) mgr->Free(BlockOf(p_));
    mgr->OnRelease();
    if (h->ownsHeader) free(h);
    p_ = nullptr;
}

void StringW::Format(const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    FormatV(format, args);
    va_end(args);
}

void StringW::FormatV(const wchar_t* format, va_list args) {
    if (!format) {
        Reserve(Capacity() > 0 ? Capacity() : kGrowth);
        SetLength(0);
        return;
    }
    va_list measure;
    va_copy(measure, args);
    int count = _vscwprintf(format, measure);
    va_end(measure);
    if (count < 0) count = -1;
    if (Capacity() < static_cast<size_t>(count) + 2) Reserve(static_cast<size_t>(count) + 2);
    if (count >= 0) {
        va_list print;
        va_copy(print, args);
        (void)_vsnwprintf(p_, static_cast<size_t>(count) + 1, format, print);
        va_end(print);
    }
    SetLength(count < 0 ? 0 : static_cast<size_t>(count));
    CheckValid();
}

// For callers of the SDK. The plug-in itself parses by hand: MinGW's vswscanf ends the process when
// its own buffer cannot be allocated.
int StringW::Scan(const wchar_t* format, ...) const {
    va_list args;
    va_start(args, format);
    int n = vswscanf(c_str(), format, args);
    va_end(args);
    return n;
}

int StringW::Compare(const wchar_t* other) const {
    const wchar_t* a = c_str();
    const wchar_t* b = other ? other : L"";
    return wcscmp(a, b);
}

int StringW::CompareNoCase(const wchar_t* other) const { return _wcsicmp(c_str(), other ? other : L""); }

std::string StringW::ToUtf8() const {
    std::string out;
    size_t len = Length();
    if (!len) return out;
    int n = WideCharToMultiByte(CP_UTF8, 0, p_, static_cast<int>(len), nullptr, 0, nullptr, nullptr);
    if (n <= 0) return out;
    out.resize(static_cast<size_t>(n));
    (void)WideCharToMultiByte(CP_UTF8, 0, p_, static_cast<int>(len), &out[0], n, nullptr, nullptr);
    return out;
}

void StringW::AssignUtf8(const char* text, size_t count) {
    if (count == npos) count = text ? strlen(text) : 0;
    if (!text || !count) {
        Assign(L"", 0);
        return;
    }
    int n = MultiByteToWideChar(CP_UTF8, 0, text, static_cast<int>(count), nullptr, 0);
    if (n <= 0) {
        Assign(L"", 0);
        return;
    }
    // Room is made only when it is missing: reserving the same capacity again would cost a
    // reallocation on every conversion.
    if (!HasStorage() || Capacity() < static_cast<size_t>(n)) Reserve(static_cast<size_t>(n));
    (void)MultiByteToWideChar(CP_UTF8, 0, text, static_cast<int>(count), p_, n);
    SetLength(static_cast<size_t>(n));
}

StringW StringW::FromUtf8(const char* text, size_t count) {
    StringT s;
    s.AssignUtf8(text, count);
    return s;
}

} // namespace qv
