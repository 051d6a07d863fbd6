// The engines recovery through the exports: Init without the scan service provider, the delayed
// start that reports, cleans, fills in and asks for an update, then installations that either
// fix the engines (restart requested) or do not (cache invalidated again).
#include "support/FileUtil.h"
#include "tests/common/LogAndFileChecks.h"

#include <gtest/gtest.h>

namespace {

using namespace testing_support;
using namespace testing_support::slots;
namespace ids = qv::kxsdk::ids;

constexpr DWORD kRecovering = 0x8004D082;
const wchar_t* const kPlaceholders[] = {L"qvcore.dll", L"scanclient.dll", L"smartdbv2.dat"};

class Recovery : public ::testing::Test {
protected:
    void SetUp() override {
        engines = Fresh(L"engines");
        common = Fresh(L"common");
        lastOk = Fresh(L"lastok");
        CreateDirectoryW((common + L"\\installer").c_str(), nullptr);
        CreateDirectoryW((lastOk + L"\\Plugins").c_str(), nullptr);
        WriteCache(common);
        WriteBytes(lastOk + L"\\Plugins\\update.txt", "[Signatures]\nCount = 4242\nDate\nVersion = 13.1.0.777\n");
        plugin.env.servConfig.SetText(2, L"scansp", engines.c_str());
        plugin.env.servConfig.SetText(0, L"common", common.c_str());
        Json::Value document(Json::objectValue);
        document["/AntivirusScan"]["engines"]["folder"] = Narrow(lastOk);
        document["/AntivirusScan"]["engines"]["reloadStatus"] = 2;
        plugin.env.settings.SetDocument(document);
        settings.proxies = {{L"proxy.corp.example", 3128, L"svc-av", L"s3cret"}, {L"10.0.0.1", 8080, L"", L""}};
        settings.locations = {{L"https://upd1.example/av", 1}, {L"\\\\share\\updates", 2}};
        settings.schedule = 240;
        settings.timeout = 90;
        plugin.env.update.SetReportedSettings(settings);
        plugin.env.manager.SetMissing(ids::kScanSpName);
        avhost::ClearCapturedLines();
    }
    void TearDown() override {
        plugin.StopAll();
        for (const std::wstring& folder : folders) qv::file::DeleteFolderTree(folder.c_str());
    }
    std::wstring Fresh(const wchar_t* tag) {
        folders.push_back(TempFolder(tag));
        return folders.back();
    }
    static void WriteCache(const std::wstring& folder) {
        WriteBytes(folder + L"\\installer\\wslib.db", "cache-db");
        WriteBytes(folder + L"\\installer\\wslib.m", "cache-m");
    }
    static bool CacheGone(const std::wstring& folder) {
        return !Exists(folder + L"\\installer\\wslib.db") && !Exists(folder + L"\\installer\\wslib.m");
    }
    Json::Value Engines() const { return plugin.env.settings.Section(L"/AntivirusScan")["engines"]; }
    DWORD Install() { return plugin.env.update.DeliverComponentInstalled(L"Sched", L"Antivirus", L"C:\\new"); }

    PluginUnderTest plugin;
    std::vector<std::wstring> folders;
    std::wstring engines, common, lastOk;
    host::UpdateSettingsRecord settings;
};

TEST_F(Recovery, StartsAtDelayedStartAndEndsWithARestartOnceTheEnginesLoad) {
    WriteBytes(engines + L"\\scanclient.dll", "MZ-real-engine");
    ASSERT_EQ(0u, plugin.Init());
    ASSERT_EQ(0u, plugin.Start());
    EXPECT_EQ(1, CountLines(L"Dependency not found : ScanSp.", 8));
    EXPECT_EQ(0, plugin.env.telemetry.EventCount()) << "nothing happens before the delayed start";
    EXPECT_FALSE(CacheGone(common));
    ASSERT_EQ(0u, plugin.DelayedStart());
    EXPECT_TRUE(LineIn(L"[(Engines-Recovery)]", 8, L"AntivirusScanAL::DelayedStart"));

    const auto events = plugin.env.telemetry.Events();
    ASSERT_EQ(1u, events.size());
    const Json::Value& event = events[0].event;
    EXPECT_EQ(0, events[0].flags);
    EXPECT_EQ((std::vector<std::string>{"error", "error_code", "event_name", "event_version", "issue",
                                        "qv_av_signatures_version"}),
              event.getMemberNames());
    EXPECT_EQ(Json::Value("m_critical_issue_occurred"), event["event_name"]);
    EXPECT_EQ(Json::Value("1.0"), event["event_version"]);
    EXPECT_EQ(Json::Value("AntivirusScan.EnginesRecoveryStarted"), event["issue"]);
    EXPECT_EQ(Json::Value("full"), event["error"]);
    EXPECT_EQ(Json::intValue, event["error_code"].type());
    EXPECT_EQ(1805, event["error_code"].asInt());
    EXPECT_EQ(Json::Value("13.1.0.777"), event["qv_av_signatures_version"]);
    EXPECT_EQ(0, plugin.env.manager.Outstanding(ids::kTelemetryName));

    EXPECT_TRUE(CacheGone(common));
    for (const wchar_t* name : kPlaceholders)
        EXPECT_EQ(name == std::wstring(L"scanclient.dll") ? "MZ-real-engine" : "", ReadBytes(engines + L"\\" + name));
    EXPECT_EQ(0, CountStartingWith(L"Missing file created. [path = " + engines + L"\\scanclient.dll"));

    const auto requests = plugin.env.update.Requests();
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ(L"Antivirus-Engines-Recovery", requests[0].requester);
    EXPECT_EQ(settings.proxies, requests[0].proxies);
    EXPECT_EQ(settings.locations, requests[0].locations);
    EXPECT_EQ(1u, requests[0].signaturesOnly);

    // Still missing: the cache goes again, status 1, no restart.
    WriteCache(common);
    EXPECT_EQ(0u, Install());
    EXPECT_EQ(1, CountLines(L"ScanSp load NOT-FIXED => invalidate_cache", 8));
    EXPECT_TRUE(CacheGone(common));
    EXPECT_EQ(1u, Engines()["reloadStatus"].asUInt());
    EXPECT_EQ(Narrow(lastOk), Engines()["folder"].asString());
    EXPECT_TRUE(plugin.env.update.Restarts().empty());

    // Loadable again: status 2 with the folder, a restart of the service, the cache kept.
    plugin.env.manager.Restore(ids::kScanSpName);
    WriteCache(common);
    EXPECT_EQ(0u, Install());
    EXPECT_EQ(Narrow(engines), Engines()["folder"].asString());
    EXPECT_EQ(2u, Engines()["reloadStatus"].asUInt());
    const auto restarts = plugin.env.update.Restarts();
    ASSERT_EQ(1u, restarts.size());
    EXPECT_EQ(1u, restarts[0].value);
    EXPECT_EQ(L"KXSecurityService", restarts[0].serviceName);
    EXPECT_FALSE(CacheGone(common));
    EXPECT_EQ(0, plugin.env.scanSp.GetCounts().reloads);
    EXPECT_EQ(0, plugin.env.manager.Outstanding(ids::kScanSpName));
}

TEST_F(Recovery, QueriesAnswerRecoveryInProgressWithEmptyOutputs) {
    ASSERT_TRUE(plugin.StartAll());
    ScanMode primary = qv::kxsdk::AntivirusScan::ScanModeLocalFull, fallback = primary;
    EXPECT_EQ(kRecovering, GetScanModes(plugin.scan, &primary, &fallback));
    EXPECT_EQ(qv::kxsdk::AntivirusScan::ScanModeNone, primary);
    EXPECT_EQ(qv::kxsdk::AntivirusScan::ScanModeNone, fallback);
    qv::StringW version(L"stale");
    uint64_t count = 77;
    EXPECT_EQ(kRecovering, GetEnginesVersion(plugin.scan, &version));
    EXPECT_EQ(kRecovering, GetSignaturesCount(plugin.scan, &count));
    EXPECT_TRUE(version.IsEmpty());
    EXPECT_EQ(0u, count);
}

TEST_F(Recovery, MissingTelemetryPluginIsLoggedAndTheStepsStillRun) {
    plugin.env.manager.SetMissing(ids::kTelemetryName);
    ASSERT_TRUE(plugin.StartAll());
    EXPECT_EQ(1, CountLines(L"Cannot obtain Telemetry plugin", 4));
    EXPECT_EQ(0, plugin.env.telemetry.EventCount());
    EXPECT_TRUE(CacheGone(common));
    for (const wchar_t* name : kPlaceholders) EXPECT_TRUE(Exists(engines + L"\\" + name)) << Narrow(name);
    EXPECT_EQ(1u, plugin.env.update.Requests().size());
}

// With "common" unset or not a folder the cache is looked for beside the plug-in: a copy of the
// plug-in in a folder of its own, so that the build's folder is never touched.
TEST(RecoveryModuleFolder, CacheIsLookedForBesideThePluginWhenCommonIsUnusable) {
    const std::wstring folder = TempFolder(L"module");
    for (const wchar_t* file : {L"AntivirusScan.AL", L"KxsJson.dll", L"log.dll"})
        ASSERT_TRUE(CopyFileW((ExeFolder() + L"\\" + file).c_str(), (folder + L"\\" + file).c_str(), FALSE));
    CreateDirectoryW((folder + L"\\installer").c_str(), nullptr);
    const std::wstring notAFolder = folder + L"\\common.txt";
    WriteBytes(notAFolder, "not a folder");
    {
        PluginLibrary library(folder + L"\\AntivirusScan.AL");
        host::HostEnvironment env;
        void* primary = nullptr;
        ASSERT_EQ(0u, library.Create(ids::kPrimaryFaceId, &primary));
        env.manager.SetMissing(ids::kScanSpName);
        ASSERT_EQ(0u, (CallSlot<DWORD>(primary, kInit, static_cast<IQvHost*>(&env.host))));
        for (const wchar_t* configured : {static_cast<const wchar_t*>(nullptr), notAFolder.c_str()}) {
            env.servConfig.SetText(0, L"common", configured);
            WriteBytes(folder + L"\\installer\\wslib.db", "cache-db");
            WriteBytes(folder + L"\\installer\\wslib.m", "cache-m");
            ASSERT_EQ(0u, CallSlot<DWORD>(primary, kDelayedStart));
            EXPECT_FALSE(Exists(folder + L"\\installer\\wslib.db"));
            EXPECT_FALSE(Exists(folder + L"\\installer\\wslib.m"));
            EXPECT_EQ("not a folder", ReadBytes(notAFolder));
        }
        CallSlot<DWORD>(primary, kUnInit);
        library.Destroy(primary);
    }
    qv::file::DeleteFolderTree(folder.c_str());
}

} // namespace
