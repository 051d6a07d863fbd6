// The host stops and uninitialises the plug-in, cycle after cycle, while other plug-ins keep
// calling every IAntivirusScan slot on their own threads and the update and remote-scan plug-ins
// keep notifying it. Each cycle holds an installation back until the host is about to run
// UnInit, so that reloads, the refreshes after them and recovery probes of the scan provider run
// into the release of the plug-ins they use. Held: no crash, no hang, every get of a plug-in
// handed back exactly once, and no call into a plug-in after it was handed back.
#include "tests/common/ScanSlots.h"
#include "tests/common/ThreadProbe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace testing_support;
using namespace testing_support::slots;
namespace ids = qv::kxsdk::ids;

constexpr int kCallers = 8;
constexpr int kCyclesPerPhase = 100;
constexpr DWORD kStalledMs = 30000; // no cycle for this long is a hang

// One caller plug-in: every slot in turn, each answer checked against the codes its operation
// documents, whatever state the object is in at that moment.
struct Caller {
    NullSinks sinks;
    int wrong = 0;
    std::string firstWrong;
};

struct PhaseResult {
    int cycles = 0;
    int heldBack = 0; // cycles in which an installation was held back until UnInit
    int wrongAnswers = 0;
    std::string firstWrong;
    std::vector<std::string> lifecycleFailures;
};

// Runs the cycles of one phase on a fresh object. In recovery, the scan provider is missing at
// every Init and present again right after, so that each installation's recovery reload gets it
// and hands it back while UnInit releases the same holder.
PhaseResult RunPhase(PluginUnderTest& plugin, bool recovery) {
    PhaseResult result;
    host::HostEnvironment& env = plugin.env;
    // No statistics: every signature query reaches the update plug-in again.
    env.update.FailStatistics(ERROR_NOT_READY);

    std::atomic<bool> running{true};
    std::atomic<bool> holdNext{false};
    std::atomic<long> progress{0};
    qvtest::Signal finished;
    // Handshake between the host's thread and the held installation, by cycle number, so that
    // a wake-up meant for one cycle can never be taken for the next one's.
    std::mutex handshake;
    std::condition_variable changed;
    int cycleNow = -1, heldInCycle = -1, uninitInCycle = -1;
    const auto stalled = std::chrono::milliseconds(kStalledMs);
    // Decided to tell the plug-in, the installation waits until the host is about to UnInit.
    env.update.SetBeforeDelivery([&](const wchar_t*, const wchar_t*, const wchar_t*) {
        if (!holdNext.exchange(false)) return;
        std::unique_lock<std::mutex> lock(handshake);
        const int mine = heldInCycle = cycleNow;
        changed.notify_all();
        changed.wait_for(lock, stalled, [&] { return uninitInCycle >= mine; });
    });

    std::vector<Caller> callers(kCallers);
    std::vector<std::unique_ptr<qvtest::TestThread>> threads;
    for (int i = 0; i < kCallers; ++i) {
        threads.push_back(std::make_unique<qvtest::TestThread>([&running, &caller = callers[i], i, scan = plugin.scan] {
            for (int round = 0; running.load(); ++round) {
                const std::string wrong = EveryOperation(scan, caller.sinks, ((round + i) & 1) != 0, kNoSinks, true);
                if (!wrong.empty() && caller.wrong++ == 0) caller.firstWrong = wrong;
            }
        }));
    }
    threads.push_back(std::make_unique<qvtest::TestThread>([&] {
        while (running.load()) {
            EndIfStuck(
                env.update.DeliverComponentInstalled(L"kitUpdater", L"Antivirus", L"C:\\engines\\new", kFireTimeoutMs));
        }
    }));
    threads.push_back(std::make_unique<qvtest::TestThread>([&] {
        for (int round = 0; running.load(); ++round) {
            if (round % 3 == 0) EndIfStuck(env.remoteScan.FireStatusChanged((round & 4) != 0, kFireTimeoutMs));
            if (round % 3 == 1) EndIfStuck(env.remoteScan.FireSettingsChanged(kFireTimeoutMs));
            if (round % 3 == 2) EndIfStuck(env.remoteScan.FireScanModeChanged(kFireTimeoutMs));
        }
    }));
    qvtest::TestThread watchdog([&] {
        long seen = -1;
        while (running.load()) {
            long now = progress.load();
            if (now == seen) {
                fprintf(stderr, "no lifecycle progress for %lu ms: hung\n", kStalledMs);
                ExitProcess(3);
            }
            seen = now;
            if (finished.Wait(kStalledMs)) break;
        }
    });

    for (int cycle = 0; cycle < kCyclesPerPhase; ++cycle) {
        // log.dll keeps every line in memory for the tests; a cycle's worth is plenty.
        avhost::ClearCapturedLines();
        if (recovery) env.manager.SetMissing(ids::kScanSpName);
        const DWORD init = plugin.Init();
        if (recovery) env.manager.Restore(ids::kScanSpName);
        if (init != 0) result.lifecycleFailures.push_back("Init " + std::to_string(init));
        if (plugin.Start() != 0) result.lifecycleFailures.push_back("Start");
        {
            std::lock_guard<std::mutex> lock(handshake);
            cycleNow = cycle;
        }
        holdNext.store(true);
        if (plugin.DelayedStart() != 0) result.lifecycleFailures.push_back("DelayedStart");
        {
            // An installation is on its way into the plug-in when the host stops it.
            std::unique_lock<std::mutex> lock(handshake);
            if (changed.wait_for(lock, stalled, [&] { return heldInCycle == cycle; })) ++result.heldBack;
        }
        holdNext.store(false);
        plugin.Stop();
        {
            std::lock_guard<std::mutex> lock(handshake);
            uninitInCycle = cycle;
            changed.notify_all();
        }
        plugin.UnInit();
        ++result.cycles;
        progress.fetch_add(1);
    }
    running.store(false);
    finished.Set();
    {
        std::lock_guard<std::mutex> lock(handshake);
        uninitInCycle = kCyclesPerPhase;
        changed.notify_all();
    }
    threads.clear();
    env.update.WaitForDeliveries(kStalledMs);
    env.remoteScan.WaitForFires(kStalledMs);
    env.update.SetBeforeDelivery(nullptr);
    for (const Caller& caller : callers) {
        if (caller.wrong && !result.wrongAnswers) result.firstWrong = caller.firstWrong;
        result.wrongAnswers += caller.wrong;
    }
    return result;
}

// Every get is followed by exactly one release of the same name before the next get.
std::string UnmatchedGetsAndReleases(const std::vector<host::ComponentManager::JournalEntry>& journal) {
    using Entry = host::ComponentManager::JournalEntry;
    std::map<std::wstring, bool> held;
    for (size_t i = 0; i < journal.size(); ++i) {
        const Entry& entry = journal[i];
        if (entry.kind == Entry::Refused) continue;
        const bool wasHeld = held[entry.name];
        if (entry.kind == Entry::Get && wasHeld) return "second get without a release at " + std::to_string(i);
        if (entry.kind == Entry::Release && !wasHeld) return "release without a get at " + std::to_string(i);
        held[entry.name] = entry.kind == Entry::Get;
    }
    for (const auto& kv : held) {
        if (kv.second) return "a get never handed back";
    }
    return "";
}

void ExpectCleanHandOver(host::HostEnvironment& env) {
    EXPECT_EQ(UnmatchedGetsAndReleases(env.manager.Journal()), "");
    EXPECT_EQ("", StillHeld(env));
    struct Served {
        const char* name;
        const host::ServedPlugin& served;
    } const served[] = {{"productinfo", env.servConfig.served},
                        {"KXSettings", env.settings.served},
                        {"Update.UpdateAL", env.update.served},
                        {"AntivirusScan.Remote", env.remoteScan.served},
                        {"ctc", env.ctc.served},
                        {"scansp", env.scanSp.served},
                        {"Product.Matrix", env.telemetry.served}};
    for (const Served& s : served) {
        EXPECT_EQ(s.served.CallsAfterRelease(), 0) << s.name;
        EXPECT_EQ(s.served.ReleasesUnderCall(), 0) << s.name;
        EXPECT_EQ(s.served.Held(), 0) << s.name;
    }
}

TEST(ShutdownRace, CallsAndNotificationsInFlightAcrossStopAndUnInit) {
    int cycles = 0;
    for (const bool recovery : {false, true}) {
        SCOPED_TRACE(recovery ? "engines recovery" : "normal start-up");
        PluginUnderTest plugin;
        ASSERT_NE(plugin.primary, nullptr);
        PhaseResult result = RunPhase(plugin, recovery);
        plugin.stopped = true;
        cycles += result.cycles;
        EXPECT_TRUE(result.lifecycleFailures.empty()) << result.lifecycleFailures.front();
        EXPECT_EQ(result.wrongAnswers, 0) << "first wrong answer: " << result.firstWrong;
        // Held back in nearly every cycle; one is enough for the race to have been run.
        EXPECT_GT(result.heldBack, 0);
        ExpectCleanHandOver(plugin.env);
        if (recovery) {
            // The recovery reloads probed the provider and handed it back; a restart was asked.
            EXPECT_GT(plugin.env.manager.CountsOf(ids::kScanSpName).gets, 0);
            EXPECT_GT(plugin.env.update.GetCounts().restarts, 0);
        }
    }
    EXPECT_GE(cycles, 2 * kCyclesPerPhase);
}

} // namespace
