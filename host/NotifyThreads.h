#pragma once
// Notification threads of a host plug-in: each notification runs on a thread of its own, as the
// real plug-ins deliver theirs. The owner waits for every thread before it goes away.
#include <windows.h>

#include <functional>
#include <mutex>
#include <vector>

namespace host {

class NotifyThreads {
public:
    NotifyThreads() = default;
    NotifyThreads(const NotifyThreads&) = delete;
    NotifyThreads& operator=(const NotifyThreads&) = delete;
    ~NotifyThreads();

    // Starts the job on a new thread; false when no thread could be made (the job is not run).
    bool Start(std::function<void()> job);
    // Runs the job on a new thread and waits up to ms for it; false on a timeout or no thread.
    bool RunAndWait(std::function<void()> job, DWORD ms);
    // Waits for every thread started so far; false when one is still running after ms.
    bool WaitAll(DWORD ms);

private:
    HANDLE Launch(std::function<void()> job);

    std::mutex mutex_;
    std::vector<HANDLE> threads_;
};

} // namespace host
