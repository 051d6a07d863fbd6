#include "support/SyncRWLock.h"

#include <cstring>
#include <exception>
#include <new>

namespace qv {

namespace {
constexpr LONG kGateMaximum = 0x7FFFFFFF;

inline uint32_t ResolveThread(uint32_t threadId) {
    return threadId != 0 ? threadId : static_cast<uint32_t>(GetCurrentThreadId());
}
} // namespace

// ---- ReaderDepths ----------------------------------------------------------------------------

CSyncRWLock::ReaderDepths::~ReaderDepths() {
    if (items_ != inline_) delete[] items_;
}

size_t CSyncRWLock::ReaderDepths::LowerBound(uint32_t thread) const {
    size_t low = 0, high = size_;
    while (low < high) {
        const size_t mid = (low + high) / 2;
        if (items_[mid].thread < thread)
            low = mid + 1;
        else
            high = mid;
    }
    return low;
}

CSyncRWLock::ReaderDepths::Entry* CSyncRWLock::ReaderDepths::Find(uint32_t thread) {
    const size_t at = LowerBound(thread);
    return at < size_ && items_[at].thread == thread ? &items_[at] : nullptr;
}

void CSyncRWLock::ReaderDepths::Set(uint32_t thread, uint32_t count) {
    const size_t at = LowerBound(thread);
    if (at < size_ && items_[at].thread == thread) {
        items_[at].count = count;
        return;
    }
    if (size_ == capacity_) {
        // Without room for the new reader its lock could not be tracked at all.
        Entry* grown = new (std::nothrow) Entry[capacity_ * 2];
        if (grown == nullptr) std::terminate();
        std::memcpy(grown, items_, size_ * sizeof(Entry));
        if (items_ != inline_) delete[] items_;
        items_ = grown;
        capacity_ *= 2;
    }
    // Plain loops: the arrays are short and this runs inside guard on every first read.
    for (size_t i = size_; i > at; --i) items_[i] = items_[i - 1];
    items_[at] = Entry{thread, count};
    ++size_;
}

void CSyncRWLock::ReaderDepths::Erase(Entry* entry) {
    const size_t at = static_cast<size_t>(entry - items_);
    for (size_t i = at + 1; i < size_; ++i) items_[i - 1] = items_[i];
    --size_;
}

// ---- CSyncRWLock -----------------------------------------------------------------------------

CSyncRWLock::CSyncRWLock() {
    InitializeCriticalSection(&guard);
    readerGate.Reset(CreateSemaphoreW(nullptr, 0, kGateMaximum, nullptr));
    writerGate.Reset(CreateSemaphoreW(nullptr, 0, kGateMaximum, nullptr));
    // A lock without its gates would let waiting threads run straight through.
    if (!readerGate || !writerGate) std::terminate();
}

CSyncRWLock::~CSyncRWLock() {
    DeleteCriticalSection(&guard);
    readerDepths.Clear();
}

void CSyncRWLock::Misuse() {
    LeaveCriticalSection(&guard);
    std::terminate();
}

// Called inside guard; returns outside it, with the thread counted as a reader by whoever
// opened the gate.
void CSyncRWLock::WaitAsReader(uint32_t thread) {
    ++readersWaiting;
    LeaveCriticalSection(&guard);
    (void)WaitForSingleObject(readerGate.Get(), INFINITE);
    EnterCriticalSection(&guard);
    readerDepths.Set(thread, 1);
    LeaveCriticalSection(&guard);
}

// Called inside guard; returns outside it, owning the write lock that the opener marked active.
void CSyncRWLock::WaitAsWriter(uint32_t thread) {
    ++writersWaiting;
    LeaveCriticalSection(&guard);
    (void)WaitForSingleObject(writerGate.Get(), INFINITE);
    EnterCriticalSection(&guard);
    writerThread = thread;
    writerReadDepth = 0;
    writerDepth = 1;
    LeaveCriticalSection(&guard);
}

// The writer is done: one waiting writer goes first, otherwise every waiting reader at once.
// Called inside guard; returns outside it.
void CSyncRWLock::HandOver() {
    writerActive = 0;
    writerThread = 0;
    if (writersWaiting > 0) {
        --writersWaiting;
        writerActive = 1;
        LeaveCriticalSection(&guard);
        (void)ReleaseSemaphore(writerGate.Get(), 1, nullptr);
        return;
    }
    if (readersWaiting > 0) {
        const uint32_t readers = readersWaiting;
        activeReaders = readers;
        readersWaiting = 0;
        LeaveCriticalSection(&guard);
        (void)ReleaseSemaphore(readerGate.Get(), static_cast<LONG>(readers), nullptr);
        return;
    }
    LeaveCriticalSection(&guard);
}

void CSyncRWLock::AcquireRead(uint32_t threadId) {
    const uint32_t thread = ResolveThread(threadId);
    EnterCriticalSection(&guard);
    if (activeReaders > 0) {
        if (ReaderDepths::Entry* entry = readerDepths.Find(thread)) {
            ++entry->count;
            LeaveCriticalSection(&guard);
            return;
        }
        // Writer preference: a waiting writer keeps newcomers out even while others read.
        if (writersWaiting > 0) return WaitAsReader(thread);
    } else if (writerActive != 0) {
        if (writerThread == thread) {
            ++writerReadDepth;
            LeaveCriticalSection(&guard);
            return;
        }
        return WaitAsReader(thread);
    } else if (writersWaiting > 0) {
        return WaitAsReader(thread);
    }
    readerDepths.Set(thread, 1);
    ++activeReaders;
    LeaveCriticalSection(&guard);
}

void CSyncRWLock::ReleaseRead(uint32_t threadId) {
    const uint32_t thread = ResolveThread(threadId);
    EnterCriticalSection(&guard);
    if (activeReaders == 0) {
        if (writerActive == 0 || writerThread != thread || writerReadDepth == 0) Misuse();
        --writerReadDepth;
        if (writerReadDepth == 0 && writerDepth == 0) return HandOver();
        LeaveCriticalSection(&guard);
        return;
    }
    ReaderDepths::Entry* entry = readerDepths.Find(thread);
    if (entry == nullptr) Misuse();
    if (entry->count > 1) {
        --entry->count;
        LeaveCriticalSection(&guard);
        return;
    }
    readerDepths.Erase(entry);
    --activeReaders;
    if (activeReaders == 0 && writersWaiting > 0) {
        --writersWaiting;
        writerActive = 1;
        LeaveCriticalSection(&guard);
        (void)ReleaseSemaphore(writerGate.Get(), 1, nullptr);
        return;
    }
    LeaveCriticalSection(&guard);
}

void CSyncRWLock::AcquireWrite(uint32_t threadId) {
    const uint32_t thread = ResolveThread(threadId);
    EnterCriticalSection(&guard);
    if (activeReaders == 0) {
        if (writerActive == 0) {
            writerThread = thread;
            writerReadDepth = 0;
            writerDepth = 1;
            writerActive = 1;
            LeaveCriticalSection(&guard);
            return;
        }
        if (writerThread == thread) {
            ++writerDepth;
            LeaveCriticalSection(&guard);
            return;
        }
        return WaitAsWriter(thread);
    }
    // Two readers upgrading at once would wait for each other forever.
    if (readerDepths.Find(thread) != nullptr) Misuse();
    WaitAsWriter(thread);
}

void CSyncRWLock::ReleaseWrite(uint32_t threadId) {
    const uint32_t thread = ResolveThread(threadId);
    EnterCriticalSection(&guard);
    if (writerActive == 0 || writerThread != thread || writerDepth == 0) Misuse();
    --writerDepth;
    if (writerDepth == 0 && writerReadDepth == 0) return HandOver();
    LeaveCriticalSection(&guard);
}

CSyncRWLock::State CSyncRWLock::Snapshot() {
    EnterCriticalSection(&guard);
    const State state{readersWaiting, writersWaiting, activeReaders, writerActive};
    LeaveCriticalSection(&guard);
    return state;
}

} // namespace qv
