#include "host/logdll/LogStore.h"

#include <cwchar>

namespace logdll {
namespace {

constexpr uint32_t kLayout = 0x4C4F4731u + sizeof(LogStore);

// The named block holds only the address of the store; the handle of whoever created it stays
// open so that the block outlives every unload of the library.
struct StoreSlot {
    LogStore* volatile store;
};

INIT_ONCE g_once = INIT_ONCE_STATIC_INIT;
LogStore* g_store;

LogStore* CreateStore() {
    void* block = HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(LogStore));
    if (block == nullptr) return nullptr;
    try {
        return new (block) LogStore();
    } catch (...) {
        HeapFree(GetProcessHeap(), 0, block);
        return nullptr;
    }
}

void DestroyStore(LogStore* store) {
    if (store->file != INVALID_HANDLE_VALUE) CloseHandle(store->file);
    TlsFree(store->depthSlot);
    DeleteCriticalSection(&store->lock);
    store->~LogStore();
    HeapFree(GetProcessHeap(), 0, store);
}

BOOL CALLBACK FindOrCreate(PINIT_ONCE, PVOID, PVOID*) {
    wchar_t name[64];
    _snwprintf(name, 63, L"AvScanLogStore-%lu", GetCurrentProcessId());
    name[63] = L'\0';
    HANDLE mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(StoreSlot), name);
    if (mapping == nullptr) return TRUE;
    auto* slot = static_cast<StoreSlot*>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(StoreSlot)));
    if (slot == nullptr) {
        CloseHandle(mapping);
        return TRUE;
    }
    LogStore* store = slot->store;
    bool keepMapping = false;
    if (store == nullptr) {
        LogStore* created = CreateStore();
        if (created != nullptr) {
            void* previous =
                InterlockedCompareExchangePointer(reinterpret_cast<void* volatile*>(&slot->store), created, nullptr);
            if (previous == nullptr) {
                store = created;
                keepMapping = true;
            } else {
                DestroyStore(created);
                store = static_cast<LogStore*>(previous);
            }
        }
    }
    if (store != nullptr && store->layout == kLayout) g_store = store;
    UnmapViewOfFile(slot);
    if (!keepMapping) CloseHandle(mapping);
    return TRUE;
}

} // namespace

LogStore::LogStore()
    : layout(kLayout), file(INVALID_HANDLE_VALUE), console(false), depthSlot(TlsAlloc()), initCalls(0), deinitCalls(0),
      removeModuleCalls(0), writeDelay(0), recording(kRecordLines) {
    InitializeCriticalSection(&lock);
    wchar_t path[MAX_PATH];
    DWORD length = GetEnvironmentVariableW(L"AVSCAN_LOG_FILE", path, MAX_PATH);
    if (length > 0 && length < MAX_PATH) OpenOutputFile(this, path);
}

LogStore* Store() {
    InitOnceExecuteOnce(&g_once, &FindOrCreate, nullptr, nullptr);
    return g_store;
}

bool OpenOutputFile(LogStore* store, const wchar_t* path) {
    if (store->file != INVALID_HANDLE_VALUE) {
        CloseHandle(store->file);
        store->file = INVALID_HANDLE_VALUE;
    }
    if (path == nullptr || *path == L'\0') return true;
    store->file = CreateFileW(path, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                              OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    return store->file != INVALID_HANDLE_VALUE;
}

} // namespace logdll
