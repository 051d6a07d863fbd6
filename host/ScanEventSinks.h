#pragma once
// One sink object with all three IAntivirusScan event faces, as a sibling plug-in registers
// them. Each notification is handed to a listener as a ScanEvent on the thread that notifies;
// the listener decides what to keep and how to show it.
#include "sdk/IAntivirusScan.h"

#include <json/json.h>

#include <functional>
#include <string>

namespace host {

struct ScanEvent {
    const char* face = ""; // "engines", "scan", "settings"
    const char* name = ""; // the notification: "OnReloadStarted", ...
    Json::Value args;      // its arguments in order; strings as UTF-8, flags as booleans
    std::wstring text;     // the engines path or the feature name as given; "" for the others
};

class ScanEventSinks : public qv::kxsdk::AntivirusScan::IAntivirusScan::IEnginesEvents,
                       public qv::kxsdk::AntivirusScan::IAntivirusScan::IScanEvents,
                       public qv::kxsdk::AntivirusScan::IAntivirusScan::ISettingsEvents {
public:
    using ScanMode = qv::kxsdk::AntivirusScan::ScanMode;
    using HashChainSettings = qv::kxsdk::AntivirusScan::HashChainSettings;
    using Listener = std::function<void(const ScanEvent&)>;

    // Every notification answers `answer`: the plug-in does not act on what sinks return.
    ScanEventSinks(Listener listener, int answer) : listener_(std::move(listener)), answer_(answer) {}

    IEnginesEvents* Engines() { return this; }
    IScanEvents* Scan() { return this; }
    ISettingsEvents* Settings() { return this; }

    int OnReloadStarted(const qv::StringW& enginesPath) override;
    int OnReloadEnded(const qv::StringW& enginesPath, int error) override;
    int OnScanModesChanged(ScanMode primary, ScanMode fallback) override;
    int OnBackupStatusChanged(bool enabled) override;
    int OnFeatureStatusChanged(const qv::StringW& feature, bool isLocked) override;
    int OnHashChainSettingsChanged(const HashChainSettings& settings) override;
    int OnSignatureInfoReportingChanged(bool enabled) override;

private:
    int Tell(const char* face, const char* name, Json::Value args, const wchar_t* text = L"");

    Listener listener_;
    int answer_;
};

} // namespace host
