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

void SinkRecorder::Record(const host::ScanEvent& event) {
    Json::Value args = event.args;
    if (std::string(event.face) == "engines") args[0] = Path(event.text); // shown below the root
    std::lock_guard<std::mutex> lock(mutex_);
    pending_.push_back(SinkEvent{event.face, event.name, std::move(args)});
}

std::string SinkRecorder::Path(const std::wstring& path) const {
    std::wstring p = path;
    if (!root_.empty() && p.size() > root_.size() && _wcsnicmp(p.c_str(), root_.c_str(), root_.size()) == 0 &&
        p[root_.size()] == L'\\')
        p = p.substr(root_.size() + 1);
    return Utf8(p);
}

} // namespace sandbox
