#pragma once
// Drives AntivirusScan.AL the way the host does: LoadLibraryW, the two exports, and calls
// through vtable slot numbers, so that a reordered interface fails the tests.
#include "host/HostEnvironment.h"
#include "host/LogCapture.h"
#include "sdk/IAntivirusScan.h"
#include "sdk/PluginIds.h"

#include <string>

namespace testing_support {

using CreateFn = DWORD (*)(const wchar_t*, GUID, void**);
using DestroyFn = DWORD (*)(const wchar_t*, void*);

// Calls virtual slot `slot` of `object` with `args`; the x64 calling convention passes `this`
// first, as for a free function.
template <class R, class... Args> R CallSlot(void* object, int slot, Args... args) {
    using Fn = R (*)(void*, Args...);
    void** vtable = *static_cast<void***>(object);
    return reinterpret_cast<Fn>(vtable[slot])(object, args...);
}

std::wstring ExeFolder();
std::wstring TempFolder(const wchar_t* tag);  // a fresh, empty folder for one test

class PluginLibrary {
public:
    explicit PluginLibrary(const std::wstring& path = L"");  // default: beside the test exe
    ~PluginLibrary();
    bool Loaded() const { return module_ != nullptr; }
    void Unload();
    DWORD Create(const GUID& id, void** out, const wchar_t* name = qv::kxsdk::ids::kAntivirusScanObjectName);
    void Destroy(void* object, const wchar_t* name = qv::kxsdk::ids::kAntivirusScanObjectName);
    CreateFn create = nullptr;
    DestroyFn destroy = nullptr;

private:
    HMODULE module_ = nullptr;
};

// Lifecycle slots of the primary face.
enum LifecycleSlot { kQueryInterface = 0, kInit = 1, kUnInit = 2, kStart = 3, kStop = 4, kDelayedStart = 5 };

// One created plug-in object with both faces, and the host environment it runs in.
struct PluginUnderTest {
    PluginLibrary library;
    host::HostEnvironment env;
    void* primary = nullptr;
    void* scan = nullptr;  // IAntivirusScan face

    PluginUnderTest();
    ~PluginUnderTest();
    DWORD Init() { return CallSlot<DWORD>(primary, kInit, static_cast<IQvHost*>(&env.host)); }
    DWORD InitWith(IQvHost* host) { return CallSlot<DWORD>(primary, kInit, host); }
    DWORD UnInit() { return CallSlot<DWORD>(primary, kUnInit); }
    DWORD Start() { return CallSlot<DWORD>(primary, kStart); }
    DWORD Stop() { return CallSlot<DWORD>(primary, kStop); }
    DWORD DelayedStart() { return CallSlot<DWORD>(primary, kDelayedStart); }
    qv::kxsdk::AntivirusScan::IAntivirusScan* Scan() const {
        return static_cast<qv::kxsdk::AntivirusScan::IAntivirusScan*>(scan);
    }
    // Init, Start and DelayedStart; true when all three succeeded.
    bool StartAll();
    void StopAll();
    bool stopped = false;
};

} // namespace testing_support
