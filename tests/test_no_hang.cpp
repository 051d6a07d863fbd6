// The plug-in never hangs its host. Each call it makes out of itself (into a sibling plug-in, the
// component manager or a sink) is held, one at a time, until another thread has made every
// IAntivirusScan call: each of them must return meanwhile, since nothing the plug-in holds while
// it calls out may stand in their way. A process that ends with such a call in flight ends, and
// an unload by FreeLibrary still destroys the object as it always did.
#include "tests/common/ChildProcess.h"
#include "tests/common/FaultInjection.h"
#include "tests/common/ScanSlots.h"
#include "tests/common/ThreadProbe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace {

using namespace testing_support;
using namespace testing_support::slots;
namespace ids = qv::kxsdk::ids;

constexpr DWORD kWatchdogMs = 20000; // a bound on a hang, never a pause
constexpr DWORD kExitCode = 41;
constexpr const wchar_t* kEngines = L"C:\\engines\\new";

// Runs on the thread the plug-in sent out: every operation from another thread (then `then`,
// what the host does next), and the held thread goes on only once that thread is through.
class Hold {
public:
    Hold(void* scan, Container busy, std::function<void()> then) : scan_(scan), busy_(busy), then_(std::move(then)) {}

    void operator()() {
        reached_ = true;
        qvtest::Signal through;
        // Abandoned rather than waited for when it is stuck: the test has failed already.
        auto* other = new qvtest::TestThread([this, &through] {
            NullSinks sinks;
            wrong_ = EveryOperation(scan_, sinks, true, busy_);
            if (then_) then_();
            through.Set();
        });
        completed_ = through.Wait(kWatchdogMs);
        if (completed_) delete other;
    }
    bool Reached() const { return reached_; }
    bool Completed() const { return completed_; }
    const std::string& Wrong() const { return wrong_; }

private:
    void* scan_;
    Container busy_;
    std::function<void()> then_;
    std::atomic<bool> reached_{false}, completed_{false};
    std::string wrong_;
};

// One started plug-in, every sibling call going through the injector, a sink in each container.
struct Rig {
    explicit Rig(bool recovery) {
        if (recovery) plugin.env.manager.SetMissing(ids::kScanSpName);
        started = plugin.Init() == 0 && plugin.Start() == 0;
        if (recovery) plugin.env.manager.Restore(ids::kScanSpName);
        started = started && RegisterEngines(plugin.scan, &sinks) == 0 && RegisterScan(plugin.scan, &sinks) == 0 &&
                  RegisterSettings(plugin.scan, &sinks) == 0;
    }
    bool Install() {
        return plugin.env.update.DeliverComponentInstalledAsync(L"Updater", L"Antivirus", kEngines) &&
               plugin.env.update.WaitForDeliveries(2 * kWatchdogMs);
    }
    void Unregister() {
        UnregisterEngines(plugin.scan, &sinks);
        UnregisterScan(plugin.scan, &sinks);
        UnregisterSettings(plugin.scan, &sinks);
    }

    PluginUnderTest plugin;
    FaultyHost faults{plugin.env};
    NullSinks sinks;
    bool started = false;
};

enum class Trigger { DelayedStart, Install, EnableBackup, Feature, HashChain, SignatureInfo, RemoteScan };

struct Case {
    const char* name;
    const char* site;  // the sibling call held, or
    const char* event; // the sink notification held
    Container busy;
    bool recovery;
    Trigger trigger;
    bool stopMeanwhile; // the host stops and uninitialises the plug-in while the call is held
};

const Case kCases[] = {
    {"provider set-option from EnableBackup", "ScanSp::SetOption(9)", nullptr, kNoSinks, false, Trigger::EnableBackup},
    {"provider set-option after a reload", "ScanSp::SetOption(9)", nullptr, kNoSinks, false, Trigger::Install},
    {"provider reload", "ScanSp::ReloadEngines", nullptr, kNoSinks, false, Trigger::Install},
    {"update statistics", "Update::GetStatistics", nullptr, kNoSinks, false, Trigger::Install},
    {"remote-scan status", "RemoteScan::GetStatus", nullptr, kNoSinks, false, Trigger::RemoteScan},
    {"remote-scan fallback mode", "RemoteScan::GetFallbackMode", nullptr, kNoSinks, false, Trigger::Install},
    {"telemetry", "Telemetry::SubmitEvent", nullptr, kNoSinks, true, Trigger::DelayedStart},
    {"update request", "Update::StartUpdate", nullptr, kNoSinks, true, Trigger::DelayedStart},
    {"restart request", "Update::RestartService", nullptr, kNoSinks, true, Trigger::Install},
    {"manager get in a recovery reload", "Manager::GetPlugin(scansp)", nullptr, kNoSinks, true, Trigger::Install},
    {"manager get, host stopping", "Manager::GetPlugin(scansp)", nullptr, kNoSinks, true, Trigger::Install, true},
    {"manager release in a recovery reload", "Manager::ReleasePlugin(scansp)", nullptr, kNoSinks, true,
     Trigger::Install},
    {"manager release, host stopping", "Manager::ReleasePlugin(scansp)", nullptr, kNoSinks, true, Trigger::Install,
     true},
    {"reload started", nullptr, "reload started", kEnginesSinks, false, Trigger::Install},
    {"reload ended", nullptr, "reload ended", kEnginesSinks, false, Trigger::Install},
    {"scan modes changed", nullptr, "scan modes", kScanSinks, false, Trigger::RemoteScan},
    {"backup changed", nullptr, "backup", kSettingsSinks, false, Trigger::EnableBackup},
    {"feature changed", nullptr, "feature", kSettingsSinks, false, Trigger::Feature},
    {"hash chain changed", nullptr, "hash chain", kSettingsSinks, false, Trigger::HashChain},
    {"signature info changed", nullptr, "signature info", kSettingsSinks, false, Trigger::SignatureInfo},
};

bool Pull(Rig& rig, Trigger trigger) {
    void* scan = rig.plugin.scan;
    switch (trigger) {
    case Trigger::DelayedStart:
        return rig.plugin.DelayedStart() == 0;
    case Trigger::Install:
        return rig.Install();
    case Trigger::EnableBackup:
        return EnableBackup(scan, true) == 0;
    case Trigger::Feature:
        return SetFeatureStatus(scan, qv::StringW(L"Firewall"), false) == 0;
    case Trigger::HashChain:
        return ReportHashChain(scan, true) == 0;
    case Trigger::SignatureInfo:
        return ReportSignatureInfo(scan, true) == 0;
    case Trigger::RemoteScan:
        rig.plugin.env.remoteScan.SetStatus(true);
        return rig.plugin.env.remoteScan.FireStatusChanged(true, 2 * kWatchdogMs) == 0;
    }
    return false;
}

TEST(NoHang, EveryCallOutHeldWhileEveryOperationIsMade) {
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.name);
        Rig rig(c.recovery);
        ASSERT_TRUE(rig.started);
        if (c.trigger != Trigger::DelayedStart) ASSERT_EQ(0u, rig.plugin.DelayedStart());
        host::HostEnvironment& env = rig.plugin.env;
        Hold hold(rig.plugin.scan, c.busy,
                  c.stopMeanwhile ? std::function<void()>([&] {
                      rig.Unregister();
                      rig.plugin.Stop();
                      rig.plugin.UnInit();
                  })
                                  : nullptr);
        if (c.site) rig.faults.plan.HoldFirst(c.site, std::ref(hold));
        if (c.event) {
            rig.sinks.hold = std::ref(hold);
            rig.sinks.heldEvent = c.event;
        }
        EXPECT_TRUE(Pull(rig, c.trigger));
        ASSERT_TRUE(hold.Reached()) << "the call was not made";
        EXPECT_TRUE(hold.Completed()) << "an operation did not return while the call was held";
        EXPECT_EQ("", hold.Wrong());

        if (!c.recovery) {
            // Whatever the interleaving, the store, the answers and the provider agree.
            EXPECT_EQ("", SwitchesDisagree(rig.plugin.scan, env.settings.Section(L"/AntivirusScan"), env.scanSp));
        }
        if (!c.stopMeanwhile) {
            rig.Unregister();
            rig.plugin.StopAll();
        }
        // Every get handed back once, nothing called after its hand-back.
        EXPECT_EQ("", StillHeld(env));
        EXPECT_EQ(0, env.scanSp.served.CallsAfterRelease());
        EXPECT_EQ(0, env.update.served.CallsAfterRelease());
    }
}

// A child ends its process while one of its threads is held inside the provider's set-option, or
// inside a sink's notification, and never comes back.
void EndWhileHeld(bool inSink) {
    auto* plugin = new PluginUnderTest(); // never destroyed: the process ends with it in use
    auto* faults = new FaultyHost(plugin->env);
    auto* sinks = new NullSinks();
    if (!plugin->StartAll() || RegisterSettings(plugin->scan, sinks) != 0) ExitProcess(2);
    auto* held = new qvtest::Signal();
    auto* never = new qvtest::Signal();
    auto forever = [held, never] {
        held->Set();
        never->Wait(INFINITE);
    };
    if (inSink) {
        sinks->hold = forever;
        sinks->heldEvent = "backup";
    } else {
        faults->plan.HoldFirst("ScanSp::SetOption(9)", forever);
    }
    void* scan = plugin->scan;
    new qvtest::TestThread([scan] { EnableBackup(scan, true); });
    if (!held->Wait(kWatchdogMs)) ExitProcess(3);
    ExitProcess(kExitCode);
}

const ChildMode exitInProvider("exit-in-provider", [] { EndWhileHeld(false); });
const ChildMode exitInSink("exit-in-sink", [] { EndWhileHeld(true); });

TEST(NoHang, ProcessEndsWithACallHeldInTheProviderOrInASink) {
    for (const char* child : {"exit-in-provider", "exit-in-sink"})
        EXPECT_EQ(kExitCode, RunChild(child, kWatchdogMs)) << child;
}

TEST(NoHang, FreeLibraryAfterUnInitDestroysTheObjectAsBefore) {
    PluginUnderTest plugin;
    ASSERT_TRUE(plugin.StartAll());
    ASSERT_EQ(0u, EnableBackup(plugin.scan, true));
    plugin.StopAll();
    const size_t journal = plugin.env.manager.Journal().size();
    const int destroyed = avhost::Counters().deinitCalls;
    plugin.library.Unload(); // a reference is still outstanding: the unload destroys the object
    plugin.primary = nullptr;
    EXPECT_EQ(destroyed + 1, avhost::Counters().deinitCalls);
    EXPECT_EQ(journal, plugin.env.manager.Journal().size()) << "a plug-in got or released by the unload";
    EXPECT_TRUE(plugin.env.manager.Balanced());
    EXPECT_EQ(0, plugin.env.scanSp.served.CallsAfterRelease());
    EXPECT_EQ(0, plugin.env.settings.served.CallsAfterRelease());
}

} // namespace
