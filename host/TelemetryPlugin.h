#pragma once
// The telemetry plug-in ("Product.Matrix"): keeps a copy of every submitted event and, when
// given a file, appends each event to it as one JSON line.
#include "host/ServedPlugin.h"
#include "sdk/ITelemetry.h"

#include <json/json.h>

#include <mutex>
#include <string>
#include <vector>

namespace host {

class TelemetryPlugin : public Telemetry::ITelemetry {
public:
    ServedPlugin served; // held and handed back by the component manager
    struct EventRecord {
        Json::Value event;
        int32_t flags = 0;
        DWORD threadId = 0;
    };

    void SetResult(DWORD code);
    // Appends every later event to this file as one line; an empty path stops it.
    void SetJsonLinesFile(const std::wstring& path);
    std::vector<EventRecord> Events() const;
    int EventCount() const;
    void Clear();

    DWORD SubmitEvent(const Json::Value& event, int32_t flags) override;

private:
    mutable std::mutex mutex_;
    DWORD result_ = 0;
    std::wstring path_;
    std::vector<EventRecord> events_;
};

} // namespace host
