#include "host/RemoteScanPlugin.h"

#include <memory>

namespace host {

void RemoteScanPlugin::SetStatus(bool enabled) {
    std::lock_guard<std::mutex> lock(mutex_);
    status_ = enabled;
}

void RemoteScanPlugin::SetFallbackMode(uint32_t mode) {
    std::lock_guard<std::mutex> lock(mutex_);
    fallbackMode_ = mode;
}

void RemoteScanPlugin::SetServerCount(uint32_t count) {
    std::lock_guard<std::mutex> lock(mutex_);
    serverCount_ = count;
}

void RemoteScanPlugin::FailQueries(DWORD code) {
    std::lock_guard<std::mutex> lock(mutex_);
    queryError_ = code;
}

RemoteScanPlugin::Counts RemoteScanPlugin::GetCounts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_;
}

std::vector<RemoteScanPlugin::FireRecord> RemoteScanPlugin::Fires() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return fires_;
}

DWORD RemoteScanPlugin::GetStatus(bool* enabled) {
    ServedPlugin::Call call(served);
    if (!enabled) return ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mutex_);
    ++counts_.statusQueries;
    *enabled = status_;
    return queryError_;
}

DWORD RemoteScanPlugin::GetServerCount(uint32_t* count) {
    ServedPlugin::Call call(served);
    if (!count) return ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mutex_);
    ++counts_.serverCountQueries;
    *count = serverCount_;
    return queryError_;
}

DWORD RemoteScanPlugin::GetFallbackMode(uint32_t* mode) {
    ServedPlugin::Call call(served);
    if (!mode) return ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mutex_);
    ++counts_.fallbackQueries;
    *mode = fallbackMode_;
    return queryError_;
}

DWORD RemoteScanPlugin::RegisterEvents(IEvents* sink, uint32_t reserved) {
    ServedPlugin::Call call(served);
    try {
        std::lock_guard<std::mutex> lock(mutex_);
        ++counts_.registers;
        return AddSink(sink, RegistrationRecord{sink, reserved});
    } catch (...) {
        return ERROR_INTERNAL_ERROR;
    }
}

DWORD RemoteScanPlugin::UnregisterEvents(IEvents* sink, uint32_t reserved) {
    ServedPlugin::Call call(served);
    try {
        std::lock_guard<std::mutex> lock(mutex_);
        ++counts_.unregisters;
        return RemoveSink(sink, RegistrationRecord{sink, reserved});
    } catch (...) {
        return ERROR_INTERNAL_ERROR;
    }
}

DWORD RemoteScanPlugin::Fire(DWORD (*call)(IEvents*, bool), bool argument, DWORD timeoutMs) {
    auto result = std::make_shared<DWORD>(ERROR_NOT_FOUND);
    auto job = [this, call, argument, result]() {
        std::vector<IEvents*> sinks;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            sinks = SinksHeld();
        }
        FireRecord record;
        record.threadId = GetCurrentThreadId();
        for (IEvents* sink : sinks) {
            *result = call(sink, argument);
            record.results.push_back(*result);
        }
        std::lock_guard<std::mutex> lock(mutex_);
        ++counts_.fires;
        fires_.push_back(std::move(record));
    };
    return threads_.RunAndWait(job, timeoutMs) ? *result : WAIT_TIMEOUT;
}

DWORD RemoteScanPlugin::FireStatusChanged(bool status, DWORD timeoutMs) {
    return Fire([](IEvents* sink, bool value) { return sink->OnStatusChanged(value); }, status, timeoutMs);
}

DWORD RemoteScanPlugin::FireSettingsChanged(DWORD timeoutMs) {
    return Fire([](IEvents* sink, bool) { return sink->OnSettingsChanged(); }, false, timeoutMs);
}

DWORD RemoteScanPlugin::FireScanModeChanged(DWORD timeoutMs) {
    return Fire([](IEvents* sink, bool) { return sink->OnScanModeChanged(); }, false, timeoutMs);
}

} // namespace host
