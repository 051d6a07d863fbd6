#pragma once
// Threads and signals for tests that watch other threads block and proceed. Waits are always
// bounded by a generous watchdog: "went on" means it happened within kProceedMs. That a thread
// is blocked is learnt from the lock's own count (LockProbe.h) or from the wait itself
// (BlockWatch.h), never from a pause.
#include <windows.h>
#include <functional>
#include <utility>

namespace qvtest {

constexpr DWORD kProceedMs = 10000;

// Manual-reset event.
class Signal {
public:
    Signal() : handle_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
    ~Signal() { CloseHandle(handle_); }
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

    void Set() { SetEvent(handle_); }
    bool Wait(DWORD ms) const { return WaitForSingleObject(handle_, ms) == WAIT_OBJECT_0; }
    bool IsSet() const { return Wait(0); }
    HANDLE Handle() const { return handle_; }

private:
    HANDLE handle_;
};

// Runs one job on its own thread. The destructor waits a bounded time; a thread that is still
// stuck then (the test has failed already) is abandoned rather than hanging the run.
class TestThread {
public:
    explicit TestThread(std::function<void()> job) {
        auto* owned = new std::function<void()>(std::move(job));
        handle_ = CreateThread(nullptr, 0, &TestThread::Run, owned, 0, nullptr);
        if (handle_ == nullptr) delete owned;
    }
    ~TestThread() {
        if (handle_ == nullptr) return;
        WaitForSingleObject(handle_, kProceedMs);
        CloseHandle(handle_);
    }
    TestThread(const TestThread&) = delete;
    TestThread& operator=(const TestThread&) = delete;

    bool Finished(DWORD ms) const { return WaitForSingleObject(handle_, ms) == WAIT_OBJECT_0; }

private:
    static DWORD WINAPI Run(void* param) {
        auto* job = static_cast<std::function<void()>*>(param);
        (*job)();
        delete job;
        return 0;
    }

    HANDLE handle_ = nullptr;
};

} // namespace qvtest
