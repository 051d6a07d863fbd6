#pragma once
// A busy-wait lock on one 32-bit word: 0 free, 1 held. Taken by exchanging in 1 and sleeping a
// millisecond while the old value was not 0; freed by exchanging in 0. The guard frees the word
// on every way out of its scope, unwinding included, so a failed allocation under it cannot
// leave the word held and every later taker spinning.
#include <windows.h>

namespace qv {

class SpinGuard {
public:
    explicit SpinGuard(volatile LONG& word) noexcept : word_(word) {
        while (InterlockedExchange(&word_, 1) != 0) Sleep(1);
    }
    ~SpinGuard() { InterlockedExchange(&word_, 0); }
    SpinGuard(const SpinGuard&) = delete;
    SpinGuard& operator=(const SpinGuard&) = delete;

private:
    volatile LONG& word_;
};

} // namespace qv
