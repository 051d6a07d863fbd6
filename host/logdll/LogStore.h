#pragma once
// What log.dll keeps for the whole life of the process. The library is loaded and unloaded many
// times (every traced call that nobody keeps alive does both, twice), so its state lives in the
// process heap and is found again by name after each load.
#include <windows.h>
#include <cstdint>
#include <deque>
#include <limits>
#include <new>
#include <string>

namespace logdll {

template <class T> struct ProcessHeapAllocator {
    using value_type = T;
    ProcessHeapAllocator() = default;
    template <class U> ProcessHeapAllocator(const ProcessHeapAllocator<U>&) {}
    T* allocate(size_t n) {
        if (n > std::numeric_limits<size_t>::max() / sizeof(T)) throw std::bad_alloc();
        void* block = HeapAlloc(GetProcessHeap(), 0, n * sizeof(T));
        if (block == nullptr) throw std::bad_alloc();
        return static_cast<T*>(block);
    }
    void deallocate(T* block, size_t) { HeapFree(GetProcessHeap(), 0, block); }
    template <class U> bool operator==(const ProcessHeapAllocator<U>&) const { return true; }
    template <class U> bool operator!=(const ProcessHeapAllocator<U>&) const { return false; }
};

using HeapString = std::basic_string<wchar_t, std::char_traits<wchar_t>, ProcessHeapAllocator<wchar_t>>;

struct LogRecord {
    uint16_t nesting;
    uint32_t severity;
    DWORD thread;
    HMODULE module;
    HeapString function;
    HeapString text;
};

struct LogStore {
    LogStore();
    LogStore(const LogStore&) = delete;
    LogStore& operator=(const LogStore&) = delete;

    uint32_t layout;       // guards against a different build reading this block
    CRITICAL_SECTION lock; // guards everything below except the interlocked fields
    std::deque<LogRecord, ProcessHeapAllocator<LogRecord>> records;
    HeapString journal;
    HANDLE file;
    bool console;
    DWORD depthSlot; // TLS index: call depth of each thread
    int initCalls;
    int deinitCalls;
    int removeModuleCalls;
    volatile LONG writeDelay;
    volatile LONG recording; // LogRecording: what a write keeps (benchmarks turn it down)
};

// What a write does with its line; the benchmarks compare writers without the cost of the store.
enum LogRecording : LONG {
    kRecordLines = 0, // format, record and emit (the default)
    kFormatOnly = 1,  // format the message text, keep nothing
    kDropLines = 2,   // return at once
};

// Oldest lines are dropped beyond this many, so that a long-running host stays bounded.
constexpr size_t kMaxRecords = 200000;

// The process's store, created by the first load; null only when it cannot be created.
LogStore* Store();

class StoreLock {
public:
    explicit StoreLock(LogStore* store) : store_(store) { EnterCriticalSection(&store_->lock); }
    ~StoreLock() { LeaveCriticalSection(&store_->lock); }
    StoreLock(const StoreLock&) = delete;
    StoreLock& operator=(const StoreLock&) = delete;

private:
    LogStore* store_;
};

// Opens (appending) or closes the output file; the caller holds the store lock.
bool OpenOutputFile(LogStore* store, const wchar_t* path);

} // namespace logdll
