#include "host/NotifyThreads.h"

#include <memory>

namespace host {

namespace {

DWORD WINAPI RunJob(void* param) {
    std::unique_ptr<std::function<void()>> job(static_cast<std::function<void()>*>(param));
    try {
        (*job)();
    } catch (...) {
    }
    return 0;
}

} // namespace

NotifyThreads::~NotifyThreads() {
    WaitAll(INFINITE);
    for (HANDLE h : threads_) CloseHandle(h);
}

HANDLE NotifyThreads::Launch(std::function<void()> job) {
    auto* owned = new std::function<void()>(std::move(job));
    HANDLE thread = CreateThread(nullptr, 0, &RunJob, owned, 0, nullptr);
    if (!thread) {
        delete owned;
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    threads_.push_back(thread);
    return thread;
}

bool NotifyThreads::Start(std::function<void()> job) {
    try {
        return Launch(std::move(job)) != nullptr;
    } catch (...) {
        return false;
    }
}

bool NotifyThreads::RunAndWait(std::function<void()> job, DWORD ms) {
    HANDLE thread = nullptr;
    try {
        thread = Launch(std::move(job));
    } catch (...) {
        return false;
    }
    return thread && WaitForSingleObject(thread, ms) == WAIT_OBJECT_0;
}

bool NotifyThreads::WaitAll(DWORD ms) {
    std::vector<HANDLE> pending;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        pending = threads_;
    }
    DWORD start = GetTickCount();
    for (HANDLE h : pending) {
        DWORD left = ms;
        if (ms != INFINITE) {
            DWORD spent = GetTickCount() - start;
            left = spent >= ms ? 0 : ms - spent;
        }
        if (WaitForSingleObject(h, left) != WAIT_OBJECT_0) return false;
    }
    return true;
}

} // namespace host
