#pragma once
// The sinks a sibling plug-in would register on IAntivirusScan: engines, scan and settings
// events. Every event is recorded with its arguments; events arrive on the plug-in's callers'
// and the notification threads.
#include "sdk/IAntivirusScan.h"

#include <json/json.h>

#include <mutex>
#include <string>
#include <vector>

namespace sandbox {

struct SinkEvent {
    std::string sink;   // "engines", "scan", "settings"
    std::string event;  // "OnReloadStarted", ...
    Json::Value args;   // array
    std::string Text() const;  // "OnReloadEnded(\"...\", 0)"
};

class SinkRecorder : public qv::kxsdk::AntivirusScan::IAntivirusScan::IEnginesEvents,
                     public qv::kxsdk::AntivirusScan::IAntivirusScan::IScanEvents,
                     public qv::kxsdk::AntivirusScan::IAntivirusScan::ISettingsEvents {
public:
    using ScanMode = qv::kxsdk::AntivirusScan::ScanMode;
    using HashChainSettings = qv::kxsdk::AntivirusScan::HashChainSettings;

    // Registers all three on the face; returns false (and unregisters what was registered) when
    // one registration was refused; the answers are in the message.
    bool Register(qv::kxsdk::AntivirusScan::IAntivirusScan* scan, std::string& answers);
    void Unregister(std::string& answers);
    bool Registered() const { return scan_ != nullptr; }

    // Events received since the last call.
    std::vector<SinkEvent> Drain();

    int OnReloadStarted(const qv::StringW& enginesPath) override;
    int OnReloadEnded(const qv::StringW& enginesPath, int error) override;
    int OnScanModesChanged(ScanMode primary, ScanMode fallback) override;
    int OnBackupStatusChanged(bool enabled) override;
    int OnFeatureStatusChanged(const qv::StringW& feature, bool isLocked) override;
    int OnHashChainSettingsChanged(const HashChainSettings& settings) override;
    int OnSignatureInfoReportingChanged(bool enabled) override;

    // Paths in events are shown relative to this folder.
    void SetRoot(const std::wstring& root) { root_ = root; }

private:
    void Record(const char* sink, const char* event, Json::Value args);
    std::string Path(const qv::StringW& path) const;

    std::mutex mutex_;
    std::vector<SinkEvent> pending_;
    qv::kxsdk::AntivirusScan::IAntivirusScan* scan_ = nullptr;
    std::wstring root_;
};

} // namespace sandbox
