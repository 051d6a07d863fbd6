// Scan type and the primary/fallback scan-mode pair, driven as the host does: the scan type from
// the service configuration, the remote-scan plug-in's state and its events on its own thread,
// the answers of GetScanType/GetScanModes through their slots, and the scan sinks' notifications.
#include "tests/common/EventRecorder.h"
#include "tests/common/ScanSlots.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

using namespace testing_support;
using namespace testing_support::slots;
namespace ids = qv::kxsdk::ids;
using Events = std::vector<std::string>;

struct Pair {
    uint32_t primary, fallback;
};

// "result:primary,fallback" as GetScanModes answers through its slot.
std::string ModesOf(void* scan) {
    ScanMode primary = static_cast<ScanMode>(77), fallback = static_cast<ScanMode>(77);
    const DWORD result = GetScanModes(scan, &primary, &fallback);
    return std::to_string(result) + ":" + std::to_string(primary) + "," + std::to_string(fallback);
}
std::string Answer(Pair pair) { return "0:" + std::to_string(pair.primary) + "," + std::to_string(pair.fallback); }
std::string Event(Pair pair) { return "modes=" + std::to_string(pair.primary) + "," + std::to_string(pair.fallback); }

enum class Fire { Settings, ScanMode, StatusOn, StatusOff };

DWORD FireEvent(host::RemoteScanPlugin& remote, Fire fire) {
    switch (fire) {
    case Fire::Settings:
        return EndIfStuck(remote.FireSettingsChanged(kFireTimeoutMs));
    case Fire::ScanMode:
        return EndIfStuck(remote.FireScanModeChanged(kFireTimeoutMs));
    default:
        return EndIfStuck(remote.FireStatusChanged(fire == Fire::StatusOn, kFireTimeoutMs));
    }
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
    bool computed; // false: the pair stays startPair and nothing is fired
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
    const wchar_t* const handlers[] = {
        L"-> AntivirusScanAL::OnSettingsChanged()", L"-> AntivirusScanAL::OnScanModeChanged()",
        L"-> AntivirusScanAL::OnStatusChanged()", L"-> AntivirusScanAL::OnStatusChanged()"};
    int index = 0;
    for (const DecisionRow& row : kDecisionRows) {
        SCOPED_TRACE("row " + std::to_string(index++));
        auto plugin = std::make_unique<PluginUnderTest>();
        plugin->env.servConfig.SetText(51, L"BASE", row.type);
        plugin->env.remoteScan.SetStatus(row.startStatus);
        plugin->env.remoteScan.SetFallbackMode(row.startRsMode);
        ASSERT_EQ(0u, plugin->Init());
        ASSERT_EQ(0u, plugin->Start());
        EventRecorder sink;
        ASSERT_EQ(0u, RegisterScan(plugin->scan, sink.Scan()));
        ASSERT_EQ(Answer(row.startPair), ModesOf(plugin->scan));

        plugin->env.remoteScan.SetStatus(row.status);
        plugin->env.remoteScan.SetFallbackMode(row.rsMode);
        avhost::ClearCapturedLines();
        EXPECT_EQ(0u, FireEvent(plugin->env.remoteScan, row.fire));
        EXPECT_TRUE(LineWith(handlers[static_cast<int>(row.fire)], 32));
        const std::wstring info = L"RemoteScan info [status = " + std::to_wstring(row.status ? 1 : 0) +
                                  L"] [fallback = " + std::to_wstring(row.fallbackFlag) + L"] [rsMode = " +
                                  std::to_wstring(static_cast<int>(row.rsMode)) + L"] ";
        EXPECT_TRUE(LineWith(info, 32)) << Describe(info);
        for (const wchar_t* message : {kInvalid, kNoLocal, kNoneFallback, L"No fallback should be use."}) {
            const bool expected = row.message && wcscmp(message, row.message) == 0;
            EXPECT_EQ(expected ? 1 : 0, CountOf(message)) << Describe(message);
            if (expected) {
                EXPECT_TRUE(LineWith(message, row.severity));
            }
        }
        EXPECT_EQ(Answer(row.computed ? row.pair : row.startPair), ModesOf(plugin->scan));
        EXPECT_EQ(row.computed ? Events{Event(row.pair)} : Events{}, sink.Take());
        // Told on the remote-scan plug-in's notification thread.
        if (row.computed) {
            EXPECT_EQ(plugin->env.remoteScan.Fires().back().threadId, sink.scanThread);
        }
        plugin->StopAll(); // the object, which still holds the sink, goes first
        plugin.reset();
    }
}

class ScanModes : public ::testing::Test {
protected:
    void SetUp() override { avhost::ClearCapturedLines(); }
    void Run(const wchar_t* type, bool status, uint32_t rsMode) {
        plugin.env.servConfig.SetText(51, L"BASE", type);
        plugin.env.remoteScan.SetStatus(status);
        plugin.env.remoteScan.SetFallbackMode(rsMode);
        ASSERT_TRUE(plugin.StartAll());
        ASSERT_EQ(0u, RegisterScan(plugin.scan, sink.Scan()));
    }
    EventRecorder sink;
    PluginUnderTest plugin;
};

TEST_F(ScanModes, OnlyAChangedPairIsAnnounced) {
    ASSERT_NO_FATAL_FAILURE(Run(L"light", true, 2));
    plugin.env.remoteScan.SetFallbackMode(1);
    for (Fire fire : {Fire::Settings, Fire::ScanMode, Fire::StatusOn})
        EXPECT_EQ(0u, FireEvent(plugin.env.remoteScan, fire));
    EXPECT_EQ(3, CountOf(L"RemoteScan info [status = 1] [fallback = 1] [rsMode = 1] ")) << "all three computed";
    plugin.env.remoteScan.SetFallbackMode(2);
    EXPECT_EQ(0u, FireEvent(plugin.env.remoteScan, Fire::ScanMode));
    EXPECT_EQ((Events{"modes=2,2", "modes=2,4"}), sink.Take());
}

TEST_F(ScanModes, RemoteOnlyRefusesTheServiceGoingOff) {
    ASSERT_NO_FATAL_FAILURE(Run(L"remote", true, 1));
    const int statusQueries = plugin.env.remoteScan.GetCounts().statusQueries;
    plugin.env.remoteScan.SetStatus(false);
    plugin.env.remoteScan.SetFallbackMode(0);
    EXPECT_EQ(13u, FireEvent(plugin.env.remoteScan, Fire::StatusOff));
    EXPECT_TRUE(LineWith(L"RemoteScan status cannot be OFF when scan type is RemoteOnly", 8));
    EXPECT_EQ(statusQueries, plugin.env.remoteScan.GetCounts().statusQueries) << "not even recomputed";
    EXPECT_TRUE(sink.Take().empty());
    EXPECT_EQ(Answer({1, 1}), ModesOf(plugin.scan));
}

TEST_F(ScanModes, RecoveryHidesTheModesWithItsOwnCode) {
    plugin.env.manager.SetMissing(ids::kScanSpName);
    ASSERT_NO_FATAL_FAILURE(Run(L"light", true, 2));
    avhost::ClearCapturedLines();
    const std::string refused = std::to_string(qv::kxsdk::AntivirusScan::kRecoveryInProgress) + ":0,0";
    EXPECT_EQ(refused, ModesOf(plugin.scan));
    EXPECT_TRUE(LineIn(L"EnginesRecoveryInProgress...", 8, L"AntivirusScanAL::GetScanModes"));
    // The pair itself is still kept up to date and announced; only the query is refused.
    plugin.env.remoteScan.SetFallbackMode(1);
    EXPECT_EQ(0u, FireEvent(plugin.env.remoteScan, Fire::Settings));
    EXPECT_EQ(Events{"modes=2,2"}, sink.Take());
    EXPECT_EQ(refused, ModesOf(plugin.scan));
}

TEST(ScanType, FromTheConfigurationText) {
    struct TypeCase {
        const wchar_t* text;
        DWORD init;
        uint32_t type; // what GetScanType answers afterwards
    };
    const TypeCase cases[] = {{L"full", 0, 2},   {L"light", 0, 1}, {L"remote", 0, 0},  {L"LIGHT", 0, 1},
                              {L"Remote", 0, 0}, {L"FuLL", 0, 2},  {L" light", 13, 2}, {L"light ", 13, 2},
                              {L"", 13, 2},      {L"lite", 13, 2}};
    for (const TypeCase& c : cases) {
        SCOPED_TRACE(Describe(c.text));
        PluginUnderTest fresh; // a new object's type is full
        avhost::ClearCapturedLines();
        fresh.env.servConfig.SetText(51, L"BASE", c.text);
        fresh.env.remoteScan.SetStatus(true);
        fresh.env.remoteScan.SetFallbackMode(1);
        EXPECT_EQ(c.init, fresh.Init());
        ScanType type = static_cast<ScanType>(77);
        EXPECT_EQ(0u, GetScanType(fresh.scan, &type));
        EXPECT_EQ(c.type, static_cast<uint32_t>(type));
        EXPECT_TRUE(c.init ? LineWith(std::wstring(L"Invalid scan type [config = ") + c.text + L"]", 4)
                           : LineWith(std::wstring(L"ScanType = ") + c.text, 32));
    }
}

} // namespace
