#include "support/RundownProtection.h"

#include "support/ProcessExit.h"

namespace qv {

bool RundownProtection::TryAcquire() noexcept {
    uint32_t state = state_.load();
    while (!(state & kClosed)) {
        if (state_.compare_exchange_weak(state, state + kOneUse)) return true;
    }
    return false;
}

void RundownProtection::ReleaseUse() noexcept {
    if (state_.fetch_sub(kOneUse) - kOneUse != kClosed) return;
    // The waiter checks the count under the same lock before it sleeps, so taking the lock here
    // makes the wake-up impossible to miss.
    AcquireSRWLockExclusive(&waitLock_);
    ReleaseSRWLockExclusive(&waitLock_);
    WakeAllConditionVariable(&drained_);
}

void RundownProtection::Open() noexcept { state_.store(0); }

bool RundownProtection::CloseAndWait() noexcept {
    state_.fetch_or(kClosed);
    if (UsesInFlight() == 0) return true;
    if (ProcessIsEnding()) return false;
    AcquireSRWLockExclusive(&waitLock_);
    while (UsesInFlight() != 0) SleepConditionVariableSRW(&drained_, &waitLock_, INFINITE, 0);
    ReleaseSRWLockExclusive(&waitLock_);
    return true;
}

} // namespace qv
