// Sink registration through IAntivirusScan slots 0-5, and the notifications the sinks get from
// the three containers: engines (a reload), scan (the remote-scan plug-in's events), settings
// (the backup switch).
#include "tests/common/BlockWatch.h"
#include "tests/common/EventRecorder.h"
#include "tests/common/ScanSlots.h"
#include "tests/common/ThreadProbe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <stdexcept>

namespace {

using namespace testing_support;
using namespace testing_support::slots;
using Entries = std::vector<std::string>;

enum class Kind { Engines, Scan, Settings };
const Kind kKinds[] = {Kind::Engines, Kind::Scan, Kind::Settings};

class PluginSinks : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, plugin.scan);
        enginesPath = TempFolder(L"sinks");
        plugin.env.servConfig.SetText(51, L"BASE", L"light");
        plugin.env.remoteScan.SetStatus(true);
        plugin.env.remoteScan.SetFallbackMode(1);
        ASSERT_TRUE(plugin.StartAll());
        avhost::ClearCapturedLines();
    }
    void TearDown() override { plugin.StopAll(); } // nothing may call a sink once it is gone

    // Register (slots 0-2) or unregister (slots 3-5) the sink's face of that container.
    DWORD Slot(bool add, Kind kind, void* face) {
        return CallSlot<DWORD>(plugin.scan, static_cast<int>(kind) + (add ? 0 : 3), face);
    }
    static void* Face(Kind kind, EventRecorder& sink) {
        return kind == Kind::Engines ? static_cast<void*>(sink.Engines())
               : kind == Kind::Scan  ? static_cast<void*>(sink.Scan())
                                     : static_cast<void*>(sink.Settings());
    }
    DWORD Register(Kind kind, EventRecorder& sink) { return Slot(true, kind, Face(kind, sink)); }
    DWORD Unregister(Kind kind, EventRecorder& sink) { return Slot(false, kind, Face(kind, sink)); }

    // Changes the state behind the container so that it notifies exactly once, and returns
    // what that leaves in the journal for sinks registered in this order.
    Entries Notify(Kind kind, const std::vector<std::string>& sinks) {
        Entries expected;
        if (kind == Kind::Engines) {
            result = EndIfStuck(plugin.env.update.DeliverComponentInstalled(L"updater", L"Antivirus",
                                                                            enginesPath.c_str(), kFireTimeoutMs));
            for (const auto& s : sinks) expected.push_back(s + ":reloadStarted");
            for (const auto& s : sinks) expected.push_back(s + ":reloadEnded");
        } else if (kind == Kind::Scan) {
            fallback = fallback == 1 ? 2 : 1;
            plugin.env.remoteScan.SetFallbackMode(fallback);
            result = EndIfStuck(plugin.env.remoteScan.FireSettingsChanged(kFireTimeoutMs));
            for (const auto& s : sinks) expected.push_back(s + ":modes=2," + (fallback == 1 ? "2" : "4"));
        } else {
            backup = !backup;
            result = EnableBackup(plugin.scan, backup);
            for (const auto& s : sinks) expected.push_back(s + ":backup=" + (backup ? "1" : "0"));
        }
        return expected;
    }

    // One notification, and exactly what it must have told the sinks.
    void ExpectTold(Kind kind, const std::vector<std::string>& sinks, const char* why = "") {
        const Entries expected = Notify(kind, sinks);
        EXPECT_EQ(0u, result) << why;
        EXPECT_EQ(expected, journal.Take()) << why;
    }

    PluginUnderTest plugin;
    std::wstring enginesPath;
    uint32_t fallback = 1;
    bool backup = false;
    DWORD result = 0; // of the last notifying call
    EventJournal journal;
};

TEST_F(PluginSinks, DuplicateUnknownAndNullSinks) {
    const wchar_t* const names[] = {L"Engines", L"Scan", L"Settings"};
    for (Kind kind : kKinds) {
        SCOPED_TRACE(static_cast<int>(kind));
        EventRecorder sink(&journal, "a"), stranger(&journal, "x");
        EXPECT_EQ(1627u, Unregister(kind, stranger));
        EXPECT_EQ(0u, Register(kind, sink));
        EXPECT_EQ(1627u, Register(kind, sink));
        ExpectTold(kind, {"a"}, "told once");
        EXPECT_EQ(0u, Unregister(kind, sink));
        EXPECT_EQ(1627u, Unregister(kind, sink)) << "it was in the container once";
        ExpectTold(kind, {});
        for (bool add : {true, false}) {
            avhost::ClearCapturedLines();
            EXPECT_EQ(87u, Slot(add, kind, nullptr));
            const std::wstring function = std::wstring(L"AntivirusScanAL::") + (add ? L"Register" : L"Unregister") +
                                          names[static_cast<int>(kind)] + L"Events";
            EXPECT_TRUE(LineIn(L"invalid parameter", 4, function)) << Describe(function);
        }
    }
}

TEST_F(PluginSinks, OrderIsKeptWhenTheMiddleOneLeaves) {
    for (Kind kind : kKinds) {
        SCOPED_TRACE(static_cast<int>(kind));
        EventRecorder a(&journal, "a"), b(&journal, "b"), c(&journal, "c");
        for (EventRecorder* sink : {&c, &a, &b}) ASSERT_EQ(0u, Register(kind, *sink));
        ExpectTold(kind, {"c", "a", "b"});
        ASSERT_EQ(0u, Unregister(kind, a));
        ExpectTold(kind, {"c", "b"});
        // Registered again it goes to the end.
        ASSERT_EQ(0u, Register(kind, a));
        ExpectTold(kind, {"c", "b", "a"});
        for (EventRecorder* sink : {&a, &b, &c}) EXPECT_EQ(0u, Unregister(kind, *sink));
    }
}

// A sink that throws out of its notification, or runs out of memory: the call that fired it
// ends with its fence (or goes on, when a step inside fences it), writes the fence's line, and
// gives the container's lock back, so that the sink can leave and the next notification reaches
// the others.
TEST_F(PluginSinks, ThrowingSinkIsFencedAndTheContainerStaysUsable) {
    enum class Throw { Exception, OutOfMemory, Foreign }; // foreign: not a std::exception at all
    for (Kind kind : kKinds) {
        for (Throw how : {Throw::Exception, Throw::OutOfMemory, Throw::Foreign}) {
            SCOPED_TRACE(std::to_string(static_cast<int>(kind)) + " " + std::to_string(static_cast<int>(how)));
            EventRecorder thrower(&journal, "t"), after(&journal, "a");
            thrower.during = [how] {
                if (how == Throw::OutOfMemory) throw std::bad_alloc();
                if (how == Throw::Foreign) throw 42;
                throw std::runtime_error("sink");
            };
            ASSERT_EQ(0u, Register(kind, thrower));
            ASSERT_EQ(0u, Register(kind, after));
            avhost::ClearCapturedLines();
            Notify(kind, {});
            const bool memory = how == Throw::OutOfMemory;
            EXPECT_TRUE(result == 0 || result == (memory ? ERROR_NOT_ENOUGH_MEMORY : ERROR_INTERNAL_ERROR)) << result;
            EXPECT_TRUE(memory                  ? LineWith(L"out of memory", 4)
                        : how == Throw::Foreign ? LineWith(L"unexpected exception", 4)
                                                : LineWith(L"unexpected exception [what = sink]", 4));
            journal.Take();
            DWORD left = 1;
            qvtest::TestThread leaver([&] { left = Unregister(kind, thrower); });
            EXPECT_TRUE(leaver.Finished(qvtest::kProceedMs)) << "the container's lock was kept";
            EXPECT_EQ(0u, left);
            ExpectTold(kind, {"a"});
            EXPECT_EQ(0u, Unregister(kind, after));
        }
    }
}

// Every sink may ask the getters from its notification, on its own thread and by handing the
// question to another one: the state lock is left before sinks are told, and the new state is
// there to read.
TEST_F(PluginSinks, SinksMayAskTheGettersFromTheirNotification) {
    for (Kind kind : kKinds) {
        SCOPED_TRACE(static_cast<int>(kind));
        EventRecorder sink(&journal, "a");
        std::vector<DWORD> results;
        bool seen[2] = {!backup, !backup};
        ScanMode pairs[2][2] = {};
        bool otherFinished = true;
        sink.during = [&] {
            auto ask = [&](int i) {
                qv::StringW version;
                uint64_t count = 0;
                results.push_back(IsBackupEnabled(plugin.scan, &seen[i]));
                results.push_back(GetEnginesVersion(plugin.scan, &version));
                results.push_back(GetSignaturesCount(plugin.scan, &count));
                results.push_back(GetScanModes(plugin.scan, &pairs[i][0], &pairs[i][1]));
            };
            ask(0);
            qvtest::TestThread asker([&] { ask(1); });
            otherFinished = otherFinished && asker.Finished(qvtest::kProceedMs);
        };
        ASSERT_EQ(0u, Register(kind, sink));
        ExpectTold(kind, {"a"});
        EXPECT_TRUE(otherFinished) << "a getter waited for the notification";
        EXPECT_EQ(std::vector<DWORD>(kind == Kind::Engines ? 16 : 8, 0u), results);
        if (kind == Kind::Settings) {
            EXPECT_TRUE(seen[0] == backup && seen[1] == backup) << "told before the record changed";
        }
        if (kind == Kind::Scan) {
            for (auto& pair : pairs) {
                EXPECT_EQ(ScanMode::ScanModeRemoteLight, pair[0]);
                EXPECT_EQ(fallback == 1 ? ScanMode::ScanModeRemoteLight : ScanMode::ScanModeLocalLight, pair[1]);
            }
        }
        EXPECT_EQ(0u, Unregister(kind, sink));
    }
}

// Registration and unregistration from another thread wait for the notification in progress
// and are not part of it.
TEST_F(PluginSinks, RegistrationWaitsForARunningNotification) {
    EventRecorder first(&journal, "first"), late(&journal, "late");
    ASSERT_EQ(0u, Register(Kind::Scan, first));
    for (bool add : {true, false}) {
        SCOPED_TRACE(add ? "register" : "unregister");
        qvtest::Signal inside, release;
        std::atomic<bool> hold{true};
        first.during = [&] {
            if (!hold.exchange(false)) return;
            inside.Set();
            release.Wait(qvtest::kProceedMs);
            journal.Add("first:leaves");
        };
        fallback = fallback == 1 ? 2 : 1;
        plugin.env.remoteScan.SetFallbackMode(fallback);
        DWORD fired = 1, changed = 1;
        qvtest::TestThread notifier(
            [&] { fired = EndIfStuck(plugin.env.remoteScan.FireScanModeChanged(kFireTimeoutMs)); });
        ASSERT_TRUE(inside.Wait(qvtest::kProceedMs));
        qvtest::Signal done;
        BlockWatch watch(GetModuleHandleW(L"AntivirusScan.AL"));
        ASSERT_TRUE(watch.Installed());
        qvtest::TestThread other([&] {
            watch.WatchThisThread();
            changed = add ? Register(Kind::Scan, late) : Unregister(Kind::Scan, late);
            journal.Add("late:done");
            done.Set();
        });
        EXPECT_TRUE(watch.Blocked(qvtest::kProceedMs)) << "the change did not wait for the notification";
        EXPECT_FALSE(done.IsSet());
        release.Set();
        EXPECT_TRUE(done.Wait(qvtest::kProceedMs));
        EXPECT_TRUE(notifier.Finished(qvtest::kProceedMs));
        EXPECT_EQ(0u, fired);
        EXPECT_EQ(0u, changed);
        const std::string modes = std::string(":modes=2,") + (fallback == 1 ? "2" : "4");
        const Entries expected = add ? Entries{"first" + modes, "first:leaves", "late:done"}
                                     : Entries{"first" + modes, "first:leaves", "late" + modes, "late:done"};
        EXPECT_EQ(expected, journal.Take());
        first.during = nullptr;
        if (add) {
            ExpectTold(Kind::Scan, {"first", "late"});
        }
    }
    EXPECT_EQ(0u, Unregister(Kind::Scan, first));
}

} // namespace
