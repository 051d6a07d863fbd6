#pragma once
// The update plug-in ("Update.UpdateAL"): downloads and installs components, keeps their
// signature statistics and can restart the security service.
#include "sdk/QvBase.h"
#include "sdk/QvList.h"
#include "sdk/QvMap.h"
#include "sdk/StringT.h"

namespace qv { namespace kxsdk { namespace Update {

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
        virtual DWORD OnComponentRolledBack(const ComponentInfo& info) = 0;          // slot 8
        virtual DWORD OnRestartRequired(uint32_t reason) = 0;                        // slot 9
        virtual DWORD OnUpdateSettingsChanged() = 0;                                 // slot 10
        virtual DWORD OnScheduleChanged() = 0;                                       // slot 11
        virtual DWORD OnLicenseChanged() = 0;                                        // slot 12
        virtual DWORD OnProxyChanged() = 0;                                          // slot 13
        virtual DWORD OnServiceStopping() = 0;                                       // slot 14
    };

    virtual DWORD GetStatistics(Statistics* statistics) = 0;                          // slot 0
    virtual DWORD GetUpdateSettings(UpdateSettings* settings) = 0;                    // slot 1
    virtual DWORD StartUpdate(const UpdateRequest& request, uint32_t* status) = 0;    // slot 2
    virtual DWORD RestartService(uint32_t value, const wchar_t* serviceName) = 0;     // slot 3
    virtual DWORD StopUpdate() = 0;                                                   // slot 4
    virtual DWORD IsUpdateRunning(bool* running) = 0;                                 // slot 5
    virtual DWORD SetUpdateSettings(const UpdateSettings& settings) = 0;              // slot 6
    virtual DWORD GetLastResult(DWORD* error) = 0;                                    // slot 7
    virtual DWORD GetLastUpdateTime(uint64_t* time) = 0;                              // slot 8
    virtual DWORD GetComponentVersion(const wchar_t* component, qv::StringW* version) = 0; // slot 9
    virtual DWORD ScheduleUpdate(uint32_t minutes) = 0;                               // slot 10
    virtual DWORD CancelSchedule() = 0;                                               // slot 11
    virtual DWORD Rollback(const wchar_t* component) = 0;                             // slot 12
    virtual DWORD GetDownloadProgress(uint32_t* percent) = 0;                         // slot 13
    virtual DWORD VerifyComponent(const wchar_t* component) = 0;                      // slot 14
    virtual DWORD GetUpdateServer(qv::StringW* server) = 0;                           // slot 15
    virtual DWORD SetLicense(const wchar_t* license) = 0;                             // slot 16
    virtual DWORD Flush() = 0;                                                        // slot 17
    // Slots 18 and 19: event registration. The plug-in passes 0 and "" as the last two arguments.
    virtual DWORD RegisterEvents(IEvents* sink, uint32_t reserved, const char* filter) = 0;
    virtual DWORD UnregisterEvents(IEvents* sink, uint32_t reserved, const char* filter) = 0;
};

}}} // namespace qv::kxsdk::Update
