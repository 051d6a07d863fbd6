#include "host/UpdatePlugin.h"

namespace host {

void UpdatePlugin::SetStatistic(const wchar_t* component, const wchar_t* version, int32_t count) {
    std::lock_guard<std::mutex> lock(mutex_);
    statistics_[component ? component : L""] = Statistic{version ? version : L"", count};
}

void UpdatePlugin::RemoveStatistic(const wchar_t* component) {
    std::lock_guard<std::mutex> lock(mutex_);
    statistics_.erase(component ? component : L"");
}

void UpdatePlugin::ClearStatistics() {
    std::lock_guard<std::mutex> lock(mutex_);
    statistics_.clear();
}

void UpdatePlugin::SetLastUpdate(uint64_t time, uint32_t result) {
    std::lock_guard<std::mutex> lock(mutex_);
    lastUpdateTime_ = time;
    lastResult_ = result;
}

void UpdatePlugin::FailStatistics(DWORD code) {
    std::lock_guard<std::mutex> lock(mutex_);
    statisticsError_ = code;
}

void UpdatePlugin::SetReportedSettings(const UpdateSettingsRecord& settings) {
    std::lock_guard<std::mutex> lock(mutex_);
    settings_ = settings;
}

void UpdatePlugin::FailSettings(DWORD code) {
    std::lock_guard<std::mutex> lock(mutex_);
    settingsError_ = code;
}

void UpdatePlugin::SetStartUpdateResult(DWORD error, uint32_t status) {
    std::lock_guard<std::mutex> lock(mutex_);
    startError_ = error;
    startStatus_ = status;
}

void UpdatePlugin::SetRestartResult(DWORD error) {
    std::lock_guard<std::mutex> lock(mutex_);
    restartError_ = error;
}

void UpdatePlugin::SetBeforeDelivery(BeforeDelivery hook) {
    std::lock_guard<std::mutex> lock(mutex_);
    beforeDelivery_ = std::move(hook);
}

UpdatePlugin::Counts UpdatePlugin::GetCounts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_;
}

std::vector<UpdateRequestRecord> UpdatePlugin::Requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

std::vector<UpdatePlugin::RestartRecord> UpdatePlugin::Restarts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return restarts_;
}

std::vector<UpdatePlugin::DeliveryRecord> UpdatePlugin::Deliveries() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return deliveries_;
}

DWORD UpdatePlugin::GetStatistics(Statistics* statistics) {
    ServedPlugin::Call call(served);
    if (!statistics) return ERROR_INVALID_PARAMETER;
    try {
        std::lock_guard<std::mutex> lock(mutex_);
        ++counts_.statistics;
        if (statisticsError_) return statisticsError_;
        for (const auto& kv : statistics_) {
            SignatureStatistics entry;
            entry.version = kv.second.version.c_str();
            entry.count = kv.second.count;
            statistics->signatures.Set(qv::StringW(kv.first.c_str()), entry);
        }
        statistics->lastUpdateTime = lastUpdateTime_;
        statistics->lastResult = lastResult_;
        return ERROR_SUCCESS;
    } catch (...) {
        return ERROR_INTERNAL_ERROR;
    }
}

DWORD UpdatePlugin::GetUpdateSettings(UpdateSettings* settings) {
    ServedPlugin::Call call(served);
    if (!settings) return ERROR_INVALID_PARAMETER;
    try {
        std::lock_guard<std::mutex> lock(mutex_);
        ++counts_.settings;
        if (settingsError_) return settingsError_;
        updaterecords::FillSettings(settings_, *settings);
        return ERROR_SUCCESS;
    } catch (...) {
        return ERROR_INTERNAL_ERROR;
    }
}

DWORD UpdatePlugin::StartUpdate(const UpdateRequest& request, uint32_t* status) {
    ServedPlugin::Call call(served);
    try {
        UpdateRequestRecord record = updaterecords::CopyRequest(request);
        std::lock_guard<std::mutex> lock(mutex_);
        ++counts_.startUpdates;
        requests_.push_back(std::move(record));
        if (status) *status = startStatus_;
        return startError_;
    } catch (...) {
        return ERROR_INTERNAL_ERROR;
    }
}

DWORD UpdatePlugin::RestartService(uint32_t value, const wchar_t* serviceName) {
    ServedPlugin::Call call(served);
    try {
        std::lock_guard<std::mutex> lock(mutex_);
        ++counts_.restarts;
        restarts_.push_back(RestartRecord{value, serviceName ? serviceName : L"", serviceName == nullptr});
        return restartError_;
    } catch (...) {
        return ERROR_INTERNAL_ERROR;
    }
}

DWORD UpdatePlugin::RegisterEvents(IEvents* sink, uint32_t reserved, const char* filter) {
    ServedPlugin::Call call(served);
    try {
        std::lock_guard<std::mutex> lock(mutex_);
        ++counts_.registers;
        return AddSink(sink, RegistrationRecord{sink, reserved, filter ? filter : "", filter == nullptr});
    } catch (...) {
        return ERROR_INTERNAL_ERROR;
    }
}

DWORD UpdatePlugin::UnregisterEvents(IEvents* sink, uint32_t reserved, const char* filter) {
    ServedPlugin::Call call(served);
    try {
        std::lock_guard<std::mutex> lock(mutex_);
        ++counts_.unregisters;
        return RemoveSink(sink, RegistrationRecord{sink, reserved, filter ? filter : "", filter == nullptr});
    } catch (...) {
        return ERROR_INTERNAL_ERROR;
    }
}

std::function<void()> UpdatePlugin::DeliveryJob(const wchar_t* updater, const wchar_t* component,
                                                const wchar_t* enginesPath, std::shared_ptr<DWORD> result) {
    DeliveryRecord record;
    record.updater = updater ? updater : L"";
    record.component = component ? component : L"";
    record.enginesPath = enginesPath ? enginesPath : L"";
    record.nullUpdater = !updater;
    record.nullComponent = !component;
    record.nullEnginesPath = !enginesPath;
    return [this, record, result]() mutable {
        record.threadId = GetCurrentThreadId();
        const wchar_t* updater = record.nullUpdater ? nullptr : record.updater.c_str();
        const wchar_t* component = record.nullComponent ? nullptr : record.component.c_str();
        const wchar_t* path = record.nullEnginesPath ? nullptr : record.enginesPath.c_str();
        BeforeDelivery hook;
        std::vector<IEvents*> sinks;
        {
            // The sinks are decided first: one that unregisters from now on is still told, as
            // with any plug-in that notifies outside its own lock.
            std::lock_guard<std::mutex> lock(mutex_);
            hook = beforeDelivery_;
            sinks = SinksHeld();
        }
        if (hook) hook(updater, component, path);
        ComponentInfo info{updater, component, nullptr};
        DWORD last = ERROR_NOT_FOUND;
        for (IEvents* sink : sinks) {
            last = sink->OnComponentInstalled(info, path);
            record.results.push_back(last);
        }
        *result = last;
        std::lock_guard<std::mutex> lock(mutex_);
        ++counts_.deliveries;
        deliveries_.push_back(std::move(record));
    };
}

DWORD UpdatePlugin::DeliverComponentInstalled(const wchar_t* updater, const wchar_t* component,
                                              const wchar_t* enginesPath, DWORD timeoutMs) {
    auto result = std::make_shared<DWORD>(ERROR_NOT_FOUND);
    if (!threads_.RunAndWait(DeliveryJob(updater, component, enginesPath, result), timeoutMs)) return WAIT_TIMEOUT;
    return *result;
}

bool UpdatePlugin::DeliverComponentInstalledAsync(const wchar_t* updater, const wchar_t* component,
                                                  const wchar_t* enginesPath) {
    auto result = std::make_shared<DWORD>(ERROR_NOT_FOUND);
    return threads_.Start(DeliveryJob(updater, component, enginesPath, result));
}

bool UpdatePlugin::WaitForDeliveries(DWORD timeoutMs) { return threads_.WaitAll(timeoutMs); }

} // namespace host
