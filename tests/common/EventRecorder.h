#pragma once
// One sink object with all three IAntivirusScan event faces, recording each notification as a
// short line ("modes=2,4", "backup=1", "feature=Name,0", ...), prefixed with "name:" when the
// recorder has a name, so that several recorders can share one journal and show their order.
#include "sdk/IAntivirusScan.h"

#include <windows.h>

#include <functional>
#include <mutex>
#include <string>
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

class EventRecorder : public qv::kxsdk::AntivirusScan::IAntivirusScan::IEnginesEvents,
                      public qv::kxsdk::AntivirusScan::IAntivirusScan::IScanEvents,
                      public qv::kxsdk::AntivirusScan::IAntivirusScan::ISettingsEvents {
public:
    using ScanMode = qv::kxsdk::AntivirusScan::ScanMode;
    using IAntivirusScan = qv::kxsdk::AntivirusScan::IAntivirusScan;

    explicit EventRecorder(EventJournal* shared = nullptr, std::string name = "")
        : journal_(shared ? shared : &own_), name_(name.empty() ? "" : name + ":") {}

    int OnReloadStarted(const qv::StringW&) override { return Note("reloadStarted"); }
    int OnReloadEnded(const qv::StringW&, int) override { return Note("reloadEnded"); }
    int OnScanModesChanged(ScanMode primary, ScanMode fallback) override {
        scanThread = GetCurrentThreadId();
        return Note("modes=" + std::to_string(primary) + "," + std::to_string(fallback));
    }
    int OnBackupStatusChanged(bool on) override { return Note(std::string("backup=") + Bit(on)); }
    int OnFeatureStatusChanged(const qv::StringW& feature, bool locked) override {
        std::string name;
        for (const wchar_t* c = feature.c_str(); *c; ++c) name += static_cast<char>(*c);
        return Note("feature=" + name + "," + Bit(locked));
    }
    int OnHashChainSettingsChanged(const qv::kxsdk::AntivirusScan::HashChainSettings& s) override {
        return Note(std::string("hashChain=") + Bit(s.enabled));
    }
    int OnSignatureInfoReportingChanged(bool on) override { return Note(std::string("signatureInfo=") + Bit(on)); }

    std::vector<std::string> Take() { return journal_->Take(); }

    IEnginesEvents* Engines() { return this; }
    IScanEvents* Scan() { return this; }
    ISettingsEvents* Settings() { return this; }

    std::function<void()> during;     // runs inside each notification, after it is recorded
    volatile DWORD scanThread = 0;    // thread of the last scan-modes notification

private:
    static const char* Bit(bool b) { return b ? "1" : "0"; }
    int Note(const std::string& what) {
        journal_->Add(name_ + what);
        if (during) during();
        return 1627;  // the plug-in ignores what sinks answer
    }
    EventJournal own_;
    EventJournal* journal_;
    std::string name_;
};

} // namespace testing_support
