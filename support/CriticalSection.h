#pragma once
// A critical section that is entered only through a scoped guard, so every path out of the
// scope leaves it: `auto lock = cs.Lock();`.
#include <windows.h>

namespace qv {

class CriticalSection {
public:
    class Guard {
    public:
        ~Guard() {
            if (cs_) cs_->Leave();
        }
        Guard(Guard&& other) noexcept : cs_(other.cs_) { other.cs_ = nullptr; }
        Guard(const Guard&) = delete;
        Guard& operator=(const Guard&) = delete;
        Guard& operator=(Guard&&) = delete;

    private:
        friend class CriticalSection;
        explicit Guard(CriticalSection& cs) noexcept : cs_(&cs) { cs_->Enter(); }
        CriticalSection* cs_;
    };

    explicit CriticalSection(DWORD spinCount = 0) { InitializeCriticalSectionAndSpinCount(&cs_, spinCount); }
    ~CriticalSection() { DeleteCriticalSection(&cs_); }
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    // Held until the returned guard goes out of scope.
    [[nodiscard]] Guard Lock() noexcept { return Guard(*this); }

private:
    void Enter() noexcept { EnterCriticalSection(&cs_); }
    void Leave() noexcept { LeaveCriticalSection(&cs_); }

    CRITICAL_SECTION cs_;
};

} // namespace qv
