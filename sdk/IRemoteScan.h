#pragma once
// The remote-scan plug-in ("AntivirusScan.Remote"): state of the remote scanning service.
// A released interface never changes: its slots keep their order, arguments and meaning, and new
// operations go into a new interface with an id of its own.
#include "sdk/QvBase.h"

namespace qv {
namespace kxsdk {
namespace AntivirusScan {

struct IRemoteScan {
    // Notifications of the remote-scan plug-in, delivered on its own thread.
    struct IEvents {
        virtual DWORD OnStatusChanged(bool status) = 0;           // slot 0
        virtual DWORD OnSettingsChanged() = 0;                    // slot 1
        virtual DWORD OnConnectionChanged(bool connected) = 0;    // slot 2
        virtual DWORD OnScanModeChanged() = 0;                    // slot 3
        virtual DWORD OnServerChanged(const wchar_t* server) = 0; // slot 4
        virtual ~IEvents() = default;                             // slot 5
    };

    // Remote-scan fallback modes reported by GetFallbackMode.
    enum FallbackMode : uint32_t { NoFallback = 0, FallbackRemote = 1, FallbackLocal = 2 };

    virtual DWORD GetStatus(bool* enabled) = 0;                           // slot 0: service on
    virtual DWORD GetServerCount(uint32_t* count) = 0;                    // slot 1
    virtual DWORD GetFallbackMode(uint32_t* mode) = 0;                    // slot 2
    virtual DWORD GetServer(wchar_t* buffer, uint32_t size) = 0;          // slot 3
    virtual DWORD GetTimeout(uint32_t* milliseconds) = 0;                 // slot 4
    virtual DWORD SetTimeout(uint32_t milliseconds) = 0;                  // slot 5
    virtual DWORD GetQueueLength(uint32_t* length) = 0;                   // slot 6
    virtual DWORD GetStatistics(uint64_t* scanned, uint64_t* failed) = 0; // slot 7
    virtual DWORD Connect() = 0;                                          // slot 8
    virtual DWORD Disconnect() = 0;                                       // slot 9
    virtual DWORD IsConnected(bool* connected) = 0;                       // slot 10
    virtual DWORD RegisterEvents(IEvents* sink, uint32_t reserved) = 0;   // slot 11
    virtual DWORD UnregisterEvents(IEvents* sink, uint32_t reserved) = 0; // slot 12
};

} // namespace AntivirusScan
} // namespace kxsdk
} // namespace qv

namespace qv {
namespace kxsdk {
namespace ids {
constexpr GUID kRemoteScanId = MakeInterfaceId(0xBB4746611F985942ull, 0xB58B31E4438C42E6ull);
}
} // namespace kxsdk
} // namespace qv
