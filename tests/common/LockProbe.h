#pragma once
// What a CSyncRWLock itself counts: how many threads wait at each gate and who holds it, read
// under the lock's own guard. Tests wait on these counts instead of guessing how long a thread
// needs to reach a gate; a thread counted as waiting stays blocked until a hand-over lets it in.
#include <windows.h>
#include <cstdint>

#include "support/SyncRWLock.h"

namespace qvtest {

using LockState = qv::CSyncRWLock::State;

inline LockState StateOf(qv::CSyncRWLock& lock) { return lock.Snapshot(); }

// Waits, within the watchdog time, until exactly this many readers and writers wait at the gates.
inline bool WaitForWaiters(qv::CSyncRWLock& lock, uint32_t readers, uint32_t writers, DWORD watchdogMs = 10000) {
    const DWORD start = GetTickCount();
    for (;;) {
        const LockState s = StateOf(lock);
        if (s.readersWaiting == readers && s.writersWaiting == writers) return true;
        if (GetTickCount() - start > watchdogMs) return false;
        Sleep(1); // a poll of the lock's count, not a guess at how long anything takes
    }
}

} // namespace qvtest
