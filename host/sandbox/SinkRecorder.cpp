#include "host/sandbox/SinkRecorder.h"

#include "host/sandbox/TextUtil.h"

namespace sandbox {

std::string SinkEvent::Text() const {
    std::string text = event + "(";
    for (Json::ArrayIndex i = 0; i < args.size(); ++i) text += (i ? ", " : "") + CompactJson(args[i]);
    return text + ")";
}

bool SinkRecorder::Register(qv::kxsdk::AntivirusScan::IAntivirusScan* scan, std::string& answers) {
    const DWORD engines = scan->RegisterEnginesEvents(this);
    const DWORD scanEvents = scan->RegisterScanEvents(this);
    const DWORD settings = scan->RegisterSettingsEvents(this);
    answers = "engines " + CodeText(engines) + ", scan " + CodeText(scanEvents) + ", settings " + CodeText(settings);
    if (engines == 0 && scanEvents == 0 && settings == 0) {
        scan_ = scan;
        return true;
    }
    if (engines == 0) scan->UnregisterEnginesEvents(this);
    if (scanEvents == 0) scan->UnregisterScanEvents(this);
    if (settings == 0) scan->UnregisterSettingsEvents(this);
    return false;
}

void SinkRecorder::Unregister(std::string& answers) {
    if (!scan_) return;
    const DWORD engines = scan_->UnregisterEnginesEvents(this);
    const DWORD scanEvents = scan_->UnregisterScanEvents(this);
    const DWORD settings = scan_->UnregisterSettingsEvents(this);
    answers = "engines " + CodeText(engines) + ", scan " + CodeText(scanEvents) + ", settings " + CodeText(settings);
    scan_ = nullptr;
}

std::vector<SinkEvent> SinkRecorder::Drain() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<SinkEvent> events;
    events.swap(pending_);
    return events;
}

void SinkRecorder::Record(const char* sink, const char* event, Json::Value args) {
    std::lock_guard<std::mutex> lock(mutex_);
    pending_.push_back(SinkEvent{sink, event, std::move(args)});
}

std::string SinkRecorder::Path(const qv::StringW& path) const {
    std::wstring p = path.c_str();
    if (!root_.empty() && p.size() > root_.size() && _wcsnicmp(p.c_str(), root_.c_str(), root_.size()) == 0 &&
        p[root_.size()] == L'\\')
        p = p.substr(root_.size() + 1);
    return Utf8(p);
}

int SinkRecorder::OnReloadStarted(const qv::StringW& enginesPath) {
    Json::Value args(Json::arrayValue);
    args.append(Path(enginesPath));
    Record("engines", "OnReloadStarted", args);
    return 0;
}

int SinkRecorder::OnReloadEnded(const qv::StringW& enginesPath, int error) {
    Json::Value args(Json::arrayValue);
    args.append(Path(enginesPath));
    args.append(error);
    Record("engines", "OnReloadEnded", args);
    return 0;
}

int SinkRecorder::OnScanModesChanged(ScanMode primary, ScanMode fallback) {
    Json::Value args(Json::arrayValue);
    args.append(static_cast<unsigned>(primary));
    args.append(static_cast<unsigned>(fallback));
    Record("scan", "OnScanModesChanged", args);
    return 0;
}

int SinkRecorder::OnBackupStatusChanged(bool enabled) {
    Json::Value args(Json::arrayValue);
    args.append(enabled);
    Record("settings", "OnBackupStatusChanged", args);
    return 0;
}

int SinkRecorder::OnFeatureStatusChanged(const qv::StringW& feature, bool isLocked) {
    Json::Value args(Json::arrayValue);
    args.append(Utf8(feature.c_str()));
    args.append(isLocked);
    Record("settings", "OnFeatureStatusChanged", args);
    return 0;
}

int SinkRecorder::OnHashChainSettingsChanged(const HashChainSettings& settings) {
    Json::Value args(Json::arrayValue);
    args.append(settings.enabled);
    Record("settings", "OnHashChainSettingsChanged", args);
    return 0;
}

int SinkRecorder::OnSignatureInfoReportingChanged(bool enabled) {
    Json::Value args(Json::arrayValue);
    args.append(enabled);
    Record("settings", "OnSignatureInfoReportingChanged", args);
    return 0;
}

} // namespace sandbox
