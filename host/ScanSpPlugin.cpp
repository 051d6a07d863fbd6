#include "host/ScanSpPlugin.h"

#include <cstring>

namespace host {

void ScanSpPlugin::SetOptionResult(DWORD code) {
    std::lock_guard<std::mutex> lock(mutex_);
    optionResult_ = code;
}

void ScanSpPlugin::SetOptionResultFor(uint32_t option, DWORD code) {
    std::lock_guard<std::mutex> lock(mutex_);
    optionResults_[option] = code;
}

void ScanSpPlugin::SetReloadResult(DWORD code) {
    std::lock_guard<std::mutex> lock(mutex_);
    reloadResult_ = code;
}

void ScanSpPlugin::SetReloadHandler(ReloadHandler handler) {
    std::lock_guard<std::mutex> lock(mutex_);
    reloadHandler_ = std::move(handler);
}

void ScanSpPlugin::FailGetInterface(DWORD code, bool writeObject) {
    std::lock_guard<std::mutex> lock(mutex_);
    getInterfaceError_ = code;
    getInterfaceWrites_ = writeObject;
}

ScanSpPlugin::Counts ScanSpPlugin::GetCounts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_;
}

int ScanSpPlugin::OutstandingInterfaces() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return handedOut_;
}

std::vector<ScanSpPlugin::OptionRecord> ScanSpPlugin::Options() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return options_;
}

std::vector<DWORD> ScanSpPlugin::ReloadThreads() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return reloadThreads_;
}

DWORD ScanSpPlugin::SetOption(uint32_t option, uint32_t reserved, const void* value, uint32_t size) {
    ServedPlugin::Call call(served);
    try {
        OptionRecord record{option, reserved, 0, size, value == nullptr, 0};
        if (value && size >= sizeof(uint32_t)) memcpy(&record.value, value, sizeof(uint32_t));
        std::lock_guard<std::mutex> lock(mutex_);
        ++counts_.setOptions;
        auto it = optionResults_.find(option);
        record.result = it != optionResults_.end() ? it->second : optionResult_;
        options_.push_back(record);
        return record.result;
    } catch (...) {
        return ERROR_INTERNAL_ERROR;
    }
}

DWORD ScanSpPlugin::ReloadEngines() {
    ServedPlugin::Call call(served);
    ReloadHandler handler;
    DWORD result = 0;
    try {
        std::lock_guard<std::mutex> lock(mutex_);
        ++counts_.reloads;
        reloadThreads_.push_back(GetCurrentThreadId());
        handler = reloadHandler_;
        result = reloadResult_;
    } catch (...) {
        return ERROR_INTERNAL_ERROR;
    }
    if (!handler) return result;
    try {
        return handler();
    } catch (...) {
        return ERROR_INTERNAL_ERROR;
    }
}

DWORD ScanSpPlugin::GetInterface(const GUID& interfaceId, void** object) {
    ServedPlugin::Call call(served);
    if (!object) return ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mutex_);
    ++counts_.getInterfaces;
    if (getInterfaceError_) {
        if (getInterfaceWrites_) {
            *object = static_cast<IScanCrashHandler*>(&crashHandler_);
            ++handedOut_;
        }
        return getInterfaceError_;
    }
    if (!qv::SameInterfaceId(interfaceId, qv::kxsdk::scansp::kCrashHandlerId)) {
        *object = nullptr;
        return ERROR_NOT_SUPPORTED;
    }
    *object = static_cast<IScanCrashHandler*>(&crashHandler_);
    ++handedOut_;
    return ERROR_SUCCESS;
}

void ScanSpPlugin::ReleaseInterface(void* object) {
    ServedPlugin::Call call(served);
    std::lock_guard<std::mutex> lock(mutex_);
    ++counts_.releaseInterfaces;
    if (object == static_cast<IScanCrashHandler*>(&crashHandler_)) --handedOut_;
}

} // namespace host
