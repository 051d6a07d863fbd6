#pragma once
// Re-entrant, writer-preferring reader-writer lock keyed by Windows thread id. The thread that
// writes may also read; a reader may never upgrade to writing. Misuse ends the process: a lock
// whose bookkeeping is wrong cannot protect anything any more.
#include "support/WinHandle.h"

#include <windows.h>
#include <cstddef>
#include <cstdint>

namespace qv {

// Every operation takes the id of the thread it acts for; 0 means the calling thread.
struct ISyncRWLock {
    virtual void AcquireRead(uint32_t threadId = 0) = 0;
    virtual void ReleaseRead(uint32_t threadId = 0) = 0;
    virtual void AcquireWrite(uint32_t threadId = 0) = 0;
    virtual void ReleaseWrite(uint32_t threadId = 0) = 0;

protected:
    ~ISyncRWLock() = default;
};

class CSyncRWLock : public ISyncRWLock {
public:
    CSyncRWLock();
    ~CSyncRWLock();
    CSyncRWLock(const CSyncRWLock&) = delete;
    CSyncRWLock& operator=(const CSyncRWLock&) = delete;

    void AcquireRead(uint32_t threadId = 0) override;
    void ReleaseRead(uint32_t threadId = 0) override;
    void AcquireWrite(uint32_t threadId = 0) override;
    void ReleaseWrite(uint32_t threadId = 0) override;

    // The lock's own bookkeeping, read under its guard: who waits at the gates and who holds it.
    // For diagnostics and for tests that must know a thread is blocked without guessing a time.
    struct State {
        uint32_t readersWaiting, writersWaiting, activeReaders, writerActive;
    };
    State Snapshot();

private:
    // Read recursion per reading thread, sorted by thread id. The first entries live inline and
    // the storage only ever grows, so taking a read lock allocates nothing once the lock has
    // seen its largest crowd of simultaneous readers.
    class ReaderDepths {
    public:
        struct Entry {
            uint32_t thread;
            uint32_t count;
        };

        ReaderDepths() = default;
        ~ReaderDepths();
        ReaderDepths(const ReaderDepths&) = delete;
        ReaderDepths& operator=(const ReaderDepths&) = delete;

        Entry* Find(uint32_t thread);
        // Inserts the thread or overwrites its count.
        void Set(uint32_t thread, uint32_t count);
        void Erase(Entry* entry);
        void Clear() { size_ = 0; }
        size_t Size() const { return size_; }

    private:
        static constexpr size_t kInline = 8;
        size_t LowerBound(uint32_t thread) const;

        Entry inline_[kInline] = {};
        Entry* items_ = inline_;
        size_t size_ = 0;
        size_t capacity_ = kInline;
    };

    void WaitAsReader(uint32_t thread);
    void WaitAsWriter(uint32_t thread);
    void HandOver();
    [[noreturn]] void Misuse();

    CRITICAL_SECTION guard;
    UniqueHandle readerGate;
    UniqueHandle writerGate;
    uint32_t readersWaiting = 0;
    uint32_t writersWaiting = 0;
    uint32_t activeReaders = 0;
    uint32_t writerActive = 0;
    uint32_t writerThread = 0;
    uint32_t writerReadDepth = 0;
    uint32_t writerDepth = 0;
    ReaderDepths readerDepths;
};

// Scoped holders for code that takes a lock and must give it back on every path.
template <void (ISyncRWLock::*Take)(uint32_t), void (ISyncRWLock::*Give)(uint32_t)> class LockScope {
public:
    explicit LockScope(ISyncRWLock& lock) : lock_(lock) { (lock_.*Take)(0); }
    ~LockScope() { (lock_.*Give)(0); }
    LockScope(const LockScope&) = delete;
    LockScope& operator=(const LockScope&) = delete;

private:
    ISyncRWLock& lock_;
};

using ReadLockScope = LockScope<&ISyncRWLock::AcquireRead, &ISyncRWLock::ReleaseRead>;
using WriteLockScope = LockScope<&ISyncRWLock::AcquireWrite, &ISyncRWLock::ReleaseWrite>;

} // namespace qv
