// Engine reloads as the update plug-in triggers them: an installed component delivered on the
// update plug-in's thread, the reload status and last-OK folder in the settings store, the
// engines sinks told around the provider's reload, the refreshes after every attempt, the
// recovery-mode reload, and the engines folders logged at Init.
#include "support/FileUtil.h"
#include "tests/common/PluginHarness.h"

#include <gtest/gtest.h>
#include <json/json.h>
#include <shlwapi.h>

#include <algorithm>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace testing_support;
namespace ids = qv::kxsdk::ids;
using IEnginesEvents = qv::kxsdk::AntivirusScan::IAntivirusScan::IEnginesEvents;

constexpr int32_t kFoldersCategory = 0;    // "common", "signaturesPatterns"
constexpr int32_t kEnginesCategory = 2;    // "scansp"
constexpr int32_t kCoreTempCategory = 17;  // "scansp"
constexpr int kRegisterEngines = 0;
constexpr int kGetEnginesVersion = 10;
constexpr DWORD kRecovering = 0x8004D082;
const wchar_t kKitPath[] = L"D:\\Kits\\av-2024.05";

std::string Narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

std::wstring Upper(std::wstring text) {
    CharUpperBuffW(&text[0], static_cast<DWORD>(text.size()));
    return text;
}

bool Exists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

void Touch(const std::wstring& path) {
    HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, h) << "cannot write " << Narrow(path);
    CloseHandle(h);
}

bool HasLine(const std::wstring& text, uint32_t severity) {
    for (const auto& line : avhost::CapturedLines()) {
        if (line.text == text && line.severity == severity) return true;
    }
    return false;
}

// Index of the first line with exactly this text, or -1.
int IndexOf(const std::wstring& text) {
    const auto lines = avhost::CapturedLines();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].text == text) return static_cast<int>(i);
    }
    return -1;
}

std::wstring Entry(const wchar_t* operation) { return std::wstring(L"-> AntivirusScanAL::") + operation + L"()"; }

class Journal {
public:
    void Add(const std::wstring& line) {
        std::lock_guard<std::mutex> hold(mutex_);
        lines_.push_back(line);
        threads_.push_back(GetCurrentThreadId());
    }
    std::vector<std::wstring> Lines() const {
        std::lock_guard<std::mutex> hold(mutex_);
        return lines_;
    }
    std::vector<DWORD> Threads() const {
        std::lock_guard<std::mutex> hold(mutex_);
        return threads_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::wstring> lines_;
    std::vector<DWORD> threads_;
};

class EnginesSink : public IEnginesEvents {
public:
    EnginesSink(Journal& journal, const wchar_t* name) : journal_(journal), name_(name) {}
    int OnReloadStarted(const qv::StringW& path) override {
        journal_.Add(name_ + L":started " + path.c_str());
        return 1359;  // answers are ignored
    }
    int OnReloadEnded(const qv::StringW& path, int error) override {
        journal_.Add(name_ + L":ended " + path.c_str() + L" " + std::to_wstring(error));
        return 1359;
    }

private:
    Journal& journal_;
    std::wstring name_;
};

class Reload : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, plugin.primary);
        ASSERT_NE(nullptr, plugin.scan);
        engines = TempFolder(L"reload-engines");
        plugin.env.servConfig.SetText(kEnginesCategory, L"scansp", (engines + L"\\").c_str());
        coreParent = TempFolder(L"reload-core");
        plugin.env.servConfig.SetText(kCoreTempCategory, L"scansp", (coreParent + L"\\scansp").c_str());
        common = TempFolder(L"reload-common");
        CreateDirectoryW((common + L"\\installer").c_str(), nullptr);
        plugin.env.servConfig.SetText(kFoldersCategory, L"common", common.c_str());
        plugin.env.scanSp.SetReloadHandler([this]() -> DWORD {
            journal.Add(L"reload with status " + std::to_wstring(Engines()["reloadStatus"].asUInt()));
            return reloadResult;
        });
    }
    void TearDown() override {
        for (const std::wstring& folder : {engines, coreParent, common, extra}) qv::file::DeleteFolderTree(folder.c_str());
    }

    void StartPlugin() {
        ASSERT_EQ(0u, plugin.Init());
        ASSERT_EQ(0u, plugin.Start());
        ASSERT_EQ(0u, (CallSlot<DWORD>(plugin.scan, kRegisterEngines, static_cast<IEnginesEvents*>(&first))));
        ASSERT_EQ(0u, (CallSlot<DWORD>(plugin.scan, kRegisterEngines, static_cast<IEnginesEvents*>(&second))));
        plugin.env.settings.ResetCounts();
        avhost::ClearCapturedLines();
    }

    DWORD Install(const wchar_t* updater, const wchar_t* component, const wchar_t* path = kKitPath) {
        return plugin.env.update.DeliverComponentInstalled(updater, component, path);
    }

    Json::Value Engines() const { return plugin.env.settings.Section(L"/AntivirusScan")["engines"]; }

    // "key=value" of every write to an "engines/..." key since the last reset.
    std::vector<std::string> EnginesWrites() const {
        std::vector<std::string> writes;
        for (const auto& set : plugin.env.settings.SetLog()) {
            if (set.key.rfind(L"engines/", 0) == 0) writes.push_back(Narrow(set.key) + "=" + set.value);
        }
        return writes;
    }

    int Reloads() const { return plugin.env.scanSp.GetCounts().reloads; }

    int BackupOptions() const {
        const auto options = plugin.env.scanSp.Options();
        return static_cast<int>(std::count_if(options.begin(), options.end(), [](const auto& o) { return o.option == 9; }));
    }

    PluginUnderTest plugin;
    Journal journal;
    EnginesSink first{journal, L"first"};
    EnginesSink second{journal, L"second"};
    DWORD reloadResult = 0;
    std::wstring engines, coreParent, common;
    std::wstring extra;  // a second engines folder, for the tests that need one
};

TEST_F(Reload, SuccessfulReloadIsAnnouncedAroundTheProviderAndRecordsTheFolder) {
    StartPlugin();
    EXPECT_EQ(2u, Engines()["reloadStatus"].asUInt());
    // The new kit lives in another engines folder; the recorded one loses its trailing backslash.
    extra = TempFolder(L"reload-new");
    const std::wstring newEngines = extra;
    plugin.env.servConfig.SetText(kEnginesCategory, L"scansp", (newEngines + L"\\").c_str());

    EXPECT_EQ(0u, Install(L"ScheduledUpdater", L"Antivirus"));

    const std::wstring kit = kKitPath;
    const std::vector<std::wstring> expected = {L"first:started " + kit, L"second:started " + kit,
                                                L"reload with status 1", L"first:ended " + kit + L" 0",
                                                L"second:ended " + kit + L" 0"};
    EXPECT_EQ(expected, journal.Lines());
    const auto deliveries = plugin.env.update.Deliveries();
    ASSERT_EQ(1u, deliveries.size());
    for (DWORD thread : journal.Threads()) EXPECT_EQ(deliveries[0].threadId, thread);
    EXPECT_EQ(1, Reloads());

    EXPECT_EQ(2u, Engines()["reloadStatus"].asUInt());
    EXPECT_EQ(Narrow(newEngines), Engines()["folder"].asString());
    const std::vector<std::string> writes = {"engines/reloadStatus=1", "engines/folder=\"" + Narrow(newEngines) + "\"",
                                             "engines/reloadStatus=2"};
    // Backslashes are escaped in the JSON text of the write log.
    std::vector<std::string> logged = EnginesWrites();
    for (auto& w : logged) {
        std::string plain;
        for (size_t i = 0; i < w.size(); ++i) {
            if (w[i] == '\\' && i + 1 < w.size() && w[i + 1] == '\\') ++i;
            plain += w[i];
        }
        w = plain;
    }
    EXPECT_EQ(writes, logged);

    EXPECT_TRUE(HasLine(L"[updater = ScheduledUpdater] [component = Antivirus] [enginesPath = " + kit + L"]", 32));
    EXPECT_TRUE(HasLine(L"OnReloadStarted [path = " + kit + L"]", 32));
    EXPECT_TRUE(HasLine(L"OnReloadEnded [path = " + kit + L"] [error = 0]", 32));
    EXPECT_TRUE(HasLine(L"[lastOk = " + engines + L"] [oldReloadStatus = 2] [newReloadStatus = 1]", 32));
    EXPECT_TRUE(HasLine(L"[oldPath = " + engines + L"] [newPath = " + newEngines + L"]", 32));
}

TEST_F(Reload, FailedReloadKeepsStatusOneAndTheOldFolder) {
    StartPlugin();
    reloadResult = 1450;
    EXPECT_EQ(0u, Install(L"ScheduledUpdater", L"Antivirus"));

    const std::wstring kit = kKitPath;
    const std::vector<std::wstring> expected = {L"first:started " + kit, L"second:started " + kit,
                                                L"reload with status 1", L"first:ended " + kit + L" 1450",
                                                L"second:ended " + kit + L" 1450"};
    EXPECT_EQ(expected, journal.Lines());
    EXPECT_TRUE(HasLine(L"OnReloadEnded [path = " + kit + L"] [error = 1450]", 4));
    EXPECT_EQ(1u, Engines()["reloadStatus"].asUInt());
    EXPECT_EQ(Narrow(engines), Engines()["folder"].asString());
    EXPECT_EQ(std::vector<std::string>{"engines/reloadStatus=1"}, EnginesWrites());

    // The next successful reload confirms the same folder: status 1 is not "already recorded".
    reloadResult = 0;
    EXPECT_EQ(0u, Install(L"ScheduledUpdater", L"Antivirus"));
    EXPECT_EQ(2u, Engines()["reloadStatus"].asUInt());
}

TEST_F(Reload, EveryAttemptIsFollowedByTheRefreshesInOrder) {
    StartPlugin();
    ASSERT_TRUE(PathIsDirectoryW((coreParent + L"\\scansp").c_str()));
    for (DWORD result : {0ul, 1450ul}) {
        SCOPED_TRACE(result);
        reloadResult = result;
        Touch(coreParent + L"\\stale.tmp");
        plugin.env.update.SetStatistic(L"Antivirus", L"9.1", static_cast<int32_t>(result + 1));
        const int backupBefore = BackupOptions();
        avhost::ClearCapturedLines();

        EXPECT_EQ(0u, Install(L"ScheduledUpdater", L"Antivirus"));

        const int ended = IndexOf(L"OnReloadEnded [path = " + std::wstring(kKitPath) + L"] [error = " +
                                  std::to_wstring(result) + L"]");
        const int backup = IndexOf(Entry(L"RefreshBackupStatus"));
        const int sigInfo = IndexOf(Entry(L"ComputeSigInfo"));
        const int modes = IndexOf(Entry(L"RefreshScanModes"));
        const int clean = IndexOf(Entry(L"CleanCoreTempFolder"));
        ASSERT_GE(ended, 0);
        EXPECT_LT(ended, backup);
        EXPECT_LT(backup, sigInfo);
        EXPECT_LT(sigInfo, modes);
        EXPECT_LT(modes, clean);
        EXPECT_EQ(backupBefore + 1, BackupOptions());
        EXPECT_TRUE(HasLine(L"Signature [version = 9.1] [count = " + std::to_wstring(result + 1) + L"]", 32));
        EXPECT_FALSE(Exists(coreParent + L"\\stale.tmp"));
        EXPECT_TRUE(PathIsDirectoryW((coreParent + L"\\scansp").c_str()));
    }
    // The refreshed cache is what the getters answer.
    qv::StringW version;
    ASSERT_EQ(0u, (CallSlot<DWORD>(plugin.scan, kGetEnginesVersion, &version)));
    EXPECT_EQ(std::wstring(L"9.1"), version.c_str());
}

TEST_F(Reload, MaintenanceUpdatersOnlyRecordStatusThree) {
    StartPlugin();
    const wchar_t* const updaters[] = {L"KITINSTALLER_SYNC", L"kitinstaller_sync",
                                       L"KitInstaller_{7e5b1734-06ef-4d5f-a7da-d1824bb1b954}"};
    for (const wchar_t* updater : updaters) {
        SCOPED_TRACE(Narrow(updater));
        plugin.env.settings.ResetCounts();
        avhost::ClearCapturedLines();
        EXPECT_EQ(0u, Install(updater, L"antiVIRUS"));
        EXPECT_EQ(std::vector<std::string>{"engines/reloadStatus=3"}, EnginesWrites());
        EXPECT_EQ(3u, Engines()["reloadStatus"].asUInt());
        EXPECT_TRUE(HasLine(L"Skip reload engines because of maintenance update [updater = " + std::wstring(updater) + L"]", 8));
        EXPECT_EQ(-1, IndexOf(Entry(L"ReloadEngines")));
        EXPECT_EQ(-1, IndexOf(Entry(L"ComputeSigInfo")));
        EXPECT_EQ(-1, IndexOf(Entry(L"CleanCoreTempFolder")));
    }
    EXPECT_EQ(0, Reloads());
    EXPECT_TRUE(journal.Lines().empty());

    // Another component from a maintenance updater: the skip is logged, nothing is written.
    plugin.env.settings.ResetCounts();
    avhost::ClearCapturedLines();
    EXPECT_EQ(0u, Install(L"kitInstaller_sync", L"Bases"));
    EXPECT_TRUE(HasLine(L"Skip reload engines because of maintenance update [updater = kitInstaller_sync]", 8));
    EXPECT_TRUE(EnginesWrites().empty());
    EXPECT_EQ(3u, Engines()["reloadStatus"].asUInt());

    // Only the whole name makes an updater a maintenance one.
    EXPECT_EQ(0u, Install(L"kitInstaller_sync2", L"Antivirus"));
    EXPECT_EQ(1, Reloads());
    EXPECT_EQ(2u, Engines()["reloadStatus"].asUInt());
}

TEST_F(Reload, OnlyTheAntivirusComponentInAnyCaseIsReloaded) {
    StartPlugin();
    for (const wchar_t* component : {L"AntivirusX", L"Antivirus ", L"Anti", L"Bases"}) {
        SCOPED_TRACE(Narrow(component));
        avhost::ClearCapturedLines();
        EXPECT_EQ(0u, Install(L"ScheduledUpdater", component));
        EXPECT_EQ(0, Reloads());
        EXPECT_EQ(-1, IndexOf(Entry(L"ComputeSigInfo")));
    }
    EXPECT_TRUE(EnginesWrites().empty());
    EXPECT_TRUE(journal.Lines().empty());

    int reloads = 0;
    for (const wchar_t* component : {L"ANTIVIRUS", L"antivirus", L"AntiVirus"}) {
        EXPECT_EQ(0u, Install(L"ScheduledUpdater", component));
        EXPECT_EQ(++reloads, Reloads());
    }
    // A missing updater name is no reason to skip.
    EXPECT_EQ(0u, Install(nullptr, L"Antivirus"));
    EXPECT_EQ(++reloads, Reloads());
    EXPECT_TRUE(HasLine(L"[updater = ] [component = Antivirus] [enginesPath = " + std::wstring(kKitPath) + L"]", 32));
}

TEST_F(Reload, MissingPathOrComponentIsAnInvalidParameter) {
    StartPlugin();
    struct Case {
        const wchar_t* component;
        const wchar_t* path;
    };
    const Case cases[] = {{L"Antivirus", L""}, {L"Antivirus", nullptr}, {L"", kKitPath}, {nullptr, kKitPath}};
    for (const Case& c : cases) {
        EXPECT_EQ(87u, Install(L"ScheduledUpdater", c.component, c.path));
        // Maintenance updaters are no exception.
        EXPECT_EQ(87u, Install(L"kitInstaller_sync", c.component, c.path));
    }
    EXPECT_EQ(0, Reloads());
    EXPECT_TRUE(EnginesWrites().empty());
    EXPECT_TRUE(journal.Lines().empty());
    EXPECT_FALSE(avhost::Contains(L"Skip reload engines"));
    EXPECT_TRUE(HasLine(L"[updater = ScheduledUpdater] [component = ] [enginesPath = " + std::wstring(kKitPath) + L"]", 32));
    EXPECT_TRUE(HasLine(L"[updater = ScheduledUpdater] [component = Antivirus] [enginesPath = ]", 32));
}

TEST_F(Reload, SettingsWriteFailuresAreLoggedAndTheReloadGoesOn) {
    StartPlugin();
    plugin.env.settings.FailAllSets(true);
    EXPECT_EQ(0u, Install(L"ScheduledUpdater", L"Antivirus"));
    EXPECT_EQ(1, Reloads());
    EXPECT_TRUE(HasLine(L"Cannot save reload info [lastOk = " + engines + L"]", 8));
    EXPECT_TRUE(HasLine(L"Cannot save reload info [oldPath = " + engines + L"] [newPath = " + engines + L"]", 8));
    EXPECT_EQ(2u, Engines()["reloadStatus"].asUInt());  // the store kept what it had

    // The refused status write still left status 1 in memory, so the folder is written again.
    plugin.env.settings.FailAllSets(false);
    plugin.env.settings.ResetCounts();
    plugin.env.settings.FailSetNumber(1);
    EXPECT_EQ(0u, Install(L"ScheduledUpdater", L"Antivirus"));
    const std::vector<std::string> writes = EnginesWrites();
    ASSERT_EQ(3u, writes.size());
    EXPECT_EQ("engines/reloadStatus=2", writes[2]);
}

TEST_F(Reload, SecondStartWithTheSameFolderInAnotherCaseWritesNothing) {
    Json::Value document(Json::objectValue);
    document["/AntivirusScan"]["engines"]["folder"] = Narrow(Upper(engines));
    document["/AntivirusScan"]["engines"]["reloadStatus"] = 2;
    plugin.env.settings.SetDocument(document);
    plugin.env.settings.ResetCounts();
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(EnginesWrites().empty());
    ASSERT_EQ(0u, plugin.UnInit());

    plugin.env.servConfig.SetText(kEnginesCategory, L"scansp", (Upper(engines) + L"\\").c_str());
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(EnginesWrites().empty());
    EXPECT_EQ(Narrow(Upper(engines)), Engines()["folder"].asString());
    ASSERT_EQ(0u, plugin.UnInit());

    // An unconfirmed reload, or another folder, is recorded at the next start.
    document["/AntivirusScan"]["engines"]["reloadStatus"] = 1;
    plugin.env.settings.SetDocument(document);
    plugin.env.settings.ResetCounts();
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_EQ(2u, EnginesWrites().size());
    EXPECT_EQ(2u, Engines()["reloadStatus"].asUInt());
    ASSERT_EQ(0u, plugin.UnInit());

    extra = TempFolder(L"reload-other");
    const std::wstring other = extra;
    plugin.env.servConfig.SetText(kEnginesCategory, L"scansp", other.c_str());
    plugin.env.settings.ResetCounts();
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_EQ(2u, EnginesWrites().size());
    EXPECT_EQ(Narrow(other), Engines()["folder"].asString());
}

TEST_F(Reload, InstallationArrivingAfterUnInitFindsNoProviderAndDoesNoHarm) {
    StartPlugin();
    ASSERT_EQ(0u, plugin.UnInit());  // the host stopped nothing: the update sink is still registered
    EXPECT_EQ(0u, Install(L"ScheduledUpdater", L"Antivirus"));
    EXPECT_EQ(0, Reloads());
    EXPECT_TRUE(journal.Lines().empty());
    EXPECT_FALSE(avhost::Contains(L"OnReloadStarted"));
    EXPECT_TRUE(EnginesWrites().empty());
    EXPECT_GE(IndexOf(Entry(L"CleanCoreTempFolder")), 0);
    EXPECT_TRUE(plugin.env.update.Restarts().empty());
}

class RecoveryReload : public Reload {
protected:
    void SetUp() override {
        Reload::SetUp();
        Touch(common + L"\\installer\\wslib.db");
        Touch(common + L"\\installer\\wslib.m");
        plugin.env.manager.SetMissing(ids::kScanSpName);
        StartPlugin();
        plugin.env.manager.ResetCounts();
    }
};

TEST_F(RecoveryReload, ProviderStillMissingInvalidatesTheCacheAgain) {
    EXPECT_EQ(0u, Install(L"ScheduledUpdater", L"Antivirus"));

    const int check = IndexOf(L"EnginesRecoveryInProgress: check new engines folder integrity.");
    const int load = IndexOf(L"ScanSp not loaded => load now");
    const int notFixed = IndexOf(L"ScanSp load NOT-FIXED => invalidate_cache");
    const int invalidate = IndexOf(Entry(L"RecoveryStep_InvalidateCache"));
    ASSERT_GE(check, 0);
    EXPECT_LT(check, load);
    EXPECT_LT(load, notFixed);
    EXPECT_LT(notFixed, invalidate);
    EXPECT_TRUE(HasLine(L"ScanSp load NOT-FIXED => invalidate_cache", 8));
    EXPECT_FALSE(Exists(common + L"\\installer\\wslib.db"));
    EXPECT_FALSE(Exists(common + L"\\installer\\wslib.m"));
    EXPECT_EQ(1, plugin.env.manager.CountsOf(ids::kScanSpName).attempts);

    EXPECT_EQ(1u, Engines()["reloadStatus"].asUInt());
    EXPECT_TRUE(plugin.env.update.Restarts().empty());
    EXPECT_TRUE(journal.Lines().empty());
    EXPECT_EQ(0, Reloads());
    // The refreshes still run; the signature information is withheld.
    bool withheld = false;
    for (const auto& line : avhost::CapturedLines()) {
        if (line.text == L"EnginesRecoveryInProgress..." && line.severity == 4 &&
            line.function == L"AntivirusScanAL::ComputeSigInfo")
            withheld = true;
    }
    EXPECT_TRUE(withheld);
    EXPECT_GE(IndexOf(Entry(L"CleanCoreTempFolder")), 0);
}

TEST_F(RecoveryReload, ProviderNowLoadableRecordsTheFolderAndAsksForARestart) {
    plugin.env.manager.Restore(ids::kScanSpName);
    EXPECT_EQ(0u, Install(L"ScheduledUpdater", L"Antivirus"));

    EXPECT_TRUE(HasLine(L"ScanSp not loaded => load now", 8));
    EXPECT_TRUE(HasLine(L"ScanSp load FIXED => restart service required", 8));
    EXPECT_EQ(2u, Engines()["reloadStatus"].asUInt());
    EXPECT_EQ(Narrow(engines), Engines()["folder"].asString());
    const auto restarts = plugin.env.update.Restarts();
    ASSERT_EQ(1u, restarts.size());
    EXPECT_EQ(1u, restarts[0].value);
    EXPECT_EQ(L"KXSecurityService", restarts[0].serviceName);
    // The restart is the last step, after the refreshes.
    EXPECT_LT(IndexOf(Entry(L"CleanCoreTempFolder")), IndexOf(Entry(L"RecoveryStep_RestartService")));

    // The provider was only tried: handed back at once, never asked to reload, no sink told.
    EXPECT_EQ(0, plugin.env.manager.Outstanding(ids::kScanSpName));
    EXPECT_EQ(1, plugin.env.manager.CountsOf(ids::kScanSpName).gets);
    EXPECT_EQ(1, plugin.env.manager.CountsOf(ids::kScanSpName).releases);
    EXPECT_EQ(0, Reloads());
    EXPECT_TRUE(journal.Lines().empty());
    EXPECT_TRUE(Exists(common + L"\\installer\\wslib.db"));

    // This process stays in recovery until the restart.
    qv::StringW version;
    EXPECT_EQ(kRecovering, (CallSlot<DWORD>(plugin.scan, kGetEnginesVersion, &version)));
    EXPECT_EQ(0u, Install(L"ScheduledUpdater", L"Antivirus"));
    EXPECT_EQ(2u, plugin.env.update.Restarts().size());
    EXPECT_EQ(0, plugin.env.manager.Outstanding(ids::kScanSpName));
}

TEST_F(RecoveryReload, InstallationArrivingAfterUnInitHasNoManagerToAsk) {
    plugin.env.manager.Restore(ids::kScanSpName);
    ASSERT_EQ(0u, plugin.UnInit());
    EXPECT_EQ(0u, Install(L"ScheduledUpdater", L"Antivirus"));
    EXPECT_TRUE(HasLine(L"Null component manager", 4));
    EXPECT_TRUE(HasLine(L"ScanSp load NOT-FIXED => invalidate_cache", 8));
    EXPECT_EQ(0, plugin.env.manager.CountsOf(ids::kScanSpName).attempts);
    EXPECT_TRUE(plugin.env.update.Restarts().empty());
}

// ---- engines folders logged at Init --------------------------------------------------------

class EnginesFolders : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, plugin.primary);
        sig = TempFolder(L"sigfolders");
        for (const wchar_t* name : {L"engines-1", L"engines-2", L"other"}) CreateDirectoryW((sig + L"\\" + name).c_str(), nullptr);
        Touch(sig + L"\\engines-notes.txt");
        plugin.env.servConfig.SetText(kEnginesCategory, L"scansp", (sig + L"\\engines-2\\").c_str());
        Json::Value document(Json::objectValue);
        document["/AntivirusScan"]["engines"]["folder"] = "D:\\old\\engines";
        document["/AntivirusScan"]["engines"]["reloadStatus"] = 3;
        plugin.env.settings.SetDocument(document);
        avhost::ClearCapturedLines();
    }
    void TearDown() override { qv::file::DeleteFolderTree(sig.c_str()); }

    // The "  => " lines in the order logged.
    std::vector<std::wstring> Listed() {
        std::vector<std::wstring> folders;
        for (const auto& line : avhost::CapturedLines()) {
            if (line.text.rfind(L"  => ", 0) == 0) folders.push_back(line.text.substr(5));
        }
        return folders;
    }

    PluginUnderTest plugin;
    std::wstring sig;
};

TEST_F(EnginesFolders, InitLogsTheRecordAndTheFoldersThatMatchThePattern) {
    plugin.env.servConfig.SetText(kFoldersCategory, L"signaturesPatterns", (sig + L"\\engines-*").c_str());
    ASSERT_EQ(0u, plugin.Init());

    const std::wstring lines[] = {L"Last reload engines status = 3", L"LastOk engines folder = D:\\old\\engines",
                                  L"Latest engines folder = " + sig + L"\\engines-2", L"Engines folders [size = 2] :"};
    int previous = -1;
    for (const std::wstring& text : lines) {
        EXPECT_TRUE(HasLine(text, 32)) << Narrow(text);
        const int at = IndexOf(text);
        EXPECT_LT(previous, at) << Narrow(text);
        previous = at;
    }
    const std::vector<std::wstring> listed = Listed();
    EXPECT_EQ((std::set<std::wstring>{sig + L"\\engines-1", sig + L"\\engines-2"}),
              std::set<std::wstring>(listed.begin(), listed.end()));
    EXPECT_EQ(2u, listed.size());
    EXPECT_LT(previous, IndexOf(L"  => " + listed.at(0)));
    // Logged before the provider was looked up and the new folder recorded.
    EXPECT_LT(previous, IndexOf(L"[oldPath = D:\\old\\engines] [newPath = " + sig + L"\\engines-2]"));
}

TEST_F(EnginesFolders, EveryDirectoryEntryCountsAndMissingPatternsGiveNone) {
    // "." and ".." are directory entries like any other.
    plugin.env.servConfig.SetText(kFoldersCategory, L"signaturesPatterns", (sig + L"\\*").c_str());
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(HasLine(L"Engines folders [size = 5] :", 32));
    const std::vector<std::wstring> listed = Listed();
    EXPECT_EQ((std::set<std::wstring>{sig + L"\\.", sig + L"\\..", sig + L"\\engines-1", sig + L"\\engines-2",
                                      sig + L"\\other"}),
              std::set<std::wstring>(listed.begin(), listed.end()));
    ASSERT_EQ(0u, plugin.UnInit());

    avhost::ClearCapturedLines();
    plugin.env.servConfig.SetText(kFoldersCategory, L"signaturesPatterns", (sig + L"\\missing\\*").c_str());
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(HasLine(L"Path not found [pattern = " + sig + L"\\missing\\*]", 4));
    EXPECT_TRUE(HasLine(L"Engines folders [size = 0] :", 32));
    ASSERT_EQ(0u, plugin.UnInit());

    avhost::ClearCapturedLines();
    plugin.env.servConfig.ClearText(kFoldersCategory, L"signaturesPatterns");
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(avhost::Contains(L"No sig folder pattern"));
    EXPECT_TRUE(HasLine(L"Engines folders [size = 0] :", 32));
    EXPECT_TRUE(Listed().empty());
}

} // namespace
