#pragma once
// The telemetry plug-in ("Product.Matrix").
#include "sdk/QvBase.h"
#include <json/json.h>

namespace Telemetry {
struct ITelemetry {
    // Slot 0: submits one event document; flags is 0 for an ordinary event.
    virtual DWORD SubmitEvent(const Json::Value& event, int32_t flags) = 0;
};
} // namespace Telemetry
