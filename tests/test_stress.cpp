// Load: eight callers hammer IAntivirusScan with a fixed-seed mix of queries, switches, feature
// locks and sink registrations, while the remote-scan plug-in keeps firing its three events and
// the update plug-in keeps delivering "Antivirus" installations that reload the engines. A
// watchdog ends the run as failed when any thread makes no progress for five seconds. Afterwards
// the settings file must hold exactly what the plug-in answers, every sink call must have been
// consistent (right arguments, only while registered), and after UnInit every plug-in and every
// settings section must have been handed back.
#include "tests/common/ScanSlots.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace testing_support;
using namespace testing_support::slots;
namespace ids = qv::kxsdk::ids;
using qv::kxsdk::AntivirusScan::ScanModeNone;

const wchar_t* const kFeatures[] = {L"Quarantine", L"Firewall", L"quarantine", L"WebShield"};
constexpr int kCallers = 8;
constexpr DWORD kHangMs = 5000;
constexpr DWORD kReloadError = 1460;

// Seconds of load: about twenty; AVSCAN_STRESS_SECONDS may shorten or lengthen a local run.
DWORD LoadMilliseconds() {
    wchar_t text[16] = {};
    DWORD n = GetEnvironmentVariableW(L"AVSCAN_STRESS_SECONDS", text, 16);
    int seconds = n > 0 && n < 16 ? _wtoi(text) : 20;
    if (seconds < 1) seconds = 1;
    if (seconds > 120) seconds = 120;
    return static_cast<DWORD>(seconds) * 1000;
}

// Scan-mode pairs a "full" installation can announce, whatever the remote-scan state.
bool ValidFullPair(ScanMode p, ScanMode f) {
    return (p == 5 && f == 5) || (p == 3 && (f == 3 || f == 5 || f == 0));
}

bool KnownFeature(const qv::StringW& name) {
    for (const wchar_t* f : kFeatures)
        if (name == f) return true;
    return false;
}

// What all sinks together observed that they should not have.
struct Audit {
    std::atomic<long> calls{0};
    std::atomic<long> violations{0};
    std::mutex mutex;
    std::vector<std::string> first;  // the first few violations, for the report
    void Violation(const std::string& what) {
        ++violations;
        std::lock_guard<std::mutex> lock(mutex);
        if (first.size() < 10) first.push_back(what);
    }
};

// The update plug-in's side of each reload: which path was delivered and what the reload gave,
// by notification thread, so that the engines sinks can be checked against it.
struct Reloads {
    std::mutex mutex;
    std::set<std::wstring> paths;
    std::map<DWORD, DWORD> resultByThread;
    std::atomic<int> count{0};
};

// One caller's three sinks; each call must come while the caller has that sink registered.
class Sinks : public IAntivirusScan::ISettingsEvents,
              public IAntivirusScan::IEnginesEvents,
              public IAntivirusScan::IScanEvents {
public:
    Sinks(Audit& audit, Reloads& reloads) : audit_(audit), reloads_(reloads) {}
    std::atomic<bool> settingsOn{false}, enginesOn{false}, scanOn{false};

    int OnBackupStatusChanged(bool) override { return Check(settingsOn, "backup"); }
    int OnFeatureStatusChanged(const qv::StringW& name, bool) override {
        if (!KnownFeature(name)) audit_.Violation("feature event for an unknown name");
        return Check(settingsOn, "feature");
    }
    int OnHashChainSettingsChanged(const HashChainSettings&) override { return Check(settingsOn, "hash chain"); }
    int OnSignatureInfoReportingChanged(bool) override { return Check(settingsOn, "signature info"); }
    int OnReloadStarted(const qv::StringW& path) override {
        std::lock_guard<std::mutex> lock(reloads_.mutex);
        if (!reloads_.paths.count(path.c_str())) audit_.Violation("reload started for a path never delivered");
        started_[GetCurrentThreadId()] = path.c_str();
        return Check(enginesOn, "reload started");
    }
    int OnReloadEnded(const qv::StringW& path, int error) override {
        {
            std::lock_guard<std::mutex> lock(reloads_.mutex);
            const DWORD thread = GetCurrentThreadId();
            auto result = reloads_.resultByThread.find(thread);
            if (result == reloads_.resultByThread.end() || static_cast<int>(result->second) != error)
                audit_.Violation("reload ended with another error than the provider gave");
            auto start = started_.find(thread);
            if (start != started_.end() && start->second != path.c_str())
                audit_.Violation("reload ended for another path than it started");
            started_.erase(thread);
        }
        return Check(enginesOn, "reload ended");
    }
    int OnScanModesChanged(ScanMode primary, ScanMode fallback) override {
        if (!ValidFullPair(primary, fallback)) audit_.Violation("scan modes outside the decision table");
        return Check(scanOn, "scan modes");
    }

private:
    int Check(const std::atomic<bool>& on, const char* what) {
        ++audit_.calls;
        if (!on) audit_.Violation(std::string(what) + " event for a sink not registered");
        return 0;
    }
    Audit& audit_;
    Reloads& reloads_;
    std::map<DWORD, std::wstring> started_;  // under reloads_.mutex
};

// Progress of each thread; the watchdog reads it.
struct Progress {
    std::atomic<DWORD> tick[kCallers + 2];
    std::atomic<int> op[kCallers + 2];
    std::atomic<bool> done[kCallers + 2];
    Progress() {
        for (int i = 0; i < kCallers + 2; ++i) {
            tick[i] = GetTickCount();
            op[i] = -1;
            done[i] = false;
        }
    }
    void Beat(int who, int operation) {
        op[who] = operation;
        tick[who] = GetTickCount();
    }
};

class Stress : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, plugin.primary);
        root_ = TempFolder(L"stress");
        engines_ = root_ + L"\\engines";
        core_ = root_ + L"\\temp\\scansp";
        for (const std::wstring& dir : {engines_, engines_ + L"\\Plugins", root_ + L"\\temp", core_})
            CreateDirectoryW(dir.c_str(), nullptr);
        settingsFile_ = root_ + L"\\settings.json";
        plugin.env.settings.UseFile(settingsFile_);
        auto& config = plugin.env.servConfig;
        config.SetText(51, L"BASE", L"full");
        config.SetText(17, L"scansp", core_.c_str());
        config.SetText(2, L"scansp", engines_.c_str());
        plugin.env.remoteScan.SetStatus(true);
        plugin.env.remoteScan.SetFallbackMode(2);
        plugin.env.update.SetStatistic(L"Antivirus", L"1.2.3", 42);
        for (int i = 0; i < 3; ++i) {
            paths_.push_back(engines_ + L"\\kit" + std::to_wstring(i));
            reloads_.paths.insert(paths_.back());
        }
        // Every fourth reload fails; the sinks must hear the provider's own answer.
        plugin.env.scanSp.SetReloadHandler([this] {
            const DWORD result = (++reloads_.count % 4 == 0) ? kReloadError : 0;
            std::lock_guard<std::mutex> lock(reloads_.mutex);
            reloads_.resultByThread[GetCurrentThreadId()] = result;
            return result;
        });
        avhost::ClearCapturedLines();
    }
    void TearDown() override {
        plugin.StopAll();
        plugin.env.scanSp.SetReloadHandler(nullptr);
        RemoveFolder(root_);
    }

    void Caller(int who, Progress& progress, const std::atomic<bool>& stop, std::map<int, long>& counts);

    PluginUnderTest plugin;
    std::wstring root_, engines_, core_, settingsFile_;
    std::vector<std::wstring> paths_;
    Audit audit_;
    Reloads reloads_;
    std::atomic<long> wrongAnswers_{0};
    std::mutex wrongMutex_;
    std::vector<std::string> wrongFirst_;

    void Wrong(bool bad, const char* what) {
        if (!bad) return;
        ++wrongAnswers_;
        std::lock_guard<std::mutex> lock(wrongMutex_);
        if (wrongFirst_.size() < 10) wrongFirst_.push_back(what);
    }
};

void Stress::Caller(int who, Progress& progress, const std::atomic<bool>& stop, std::map<int, long>& counts) {
    std::mt19937 random(1000 + who);
    Sinks sinks(audit_, reloads_);
    auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    while (!stop) {
        const int op = pick(14);
        progress.Beat(who, op);
        ++counts[op];
        void* scan = plugin.scan;
        switch (op) {
        case 0: {
            ScanType type = qv::kxsdk::AntivirusScan::RemoteOnly;
            Wrong(GetScanType(scan, &type) != 0 || type != qv::kxsdk::AntivirusScan::Full, "GetScanType");
            break;
        }
        case 1: {
            ScanMode p = ScanModeNone, f = ScanModeNone;
            Wrong(GetScanModes(scan, &p, &f) != 0 || !ValidFullPair(p, f), "GetScanModes");
            break;
        }
        case 2: Wrong(EnableBackup(scan, pick(2) == 1) != 0, "EnableBackup"); break;
        case 3: {
            bool on;
            Wrong(IsBackupEnabled(scan, &on) != 0, "IsBackupEnabled");
            break;
        }
        case 4: {
            qv::StringW version;
            Wrong(GetEnginesVersion(scan, &version) != 0 || version != L"1.2.3", "GetEnginesVersion");
            break;
        }
        case 5: {
            uint64_t count = 0;
            Wrong(GetSignaturesCount(scan, &count) != 0 || count != 42, "GetSignaturesCount");
            break;
        }
        case 6: Wrong(SetFeatureStatus(scan, qv::StringW(kFeatures[pick(4)]), pick(2) == 1) != 0, "SetFeature"); break;
        case 7: {
            bool locked;
            Wrong(GetFeatureStatus(scan, qv::StringW(kFeatures[pick(4)]), &locked) != 0, "GetFeatureStatus");
            break;
        }
        case 8: Wrong(ReportHashChain(scan, pick(2) == 1) != 0, "ReportHashChain"); break;
        case 9: {
            HashChainSettings hc;
            Wrong(GetHashChainSettings(scan, &hc) != 0, "GetHashChainSettings");
            break;
        }
        case 10: Wrong(ReportSignatureInfo(scan, pick(2) == 1) != 0, "ReportSignatureInfo"); break;
        case 11: {
            bool on;
            Wrong(IsSignatureInfoReported(scan, &on) != 0, "IsSignatureInfoReported");
            break;
        }
        case 12: {
            // Toggle one of the three registrations; a second registration must be refused.
            const int which = pick(3);
            std::atomic<bool>& on = which == 0 ? sinks.settingsOn : which == 1 ? sinks.enginesOn : sinks.scanOn;
            if (!on) {
                on = true;  // before the call: an event may arrive before it returns
                DWORD r = which == 0 ? RegisterSettings(scan, &sinks)
                          : which == 1 ? RegisterEngines(scan, &sinks)
                                       : RegisterScan(scan, &sinks);
                Wrong(r != 0, "Register");
                DWORD again = which == 0 ? RegisterSettings(scan, &sinks)
                              : which == 1 ? RegisterEngines(scan, &sinks)
                                           : RegisterScan(scan, &sinks);
                Wrong(again != 1627, "second Register");
            } else {
                DWORD r = which == 0 ? UnregisterSettings(scan, &sinks)
                          : which == 1 ? UnregisterEngines(scan, &sinks)
                                       : UnregisterScan(scan, &sinks);
                Wrong(r != 0, "Unregister");
                on = false;  // after the call: nothing may arrive from now on
            }
            break;
        }
        default: {
            // A sink never registered is refused, and so is a null one.
            Sinks stranger(audit_, reloads_);
            Wrong(UnregisterScan(scan, &stranger) != 1627, "Unregister unknown");
            Wrong(RegisterEngines(scan, nullptr) != 87, "Register null");
            break;
        }
        }
    }
    // Leave nothing registered that is about to go out of scope.
    if (sinks.settingsOn) Wrong(UnregisterSettings(plugin.scan, &sinks) != 0, "final Unregister");
    if (sinks.enginesOn) Wrong(UnregisterEngines(plugin.scan, &sinks) != 0, "final Unregister");
    if (sinks.scanOn) Wrong(UnregisterScan(plugin.scan, &sinks) != 0, "final Unregister");
    sinks.settingsOn = sinks.enginesOn = sinks.scanOn = false;
    progress.done[who] = true;
}

TEST_F(Stress, CallersEventsAndReloadsTogetherLoseNothingAndLeakNothing) {
    ASSERT_TRUE(plugin.StartAll());
    Progress progress;
    std::atomic<bool> stop{false};
    std::map<int, long> counts[kCallers];
    std::atomic<long> fires{0}, deliveries{0}, skipped{0};

    std::thread watchdog([&] {
        while (true) {
            bool allDone = true;
            for (int i = 0; i < kCallers + 2; ++i) {
                if (progress.done[i]) continue;
                allDone = false;
                const DWORD idle = GetTickCount() - progress.tick[i];
                if (idle > kHangMs) {
                    fprintf(stderr, "FATAL: thread %d made no progress for %lu ms (operation %d): hang\n", i,
                            static_cast<unsigned long>(idle), progress.op[i].load());
                    fflush(stderr);
                    TerminateProcess(GetCurrentProcess(), 3);
                }
            }
            if (allDone) return;
            Sleep(100);
        }
    });

    std::vector<std::thread> threads;
    for (int i = 0; i < kCallers; ++i)
        threads.emplace_back([&, i] { Caller(i, progress, stop, counts[i]); });
    threads.emplace_back([&] {
        const int me = kCallers;
        std::mt19937 random(77);
        auto& remote = plugin.env.remoteScan;
        while (!stop) {
            const int what = static_cast<int>(random() % 3);
            progress.Beat(me, what);
            remote.SetFallbackMode(random() % 3);
            DWORD r;
            if (what == 0) {
                const bool on = random() % 2 == 0;
                remote.SetStatus(on);
                r = remote.FireStatusChanged(on, kHangMs * 2);
            } else {
                r = what == 1 ? remote.FireSettingsChanged(kHangMs * 2) : remote.FireScanModeChanged(kHangMs * 2);
            }
            Wrong(r != 0, "remote-scan event");
            ++fires;
        }
        progress.done[me] = true;
    });
    threads.emplace_back([&] {
        const int me = kCallers + 1;
        std::mt19937 random(99);
        auto& update = plugin.env.update;
        for (int n = 0; !stop; ++n) {
            progress.Beat(me, n);
            const std::wstring& path = paths_[random() % paths_.size()];
            // Now and then a maintenance installation, which must not reload.
            const bool maintenance = random() % 8 == 0;
            DWORD r = update.DeliverComponentInstalled(maintenance ? L"kitInstaller_sync" : L"Updater", L"Antivirus",
                                                       path.c_str(), kHangMs * 2);
            Wrong(r != 0, "OnComponentInstalled");
            ++(maintenance ? skipped : deliveries);
        }
        progress.done[me] = true;
    });

    Sleep(LoadMilliseconds());
    stop = true;
    for (std::thread& t : threads) t.join();
    watchdog.join();

    for (const std::string& w : wrongFirst_) ADD_FAILURE() << "wrong answer: " << w;
    EXPECT_EQ(0, wrongAnswers_.load());
    for (const std::string& v : audit_.first) ADD_FAILURE() << "inconsistent sink call: " << v;
    EXPECT_EQ(0, audit_.violations.load());
    EXPECT_GT(audit_.calls.load(), 0);
    EXPECT_GT(deliveries.load(), 0);
    EXPECT_GT(fires.load(), 0);
    EXPECT_FALSE(LineStartingWith(L"unexpected exception"));

    // The settings file holds exactly what the plug-in answers.
    Json::Value document;
    ASSERT_TRUE(ReadSettingsFile(settingsFile_, document));
    const Json::Value section = ModuleSection(document);
    bool backup = false, signatureInfo = false;
    HashChainSettings hashChain{false};
    ASSERT_EQ(0u, IsBackupEnabled(plugin.scan, &backup));
    ASSERT_EQ(0u, GetHashChainSettings(plugin.scan, &hashChain));
    ASSERT_EQ(0u, IsSignatureInfoReported(plugin.scan, &signatureInfo));
    EXPECT_EQ(Json::Value(backup), section["enableBackup"]) << "backup switch lost";
    EXPECT_EQ(Json::Value(hashChain.enabled), section["reportHashChain"]["enabled"]) << "hash-chain switch lost";
    EXPECT_EQ(Json::Value(signatureInfo), section["reportSignatureInfo"]) << "signature-info switch lost";
    for (const wchar_t* feature : kFeatures) {
        bool locked = false;
        ASSERT_EQ(0u, GetFeatureStatus(plugin.scan, qv::StringW(feature), &locked));
        const std::string key(feature, feature + wcslen(feature));
        if (section.isMember(key))
            EXPECT_EQ(Json::Value(locked), section[key]) << "feature lost: " << key;
        else
            EXPECT_TRUE(locked);
    }
    const Json::Value status = section["engines"]["reloadStatus"];
    EXPECT_TRUE(status.isUInt() && status.asUInt() >= 1 && status.asUInt() <= 3) << status.toStyledString();
    // The provider runs with the backup value the plug-in reports.
    int lastBackup = -1;
    for (const auto& option : plugin.env.scanSp.Options())
        if (option.option == 9 && option.result == 0) lastBackup = static_cast<int>(option.value);
    EXPECT_EQ(backup ? 1 : 0, lastBackup) << "the provider was left with another backup value";

    plugin.StopAll();
    EXPECT_TRUE(plugin.env.manager.Balanced()) << "plug-in gets and releases do not balance";
    for (const wchar_t* name : {ids::kServConfigName, ids::kSettingsName, ids::kUpdateName, ids::kRemoteScanName,
                                ids::kCtcName, ids::kScanSpName, ids::kTelemetryName})
        EXPECT_EQ(0, plugin.env.manager.Outstanding(name));
    EXPECT_EQ(0, plugin.env.settings.Outstanding()) << "settings sections not released";
    EXPECT_EQ(0, plugin.env.scanSp.OutstandingInterfaces());

    long total = 0;
    for (const auto& perCaller : counts)
        for (const auto& c : perCaller) total += c.second;
    printf("load held: %ld interface calls from %d callers, %ld remote-scan events, %ld reloads (%ld maintenance "
           "skips), %ld sink calls\n",
           total, kCallers, fires.load(), deliveries.load(), skipped.load(), audit_.calls.load());
}

} // namespace
