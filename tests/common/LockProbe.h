#pragma once
// What a CSyncRWLock itself counts: how many threads wait at each gate and who holds it, read
// under the lock's own guard. Tests wait on these counts instead of guessing how long a thread
// needs to reach a gate; a thread counted as waiting stays blocked until a hand-over lets it in.
#include <windows.h>
#include <cstdint>

#include "support/SyncRWLock.h"

namespace qvtest {

namespace lock_probe {
// An explicit instantiation may name private members; the friend function hands the pointer
// to member out of it. Standard C++, no extension.
template <class Tag, typename Tag::type Member> struct Expose {
    friend typename Tag::type MemberOf(Tag) { return Member; }
};
struct Guard {
    using type = CRITICAL_SECTION qv::CSyncRWLock::*;
    friend type MemberOf(Guard);
};
struct ReadersWaiting {
    using type = uint32_t qv::CSyncRWLock::*;
    friend type MemberOf(ReadersWaiting);
};
struct WritersWaiting {
    using type = uint32_t qv::CSyncRWLock::*;
    friend type MemberOf(WritersWaiting);
};
struct ActiveReaders {
    using type = uint32_t qv::CSyncRWLock::*;
    friend type MemberOf(ActiveReaders);
};
struct WriterActive {
    using type = uint32_t qv::CSyncRWLock::*;
    friend type MemberOf(WriterActive);
};
template struct Expose<Guard, &qv::CSyncRWLock::guard>;
template struct Expose<ReadersWaiting, &qv::CSyncRWLock::readersWaiting>;
template struct Expose<WritersWaiting, &qv::CSyncRWLock::writersWaiting>;
template struct Expose<ActiveReaders, &qv::CSyncRWLock::activeReaders>;
template struct Expose<WriterActive, &qv::CSyncRWLock::writerActive>;
} // namespace lock_probe

struct LockState {
    uint32_t readersWaiting, writersWaiting, activeReaders, writerActive;
};

inline LockState StateOf(qv::CSyncRWLock& lock) {
    using namespace lock_probe;
    CRITICAL_SECTION& guard = lock.*MemberOf(Guard{});
    EnterCriticalSection(&guard);
    const LockState state{lock.*MemberOf(ReadersWaiting{}), lock.*MemberOf(WritersWaiting{}),
                          lock.*MemberOf(ActiveReaders{}), lock.*MemberOf(WriterActive{})};
    LeaveCriticalSection(&guard);
    return state;
}

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
