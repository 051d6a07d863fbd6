#pragma once
// The scan service provider's crash-handler face: option changes are recorded and can be made
// to fail, the first call or a given option.
#include "sdk/IScanSp.h"

#include <map>
#include <mutex>
#include <vector>

namespace host {

class ScanCrashHandler : public IScanCrashHandler {
public:
    struct OptionRecord {
        uint32_t option = 0;
        uint32_t value = 0;
        DWORD result = 0;
    };

    // The first SetOption from now answers code (once); 0 cancels.
    void FailFirstCall(DWORD code);
    // Every SetOption of this option answers code; 0 lets it succeed again.
    void FailOption(uint32_t option, DWORD code);
    std::vector<OptionRecord> Options() const;
    void Reset();

    DWORD SetOption(uint32_t option, uint32_t value) override;

private:
    mutable std::mutex mutex_;
    DWORD failFirst_ = 0;
    std::map<uint32_t, DWORD> failOption_;
    std::vector<OptionRecord> options_;
};

} // namespace host
