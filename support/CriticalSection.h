#pragma once
#include <windows.h>

namespace qv {

class CriticalSection {
public:
    explicit CriticalSection(DWORD spinCount = 0) { InitializeCriticalSectionAndSpinCount(&cs_, spinCount); }
    ~CriticalSection() { DeleteCriticalSection(&cs_); }
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;
    void Enter() { EnterCriticalSection(&cs_); }
    void Leave() { LeaveCriticalSection(&cs_); }

private:
    CRITICAL_SECTION cs_;
};

class ScopedLock {
public:
    explicit ScopedLock(CriticalSection& cs) : cs_(cs) { cs_.Enter(); }
    ~ScopedLock() { cs_.Leave(); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    CriticalSection& cs_;
};

} // namespace qv
