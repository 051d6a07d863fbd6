#include "support/ProcessExit.h"

#include <windows.h>

#include <atomic>

namespace qv {

namespace {

std::atomic<bool> g_detachedByExit{false};

using ShutdownQuery = BOOLEAN(WINAPI*)();

// ntdll's own answer, for code that runs before this image's entry point hears of the exit (other
// images' detach handlers calling in, or an image without such an entry point). Looked up on
// first use without a lock, since a lock could be left held by a thread the exit ended; two
// threads looking it up at once find the same address.
std::atomic<ShutdownQuery> g_query{nullptr};
std::atomic<bool> g_queryLooked{false};

ShutdownQuery ShutdownInProgress() noexcept {
    if (g_queryLooked.load()) return g_query.load();
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    FARPROC entry = ntdll ? GetProcAddress(ntdll, "RtlDllShutdownInProgress") : nullptr;
    g_query.store(reinterpret_cast<ShutdownQuery>(reinterpret_cast<void*>(entry)));
    g_queryLooked.store(true);
    return g_query.load();
}

} // namespace

bool ProcessIsEnding() noexcept {
    if (g_detachedByExit.load()) return true;
    const ShutdownQuery query = ShutdownInProgress();
    return query != nullptr && query() != 0;
}

void NoteProcessDetach(const void* reserved) noexcept {
    if (reserved != nullptr) g_detachedByExit.store(true);
}

} // namespace qv
