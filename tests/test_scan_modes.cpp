// Scan type and the primary/fallback scan-mode pair, driven as the host does: the scan type from
// the service configuration, the remote-scan plug-in's state and its events on its own thread,
// the answers of GetScanType/GetScanModes through their slots, and the scan sinks' notifications.
#include "tests/common/PluginHarness.h"
#include "tests/common/ThreadProbe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <vector>

namespace {

using namespace testing_support;
using qv::kxsdk::AntivirusScan::IAntivirusScan;
using qv::kxsdk::AntivirusScan::kRecoveryInProgress;
using qv::kxsdk::AntivirusScan::ScanMode;
using qv::kxsdk::AntivirusScan::ScanType;
namespace ids = qv::kxsdk::ids;

enum ScanSlot { kRegisterScanEvents = 1, kUnregisterScanEvents = 4, kGetScanType = 6, kGetScanModes = 7 };

constexpr DWORD kFireTimeoutMs = 10000;

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

struct Pair {
    uint32_t primary;
    uint32_t fallback;
    bool operator==(const Pair& other) const { return primary == other.primary && fallback == other.fallback; }
};

std::ostream& operator<<(std::ostream& out, const Pair& pair) {
    return out << "(" << pair.primary << ", " << pair.fallback << ")";
}

struct Modes {
    DWORD result;
    Pair pair;
};

Modes GetModes(void* scan) {
    ScanMode primary = static_cast<ScanMode>(77), fallback = static_cast<ScanMode>(77);
    DWORD result = CallSlot<DWORD>(scan, kGetScanModes, &primary, &fallback);
    return Modes{result, Pair{primary, fallback}};
}

bool LineWith(const std::wstring& text, uint32_t severity) {
    for (const auto& line : avhost::CapturedLines())
        if (line.text == text && line.severity == severity) return true;
    return false;
}

int CountOf(const std::wstring& text) {
    int count = 0;
    for (const auto& line : avhost::CapturedLines())
        if (line.text == text) ++count;
    return count;
}

std::string Narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

// Records every notification with the thread it came on.
class ScanSink : public IAntivirusScan::IScanEvents {
public:
    struct Call {
        Pair pair;
        DWORD thread;
    };
    int OnScanModesChanged(ScanMode primary, ScanMode fallback) override {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.push_back(Call{Pair{primary, fallback}, GetCurrentThreadId()});
        return 0;
    }
    std::vector<Call> Calls() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<Call> calls_;
};

class ScanModes : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, plugin.primary);
        ASSERT_NE(nullptr, plugin.scan);
        avhost::ClearCapturedLines();
    }
    void Configure(const wchar_t* type, bool status, uint32_t rsMode) {
        plugin.env.servConfig.SetText(51, L"BASE", type);
        plugin.env.remoteScan.SetStatus(status);
        plugin.env.remoteScan.SetFallbackMode(rsMode);
    }
    DWORD Register(ScanSink& sink) {
        return CallSlot<DWORD>(plugin.scan, kRegisterScanEvents, static_cast<IAntivirusScan::IScanEvents*>(&sink));
    }
    PluginUnderTest plugin;
};

enum class Fire { Settings, ScanMode, StatusOn, StatusOff };

const wchar_t* HandlerTrace(Fire fire) {
    switch (fire) {
    case Fire::Settings: return L"-> AntivirusScanAL::OnSettingsChanged()";
    case Fire::ScanMode: return L"-> AntivirusScanAL::OnScanModeChanged()";
    default: return L"-> AntivirusScanAL::OnStatusChanged()";
    }
}

DWORD FireEvent(host::RemoteScanPlugin& remote, Fire fire) {
    switch (fire) {
    case Fire::Settings: return Bounded(remote.FireSettingsChanged(kFireTimeoutMs));
    case Fire::ScanMode: return Bounded(remote.FireScanModeChanged(kFireTimeoutMs));
    case Fire::StatusOn: return Bounded(remote.FireStatusChanged(true, kFireTimeoutMs));
    case Fire::StatusOff: return Bounded(remote.FireStatusChanged(false, kFireTimeoutMs));
    }
    return 0;
}

struct DecisionRow {
    const wchar_t* type;
    // The remote state at Init; it gives the pair the row starts from.
    bool startStatus;
    uint32_t startRsMode;
    Pair startPair;
    // The remote state when the event arrives.
    bool status;
    uint32_t rsMode;
    Fire fire;
    int fallbackFlag;
    bool computed;  // false: the pair stays startPair and nothing is fired
    Pair pair;
    const wchar_t* message;
    uint32_t severity;
};

const wchar_t* const kInvalid = L"Invalid remote scan settings.";
const wchar_t* const kNoLocal = L"No local engines installed.";
const wchar_t* const kNoneFallback = L"ScanModeNone when using fallback.";

const DecisionRow kDecisionRows[] = {
    // remote
    {L"remote", true, 0, {1, 0}, false, 0, Fire::Settings, 0, false, {}, kInvalid, 4},
    {L"remote", true, 0, {1, 0}, false, 2, Fire::ScanMode, 0, false, {}, kInvalid, 4},
    {L"remote", true, 1, {1, 1}, true, 0, Fire::Settings, 0, true, {1, 0}, nullptr, 0},
    {L"remote", true, 0, {1, 0}, true, 1, Fire::StatusOn, 0, true, {1, 1}, nullptr, 0},
    {L"remote", true, 0, {1, 0}, true, 2, Fire::ScanMode, 0, false, {}, kNoLocal, 4},
    {L"remote", true, 1, {1, 1}, true, 9, Fire::StatusOn, 0, false, {}, kNoLocal, 4},
    // remote service off: the local engines, whatever the fallback mode
    {L"light", true, 1, {2, 2}, false, 2, Fire::StatusOff, 1, true, {4, 4}, nullptr, 0},
    {L"light", true, 2, {2, 4}, false, 0, Fire::Settings, 1, true, {4, 4}, nullptr, 0},
    {L"full", true, 1, {3, 3}, false, 2, Fire::ScanMode, 1, true, {5, 5}, nullptr, 0},
    {L"full", true, 0, {3, 0}, false, 1, Fire::StatusOff, 1, true, {5, 5}, nullptr, 0},
    // remote service on, fallback to remote
    {L"light", false, 0, {4, 4}, true, 1, Fire::StatusOn, 1, true, {2, 2}, nullptr, 0},
    {L"full", false, 0, {5, 5}, true, 1, Fire::Settings, 1, true, {3, 3}, nullptr, 0},
    // fallback to the local engines
    {L"light", false, 2, {4, 4}, true, 2, Fire::ScanMode, 1, true, {2, 4}, nullptr, 0},
    {L"full", true, 1, {3, 3}, true, 2, Fire::Settings, 1, true, {3, 5}, nullptr, 0},
    // no fallback, or one the module does not know
    {L"light", true, 1, {2, 2}, true, 0, Fire::ScanMode, 1, true, {2, 0}, kNoneFallback, 8},
    {L"full", false, 0, {5, 5}, true, 0, Fire::StatusOn, 1, true, {3, 0}, kNoneFallback, 8},
    {L"light", true, 2, {2, 4}, true, 3, Fire::Settings, 1, true, {2, 0}, kNoneFallback, 8},
    {L"full", true, 1, {3, 3}, true, 0xFFFFFFFFu, Fire::ScanMode, 1, true, {3, 0}, kNoneFallback, 8},
};

TEST(ScanModeDecision, EveryRowThroughTheRemoteScanEvents) {
    int index = 0;
    for (const DecisionRow& row : kDecisionRows) {
        SCOPED_TRACE("row " + std::to_string(index++) + ": " + Narrow(row.type));
        auto plugin = std::make_unique<PluginUnderTest>();
        ASSERT_NE(nullptr, plugin->scan);
        plugin->env.servConfig.SetText(51, L"BASE", row.type);
        plugin->env.remoteScan.SetStatus(row.startStatus);
        plugin->env.remoteScan.SetFallbackMode(row.startRsMode);
        ASSERT_EQ(0u, plugin->Init());
        ASSERT_EQ(0u, plugin->Start());
        ScanSink sink;
        ASSERT_EQ(0u, CallSlot<DWORD>(plugin->scan, kRegisterScanEvents,
                                      static_cast<IAntivirusScan::IScanEvents*>(&sink)));
        Modes before = GetModes(plugin->scan);
        ASSERT_EQ(0u, before.result);
        ASSERT_EQ(row.startPair, before.pair);

        plugin->env.remoteScan.SetStatus(row.status);
        plugin->env.remoteScan.SetFallbackMode(row.rsMode);
        avhost::ClearCapturedLines();
        EXPECT_EQ(0u, FireEvent(plugin->env.remoteScan, row.fire));

        const std::wstring info = L"RemoteScan info [status = " + std::to_wstring(row.status ? 1 : 0) +
                                  L"] [fallback = " + std::to_wstring(row.fallbackFlag) + L"] [rsMode = " +
                                  std::to_wstring(static_cast<int>(row.rsMode)) + L"] ";
        EXPECT_TRUE(LineWith(HandlerTrace(row.fire), 32)) << Narrow(HandlerTrace(row.fire));
        EXPECT_TRUE(LineWith(info, 32)) << Narrow(info);
        for (const wchar_t* message : {kInvalid, kNoLocal, kNoneFallback, L"No fallback should be use."}) {
            if (row.message && wcscmp(message, row.message) == 0)
                EXPECT_TRUE(LineWith(message, row.severity)) << Narrow(message);
            else
                EXPECT_EQ(0, CountOf(message)) << Narrow(message);
        }

        const Pair expected = row.computed ? row.pair : row.startPair;
        Modes after = GetModes(plugin->scan);
        EXPECT_EQ(0u, after.result);
        EXPECT_EQ(expected, after.pair);
        auto calls = sink.Calls();
        if (row.computed) {
            ASSERT_EQ(1u, calls.size());
            EXPECT_EQ(expected, calls[0].pair);
            // Told on the remote-scan plug-in's notification thread, not on one of its own.
            ASSERT_FALSE(plugin->env.remoteScan.Fires().empty());
            EXPECT_EQ(plugin->env.remoteScan.Fires().back().threadId, calls[0].thread);
        } else {
            EXPECT_TRUE(calls.empty());
        }
        // The object, which still holds the sink, goes first.
        plugin->StopAll();
        plugin.reset();
    }
}

TEST_F(ScanModes, SamePairTwiceIsAnnouncedOnce) {
    Configure(L"light", true, 2);
    ASSERT_EQ(0u, plugin.Init());
    ASSERT_EQ(0u, plugin.Start());
    ScanSink sink;
    ASSERT_EQ(0u, Register(sink));

    plugin.env.remoteScan.SetFallbackMode(1);
    EXPECT_EQ(0u, Bounded(plugin.env.remoteScan.FireSettingsChanged(kFireTimeoutMs)));
    EXPECT_EQ(0u, Bounded(plugin.env.remoteScan.FireScanModeChanged(kFireTimeoutMs)));
    EXPECT_EQ(0u, Bounded(plugin.env.remoteScan.FireStatusChanged(true, kFireTimeoutMs)));
    auto calls = sink.Calls();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ((Pair{2, 2}), calls[0].pair);
    // All three were computed; only the first changed anything.
    EXPECT_EQ(3, CountOf(L"RemoteScan info [status = 1] [fallback = 1] [rsMode = 1] "));

    // Back to the pair of Init: a change again, so it is announced.
    plugin.env.remoteScan.SetFallbackMode(2);
    EXPECT_EQ(0u, Bounded(plugin.env.remoteScan.FireScanModeChanged(kFireTimeoutMs)));
    calls = sink.Calls();
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ((Pair{2, 4}), calls[1].pair);
}

TEST_F(ScanModes, RemoteOnlyRefusesTheServiceGoingOff) {
    Configure(L"remote", true, 1);
    ASSERT_EQ(0u, plugin.Init());
    ASSERT_EQ(0u, plugin.Start());
    ScanSink sink;
    ASSERT_EQ(0u, Register(sink));
    const int statusQueries = plugin.env.remoteScan.GetCounts().statusQueries;
    avhost::ClearCapturedLines();

    plugin.env.remoteScan.SetStatus(false);
    plugin.env.remoteScan.SetFallbackMode(0);
    EXPECT_EQ(13u, Bounded(plugin.env.remoteScan.FireStatusChanged(false, kFireTimeoutMs)));
    EXPECT_TRUE(LineWith(L"RemoteScan status cannot be OFF when scan type is RemoteOnly", 8));
    // Not even recomputed: the remote state was not asked.
    EXPECT_EQ(statusQueries, plugin.env.remoteScan.GetCounts().statusQueries);
    EXPECT_TRUE(sink.Calls().empty());
    Modes modes = GetModes(plugin.scan);
    EXPECT_EQ(0u, modes.result);
    EXPECT_EQ((Pair{1, 1}), modes.pair);

    // Coming back on is an ordinary recomputation.
    plugin.env.remoteScan.SetStatus(true);
    EXPECT_EQ(0u, Bounded(plugin.env.remoteScan.FireStatusChanged(true, kFireTimeoutMs)));
    auto calls = sink.Calls();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ((Pair{1, 0}), calls[0].pair);
}

TEST_F(ScanModes, RecoveryHidesTheModesWithItsOwnCode) {
    plugin.env.manager.SetMissing(ids::kScanSpName);
    Configure(L"light", true, 2);
    ASSERT_EQ(0u, plugin.Init());
    ASSERT_EQ(0u, plugin.Start());
    ScanSink sink;
    ASSERT_EQ(0u, Register(sink));
    avhost::ClearCapturedLines();

    Modes modes = GetModes(plugin.scan);
    EXPECT_EQ(kRecoveryInProgress, modes.result);
    EXPECT_EQ((Pair{0, 0}), modes.pair);
    bool logged = false;
    for (const auto& line : avhost::CapturedLines()) {
        if (line.text == L"EnginesRecoveryInProgress..." && line.severity == 8 &&
            line.function == L"AntivirusScanAL::GetScanModes")
            logged = true;
    }
    EXPECT_TRUE(logged);

    // The pair itself is still kept up to date and announced; only the query is refused.
    plugin.env.remoteScan.SetFallbackMode(1);
    EXPECT_EQ(0u, Bounded(plugin.env.remoteScan.FireSettingsChanged(kFireTimeoutMs)));
    auto calls = sink.Calls();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ((Pair{2, 2}), calls[0].pair);
    modes = GetModes(plugin.scan);
    EXPECT_EQ(kRecoveryInProgress, modes.result);
    EXPECT_EQ((Pair{0, 0}), modes.pair);
}

TEST_F(ScanModes, ScanTypeFromTheConfigurationText) {
    struct TypeCase {
        const wchar_t* text;
        uint32_t type;
    };
    const TypeCase cases[] = {{L"full", 2}, {L"light", 1}, {L"remote", 0}, {L"LIGHT", 1}, {L"Remote", 0}, {L"FuLL", 2}};
    for (const TypeCase& c : cases) {
        SCOPED_TRACE(Narrow(c.text));
        avhost::ClearCapturedLines();
        Configure(c.text, true, 1);
        ASSERT_EQ(0u, plugin.Init());
        ScanType type = static_cast<ScanType>(77);
        EXPECT_EQ(0u, CallSlot<DWORD>(plugin.scan, kGetScanType, &type));
        EXPECT_EQ(c.type, static_cast<uint32_t>(type));
        EXPECT_TRUE(LineWith(std::wstring(L"ScanType = ") + c.text, 32));
        EXPECT_EQ(0u, plugin.UnInit());
    }
    EXPECT_EQ(87u, CallSlot<DWORD>(plugin.scan, kGetScanType, static_cast<ScanType*>(nullptr)));
}

TEST_F(ScanModes, ConfigurationTextThatIsNoScanTypeFailsInit) {
    ScanType type = static_cast<ScanType>(77);
    for (const wchar_t* text : {L" light", L"light ", L"", L"lite"}) {
        SCOPED_TRACE(Narrow(text));
        avhost::ClearCapturedLines();
        Configure(text, false, 0);
        EXPECT_EQ(13u, plugin.Init());
        EXPECT_TRUE(LineWith(std::wstring(L"Invalid scan type [config = ") + text + L"]", 4));
        // The type of a new object stays full.
        EXPECT_EQ(0u, CallSlot<DWORD>(plugin.scan, kGetScanType, &type));
        EXPECT_EQ(2u, static_cast<uint32_t>(type));
    }
    // No text at all reads as the empty one.
    avhost::ClearCapturedLines();
    plugin.env.servConfig.SetText(51, L"BASE", nullptr);
    EXPECT_EQ(13u, plugin.Init());
    EXPECT_TRUE(LineWith(L"Invalid scan type [config = ]", 4));
}

TEST_F(ScanModes, PairComputedAtInit) {
    struct InitCase {
        const wchar_t* type;
        bool status;
        uint32_t rsMode;
        Pair pair;
        bool warned;
    };
    const InitCase cases[] = {
        {L"full", false, 2, {5, 5}, false},  {L"light", false, 2, {4, 4}, false},
        {L"light", true, 2, {2, 4}, false},  {L"light", true, 1, {2, 2}, false},
        {L"light", true, 0, {2, 0}, true},   {L"full", true, 2, {3, 5}, false},
        {L"remote", true, 0, {1, 0}, false}, {L"remote", true, 1, {1, 1}, false},
    };
    // Start-up sets the pair without announcing it.
    ScanSink sink;
    ASSERT_EQ(0u, Register(sink));
    for (const InitCase& c : cases) {
        SCOPED_TRACE(Narrow(c.type) + " status " + std::to_string(c.status) + " rsMode " + std::to_string(c.rsMode));
        avhost::ClearCapturedLines();
        Configure(c.type, c.status, c.rsMode);
        ASSERT_EQ(0u, plugin.Init());
        Modes modes = GetModes(plugin.scan);
        EXPECT_EQ(0u, modes.result);
        EXPECT_EQ(c.pair, modes.pair);
        EXPECT_EQ(c.warned, LineWith(kNoneFallback, 8));
        EXPECT_EQ(0u, plugin.UnInit());
    }
    EXPECT_TRUE(sink.Calls().empty());

    // A remote-only installation has no local engines to fall back to.
    avhost::ClearCapturedLines();
    Configure(L"remote", true, 2);
    EXPECT_EQ(1359u, plugin.Init());
    EXPECT_TRUE(LineWith(kNoLocal, 4));
    EXPECT_TRUE(LineWith(L"Cannot compute scan mode", 4));
}

TEST_F(ScanModes, WithoutTheRemoteScanPluginTheLocalEnginesAreUsed) {
    plugin.env.manager.SetMissing(ids::kRemoteScanName);
    Configure(L"light", true, 1);
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(LineWith(L"RemoteScan info [status = 0] [fallback = 0] [rsMode = 0] ", 32));
    Modes modes = GetModes(plugin.scan);
    EXPECT_EQ(0u, modes.result);
    EXPECT_EQ((Pair{4, 4}), modes.pair);
}

TEST_F(ScanModes, RemoteStateIsAskedAtEveryComputationAndItsErrorsIgnored) {
    Configure(L"full", true, 2);
    plugin.env.remoteScan.FailQueries(31);
    ASSERT_EQ(0u, plugin.Init());
    ASSERT_EQ(0u, plugin.Start());
    EXPECT_EQ((Pair{3, 5}), GetModes(plugin.scan).pair);
    auto counts = plugin.env.remoteScan.GetCounts();
    EXPECT_EQ(1, counts.statusQueries);
    EXPECT_EQ(1, counts.serverCountQueries);
    EXPECT_EQ(1, counts.fallbackQueries);

    plugin.env.remoteScan.SetFallbackMode(1);
    EXPECT_EQ(0u, Bounded(plugin.env.remoteScan.FireScanModeChanged(kFireTimeoutMs)));
    EXPECT_EQ((Pair{3, 3}), GetModes(plugin.scan).pair);
    counts = plugin.env.remoteScan.GetCounts();
    EXPECT_EQ(2, counts.statusQueries);
    EXPECT_EQ(2, counts.serverCountQueries);
    EXPECT_EQ(2, counts.fallbackQueries);
}

TEST_F(ScanModes, NullOutputsAreRejected) {
    Configure(L"full", false, 0);
    ASSERT_EQ(0u, plugin.Init());
    ScanMode mode;
    EXPECT_EQ(87u, CallSlot<DWORD>(plugin.scan, kGetScanModes, static_cast<ScanMode*>(nullptr), &mode));
    EXPECT_EQ(87u, CallSlot<DWORD>(plugin.scan, kGetScanModes, &mode, static_cast<ScanMode*>(nullptr)));
}

// Readers on several threads while the remote-scan plug-in keeps changing its state: nobody
// blocks for good, and no reader ever sees half of one pair and half of the other.
TEST_F(ScanModes, EventsAndQueriesSideBySide) {
    Configure(L"light", true, 1);
    ASSERT_EQ(0u, plugin.Init());
    ASSERT_EQ(0u, plugin.Start());

    // A sink that asks again from inside its notification, as a real subscriber would.
    class AskingSink : public IAntivirusScan::IScanEvents {
    public:
        explicit AskingSink(void* scan) : scan_(scan) {}
        int OnScanModesChanged(ScanMode primary, ScanMode fallback) override {
            ++count;
            if (GetModes(scan_).result != 0) ++failures;
            (void)primary;
            (void)fallback;
            return 0;
        }
        std::atomic<int> count{0};
        std::atomic<int> failures{0};

    private:
        void* scan_;
    } sink(plugin.scan);
    ASSERT_EQ(0u, CallSlot<DWORD>(plugin.scan, kRegisterScanEvents, static_cast<IAntivirusScan::IScanEvents*>(&sink)));

    std::atomic<bool> stop{false};
    std::atomic<int> reads{0}, torn{0}, failed{0};
    auto reader = [&] {
        while (!stop) {
            Modes modes = GetModes(plugin.scan);
            if (modes.result != 0) ++failed;
            if (!(modes.pair == Pair{2, 2}) && !(modes.pair == Pair{4, 4})) ++torn;
            ++reads;
        }
    };
    std::vector<std::unique_ptr<qvtest::TestThread>> readers;
    for (int i = 0; i < 3; ++i) readers.push_back(std::make_unique<qvtest::TestThread>(reader));

    const DWORD begin = GetTickCount();
    int fires = 0;
    bool on = true;
    while (GetTickCount() - begin < 1000) {
        on = !on;
        plugin.env.remoteScan.SetStatus(on);
        const Fire fire = fires % 3 == 0 ? (on ? Fire::StatusOn : Fire::StatusOff)
                          : fires % 3 == 1 ? Fire::Settings
                                           : Fire::ScanMode;
        const DWORD result = FireEvent(plugin.env.remoteScan, fire);
        ++fires;
        if (result != 0) {
            ADD_FAILURE() << "fire " << fires << " answered " << result;
            break;
        }
    }
    stop = true;
    for (auto& thread : readers) EXPECT_TRUE(thread->Finished(qvtest::kProceedMs));

    EXPECT_GT(reads.load(), 0);
    EXPECT_EQ(0, torn.load());
    EXPECT_EQ(0, failed.load());
    EXPECT_EQ(0, sink.failures.load());
    // Every event flipped the pair.
    EXPECT_EQ(fires, sink.count.load());
    EXPECT_EQ(0u, CallSlot<DWORD>(plugin.scan, kUnregisterScanEvents,
                                  static_cast<IAntivirusScan::IScanEvents*>(&sink)));
}

} // namespace
