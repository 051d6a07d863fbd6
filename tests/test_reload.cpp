// Engine reloads as the update plug-in triggers them: the reload status and last-OK folder in the
// settings store, the engines sinks told around the provider's reload, the refreshes after every
// attempt, maintenance updaters, and the recovery-mode reload.
#include "support/FileUtil.h"
#include "tests/common/LogAndFileChecks.h"

#include <gtest/gtest.h>

#include <mutex>
#include <stdexcept>

namespace {

using namespace testing_support;
using namespace testing_support::slots;
namespace ids = qv::kxsdk::ids;
const wchar_t kKit[] = L"D:\\Kits\\av-2024.05";

struct Journal {
    std::mutex mutex;
    std::vector<std::wstring> lines;
    void Add(const std::wstring& line) {
        std::lock_guard<std::mutex> hold(mutex);
        lines.push_back(line);
    }
};

struct EnginesSink : IAntivirusScan::IEnginesEvents {
    EnginesSink(Journal& journal, const wchar_t* name) : journal(journal), name(name) {}
    int OnReloadStarted(const qv::StringW& path) override {
        journal.Add(name + L":started " + path.c_str());
        return 1359; // answers are ignored
    }
    int OnReloadEnded(const qv::StringW& path, int error) override {
        journal.Add(name + L":ended " + path.c_str() + L" " + std::to_wstring(error));
        if (throwAtEnd) throw std::runtime_error("sink");
        return 1359;
    }
    Journal& journal;
    std::wstring name;
    bool throwAtEnd = false;
};

class Reload : public ::testing::Test {
protected:
    void SetUp() override {
        engines = TempFolder(L"reload-engines");
        coreParent = TempFolder(L"reload-core");
        common = TempFolder(L"reload-common");
        CreateDirectoryW((common + L"\\installer").c_str(), nullptr);
        plugin.env.servConfig.SetText(2, L"scansp", (engines + L"\\").c_str());
        plugin.env.servConfig.SetText(17, L"scansp", (coreParent + L"\\scansp").c_str());
        plugin.env.servConfig.SetText(0, L"common", common.c_str());
        plugin.env.scanSp.SetReloadHandler([this]() -> DWORD {
            journal.Add(L"reload with status " + std::to_wstring(Engines()["reloadStatus"].asUInt()));
            return reloadResult;
        });
    }
    void TearDown() override {
        for (const std::wstring& folder : {engines, coreParent, common}) qv::file::DeleteFolderTree(folder.c_str());
    }
    void StartPlugin() {
        ASSERT_EQ(0u, plugin.Init());
        ASSERT_EQ(0u, plugin.Start());
        ASSERT_EQ(0u, RegisterEngines(plugin.scan, &first));
        ASSERT_EQ(0u, RegisterEngines(plugin.scan, &second));
        plugin.env.settings.ResetCounts();
        avhost::ClearCapturedLines();
    }
    DWORD Install(const wchar_t* updater = L"Sched", const wchar_t* component = L"Antivirus") {
        return plugin.env.update.DeliverComponentInstalled(updater, component, kKit);
    }
    Json::Value Engines() const { return plugin.env.settings.Section(L"/AntivirusScan")["engines"]; }
    // The keys written under "engines/" since the last reset, in order.
    std::vector<std::string> EnginesWrites() const {
        std::vector<std::string> writes;
        for (const auto& set : plugin.env.settings.SetLog())
            if (set.key.rfind(L"engines/", 0) == 0) writes.push_back(Narrow(set.key) + "=" + set.value);
        return writes;
    }
    std::vector<std::wstring> Expected(DWORD result) const {
        const std::wstring kit = kKit, end = L":ended " + kit + L" " + std::to_wstring(result);
        return {L"first:started " + kit, L"second:started " + kit, L"reload with status 1", L"first" + end,
                L"second" + end};
    }
    int Reloads() const { return plugin.env.scanSp.GetCounts().reloads; }

    PluginUnderTest plugin;
    Journal journal;
    EnginesSink first{journal, L"first"}, second{journal, L"second"};
    DWORD reloadResult = 0;
    std::wstring engines, coreParent, common;
};

TEST_F(Reload, StatusTwoAfterSuccessOneKeptAfterFailureAndRefreshesEveryTime) {
    StartPlugin();
    for (DWORD result : {1450ul, 0ul}) {
        SCOPED_TRACE(result);
        reloadResult = result;
        journal.lines.clear();
        WriteBytes(coreParent + L"\\stale.tmp", "x");
        plugin.env.update.SetStatistic(L"Antivirus", L"9.1", static_cast<int32_t>(result + 1));
        plugin.env.settings.ResetCounts();
        avhost::ClearCapturedLines();
        EXPECT_EQ(0u, Install());
        EXPECT_EQ(Expected(result), journal.lines);
        EXPECT_EQ(result ? 1u : 2u, Engines()["reloadStatus"].asUInt());
        EXPECT_EQ(Narrow(engines), Engines()["folder"].asString());
        EXPECT_EQ(result ? 1u : 3u, EnginesWrites().size());
        EXPECT_TRUE(
            LineWith(L"OnReloadEnded [path = " + std::wstring(kKit) + L"] [error = " + std::to_wstring(result) + L"]",
                     result ? 4 : 32));
        // The refreshes follow, in order, after either outcome.
        const int ended = IndexOf(Entry(L"RefreshBackupStatus")), sigInfo = IndexOf(Entry(L"ComputeSigInfo"));
        const int modes = IndexOf(Entry(L"RefreshScanModes")), clean = IndexOf(Entry(L"CleanCoreTempFolder"));
        ASSERT_GE(ended, 0);
        EXPECT_LT(ended, sigInfo);
        EXPECT_LT(sigInfo, modes);
        EXPECT_LT(modes, clean);
        EXPECT_TRUE(LineWith(L"Signature [version = 9.1] [count = " + std::to_wstring(result + 1) + L"]", 32));
        EXPECT_FALSE(Exists(coreParent + L"\\stale.tmp"));
    }
    EXPECT_EQ(2, Reloads());
}

// Every installation pushes the backup switch again; a push the provider refuses names the value.
TEST_F(Reload, BackupPushedAgainAfterAnInstallationNamesTheValueItCouldNotApply) {
    StartPlugin();
    ASSERT_EQ(0u, EnableBackup(plugin.scan, true));
    plugin.env.scanSp.SetOptionResultFor(9, 31);
    avhost::ClearCapturedLines();
    EXPECT_EQ(0u, Install());
    EXPECT_TRUE(LineIn(L"Cannot apply backup status [value = 1]", 8, L"AntivirusScanAL::RefreshBackupStatus"));
    EXPECT_TRUE(BackupOf(plugin.scan));
}

// A sink that throws at the end of a reload is fenced there: the reload still counts, and every
// refresh after it runs.
TEST_F(Reload, AThrowingSinkSkipsNoLaterStep) {
    StartPlugin();
    first.throwAtEnd = true;
    WriteBytes(coreParent + L"\\stale.tmp", "x");
    plugin.env.update.SetStatistic(L"Antivirus", L"9.2", 7);
    EXPECT_EQ(0u, Install());
    EXPECT_TRUE(LineWith(L"unexpected exception [what = sink]", 4));
    EXPECT_EQ(2u, Engines()["reloadStatus"].asUInt());
    EXPECT_TRUE(LineWith(L"Signature [version = 9.2] [count = 7]", 32));
    EXPECT_FALSE(Exists(coreParent + L"\\stale.tmp"));
}

TEST_F(Reload, MaintenanceUpdatersInAnyCaseOnlyRecordStatusThree) {
    StartPlugin();
    for (const wchar_t* updater : {L"KITINSTALLER_SYNC", L"kitinstaller_sync"}) {
        plugin.env.settings.ResetCounts();
        avhost::ClearCapturedLines();
        EXPECT_EQ(0u, Install(updater, L"antiVIRUS"));
        EXPECT_EQ(std::vector<std::string>{"engines/reloadStatus=3"}, EnginesWrites());
        EXPECT_TRUE(LineWith(
            L"Skip reload engines because of maintenance update [updater = " + std::wstring(updater) + L"]", 8));
        EXPECT_EQ(-1, IndexOf(Entry(L"ComputeSigInfo")));
        EXPECT_EQ(-1, IndexOf(Entry(L"CleanCoreTempFolder")));
    }
    EXPECT_EQ(0, Reloads());
    EXPECT_TRUE(journal.lines.empty());
}

TEST_F(Reload, OnlyTheAntivirusComponentInAnyCaseIsReloaded) {
    StartPlugin();
    for (const wchar_t* component : {L"AntivirusX", L"Antivirus ", L"Anti"})
        EXPECT_EQ(0u, Install(L"Sched", component));
    EXPECT_EQ(0, Reloads());
    EXPECT_TRUE(EnginesWrites().empty());
    for (const wchar_t* component : {L"ANTIVIRUS", L"antivirus"}) EXPECT_EQ(0u, Install(L"Sched", component));
    EXPECT_EQ(2, Reloads());
}

TEST_F(Reload, SecondStartWithTheSameFolderInAnotherCaseWritesNothing) {
    std::wstring upper = engines;
    CharUpperBuffW(&upper[0], static_cast<DWORD>(upper.size()));
    Json::Value document(Json::objectValue);
    document["/AntivirusScan"]["engines"]["folder"] = Narrow(upper);
    document["/AntivirusScan"]["engines"]["reloadStatus"] = 2;
    plugin.env.settings.SetDocument(document);
    plugin.env.settings.ResetCounts();
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(EnginesWrites().empty());
    EXPECT_EQ(Narrow(upper), Engines()["folder"].asString());
    ASSERT_EQ(0u, plugin.UnInit());

    // An unconfirmed reload is recorded at the next start.
    document["/AntivirusScan"]["engines"]["reloadStatus"] = 1;
    plugin.env.settings.SetDocument(document);
    plugin.env.settings.ResetCounts();
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_EQ(2u, EnginesWrites().size());
}

class RecoveryReload : public Reload {
protected:
    void SetUp() override {
        Reload::SetUp();
        WriteBytes(common + L"\\installer\\wslib.db", "");
        plugin.env.manager.SetMissing(ids::kScanSpName);
        StartPlugin();
    }
};

TEST_F(RecoveryReload, ProviderStillMissingInvalidatesTheCacheAgain) {
    EXPECT_EQ(0u, Install());
    EXPECT_TRUE(LineWith(L"ScanSp load NOT-FIXED => invalidate_cache", 8));
    EXPECT_FALSE(Exists(common + L"\\installer\\wslib.db"));
    EXPECT_EQ(1u, Engines()["reloadStatus"].asUInt());
    EXPECT_TRUE(plugin.env.update.Restarts().empty());
    EXPECT_TRUE(journal.lines.empty());
    EXPECT_GE(IndexOf(Entry(L"CleanCoreTempFolder")), 0) << "the refreshes still run";
}

TEST_F(RecoveryReload, ProviderNowLoadableRecordsTheFolderAndAsksForARestart) {
    plugin.env.manager.Restore(ids::kScanSpName);
    for (size_t n = 1; n <= 2; ++n) { // every fixed installation asks again
        EXPECT_EQ(0u, Install());
        EXPECT_EQ(2u, Engines()["reloadStatus"].asUInt());
        EXPECT_EQ(Narrow(engines), Engines()["folder"].asString());
        ASSERT_EQ(n, plugin.env.update.Restarts().size());
        EXPECT_EQ(L"KXSecurityService", plugin.env.update.Restarts().back().serviceName);
    }
    EXPECT_LT(IndexOf(Entry(L"CleanCoreTempFolder")), IndexOf(Entry(L"RecoveryStep_RestartService")));
    EXPECT_EQ(0, plugin.env.manager.Outstanding(ids::kScanSpName));
    EXPECT_EQ(0, Reloads());
    EXPECT_TRUE(journal.lines.empty()) << "no sink is told of a recovery-mode reload";
    EXPECT_TRUE(Exists(common + L"\\installer\\wslib.db"));
}

} // namespace
