#pragma once
// The update plug-in ("Update.UpdateAL") as the host serves it: statistics and update settings
// set by the host, update and restart requests recorded, and component installations delivered
// to the registered sinks on a notification thread of their own.
#include "host/ServedPlugin.h"
#include "host/NotifyThreads.h"
#include "host/SinkRegistry.h"
#include "host/UpdateRecords.h"
#include "sdk/IUpdate.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace host {

struct UpdateRegistration {
    qv::kxsdk::Update::IUpdate::IEvents* sink = nullptr;
    uint32_t reserved = 0;
    std::string filter;
    bool nullFilter = false;
    DWORD result = 0;
};

class UpdatePlugin : public qv::kxsdk::Update::IUpdate,
                     public SinkRegistry<qv::kxsdk::Update::IUpdate::IEvents, UpdateRegistration> {
public:
    using RegistrationRecord = UpdateRegistration;
    ServedPlugin served; // held and handed back by the component manager
    struct Counts {
        int statistics = 0; // GetStatistics calls
        int settings = 0;   // GetUpdateSettings calls
        int startUpdates = 0;
        int restarts = 0;
        int registers = 0; // RegisterEvents calls, refused ones included
        int unregisters = 0;
        int deliveries = 0; // finished deliveries
    };
    struct RestartRecord {
        uint32_t value = 0;
        std::wstring serviceName;
        bool nullName = false;
    };
    struct DeliveryRecord {
        std::wstring updater, component, enginesPath; // "" when null
        bool nullUpdater = false, nullComponent = false, nullEnginesPath = false;
        DWORD threadId = 0;         // the notification thread
        std::vector<DWORD> results; // one per sink, in registration order
    };
    // Runs on the notification thread once the sinks to tell are decided, before any is told;
    // any argument may be null.
    using BeforeDelivery =
        std::function<void(const wchar_t* updater, const wchar_t* component, const wchar_t* enginesPath)>;

    UpdatePlugin() = default;
    ~UpdatePlugin() { threads_.WaitAll(INFINITE); }

    // Statistics: component -> (version, count); a non-zero code makes GetStatistics fail.
    void SetStatistic(const wchar_t* component, const wchar_t* version, int32_t count);
    void RemoveStatistic(const wchar_t* component);
    void ClearStatistics();
    void SetLastUpdate(uint64_t time, uint32_t result);
    void FailStatistics(DWORD code);

    void SetReportedSettings(const UpdateSettingsRecord& settings);
    void FailSettings(DWORD code);

    void SetStartUpdateResult(DWORD error, uint32_t status);
    void SetRestartResult(DWORD error);

    // Tells every registered sink OnComponentInstalled on a new thread and waits for it.
    // Returns the last sink's answer, 1168 with no sink, 258 when the wait timed out.
    DWORD DeliverComponentInstalled(const wchar_t* updater, const wchar_t* component, const wchar_t* enginesPath,
                                    DWORD timeoutMs = 60000);
    // The same without waiting; WaitForDeliveries waits for all started so far.
    bool DeliverComponentInstalledAsync(const wchar_t* updater, const wchar_t* component, const wchar_t* enginesPath);
    bool WaitForDeliveries(DWORD timeoutMs);
    void SetBeforeDelivery(BeforeDelivery hook);

    Counts GetCounts() const;
    std::vector<UpdateRequestRecord> Requests() const;
    std::vector<RestartRecord> Restarts() const;
    std::vector<DeliveryRecord> Deliveries() const; // finished ones, in finishing order

    DWORD GetStatistics(Statistics* statistics) override;
    DWORD GetUpdateSettings(UpdateSettings* settings) override;
    DWORD StartUpdate(const UpdateRequest& request, uint32_t* status) override;
    DWORD RestartService(uint32_t value, const wchar_t* serviceName) override;
    DWORD StopUpdate() override { return ERROR_NOT_SUPPORTED; }
    DWORD IsUpdateRunning(bool*) override { return ERROR_NOT_SUPPORTED; }
    DWORD SetUpdateSettings(const UpdateSettings&) override { return ERROR_NOT_SUPPORTED; }
    DWORD GetLastResult(DWORD*) override { return ERROR_NOT_SUPPORTED; }
    DWORD GetLastUpdateTime(uint64_t*) override { return ERROR_NOT_SUPPORTED; }
    DWORD GetComponentVersion(const wchar_t*, qv::StringW*) override { return ERROR_NOT_SUPPORTED; }
    DWORD ScheduleUpdate(uint32_t) override { return ERROR_NOT_SUPPORTED; }
    DWORD CancelSchedule() override { return ERROR_NOT_SUPPORTED; }
    DWORD Rollback(const wchar_t*) override { return ERROR_NOT_SUPPORTED; }
    DWORD GetDownloadProgress(uint32_t*) override { return ERROR_NOT_SUPPORTED; }
    DWORD VerifyComponent(const wchar_t*) override { return ERROR_NOT_SUPPORTED; }
    DWORD GetUpdateServer(qv::StringW*) override { return ERROR_NOT_SUPPORTED; }
    DWORD SetLicense(const wchar_t*) override { return ERROR_NOT_SUPPORTED; }
    DWORD Flush() override { return ERROR_NOT_SUPPORTED; }
    DWORD RegisterEvents(IEvents* sink, uint32_t reserved, const char* filter) override;
    DWORD UnregisterEvents(IEvents* sink, uint32_t reserved, const char* filter) override;

private:
    struct Statistic {
        std::wstring version;
        int32_t count = 0;
    };
    std::function<void()> DeliveryJob(const wchar_t* updater, const wchar_t* component, const wchar_t* enginesPath,
                                      std::shared_ptr<DWORD> result);

    std::map<std::wstring, Statistic> statistics_;
    uint64_t lastUpdateTime_ = 0;
    uint32_t lastResult_ = 0;
    DWORD statisticsError_ = 0;
    UpdateSettingsRecord settings_;
    DWORD settingsError_ = 0;
    DWORD startError_ = 0;
    uint32_t startStatus_ = 0;
    DWORD restartError_ = 0;
    BeforeDelivery beforeDelivery_;
    Counts counts_;
    std::vector<UpdateRequestRecord> requests_;
    std::vector<RestartRecord> restarts_;
    std::vector<DeliveryRecord> deliveries_;
    NotifyThreads threads_; // last: its threads are waited for before the state above goes
};

} // namespace host
