#include "tests/common/BlockWatch.h"

#include <atomic>
#include <cstring>

namespace testing_support {

namespace {

using WaitFn = DWORD(WINAPI*)(HANDLE, DWORD);
std::atomic<WaitFn> realWait{nullptr};
std::atomic<DWORD> watched{0};
HANDLE blockedEvent = nullptr;

DWORD WINAPI WatchedWait(HANDLE handle, DWORD ms) {
    if (watched.load() == GetCurrentThreadId()) SetEvent(blockedEvent);
    return realWait.load()(handle, ms);
}

// The import address table entry of kernel32's WaitForSingleObject in `module`.
void** ImportSlot(HMODULE module) {
    auto* base = reinterpret_cast<BYTE*>(module);
    auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(base);
    auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (dir.VirtualAddress == 0) return nullptr;
    for (auto* d = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + dir.VirtualAddress); d->Name != 0; ++d) {
        if (_stricmp(reinterpret_cast<const char*>(base + d->Name), "kernel32.dll") != 0) continue;
        auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + d->OriginalFirstThunk);
        auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + d->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++slots) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
            auto* byName = reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
            if (std::strcmp(reinterpret_cast<const char*>(byName->Name), "WaitForSingleObject") == 0)
                return reinterpret_cast<void**>(&slots->u1.Function);
        }
    }
    return nullptr;
}

bool Write(void** slot, void* value) {
    DWORD old = 0;
    if (!VirtualProtect(slot, sizeof(void*), PAGE_READWRITE, &old)) return false;
    *slot = value;
    VirtualProtect(slot, sizeof(void*), old, &old);
    return true;
}

} // namespace

BlockWatch::BlockWatch(HMODULE module) {
    if (blockedEvent == nullptr) blockedEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ResetEvent(blockedEvent);
    watched = 0;
    void** slot = module ? ImportSlot(module) : nullptr;
    if (slot == nullptr) return;
    original_ = *slot;
    realWait = reinterpret_cast<WaitFn>(original_);
    if (Write(slot, reinterpret_cast<void*>(&WatchedWait))) slot_ = slot;
}

BlockWatch::~BlockWatch() {
    if (slot_) Write(slot_, original_); // the forwarder stays valid for waits already inside it
    watched = 0;
}

void BlockWatch::WatchThisThread() {
    ResetEvent(blockedEvent);
    watched = GetCurrentThreadId();
}

bool BlockWatch::Blocked(DWORD ms) const { return WaitForSingleObject(blockedEvent, ms) == WAIT_OBJECT_0; }

} // namespace testing_support
