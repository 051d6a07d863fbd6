// Sink registration through the plug-in's IAntivirusScan slots 0-5, and the notifications the
// sinks get from the three containers: engines (a reload), scan (the remote-scan plug-in's
// events), settings (the backup switch).
#include "tests/common/PluginHarness.h"
#include "tests/common/ThreadProbe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace {

using namespace testing_support;
using qv::kxsdk::AntivirusScan::HashChainSettings;
using qv::kxsdk::AntivirusScan::IAntivirusScan;
using qv::kxsdk::AntivirusScan::ScanMode;
using IEnginesEvents = IAntivirusScan::IEnginesEvents;
using IScanEvents = IAntivirusScan::IScanEvents;
using ISettingsEvents = IAntivirusScan::ISettingsEvents;

enum SinkSlot {
    kRegisterEngines = 0,
    kRegisterScan = 1,
    kRegisterSettings = 2,
    kUnregisterEngines = 3,
    kUnregisterScan = 4,
    kUnregisterSettings = 5,
    kGetScanModes = 7,
    kEnableBackup = 8,
};

// Longer than any bounded wait of a sink, so that a sink that gives up is seen as a failure of
// its own rather than as a stuck notification.
constexpr DWORD kFireTimeoutMs = 3 * qvtest::kProceedMs;

// A notification still stuck after its bounded wait would keep the program from ever ending (the
// host side waits for its notification threads), so it ends the program as a failure instead.
DWORD Bounded(DWORD result) {
    if (result == WAIT_TIMEOUT) {
        const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
        std::fprintf(stderr, "FAILED: %s: a notification did not return within %lu ms\n", test ? test->name() : "?",
                     static_cast<unsigned long>(kFireTimeoutMs));
        std::fflush(stdout);
        std::fflush(stderr);
        TerminateProcess(GetCurrentProcess(), 3);
    }
    return result;
}

// Notifications of every sink of a test, in the order they arrived: "name:Method".
class Journal {
public:
    void Add(const std::string& entry) {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.push_back(entry);
    }
    std::vector<std::string> Entries() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return entries_;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> entries_;
};

// One object with all three sink faces, so that a notification reaching the wrong container's
// sinks would show.
class RecordingSink : public IEnginesEvents, public IScanEvents, public ISettingsEvents {
public:
    RecordingSink(Journal& journal, std::string name) : journal_(journal), name_(std::move(name)) {}

    int OnReloadStarted(const qv::StringW&) override { return Note("OnReloadStarted"); }
    int OnReloadEnded(const qv::StringW&, int) override { return Note("OnReloadEnded"); }
    int OnScanModesChanged(ScanMode primary, ScanMode fallback) override {
        Note("OnScanModesChanged(" + std::to_string(primary) + "," + std::to_string(fallback) + ")");
        if (onScan) onScan(primary, fallback);
        return 0;
    }
    int OnBackupStatusChanged(bool enabled) override {
        return Note(std::string("OnBackupStatusChanged(") + (enabled ? "1" : "0") + ")");
    }
    int OnFeatureStatusChanged(const qv::StringW&, bool) override { return Note("OnFeatureStatusChanged"); }
    int OnHashChainSettingsChanged(const HashChainSettings&) override { return Note("OnHashChainSettingsChanged"); }
    int OnSignatureInfoReportingChanged(bool) override { return Note("OnSignatureInfoReportingChanged"); }

    std::function<void(ScanMode, ScanMode)> onScan;

private:
    int Note(const std::string& what) {
        journal_.Add(name_ + ":" + what);
        return 0;
    }
    Journal& journal_;
    std::string name_;
};

bool LineWith(const std::wstring& text, uint32_t severity, const std::wstring& function) {
    for (const auto& line : avhost::CapturedLines())
        if (line.text == text && line.severity == severity && line.function == function) return true;
    return false;
}

// One of the three containers: its slots, the face of a sink it takes, and a way to make the
// plug-in notify it once, with the journal entries that notification leaves per sink.
struct Container {
    const char* name;
    int registerSlot;
    int unregisterSlot;
    const wchar_t* registerFunction;
    const wchar_t* unregisterFunction;
};

const Container kEngines{"engines", kRegisterEngines, kUnregisterEngines, L"AntivirusScanAL::RegisterEnginesEvents",
                         L"AntivirusScanAL::UnregisterEnginesEvents"};
const Container kScan{"scan", kRegisterScan, kUnregisterScan, L"AntivirusScanAL::RegisterScanEvents",
                      L"AntivirusScanAL::UnregisterScanEvents"};
const Container kSettings{"settings", kRegisterSettings, kUnregisterSettings,
                          L"AntivirusScanAL::RegisterSettingsEvents", L"AntivirusScanAL::UnregisterSettingsEvents"};
const Container* const kContainers[] = {&kEngines, &kScan, &kSettings};

void* Face(const Container& container, RecordingSink& sink) {
    if (&container == &kEngines) return static_cast<IEnginesEvents*>(&sink);
    if (&container == &kScan) return static_cast<IScanEvents*>(&sink);
    return static_cast<ISettingsEvents*>(&sink);
}

class PluginSinks : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, plugin.primary);
        ASSERT_NE(nullptr, plugin.scan);
        enginesPath = TempFolder(L"sinks");
        plugin.env.servConfig.SetText(51, L"BASE", L"light");
        plugin.env.remoteScan.SetStatus(true);
        plugin.env.remoteScan.SetFallbackMode(1);
        ASSERT_EQ(0u, plugin.Init());
        ASSERT_EQ(0u, plugin.Start());
        avhost::ClearCapturedLines();
    }
    void TearDown() override {
        // Nothing may call a sink of this test once it is gone.
        plugin.StopAll();
    }

    DWORD Register(const Container& container, RecordingSink& sink) {
        return CallSlot<DWORD>(plugin.scan, container.registerSlot, Face(container, sink));
    }
    DWORD Unregister(const Container& container, RecordingSink& sink) {
        return CallSlot<DWORD>(plugin.scan, container.unregisterSlot, Face(container, sink));
    }

    // Each call changes the state behind the container, so that it is notified exactly once.
    void NotifyScan() {
        remoteFallback = remoteFallback == 1 ? 2 : 1;
        plugin.env.remoteScan.SetFallbackMode(remoteFallback);
        ASSERT_EQ(0u, Bounded(plugin.env.remoteScan.FireSettingsChanged(kFireTimeoutMs)));
    }
    void NotifySettings() {
        backup = !backup;
        ASSERT_EQ(0u, CallSlot<DWORD>(plugin.scan, kEnableBackup, backup));
    }
    void NotifyEngines() {
        ASSERT_EQ(0u, Bounded(plugin.env.update.DeliverComponentInstalled(L"updater", L"Antivirus",
                                                                          enginesPath.c_str(), kFireTimeoutMs)));
    }
    void Notify(const Container& container) {
        if (&container == &kEngines) NotifyEngines();
        else if (&container == &kScan) NotifyScan();
        else NotifySettings();
    }
    // What one notification of the container leaves in the journal, for sinks in this order.
    std::vector<std::string> Expected(const Container& container, std::vector<std::string> sinks) const {
        std::vector<std::string> entries;
        if (&container == &kEngines) {
            // Two events, each told to every sink in turn.
            for (const auto& sink : sinks) entries.push_back(sink + ":OnReloadStarted");
            for (const auto& sink : sinks) entries.push_back(sink + ":OnReloadEnded");
        } else if (&container == &kScan) {
            for (const auto& sink : sinks)
                entries.push_back(sink + ":OnScanModesChanged(2," + (remoteFallback == 1 ? "2" : "4") + ")");
        } else {
            for (const auto& sink : sinks)
                entries.push_back(sink + ":OnBackupStatusChanged(" + (backup ? "1" : "0") + ")");
        }
        return entries;
    }

    PluginUnderTest plugin;
    std::wstring enginesPath;
    uint32_t remoteFallback = 1;
    bool backup = false;
    Journal journal;
};

std::vector<std::string> Concat(std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST_F(PluginSinks, SecondRegistrationFailsAndTheSinkIsToldOnce) {
    for (const Container* container : kContainers) {
        SCOPED_TRACE(container->name);
        RecordingSink sink(journal, "a");
        journal.Clear();
        EXPECT_EQ(0u, Register(*container, sink));
        EXPECT_EQ(1627u, Register(*container, sink));
        Notify(*container);
        EXPECT_EQ(Expected(*container, {"a"}), journal.Entries());
        EXPECT_EQ(0u, Unregister(*container, sink));
        // Gone after one unregistration: it was in the container once.
        EXPECT_EQ(1627u, Unregister(*container, sink));
        journal.Clear();
        Notify(*container);
        EXPECT_TRUE(journal.Entries().empty());
    }
}

TEST_F(PluginSinks, UnknownAndNullSinks) {
    for (const Container* container : kContainers) {
        SCOPED_TRACE(container->name);
        RecordingSink stranger(journal, "x");
        EXPECT_EQ(1627u, Unregister(*container, stranger));

        avhost::ClearCapturedLines();
        EXPECT_EQ(87u, CallSlot<DWORD>(plugin.scan, container->registerSlot, static_cast<void*>(nullptr)));
        EXPECT_TRUE(LineWith(L"invalid parameter", 4, container->registerFunction));
        avhost::ClearCapturedLines();
        EXPECT_EQ(87u, CallSlot<DWORD>(plugin.scan, container->unregisterSlot, static_cast<void*>(nullptr)));
        EXPECT_TRUE(LineWith(L"invalid parameter", 4, container->unregisterFunction));
    }
}

TEST_F(PluginSinks, RemovingTheMiddleSinkKeepsTheOrderOfTheOthers) {
    for (const Container* container : kContainers) {
        SCOPED_TRACE(container->name);
        RecordingSink a(journal, "a"), b(journal, "b"), c(journal, "c");
        // Registered in an order that differs from their addresses' and names' order.
        ASSERT_EQ(0u, Register(*container, c));
        ASSERT_EQ(0u, Register(*container, a));
        ASSERT_EQ(0u, Register(*container, b));
        journal.Clear();
        Notify(*container);
        EXPECT_EQ(Expected(*container, {"c", "a", "b"}), journal.Entries());

        ASSERT_EQ(0u, Unregister(*container, a));
        journal.Clear();
        Notify(*container);
        EXPECT_EQ(Expected(*container, {"c", "b"}), journal.Entries());

        // A sink registered again goes to the end, and the others close up behind a removed first.
        ASSERT_EQ(0u, Register(*container, a));
        ASSERT_EQ(0u, Unregister(*container, c));
        journal.Clear();
        Notify(*container);
        EXPECT_EQ(Expected(*container, {"b", "a"}), journal.Entries());
        ASSERT_EQ(0u, Register(*container, c));
        for (RecordingSink* sink : {&a, &b, &c}) EXPECT_EQ(0u, Unregister(*container, *sink));
    }
}

TEST_F(PluginSinks, EachContainerTellsOnlyItsOwnSinks) {
    RecordingSink engines(journal, "engines"), scan(journal, "scan"), settings(journal, "settings");
    ASSERT_EQ(0u, Register(kEngines, engines));
    ASSERT_EQ(0u, Register(kScan, scan));
    ASSERT_EQ(0u, Register(kSettings, settings));

    journal.Clear();
    NotifySettings();
    EXPECT_EQ(Expected(kSettings, {"settings"}), journal.Entries());
    journal.Clear();
    NotifyEngines();
    EXPECT_EQ(Expected(kEngines, {"engines"}), journal.Entries());
    journal.Clear();
    NotifyScan();
    EXPECT_EQ(Expected(kScan, {"scan"}), journal.Entries());
}

// The scan modes are announced after the state lock is left: a sink may ask for them again,
// on its own thread or by handing the question to another one.
TEST_F(PluginSinks, ScanSinkMayAskForTheModesFromItsNotification) {
    RecordingSink sink(journal, "a");
    DWORD sameThread = 1, otherThread = 1;
    ScanMode samePair[2] = {}, otherPair[2] = {};
    bool otherFinished = false;
    sink.onScan = [&](ScanMode, ScanMode) {
        sameThread = CallSlot<DWORD>(plugin.scan, kGetScanModes, &samePair[0], &samePair[1]);
        qvtest::TestThread asker(
            [&] { otherThread = CallSlot<DWORD>(plugin.scan, kGetScanModes, &otherPair[0], &otherPair[1]); });
        otherFinished = asker.Finished(qvtest::kProceedMs);
    };
    ASSERT_EQ(0u, Register(kScan, sink));
    NotifyScan();
    ASSERT_EQ(1u, journal.Entries().size());
    EXPECT_EQ(0u, sameThread);
    EXPECT_EQ(ScanMode::ScanModeRemoteLight, samePair[0]);
    EXPECT_EQ(ScanMode::ScanModeLocalLight, samePair[1]);
    EXPECT_TRUE(otherFinished) << "the notification still held the state lock";
    EXPECT_EQ(0u, otherThread);
    EXPECT_EQ(ScanMode::ScanModeRemoteLight, otherPair[0]);
    EXPECT_EQ(ScanMode::ScanModeLocalLight, otherPair[1]);
    EXPECT_EQ(0u, Unregister(kScan, sink));
}

// A registration waits for the notification in progress and is not part of it.
TEST_F(PluginSinks, RegistrationWaitsForARunningNotification) {
    qvtest::Signal inside, release;
    std::atomic<int> held{0};
    RecordingSink first(journal, "first"), late(journal, "late");
    first.onScan = [&](ScanMode, ScanMode) {
        if (held++ != 0) return;
        inside.Set();
        release.Wait(qvtest::kProceedMs);
        journal.Add("first:leaves");
    };
    ASSERT_EQ(0u, Register(kScan, first));

    DWORD fired = 1;
    remoteFallback = 2;
    plugin.env.remoteScan.SetFallbackMode(remoteFallback);
    qvtest::TestThread notifier([&] { fired = Bounded(plugin.env.remoteScan.FireSettingsChanged(kFireTimeoutMs)); });
    ASSERT_TRUE(inside.Wait(qvtest::kProceedMs));

    qvtest::Signal registered;
    DWORD registerResult = 1;
    qvtest::TestThread registrar([&] {
        registerResult = Register(kScan, late);
        journal.Add("late:registered");
        registered.Set();
    });
    EXPECT_FALSE(registered.Wait(qvtest::kBlockedMs));
    release.Set();
    EXPECT_TRUE(registered.Wait(qvtest::kProceedMs));
    EXPECT_TRUE(notifier.Finished(qvtest::kProceedMs));
    EXPECT_EQ(0u, fired);
    EXPECT_EQ(0u, registerResult);
    EXPECT_EQ((std::vector<std::string>{"first:OnScanModesChanged(2,4)", "first:leaves", "late:registered"}),
              journal.Entries());

    // The next notification reaches both, in registration order.
    journal.Clear();
    NotifyScan();
    EXPECT_EQ(Expected(kScan, {"first", "late"}), journal.Entries());

    // Unregistration waits in the same way.
    held = 0;
    ResetEvent(inside.Handle());
    ResetEvent(release.Handle());
    journal.Clear();
    remoteFallback = remoteFallback == 1 ? 2 : 1;
    plugin.env.remoteScan.SetFallbackMode(remoteFallback);
    qvtest::TestThread notifier2([&] { fired = Bounded(plugin.env.remoteScan.FireScanModeChanged(kFireTimeoutMs)); });
    ASSERT_TRUE(inside.Wait(qvtest::kProceedMs));
    qvtest::Signal unregistered;
    DWORD unregisterResult = 1;
    qvtest::TestThread remover([&] {
        unregisterResult = Unregister(kScan, late);
        journal.Add("late:unregistered");
        unregistered.Set();
    });
    EXPECT_FALSE(unregistered.Wait(qvtest::kBlockedMs));
    release.Set();
    EXPECT_TRUE(unregistered.Wait(qvtest::kProceedMs));
    EXPECT_TRUE(notifier2.Finished(qvtest::kProceedMs));
    EXPECT_EQ(0u, unregisterResult);
    // The sink being removed was still told: the removal waited for the whole notification.
    EXPECT_EQ(Concat(Concat(Expected(kScan, {"first"}), {"first:leaves"}),
                     Concat(Expected(kScan, {"late"}), {"late:unregistered"})),
              journal.Entries());
    EXPECT_EQ(0u, Unregister(kScan, first));
}

} // namespace
