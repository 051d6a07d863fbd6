#pragma once
// The update plug-in ("Update.UpdateAL"): downloads and installs components, keeps their
// signature statistics and can restart the security service.
// A released interface never changes: its slots keep their order, arguments and meaning, and new
// operations go into a new interface with an id of its own.
#include "sdk/LayoutCheck.h"
#include "sdk/QvBase.h"
#include "sdk/QvList.h"
#include "sdk/QvMap.h"
#include "sdk/StringT.h"

namespace qv {
namespace kxsdk {
namespace Update {

// IEvents names differ from those of IRemoteScan::IEvents on purpose: one object implements both
// faces, and a shared name would let one override answer both interfaces.
struct IUpdate {
    struct Proxy {
        qv::StringW address;
        uint32_t port = 0;
        qv::StringW user;
        qv::StringW password;
    };
    struct Location {
        qv::StringW url;
        uint32_t kind = 0;
    };
    // Per component: its signatures version and count.
    struct SignatureStatistics {
        qv::StringW version;
        int32_t count = 0;
    };
    struct Statistics {
        qv::Map<qv::StringW, SignatureStatistics> signatures;
        uint64_t lastUpdateTime = 0;
        uint32_t lastResult = 0;
    };
    struct UpdateSettings {
        qv::List<Proxy> proxies;
        qv::List<Location> locations;
        uint32_t schedule = 0;
        uint32_t timeout = 0;
    };
    struct UpdateRequest {
        qv::StringW requester;
        qv::List<Proxy> proxies;
        qv::List<Location> locations;
        uint32_t schedule = 0;
        uint32_t timeout = 0;
        qv::StringW reserved;
        uint32_t options = 0;
        uint8_t interactive = 0;
        uint8_t signaturesOnly = 0;
    };
    // Names of an installed component; either may be null.
    struct ComponentInfo {
        const wchar_t* updater;
        const wchar_t* component;
        const wchar_t* version;
    };

    // Notifications, delivered on the update plug-in's own thread.
    struct IEvents {
        virtual DWORD OnUpdateStarted(const wchar_t* requester) = 0;                 // slot 0
        virtual DWORD OnUpdateProgress(uint32_t percent) = 0;                        // slot 1
        virtual DWORD OnUpdateFinished(DWORD error) = 0;                             // slot 2
        virtual DWORD OnComponentDownloaded(const ComponentInfo& info) = 0;          // slot 3
        virtual DWORD OnComponentVerified(const ComponentInfo& info) = 0;            // slot 4
        virtual DWORD OnComponentInstalling(const ComponentInfo& info) = 0;          // slot 5
        virtual DWORD OnComponentFailed(const ComponentInfo& info, DWORD error) = 0; // slot 6
        // Slot 7: a component was installed; for "Antivirus" enginesPath is the new engines folder.
        virtual DWORD OnComponentInstalled(const ComponentInfo& info, const wchar_t* enginesPath) = 0;
        virtual DWORD OnComponentRolledBack(const ComponentInfo& info) = 0; // slot 8
        virtual DWORD OnRestartRequired(uint32_t reason) = 0;               // slot 9
        virtual DWORD OnUpdateSettingsChanged() = 0;                        // slot 10
        virtual DWORD OnScheduleChanged() = 0;                              // slot 11
        virtual DWORD OnLicenseChanged() = 0;                               // slot 12
        virtual DWORD OnProxyChanged() = 0;                                 // slot 13
        virtual DWORD OnServiceStopping() = 0;                              // slot 14
    };

    virtual DWORD GetStatistics(Statistics* statistics) = 0;                               // slot 0
    virtual DWORD GetUpdateSettings(UpdateSettings* settings) = 0;                         // slot 1
    virtual DWORD StartUpdate(const UpdateRequest& request, uint32_t* status) = 0;         // slot 2
    virtual DWORD RestartService(uint32_t value, const wchar_t* serviceName) = 0;          // slot 3
    virtual DWORD StopUpdate() = 0;                                                        // slot 4
    virtual DWORD IsUpdateRunning(bool* running) = 0;                                      // slot 5
    virtual DWORD SetUpdateSettings(const UpdateSettings& settings) = 0;                   // slot 6
    virtual DWORD GetLastResult(DWORD* error) = 0;                                         // slot 7
    virtual DWORD GetLastUpdateTime(uint64_t* time) = 0;                                   // slot 8
    virtual DWORD GetComponentVersion(const wchar_t* component, qv::StringW* version) = 0; // slot 9
    virtual DWORD ScheduleUpdate(uint32_t minutes) = 0;                                    // slot 10
    virtual DWORD CancelSchedule() = 0;                                                    // slot 11
    virtual DWORD Rollback(const wchar_t* component) = 0;                                  // slot 12
    virtual DWORD GetDownloadProgress(uint32_t* percent) = 0;                              // slot 13
    virtual DWORD VerifyComponent(const wchar_t* component) = 0;                           // slot 14
    virtual DWORD GetUpdateServer(qv::StringW* server) = 0;                                // slot 15
    virtual DWORD SetLicense(const wchar_t* license) = 0;                                  // slot 16
    virtual DWORD Flush() = 0;                                                             // slot 17
    // Slots 18 and 19: event registration. The plug-in passes 0 and "" as the last two arguments.
    virtual DWORD RegisterEvents(IEvents* sink, uint32_t reserved, const char* filter) = 0;
    virtual DWORD UnregisterEvents(IEvents* sink, uint32_t reserved, const char* filter) = 0;
};

// Slot numbers of IUpdate::IEvents that a caller reaches by number.
namespace slots {
constexpr int kOnComponentInstalled = 7;
} // namespace slots

} // namespace Update
} // namespace kxsdk
} // namespace qv

namespace qv {
namespace kxsdk {
namespace ids {
constexpr GUID kUpdateId = MakeInterfaceId(0xBBEE167D7F70900Dull, 0x0EADD2510D2D4B63ull);
}
} // namespace kxsdk
} // namespace qv

#if QV_SDK_CHECK_LAYOUT
// Every struct of this interface, and the containers with their nodes and enumerators, as both
// plug-ins lay them out. Map holds a std::vector of 24 bytes: an MSVC build with iterator
// debugging has a larger one and fails here, as it could not exchange Statistics with a release.
namespace qv {
namespace kxsdk {
namespace Update {
namespace layout {
using Proxy = IUpdate::Proxy;
using Location = IUpdate::Location;
using SignatureStatistics = IUpdate::SignatureStatistics;
using Statistics = IUpdate::Statistics;
using UpdateSettings = IUpdate::UpdateSettings;
using UpdateRequest = IUpdate::UpdateRequest;
using ComponentInfo = IUpdate::ComponentInfo;
using SignatureMap = qv::Map<qv::StringW, SignatureStatistics>;
using SignatureNode = qv::MapNode<qv::StringW, SignatureStatistics>;
using ProxyNode = qv::ListNode<Proxy>;
using LocationNode = qv::ListNode<Location>;

QV_SDK_LAYOUT_CHECKS_BEGIN
static_assert(sizeof(Proxy) == 32, "IUpdate::Proxy");
static_assert(offsetof(Proxy, address) == 0 && offsetof(Proxy, port) == 8 && offsetof(Proxy, user) == 16 &&
                  offsetof(Proxy, password) == 24,
              "IUpdate::Proxy");
static_assert(sizeof(Location) == 16, "IUpdate::Location");
static_assert(offsetof(Location, url) == 0 && offsetof(Location, kind) == 8, "IUpdate::Location");
static_assert(sizeof(SignatureStatistics) == 16, "IUpdate::SignatureStatistics");
static_assert(offsetof(SignatureStatistics, version) == 0 && offsetof(SignatureStatistics, count) == 8,
              "IUpdate::SignatureStatistics");
static_assert(sizeof(ComponentInfo) == 24, "IUpdate::ComponentInfo");
static_assert(offsetof(ComponentInfo, updater) == 0 && offsetof(ComponentInfo, component) == 8 &&
                  offsetof(ComponentInfo, version) == 16,
              "IUpdate::ComponentInfo");

// List: slot table, sentinel (next, previous), 64-bit count.
static_assert(sizeof(qv::List<Proxy>) == 32 && sizeof(qv::List<Location>) == 32, "List");
static_assert(sizeof(ProxyNode) == 48 && offsetof(ProxyNode, value) == 16, "ListNode");
static_assert(sizeof(LocationNode) == 32 && offsetof(LocationNode, value) == 16, "ListNode");
static_assert(sizeof(qv::ListEnum<Proxy>) == 24 && sizeof(qv::ConstListEnum<Proxy>) == 24, "list enumerators");
// Map: slot table, sentinel, 64-bit count, bucket array.
static_assert(sizeof(SignatureMap) == 56, "Map");
static_assert(sizeof(SignatureNode) == 40 && offsetof(SignatureNode, key) == 16 && offsetof(SignatureNode, value) == 24,
              "MapNode");
static_assert(sizeof(qv::Enum<qv::StringW, SignatureStatistics>) == 24, "Enum");
static_assert(sizeof(qv::ConstEnum<qv::StringW, SignatureStatistics>) == 24, "ConstEnum");

static_assert(sizeof(Statistics) == 72, "IUpdate::Statistics");
static_assert(offsetof(Statistics, signatures) == 0 && offsetof(Statistics, lastUpdateTime) == 56 &&
                  offsetof(Statistics, lastResult) == 64,
              "IUpdate::Statistics");
static_assert(sizeof(UpdateSettings) == 72, "IUpdate::UpdateSettings");
static_assert(offsetof(UpdateSettings, proxies) == 0 && offsetof(UpdateSettings, locations) == 32 &&
                  offsetof(UpdateSettings, schedule) == 64 && offsetof(UpdateSettings, timeout) == 68,
              "IUpdate::UpdateSettings");
static_assert(sizeof(UpdateRequest) == 96, "IUpdate::UpdateRequest");
static_assert(offsetof(UpdateRequest, requester) == 0 && offsetof(UpdateRequest, proxies) == 8 &&
                  offsetof(UpdateRequest, locations) == 40 && offsetof(UpdateRequest, schedule) == 72 &&
                  offsetof(UpdateRequest, timeout) == 76 && offsetof(UpdateRequest, reserved) == 80 &&
                  offsetof(UpdateRequest, options) == 88 && offsetof(UpdateRequest, interactive) == 92 &&
                  offsetof(UpdateRequest, signaturesOnly) == 93,
              "IUpdate::UpdateRequest");
QV_SDK_LAYOUT_CHECKS_END
} // namespace layout
} // namespace Update
} // namespace kxsdk
} // namespace qv
#endif
