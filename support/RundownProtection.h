#pragma once
// Rundown protection, after the kernel's ExAcquireRundownProtection family: uses are taken and
// dropped without blocking, and whoever tears the protected object down first closes it to new
// uses and then waits until the uses already in flight have ended. The fast path is one atomic
// operation, so that guarding every call into another plug-in costs next to nothing.
#include <windows.h>

#include <atomic>
#include <cstdint>

namespace qv {

class RundownProtection {
public:
    // Starts closed: there is nothing to protect until Open.
    RundownProtection() {
        InitializeSRWLock(&waitLock_);
        InitializeConditionVariable(&drained_);
    }
    RundownProtection(const RundownProtection&) = delete;
    RundownProtection& operator=(const RundownProtection&) = delete;

    // True when a use was taken; false once the rundown has been closed.
    bool TryAcquire() noexcept;
    // Drops a use taken by TryAcquire; the last one out after a close wakes the waiter.
    void ReleaseUse() noexcept;
    // Accepts uses again. Only for a closed rundown with no use in flight.
    void Open() noexcept;
    // Refuses new uses from now on and returns true once every use in flight has been dropped.
    // Must not be called by a thread that holds a use itself: it would wait for itself. While the
    // process is ending it returns false at once when uses are in flight: their threads were
    // ended by the exit and will never drop them.
    bool CloseAndWait() noexcept;
    uint32_t UsesInFlight() const noexcept { return state_.load() >> 1; }

private:
    static constexpr uint32_t kClosed = 1;
    static constexpr uint32_t kOneUse = 2;
    std::atomic<uint32_t> state_{kClosed};
    SRWLOCK waitLock_;
    CONDITION_VARIABLE drained_;
};

} // namespace qv
