// Load: eight callers hammer IAntivirusScan with a fixed-seed mix of every slot while the
// remote-scan plug-in fires its events and the update plug-in delivers "Antivirus" installations.
// The scan provider refuses one backup option in four, so that EnableBackup rolls back under load,
// and the feature table grows to thousands of names. A watchdog fails the run when a thread makes no progress for five
// seconds. Afterwards the settings file must hold what the plug-in answers, every sink call must have been consistent,
// and every plug-in and settings section must have been handed back.
#include "tests/common/ScanSlots.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>

namespace {

using namespace testing_support;
using namespace testing_support::slots;
namespace ids = qv::kxsdk::ids;

constexpr int kCallers = 8, kThreads = kCallers + 2, kGeneratedFeatures = 3000;
constexpr DWORD kRefused = 1460;

// Names differing only in case first, then thousands more.
const std::vector<std::wstring>& Features() {
    static const std::vector<std::wstring> names = [] {
        std::vector<std::wstring> all = {L"Quarantine", L"Firewall", L"quarantine", L"WebShield"};
        for (int i = 0; i < kGeneratedFeatures; ++i) all.push_back(L"Feature." + std::to_wstring(i));
        return all;
    }();
    return names;
}
constexpr DWORD kHangMs = 5000;

DWORD LoadMilliseconds() { // AVSCAN_STRESS_SECONDS changes the length for a local run
    wchar_t text[16] = {};
    const DWORD n = GetEnvironmentVariableW(L"AVSCAN_STRESS_SECONDS", text, 16);
    const int seconds = n > 0 && n < 16 ? _wtoi(text) : 20;
    return static_cast<DWORD>(seconds < 1 ? 1 : seconds > 120 ? 120 : seconds) * 1000;
}

// Scan-mode pairs a "full" installation can announce, whatever the remote-scan state.
bool ValidFullPair(ScanMode p, ScanMode f) { return (p == 5 && f == 5) || (p == 3 && (f == 3 || f == 5 || f == 0)); }

// Wrong answers and inconsistent sink calls, with the first few named.
struct Faults {
    std::atomic<long> count{0};
    std::mutex mutex;
    std::vector<std::string> first;
    void Check(bool bad, const std::string& what) {
        if (!bad) return;
        ++count;
        std::lock_guard<std::mutex> lock(mutex);
        if (first.size() < 10) first.push_back(what);
    }
};

// What the update side delivered and what each reload gave, by notification thread.
struct Reloads {
    std::mutex mutex;
    std::set<std::wstring> paths;
    std::map<DWORD, DWORD> resultByThread;
    std::atomic<int> count{0};
};

// Mostly the four hand-picked names, so that they change often; the rest spread over the many.
template <class Pick> const std::wstring& FeatureName(Pick& pick) {
    const std::vector<std::wstring>& names = Features();
    return pick(2) == 0 ? names[pick(4)] : names[pick(static_cast<int>(names.size()))];
}

// One caller's three sinks; each call must come while that sink is registered.
class Sinks : public IAntivirusScan::ISettingsEvents,
              public IAntivirusScan::IEnginesEvents,
              public IAntivirusScan::IScanEvents {
public:
    Sinks(Faults& faults, Reloads& reloads, std::atomic<long>& calls)
        : faults_(faults), reloads_(reloads), calls_(calls) {}
    std::atomic<bool> on[3] = {{false}, {false}, {false}}; // settings, engines, scan

    int OnBackupStatusChanged(bool) override { return Seen(0, "backup"); }
    int OnFeatureStatusChanged(const qv::StringW& name, bool) override {
        bool known = false;
        for (const std::wstring& f : Features()) known = known || name == f.c_str();
        faults_.Check(!known, "feature event for an unknown name");
        return Seen(0, "feature");
    }
    int OnHashChainSettingsChanged(const HashChainSettings&) override { return Seen(0, "hash chain"); }
    int OnSignatureInfoReportingChanged(bool) override { return Seen(0, "signature info"); }
    int OnReloadStarted(const qv::StringW& path) override {
        std::lock_guard<std::mutex> lock(reloads_.mutex);
        faults_.Check(!reloads_.paths.count(path.c_str()), "reload started for a path never delivered");
        return Seen(1, "reload started");
    }
    int OnReloadEnded(const qv::StringW& path, int error) override {
        std::lock_guard<std::mutex> lock(reloads_.mutex);
        const DWORD thread = GetCurrentThreadId();
        faults_.Check(static_cast<int>(reloads_.resultByThread[thread]) != error, "reload ended with another error");
        faults_.Check(!reloads_.paths.count(path.c_str()), "reload ended for a path never delivered");
        return Seen(1, "reload ended");
    }
    int OnScanModesChanged(ScanMode primary, ScanMode fallback) override {
        faults_.Check(!ValidFullPair(primary, fallback), "scan modes outside the decision table");
        return Seen(2, "scan modes");
    }
    DWORD Register(void* scan, int which) {
        return which == 0   ? RegisterSettings(scan, this)
               : which == 1 ? RegisterEngines(scan, this)
                            : RegisterScan(scan, this);
    }
    DWORD Unregister(void* scan, int which) {
        return which == 0   ? UnregisterSettings(scan, this)
               : which == 1 ? UnregisterEngines(scan, this)
                            : UnregisterScan(scan, this);
    }

private:
    int Seen(int which, const char* what) {
        ++calls_;
        faults_.Check(!on[which], std::string(what) + " event for a sink not registered");
        return 0;
    }
    Faults& faults_;
    Reloads& reloads_;
    std::atomic<long>& calls_;
};

TEST(Stress, CallersEventsAndReloadsTogetherLoseNothingAndLeakNothing) {
    PluginUnderTest plugin;
    const std::wstring root = TempFolder(L"stress"), engines = root + L"\\engines", core = root + L"\\temp\\scansp";
    for (const std::wstring& dir : {engines, engines + L"\\Plugins", root + L"\\temp", core})
        CreateDirectoryW(dir.c_str(), nullptr);
    const std::wstring settingsFile = root + L"\\settings.json";
    plugin.env.settings.UseFile(settingsFile);
    plugin.env.servConfig.SetText(51, L"BASE", L"full");
    plugin.env.servConfig.SetText(17, L"scansp", core.c_str());
    plugin.env.servConfig.SetText(2, L"scansp", engines.c_str());
    plugin.env.remoteScan.SetStatus(true);
    plugin.env.update.SetStatistic(L"Antivirus", L"1.2.3", 42);
    Faults faults;
    Reloads reloads;
    std::atomic<long> sinkCalls{0}, calls{0}, fires{0}, deliveries{0}, rollbacks{0};
    std::vector<std::wstring> paths;
    for (int i = 0; i < 3; ++i)
        reloads.paths.insert(*paths.insert(paths.end(), engines + L"\\kit" + std::to_wstring(i)));
    plugin.env.scanSp.SetReloadHandler([&reloads] { // one reload in four fails
        const DWORD result = ++reloads.count % 4 == 0 ? 1460 : 0;
        std::lock_guard<std::mutex> lock(reloads.mutex);
        reloads.resultByThread[GetCurrentThreadId()] = result;
        return result;
    });
    ASSERT_TRUE(plugin.StartAll());

    std::atomic<DWORD> tick[kThreads];
    std::atomic<bool> done[kThreads], stop{false};
    for (int i = 0; i < kThreads; ++i) tick[i] = GetTickCount(), done[i] = false;
    std::thread watchdog([&] {
        for (bool all = false; !all; Sleep(100)) {
            all = true;
            for (int i = 0; i < kThreads; ++i) {
                if (done[i]) continue;
                all = false;
                if (GetTickCount() - tick[i] > kHangMs) {
                    fprintf(stderr, "FATAL: thread %d made no progress for 5 s: hang\n", i);
                    fflush(stderr);
                    TerminateProcess(GetCurrentProcess(), 3);
                }
            }
        }
    });

    void* scan = plugin.scan;
    std::vector<std::thread> threads;
    for (int who = 0; who < kCallers; ++who) {
        threads.emplace_back([&, who] {
            std::mt19937 random(1000 + who);
            auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
            Sinks sinks(faults, reloads, sinkCalls);
            const std::function<bool()> ops[] = {
                [&] {
                    ScanType t;
                    return GetScanType(scan, &t) == 0 && t == qv::kxsdk::AntivirusScan::Full;
                },
                [&] {
                    ScanMode p, f;
                    return GetScanModes(scan, &p, &f) == 0 && ValidFullPair(p, f);
                },
                [&] { // refused by the provider: rolled back
                    const DWORD result = EnableBackup(scan, pick(2) == 1);
                    if (result == ERROR_INTERNAL_ERROR) ++rollbacks;
                    return result == 0 || result == ERROR_INTERNAL_ERROR;
                },
                [&] {
                    bool on;
                    return IsBackupEnabled(scan, &on) == 0;
                },
                [&] {
                    qv::StringW v;
                    return GetEnginesVersion(scan, &v) == 0 && v == L"1.2.3";
                },
                [&] {
                    uint64_t c = 0;
                    return GetSignaturesCount(scan, &c) == 0 && c == 42;
                },
                [&] { return SetFeatureStatus(scan, qv::StringW(FeatureName(pick).c_str()), pick(2) == 1) == 0; },
                [&] {
                    bool l;
                    return GetFeatureStatus(scan, qv::StringW(FeatureName(pick).c_str()), &l) == 0;
                },
                [&] { return ReportHashChain(scan, pick(2) == 1) == 0; },
                [&] {
                    HashChainSettings hc;
                    return GetHashChainSettings(scan, &hc) == 0;
                },
                [&] { return ReportSignatureInfo(scan, pick(2) == 1) == 0; },
                [&] {
                    bool on;
                    return IsSignatureInfoReported(scan, &on) == 0;
                },
                [&] { // toggle a registration; a second registration is refused
                    const int which = pick(3);
                    if (sinks.on[which]) {
                        const bool ok = sinks.Unregister(scan, which) == 0;
                        sinks.on[which] = false; // after the call: nothing may arrive from now on
                        return ok;
                    }
                    sinks.on[which] = true; // before the call: an event may arrive before it returns
                    return sinks.Register(scan, which) == 0 && sinks.Register(scan, which) == 1627;
                },
                [&] { // unknown and null sinks are refused
                    Sinks stranger(faults, reloads, sinkCalls);
                    return UnregisterScan(scan, &stranger) == 1627 && RegisterEngines(scan, nullptr) == 87;
                },
            };
            while (!stop) {
                tick[who] = GetTickCount();
                const int op = pick(14);
                faults.Check(!ops[op](), "wrong answer from operation " + std::to_string(op));
                ++calls;
            }
            for (int which = 0; which < 3; ++which)
                if (sinks.on[which]) faults.Check(sinks.Unregister(scan, which) != 0, "final Unregister");
            done[who] = true;
        });
    }
    threads.emplace_back([&] {
        std::mt19937 random(77);
        auto& remote = plugin.env.remoteScan;
        while (!stop) {
            tick[kCallers] = GetTickCount();
            const int what = static_cast<int>(random() % 3);
            remote.SetFallbackMode(random() % 3);
            plugin.env.scanSp.SetOptionResultFor(9, random() % 4 == 0 ? kRefused : 0);
            const bool on = random() % 2 == 0;
            if (what == 0) remote.SetStatus(on);
            const DWORD r = what == 0   ? remote.FireStatusChanged(on, kHangMs * 2)
                            : what == 1 ? remote.FireSettingsChanged(kHangMs * 2)
                                        : remote.FireScanModeChanged(kHangMs * 2);
            faults.Check(r != 0, "remote-scan event");
            ++fires;
        }
        done[kCallers] = true;
    });
    threads.emplace_back([&] {
        std::mt19937 random(99);
        while (!stop) {
            tick[kCallers + 1] = GetTickCount();
            const std::wstring& path = paths[random() % paths.size()];
            const bool maintenance = random() % 8 == 0; // must not reload
            faults.Check(plugin.env.update.DeliverComponentInstalled(maintenance ? L"kitInstaller_sync" : L"Updater",
                                                                     L"Antivirus", path.c_str(), kHangMs * 2) != 0,
                         "OnComponentInstalled");
            ++deliveries;
        }
        done[kCallers + 1] = true;
    });

    Sleep(LoadMilliseconds());
    stop = true;
    for (std::thread& t : threads) t.join();
    watchdog.join();

    for (const std::string& f : faults.first) ADD_FAILURE() << f;
    EXPECT_EQ(0, faults.count.load());
    EXPECT_GT(sinkCalls.load(), 0);
    EXPECT_GT(reloads.count.load(), 0);
    EXPECT_GT(fires.load(), 0);
    EXPECT_GT(rollbacks.load(), 0);
    EXPECT_FALSE(LineStartingWith(L"unexpected exception"));

    // The settings file holds exactly what the plug-in answers, and the provider runs with it.
    Json::Value document;
    ASSERT_TRUE(ReadSettingsFile(settingsFile, document));
    const Json::Value section = ModuleSection(document);
    EXPECT_EQ("", SwitchesDisagree(scan, section, plugin.env.scanSp));
    for (const std::wstring& feature : Features()) {
        bool locked = false;
        ASSERT_EQ(0u, GetFeatureStatus(scan, qv::StringW(feature.c_str()), &locked));
        const std::string key(feature.begin(), feature.end());
        EXPECT_EQ(Json::Value(locked), section.isMember(key) ? section[key] : Json::Value(true)) << key;
    }

    plugin.StopAll();
    EXPECT_EQ("", StillHeld(plugin.env));
    printf("load held: %ld interface calls, %ld remote-scan events, %ld installations (%d reloads), %ld sink calls, "
           "%ld backup rollbacks\n",
           calls.load(), fires.load(), deliveries.load(), reloads.count.load(), sinkCalls.load(), rollbacks.load());
    plugin.env.scanSp.SetReloadHandler(nullptr);
    RemoveFolder(root);
}

} // namespace
