#pragma once
// Drives AntivirusScan.AL the way the host does: LoadLibraryW, the two exports, and calls
// through vtable slot numbers, so that a reordered interface fails the tests.
#include "host/HostEnvironment.h"
#include "host/LogCapture.h"
#include "host/PluginLibrary.h"
#include "sdk/IAntivirusScan.h"
#include "sdk/PluginIds.h"

#include <string>

namespace testing_support {

using host::CallSlot;
using host::CreateFn;
using host::DestroyFn;
using host::ExeFolder;
using host::PluginLibrary;

// A fresh, empty folder for one test.
inline std::wstring TempFolder(const wchar_t* tag) { return host::FreshFolder(L"avscan-", tag); }

// Slot numbers of the faces (lifecycle and IAntivirusScan).
using namespace host::slots;

// One created plug-in object with both faces, and the host environment it runs in.
struct PluginUnderTest {
    PluginLibrary library;
    host::HostEnvironment env;
    void* primary = nullptr;
    void* scan = nullptr; // IAntivirusScan face

    PluginUnderTest();
    // The same with the plug-in built at `libraryPath` (the seam build, tests/seam/).
    explicit PluginUnderTest(const std::wstring& libraryPath);
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
