#include "host/ScanCrashHandler.h"

namespace host {

void ScanCrashHandler::FailFirstCall(DWORD code) {
    std::lock_guard<std::mutex> lock(mutex_);
    failFirst_ = code;
}

void ScanCrashHandler::FailOption(uint32_t option, DWORD code) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (code)
        failOption_[option] = code;
    else
        failOption_.erase(option);
}

std::vector<ScanCrashHandler::OptionRecord> ScanCrashHandler::Options() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return options_;
}

void ScanCrashHandler::Reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    failFirst_ = 0;
    failOption_.clear();
    options_.clear();
}

DWORD ScanCrashHandler::SetOption(uint32_t option, uint32_t value) {
    try {
        std::lock_guard<std::mutex> lock(mutex_);
        DWORD result = ERROR_SUCCESS;
        auto it = failOption_.find(option);
        if (it != failOption_.end()) result = it->second;
        if (failFirst_) {
            result = failFirst_;
            failFirst_ = 0;
        }
        options_.push_back(OptionRecord{option, value, result});
        return result;
    } catch (...) {
        return ERROR_INTERNAL_ERROR;
    }
}

} // namespace host
