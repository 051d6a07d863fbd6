#pragma once
// The CTC update plug-in ("ctc"): held by the scan module, never asked anything in earnest.
#include "host/ServedPlugin.h"
#include "sdk/ICtcUpdate.h"

#include <atomic>

namespace host {

class CtcPlugin : public ICtcUpdate {
public:
    ServedPlugin served; // held and handed back by the component manager
    int StatusQueries() const { return queries_.load(); }
    DWORD GetStatus(uint32_t* status) override;

private:
    std::atomic<int> queries_{0};
};

} // namespace host
