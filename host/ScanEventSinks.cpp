#include "host/ScanEventSinks.h"

#include "host/SettingsFile.h"

namespace host {
namespace {

using settingsfile::ToUtf8;

Json::Value Args(Json::Value first) {
    Json::Value args(Json::arrayValue);
    args.append(std::move(first));
    return args;
}

Json::Value Args(Json::Value first, Json::Value second) {
    Json::Value args = Args(std::move(first));
    args.append(std::move(second));
    return args;
}

} // namespace

int ScanEventSinks::Tell(const char* face, const char* name, Json::Value args, const wchar_t* text) {
    ScanEvent event;
    event.face = face;
    event.name = name;
    event.args = std::move(args);
    event.text = text ? text : L"";
    if (listener_) listener_(event);
    return answer_;
}

int ScanEventSinks::OnReloadStarted(const qv::StringW& enginesPath) {
    return Tell("engines", "OnReloadStarted", Args(ToUtf8(enginesPath.c_str())), enginesPath.c_str());
}

int ScanEventSinks::OnReloadEnded(const qv::StringW& enginesPath, int error) {
    return Tell("engines", "OnReloadEnded", Args(ToUtf8(enginesPath.c_str()), error), enginesPath.c_str());
}

int ScanEventSinks::OnScanModesChanged(ScanMode primary, ScanMode fallback) {
    return Tell("scan", "OnScanModesChanged", Args(static_cast<unsigned>(primary), static_cast<unsigned>(fallback)));
}

int ScanEventSinks::OnBackupStatusChanged(bool enabled) {
    return Tell("settings", "OnBackupStatusChanged", Args(enabled));
}

int ScanEventSinks::OnFeatureStatusChanged(const qv::StringW& feature, bool isLocked) {
    return Tell("settings", "OnFeatureStatusChanged", Args(ToUtf8(feature.c_str()), isLocked), feature.c_str());
}

int ScanEventSinks::OnHashChainSettingsChanged(const HashChainSettings& settings) {
    return Tell("settings", "OnHashChainSettingsChanged", Args(settings.enabled));
}

int ScanEventSinks::OnSignatureInfoReportingChanged(bool enabled) {
    return Tell("settings", "OnSignatureInfoReportingChanged", Args(enabled));
}

} // namespace host
