#pragma once
// The telemetry plug-in ("Product.Matrix").
// A released interface never changes: its slots keep their order, arguments and meaning, and new
// operations go into a new interface with an id of its own.
// Json::Value is only named here: callers that build events include <json/json.h>.
#include "sdk/QvBase.h"
#include <json/forwards.h>

namespace Telemetry {
struct ITelemetry {
    // Slot 0: submits one event document; flags is 0 for an ordinary event.
    virtual DWORD SubmitEvent(const Json::Value& event, int32_t flags) = 0;
};
} // namespace Telemetry

namespace qv {
namespace kxsdk {
namespace ids {
// "872DA2C0-CDA8-4CEF-8348-02768709E306": the last two groups form the first half, the first
// three groups the second half.
constexpr GUID kTelemetryId = MakeInterfaceId(0x834802768709E306ull, 0x872DA2C0CDA84CEFull);
} // namespace ids
} // namespace kxsdk
} // namespace qv
