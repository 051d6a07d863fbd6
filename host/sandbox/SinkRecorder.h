#pragma once
// The sinks a sibling plug-in would register on IAntivirusScan: engines, scan and settings
// events. Every event is recorded with its arguments; events arrive on the plug-in's callers'
// and the notification threads.
#include "host/ScanEventSinks.h"
#include "sdk/IAntivirusScan.h"

#include <json/json.h>

#include <mutex>
#include <string>
#include <vector>

namespace sandbox {

struct SinkEvent {
    std::string sink;         // "engines", "scan", "settings"
    std::string event;        // "OnReloadStarted", ...
    Json::Value args;         // array
    std::string Text() const; // "OnReloadEnded(\"...\", 0)"
};

class SinkRecorder : public host::ScanEventSinks {
public:
    SinkRecorder() : ScanEventSinks([this](const host::ScanEvent& event) { Record(event); }, 0) {}

    // Registers all three on the face; returns false (and unregisters what was registered) when
    // one registration was refused; the answers are in the message.
    bool Register(qv::kxsdk::AntivirusScan::IAntivirusScan* scan, std::string& answers);
    void Unregister(std::string& answers);
    bool Registered() const { return scan_ != nullptr; }

    // Events received since the last call.
    std::vector<SinkEvent> Drain();

    // Paths in events are shown relative to this folder.
    void SetRoot(const std::wstring& root) { root_ = root; }

private:
    void Record(const host::ScanEvent& event);
    std::string Path(const std::wstring& path) const;

    std::mutex mutex_;
    std::vector<SinkEvent> pending_;
    qv::kxsdk::AntivirusScan::IAntivirusScan* scan_ = nullptr;
    std::wstring root_;
};

} // namespace sandbox
