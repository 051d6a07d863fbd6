#pragma once
// One sink object with all three IAntivirusScan event faces, recording each notification as a
// short line ("modes=2,4", "backup=1", "feature=Name,0", ...), prefixed with "name:" when the
// recorder has a name, so that several recorders can share one journal and show their order.
#include "host/ScanEventSinks.h"
#include "sdk/IAntivirusScan.h"

#include <windows.h>

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace testing_support {

class EventJournal {
public:
    void Add(const std::string& entry) {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.push_back(entry);
    }
    // The entries so far, and the journal emptied.
    std::vector<std::string> Take() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::string> taken;
        taken.swap(entries_);
        return taken;
    }

private:
    std::mutex mutex_;
    std::vector<std::string> entries_;
};

class EventRecorder : public host::ScanEventSinks {
public:
    using IAntivirusScan = qv::kxsdk::AntivirusScan::IAntivirusScan;

    // Answers 1627 to every notification: the plug-in ignores what sinks answer.
    explicit EventRecorder(EventJournal* shared = nullptr, std::string name = "")
        : ScanEventSinks([this](const host::ScanEvent& event) { Note(event); }, 1627),
          journal_(shared ? shared : &own_), name_(name.empty() ? "" : name + ":") {}

    std::vector<std::string> Take() { return journal_->Take(); }

    std::function<void()> during;  // runs inside each notification, after it is recorded
    volatile DWORD scanThread = 0; // thread of the last scan-modes notification

private:
    // "reloadStarted", "modes=2,4", "feature=Name,0": the arguments after the label, flags as 1
    // or 0; the reload notifications are shown without theirs.
    static std::string Line(const host::ScanEvent& event) {
        static const std::pair<const char*, const char*> labels[] = {
            {"OnReloadStarted", "reloadStarted"},
            {"OnReloadEnded", "reloadEnded"},
            {"OnScanModesChanged", "modes"},
            {"OnBackupStatusChanged", "backup"},
            {"OnFeatureStatusChanged", "feature"},
            {"OnHashChainSettingsChanged", "hashChain"},
            {"OnSignatureInfoReportingChanged", "signatureInfo"}};
        std::string line = event.name;
        for (const auto& label : labels)
            if (line == label.first) line = label.second;
        if (std::string(event.face) == "engines") return line;
        for (Json::ArrayIndex i = 0; i < event.args.size(); ++i) {
            const Json::Value& arg = event.args[i];
            line += i ? "," : "=";
            if (arg.isBool())
                line += arg.asBool() ? "1" : "0";
            else if (arg.isString())
                for (wchar_t c : event.text) line += static_cast<char>(c);
            else
                line += arg.asString();
        }
        return line;
    }
    void Note(const host::ScanEvent& event) {
        if (std::string(event.face) == "scan") scanThread = GetCurrentThreadId();
        journal_->Add(name_ + Line(event));
        if (during) during();
    }
    EventJournal own_;
    EventJournal* journal_;
    std::string name_;
};

} // namespace testing_support
