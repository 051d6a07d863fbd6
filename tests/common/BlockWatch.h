#pragma once
// Tells a test the moment a chosen thread blocks inside a loaded module: the module's import of
// WaitForSingleObject is pointed at a forwarder that signals when that thread calls it, then
// waits as asked. The plug-in's locks wait only there, so "blocked" is known, not guessed.
#include <windows.h>

namespace testing_support {

class BlockWatch {
public:
    explicit BlockWatch(HMODULE module); // one watch at a time
    ~BlockWatch();                       // puts the import back
    BlockWatch(const BlockWatch&) = delete;
    BlockWatch& operator=(const BlockWatch&) = delete;

    bool Installed() const { return slot_ != nullptr; }
    // Called on the thread to watch, before it makes the call that should block.
    void WatchThisThread();
    // True once the watched thread has started waiting inside the module.
    bool Blocked(DWORD ms) const;

private:
    void** slot_ = nullptr;
    void* original_ = nullptr;
};

} // namespace testing_support
