// The telemetry event that announces an engines recovery.
#include "plugin/AntivirusScanAL.h"

#include <json/json.h>

namespace qv {

using namespace logging;

namespace {
const char* ScanTypeWord(uint32_t type) {
    switch (type) {
    case kxsdk::AntivirusScan::RemoteOnly:
        return "remote";
    case kxsdk::AntivirusScan::Light:
        return "light";
    case kxsdk::AntivirusScan::Full:
        return "full";
    default:
        return "";
    }
}
} // namespace

void AntivirusScanAL::SendEnginesRecoveryStartedEvent() {
    QV_TRACE(L"AntivirusScanAL::SendEnginesRecoveryStartedEvent");
    StringW folder;
    uint32_t type;
    {
        auto lock = stateLock.Lock();
        folder = settings.enginesFolder;
        type = scanType;
    }
    ServPlugin<Telemetry::ITelemetry> telemetry(kxsdk::ids::kTelemetryName);
    if (!telemetry.GetPlugin(ComponentManager())) {
        QV_LOG(LOG_SEV_ERROR, L"Cannot obtain Telemetry plugin");
        return;
    }
    StringW version, countText;
    if (!GetEnginesInfoFromFile(folder, version, countText)) {
        QV_LOG(LOG_SEV_WARNING, L"Cannot obtain engines info [path = %s]", folder.c_str());
        version.Clear();
    }
    // The "error" member carries the scan type and "error_code" a fixed number, whatever caused
    // the recovery: the telemetry back end groups critical issues by them.
    Json::Value event(Json::objectValue);
    event["event_name"] = "m_critical_issue_occurred";
    event["event_version"] = "1.0";
    event["issue"] = "AntivirusScan.EnginesRecoveryStarted";
    event["error"] = ScanTypeWord(type);
    event["error_code"] = 1805;
    event["qv_av_signatures_version"] = version.ToUtf8();
    if (auto sink = telemetry.Acquire()) (void)sink->SubmitEvent(event, 0);
}

} // namespace qv
