// The engines recovery as the host lives it: Init without the scan service provider, the
// delayed start that reports, cleans, fills in and asks for an update, then the installations
// that either fix the engines (restart requested) or do not (cache invalidated again).
#include "support/FileUtil.h"
#include "tests/common/PluginHarness.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <string>
#include <vector>

namespace {

using namespace testing_support;
namespace ids = qv::kxsdk::ids;
namespace as = qv::kxsdk::AntivirusScan;

constexpr int32_t kFolders = 0;  // "common"
constexpr int32_t kEngines = 2;  // "scansp"
constexpr DWORD kRecovering = 0x8004D082;

// ---- files -------------------------------------------------------------------------------

void WriteBytes(const std::wstring& path, const std::string& bytes) {
    HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, h) << "cannot write test file";
    DWORD written = 0;
    if (!bytes.empty()) WriteFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    CloseHandle(h);
}

bool Exists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

// The content of a file, or "<missing>".
std::string ReadBytes(const std::wstring& path) {
    HANDLE h = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE) return "<missing>";
    std::string bytes;
    char buffer[4096];
    DWORD got = 0;
    while (ReadFile(h, buffer, sizeof buffer, &got, nullptr) && got > 0) bytes.append(buffer, got);
    CloseHandle(h);
    return bytes;
}

std::string Narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

// ---- log -----------------------------------------------------------------------------------

int CountLines(const std::wstring& text, uint32_t severity) {
    int n = 0;
    for (const auto& line : avhost::CapturedLines()) {
        if (line.text == text && line.severity == severity) ++n;
    }
    return n;
}

int CountStartingWith(const std::wstring& prefix) {
    int n = 0;
    for (const auto& line : avhost::CapturedLines()) {
        if (line.text.rfind(prefix, 0) == 0) ++n;
    }
    return n;
}

// Index of the first line with exactly this text, or -1.
int IndexOf(const std::wstring& text) {
    const auto lines = avhost::CapturedLines();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].text == text) return static_cast<int>(i);
    }
    return -1;
}

// ---- fixture -------------------------------------------------------------------------------

const char kUpdateTxt[] = "[Signatures]\nCount = 4242\nDate = 2024-05-01\nVersion = 13.1.0.777\n";

class Recovery : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, plugin.primary);
        ASSERT_NE(nullptr, plugin.scan);
        engines = Fresh(L"engines");
        CreateDirectoryW((engines + L"\\Plugins").c_str(), nullptr);
        common = Fresh(L"common");
        CreateDirectoryW((common + L"\\installer").c_str(), nullptr);
        WriteCache();
        lastOk = Fresh(L"lastok");
        CreateDirectoryW((lastOk + L"\\Plugins").c_str(), nullptr);
        WriteBytes(lastOk + L"\\Plugins\\update.txt", kUpdateTxt);

        plugin.env.servConfig.SetText(kEngines, L"scansp", engines.c_str());
        plugin.env.servConfig.SetText(kFolders, L"common", common.c_str());
        Json::Value document(Json::objectValue);
        document["/AntivirusScan"]["engines"]["folder"] = Narrow(lastOk);
        document["/AntivirusScan"]["engines"]["reloadStatus"] = 2;
        plugin.env.settings.SetDocument(document);

        host::UpdateSettingsRecord settings;
        settings.proxies = {{L"proxy.corp.example", 3128, L"svc-av", L"s3cret"}, {L"10.0.0.1", 8080, L"", L""}};
        settings.locations = {{L"https://upd1.example/av", 1}, {L"\\\\share\\updates", 2}};
        settings.schedule = 240;
        settings.timeout = 90;
        plugin.env.update.SetReportedSettings(settings);
        reportedSettings = settings;

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

    void WriteCache() {
        WriteBytes(common + L"\\installer\\wslib.db", "cache-db");
        WriteBytes(common + L"\\installer\\wslib.m", "cache-m");
    }
    bool CacheGone(const std::wstring& folder) {
        return !Exists(folder + L"\\installer\\wslib.db") && !Exists(folder + L"\\installer\\wslib.m");
    }
    void InitAndStart() {
        ASSERT_EQ(0u, plugin.Init());
        ASSERT_EQ(0u, plugin.Start());
    }
    Json::Value Engines() const { return plugin.env.settings.Section(L"/AntivirusScan")["engines"]; }
    DWORD Install(const wchar_t* path = L"C:\\new-engines") {
        return plugin.env.update.DeliverComponentInstalled(L"ScheduledUpdater", L"Antivirus", path);
    }

    PluginUnderTest plugin;
    std::vector<std::wstring> folders;
    std::wstring engines, common, lastOk;
    host::UpdateSettingsRecord reportedSettings;
};

// ---- the whole story -----------------------------------------------------------------------

TEST_F(Recovery, StartsAtDelayedStartAndEndsWithARestartOnceTheEnginesLoad) {
    WriteBytes(engines + L"\\scanclient.dll", "MZ-real-engine");
    InitAndStart();
    EXPECT_EQ(1, CountLines(L"Dependency not found : ScanSp.", 8));
    // Nothing of the recovery happens before the delayed start.
    EXPECT_EQ(0, plugin.env.telemetry.EventCount());
    EXPECT_FALSE(CacheGone(common));
    EXPECT_TRUE(plugin.env.update.Requests().empty());

    ASSERT_EQ(0u, plugin.DelayedStart());
    EXPECT_EQ(1, CountLines(L"[(Engines-Recovery)]", 8));

    // The announcement, member by member, handed over on the start-up thread with flags 0.
    const auto events = plugin.env.telemetry.Events();
    ASSERT_EQ(1u, events.size());
    const Json::Value& event = events[0].event;
    EXPECT_EQ(0, events[0].flags);
    EXPECT_EQ(GetCurrentThreadId(), events[0].threadId);
    ASSERT_TRUE(event.isObject());
    const std::vector<std::string> expectedNames = {"error",           "error_code",    "event_name",
                                                    "event_version",   "issue",         "qv_av_signatures_version"};
    EXPECT_EQ(expectedNames, event.getMemberNames());
    EXPECT_TRUE(event["event_name"].isString());
    EXPECT_EQ("m_critical_issue_occurred", event["event_name"].asString());
    EXPECT_TRUE(event["event_version"].isString());
    EXPECT_EQ("1.0", event["event_version"].asString());
    EXPECT_EQ("AntivirusScan.EnginesRecoveryStarted", event["issue"].asString());
    EXPECT_TRUE(event["error"].isString());
    EXPECT_EQ("full", event["error"].asString());
    EXPECT_EQ(Json::intValue, event["error_code"].type());
    EXPECT_EQ(1805, event["error_code"].asInt());
    EXPECT_TRUE(event["qv_av_signatures_version"].isString());
    EXPECT_EQ("13.1.0.777", event["qv_av_signatures_version"].asString());
    // Reached under its name and packed id, and handed back when the event is out.
    EXPECT_EQ(1, plugin.env.manager.CountsOf(ids::kTelemetryName).gets);
    EXPECT_EQ(0, plugin.env.manager.Outstanding(ids::kTelemetryName));

    // Cache gone, placeholders where files were missing, the existing engine file untouched.
    EXPECT_TRUE(CacheGone(common));
    EXPECT_TRUE(Exists(common + L"\\installer"));
    EXPECT_EQ("", ReadBytes(engines + L"\\qvcore.dll"));
    EXPECT_EQ("MZ-real-engine", ReadBytes(engines + L"\\scanclient.dll"));
    EXPECT_EQ("", ReadBytes(engines + L"\\smartdbv2.dat"));
    EXPECT_EQ(1, CountLines(L"Missing file created. [path = " + engines + L"\\qvcore.dll]", 32));
    EXPECT_EQ(0, CountStartingWith(L"Missing file created. [path = " + engines + L"\\scanclient.dll"));
    EXPECT_EQ(1, CountLines(L"Generating missing file. [path = " + engines + L"\\scanclient.dll]", 32));

    // The signature update, with the update plug-in's own settings passed through.
    const auto requests = plugin.env.update.Requests();
    ASSERT_EQ(1u, requests.size());
    const host::UpdateRequestRecord& request = requests[0];
    EXPECT_EQ(L"Antivirus-Engines-Recovery", request.requester);
    EXPECT_EQ(reportedSettings.proxies, request.proxies);
    EXPECT_EQ(reportedSettings.locations, request.locations);
    EXPECT_EQ(240u, request.schedule);
    EXPECT_EQ(90u, request.timeout);
    EXPECT_EQ(L"", request.reserved);
    EXPECT_EQ(0u, request.options);
    EXPECT_EQ(0u, request.interactive);
    EXPECT_EQ(1u, request.signaturesOnly);

    // The steps come in their order, after the plug-in files of the scan type.
    const int plugins = IndexOf(L"-> AntivirusScanAL::GenerateNonRemoteScanPlugins()");
    const int telemetry = IndexOf(L"-> AntivirusScanAL::SendEnginesRecoveryStartedEvent()");
    const int cache = IndexOf(L"-> AntivirusScanAL::RecoveryStep_InvalidateCache()");
    const int dummies = IndexOf(L"-> AntivirusScanAL::RecoveryStep_GenDummyMissingFiles()");
    const int update = IndexOf(L"-> AntivirusScanAL::RecoveryStep_StartUpdateSig()");
    ASSERT_NE(-1, plugins);
    EXPECT_LT(plugins, telemetry);
    EXPECT_LT(telemetry, cache);
    EXPECT_LT(cache, dummies);
    EXPECT_LT(dummies, update);

    // An installation while the provider is still missing: the cache goes again, no restart.
    WriteCache();
    avhost::ClearCapturedLines();
    EXPECT_EQ(0u, Install());
    EXPECT_EQ(1, CountLines(L"EnginesRecoveryInProgress: check new engines folder integrity.", 8));
    EXPECT_EQ(1, CountLines(L"ScanSp not loaded => load now", 8));
    EXPECT_EQ(1, CountLines(L"ScanSp load NOT-FIXED => invalidate_cache", 8));
    EXPECT_TRUE(CacheGone(common));
    EXPECT_EQ(1u, Engines()["reloadStatus"].asUInt());
    EXPECT_EQ(Narrow(lastOk), Engines()["folder"].asString());
    EXPECT_TRUE(plugin.env.update.Restarts().empty());
    EXPECT_EQ(1u, plugin.env.update.Requests().size()) << "the plug-in starts no further update";
    EXPECT_EQ(0, plugin.env.scanSp.GetCounts().reloads);

    // The provider loads again: folder recorded with status 2, restart asked for, provider
    // handed back at once (this process keeps running without engines).
    plugin.env.manager.Restore(ids::kScanSpName);
    WriteCache();
    avhost::ClearCapturedLines();
    EXPECT_EQ(0u, Install());
    EXPECT_EQ(1, CountLines(L"ScanSp load FIXED => restart service required", 8));
    EXPECT_EQ(Narrow(engines), Engines()["folder"].asString());
    EXPECT_EQ(2u, Engines()["reloadStatus"].asUInt());
    const auto restarts = plugin.env.update.Restarts();
    ASSERT_EQ(1u, restarts.size());
    EXPECT_EQ(1u, restarts[0].value);
    EXPECT_EQ(L"KXSecurityService", restarts[0].serviceName);
    EXPECT_EQ(1, CountLines(L"Restart request sent to the Update service", 32));
    EXPECT_FALSE(CacheGone(common)) << "a fixed installation keeps the cache";
    EXPECT_EQ(1, plugin.env.manager.CountsOf(ids::kScanSpName).gets);
    EXPECT_EQ(3, plugin.env.manager.CountsOf(ids::kScanSpName).attempts);
    EXPECT_EQ(0, plugin.env.manager.Outstanding(ids::kScanSpName));
    EXPECT_EQ(0, plugin.env.scanSp.GetCounts().reloads) << "no reload is asked of the provider in recovery";
    EXPECT_EQ(1u, plugin.env.update.Requests().size());

    // The flag stays for the life of the object: the engines are loaded by the restarted service.
    as::ScanMode primary = as::ScanModeLocalFull, fallback = as::ScanModeLocalFull;
    EXPECT_EQ(kRecovering, (CallSlot<DWORD>(plugin.scan, 7, &primary, &fallback)));

    plugin.StopAll();
    EXPECT_TRUE(plugin.env.manager.Balanced());
}

TEST_F(Recovery, QueriesAnswerRecoveryInProgressWithEmptyOutputs) {
    InitAndStart();
    for (int round = 0; round < 2; ++round) {  // before and after the delayed start
        avhost::ClearCapturedLines();
        as::ScanMode primary = as::ScanModeLocalFull, fallback = as::ScanModeRemote;
        EXPECT_EQ(kRecovering, (CallSlot<DWORD>(plugin.scan, 7, &primary, &fallback)));
        EXPECT_EQ(as::ScanModeNone, primary);
        EXPECT_EQ(as::ScanModeNone, fallback);
        qv::StringW version(L"stale");
        EXPECT_EQ(kRecovering, (CallSlot<DWORD>(plugin.scan, 10, &version)));
        EXPECT_TRUE(version.IsEmpty());
        uint64_t count = 77;
        EXPECT_EQ(kRecovering, (CallSlot<DWORD>(plugin.scan, 11, &count)));
        EXPECT_EQ(0u, count);
        EXPECT_EQ(3, CountLines(L"EnginesRecoveryInProgress...", 8));
        EXPECT_EQ(0, plugin.env.update.GetCounts().statistics) << "nothing is computed during recovery";
        ASSERT_EQ(0u, plugin.DelayedStart());
    }
}

TEST_F(Recovery, DoesNotRunWhenTheProviderIsThere) {
    plugin.env.manager.Restore(ids::kScanSpName);
    InitAndStart();
    ASSERT_EQ(0u, plugin.DelayedStart());
    EXPECT_EQ(0, CountLines(L"[(Engines-Recovery)]", 8));
    EXPECT_EQ(0, plugin.env.telemetry.EventCount());
    EXPECT_EQ("cache-db", ReadBytes(common + L"\\installer\\wslib.db"));
    EXPECT_FALSE(Exists(engines + L"\\qvcore.dll"));
    EXPECT_TRUE(plugin.env.update.Requests().empty());
}

// ---- the telemetry event -------------------------------------------------------------------

TEST_F(Recovery, EventNamesTheScanTypeAndAnEmptyVersionWhenNoneCanBeRead) {
    struct Case {
        const wchar_t* config;
        const char* word;
    };
    const Case cases[] = {{L"light", "light"}, {L"remote", "remote"}};
    plugin.env.remoteScan.SetStatus(true);
    for (const Case& c : cases) {
        SCOPED_TRACE(Narrow(c.config));
        plugin.env.servConfig.SetText(51, L"BASE", c.config);
        plugin.env.telemetry.Clear();
        InitAndStart();
        ASSERT_EQ(0u, plugin.DelayedStart());
        ASSERT_EQ(1, plugin.env.telemetry.EventCount());
        EXPECT_EQ(c.word, plugin.env.telemetry.Events()[0].event["error"].asString());
        EXPECT_EQ("13.1.0.777", plugin.env.telemetry.Events()[0].event["qv_av_signatures_version"].asString());
        plugin.StopAll();
    }

    // First start-up: no last-OK folder, so no version; the event still goes out.
    plugin.env.settings.SetDocument(Json::Value(Json::objectValue));
    plugin.env.servConfig.SetText(51, L"BASE", L"full");
    plugin.env.telemetry.Clear();
    avhost::ClearCapturedLines();
    InitAndStart();
    ASSERT_EQ(0u, plugin.DelayedStart());
    ASSERT_EQ(1, plugin.env.telemetry.EventCount());
    const Json::Value event = plugin.env.telemetry.Events()[0].event;
    EXPECT_TRUE(event["qv_av_signatures_version"].isString());
    EXPECT_EQ("", event["qv_av_signatures_version"].asString());
    EXPECT_EQ(1805, event["error_code"].asInt());
    EXPECT_EQ(1, CountLines(L"Cannot obtain engines info [path = ]", 8));
}

TEST_F(Recovery, EventVersionIsSentAsUtf8) {
    // update.txt is read byte by byte; a Latin-1 byte becomes one character, then UTF-8.
    WriteBytes(lastOk + L"\\Plugins\\update.txt", "[Signatures]\nCount = 1\nDate = x\nVersion = 13.0-\xE9\n");
    InitAndStart();
    ASSERT_EQ(0u, plugin.DelayedStart());
    ASSERT_EQ(1, plugin.env.telemetry.EventCount());
    EXPECT_EQ("13.0-\xC3\xA9", plugin.env.telemetry.Events()[0].event["qv_av_signatures_version"].asString());
}

TEST_F(Recovery, MissingTelemetryPluginIsLoggedAndTheStepsStillRun) {
    plugin.env.manager.SetMissing(ids::kTelemetryName);
    InitAndStart();
    ASSERT_EQ(0u, plugin.DelayedStart());
    EXPECT_EQ(1, CountLines(L"Cannot obtain Telemetry plugin", 4));
    EXPECT_EQ(0, plugin.env.telemetry.EventCount());
    EXPECT_TRUE(CacheGone(common));
    EXPECT_TRUE(Exists(engines + L"\\qvcore.dll"));
    EXPECT_TRUE(Exists(engines + L"\\scanclient.dll"));
    EXPECT_TRUE(Exists(engines + L"\\smartdbv2.dat"));
    EXPECT_EQ(1u, plugin.env.update.Requests().size());
}

// ---- the cache -----------------------------------------------------------------------------

TEST_F(Recovery, CommonFolderWithATrailingSeparatorGetsNoSecondOne) {
    InitAndStart();
    for (const wchar_t* separator : {L"\\", L"/"}) {
        SCOPED_TRACE(Narrow(separator));
        const std::wstring configured = common + separator;
        plugin.env.servConfig.SetText(kFolders, L"common", configured.c_str());
        WriteCache();
        avhost::ClearCapturedLines();
        ASSERT_EQ(0u, plugin.DelayedStart());
        EXPECT_EQ(1, CountLines(L"deleting wslib.db = " + configured + L"installer\\wslib.db", 32));
        EXPECT_EQ(1, CountLines(L"deleting wslib.m = " + configured + L"installer\\wslib.m", 32));
        EXPECT_TRUE(CacheGone(common));
    }
}

TEST_F(Recovery, MissingCacheFilesAreNoError) {
    DeleteFileW((common + L"\\installer\\wslib.db").c_str());
    InitAndStart();
    ASSERT_EQ(0u, plugin.DelayedStart());
    EXPECT_TRUE(CacheGone(common));
    EXPECT_EQ(0, CountStartingWith(L"Cannot delete file"));
    EXPECT_EQ(1, CountLines(L"deleting wslib.db = " + common + L"\\installer\\wslib.db", 32));
}

TEST_F(Recovery, CacheFileThatCannotBeDeletedIsLoggedAndTheOtherStillGoes) {
    const std::wstring locked = common + L"\\installer\\wslib.db";
    InitAndStart();
    HANDLE h = CreateFileW(locked.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    ASSERT_EQ(0u, plugin.DelayedStart());
    CloseHandle(h);
    EXPECT_EQ(1, CountStartingWith(L"Cannot delete file [error = "));
    EXPECT_EQ(1, CountLines(L"Cannot delete file [error = 32] [path = " + locked + L"]", 4));
    EXPECT_EQ("cache-db", ReadBytes(locked));
    EXPECT_FALSE(Exists(common + L"\\installer\\wslib.m"));
    EXPECT_EQ(1u, plugin.env.update.Requests().size());
}

// The plug-in's own folder stands in when "common" is unusable: a copy of the plug-in with its
// libraries, loaded from a folder of its own, so that the build's folder is never touched.
struct CopiedPlugin {
    explicit CopiedPlugin(const std::wstring& folder) : library(folder + L"\\AntivirusScan.AL") {
        if (library.Loaded()) library.Create(ids::kPrimaryFaceId, &primary);
    }
    ~CopiedPlugin() {
        if (!primary) return;
        CallSlot<DWORD>(primary, kStop);
        CallSlot<DWORD>(primary, kUnInit);
        library.Destroy(primary);
    }
    PluginLibrary library;  // first: unloaded last
    host::HostEnvironment env;
    void* primary = nullptr;
};

TEST(RecoveryModuleFolder, CacheIsLookedForBesideThePluginWhenCommonIsUnusable) {
    const std::wstring folder = TempFolder(L"module");
    for (const wchar_t* file : {L"AntivirusScan.AL", L"KxsJson.dll", L"log.dll"}) {
        ASSERT_TRUE(CopyFileW((ExeFolder() + L"\\" + file).c_str(), (folder + L"\\" + file).c_str(), FALSE));
    }
    CreateDirectoryW((folder + L"\\installer").c_str(), nullptr);
    const std::wstring fileFolder = TempFolder(L"file");
    const std::wstring notAFolder = fileFolder + L"\\common.txt";
    WriteBytes(notAFolder, "not a folder");
    {
        CopiedPlugin copy(folder);
        ASSERT_NE(nullptr, copy.primary);
        copy.env.manager.SetMissing(ids::kScanSpName);
        ASSERT_EQ(0u, (CallSlot<DWORD>(copy.primary, kInit, static_cast<IQvHost*>(&copy.env.host))));
        ASSERT_EQ(0u, CallSlot<DWORD>(copy.primary, kStart));
        struct Case {
            const char* name;
            const wchar_t* common;  // null: unset
        };
        const Case cases[] = {{"unset", nullptr}, {"a file", notAFolder.c_str()},
                              {"missing", L"C:\\no\\such\\common-folder"}, {"empty", L""}};
        for (const Case& c : cases) {
            SCOPED_TRACE(c.name);
            copy.env.servConfig.SetText(kFolders, L"common", c.common);
            WriteBytes(folder + L"\\installer\\wslib.db", "cache-db");
            WriteBytes(folder + L"\\installer\\wslib.m", "cache-m");
            avhost::ClearCapturedLines();
            ASSERT_EQ(0u, CallSlot<DWORD>(copy.primary, kDelayedStart));
            EXPECT_FALSE(Exists(folder + L"\\installer\\wslib.db"));
            EXPECT_FALSE(Exists(folder + L"\\installer\\wslib.m"));
            EXPECT_EQ(1, CountLines(L"deleting wslib.db = " + folder + L"\\installer\\wslib.db", 32));
            EXPECT_EQ("not a folder", ReadBytes(notAFolder));
        }
    }
    qv::file::DeleteFolderTree(folder.c_str());
    qv::file::DeleteFolderTree(fileFolder.c_str());
}

// ---- placeholders and the update request ----------------------------------------------------

TEST_F(Recovery, MissingEnginesFolderGetsNoPlaceholderButTheUpdateIsRequested) {
    const std::wstring missing = engines + L"\\gone";
    plugin.env.servConfig.SetText(kEngines, L"scansp", missing.c_str());
    InitAndStart();
    ASSERT_EQ(0u, plugin.DelayedStart());
    EXPECT_FALSE(Exists(missing));
    EXPECT_EQ(0, CountStartingWith(L"Generating missing file."));
    EXPECT_LE(1, CountLines(L"Invalid engines path = " + missing, 32));
    EXPECT_TRUE(CacheGone(common));
    EXPECT_EQ(1u, plugin.env.update.Requests().size());
}

TEST_F(Recovery, PlaceholdersThatCannotBeCreatedAreEachTriedAndNothingElseSuffers) {
    // A read-only attribute does not keep files out of a folder here (nor on Windows, for
    // folders); a plain file standing where the engines folder should be does.
    const std::wstring blocked = engines + L"\\blocked";
    WriteBytes(blocked, "x");
    plugin.env.servConfig.SetText(kEngines, L"scansp", blocked.c_str());
    InitAndStart();
    ASSERT_EQ(0u, plugin.DelayedStart());
    for (const wchar_t* name : {L"qvcore.dll", L"scanclient.dll", L"smartdbv2.dat"}) {
        const std::wstring path = blocked + L"\\" + name;
        EXPECT_EQ(1, CountLines(L"Generating missing file. [path = " + path + L"]", 32)) << Narrow(name);
        int failures = 0;
        for (const auto& line : avhost::CapturedLines()) {
            if (line.severity == 4 && line.text.rfind(L"Cannot create missing file. [error = ", 0) == 0 &&
                line.text.size() > path.size() + 9 &&
                line.text.compare(line.text.size() - path.size() - 9, std::wstring::npos,
                                  L"[path = " + path + L"]") == 0)
                ++failures;
        }
        EXPECT_EQ(1, failures) << Narrow(name);
    }
    EXPECT_EQ("x", ReadBytes(blocked));
    EXPECT_EQ(1, plugin.env.telemetry.EventCount());
    EXPECT_TRUE(CacheGone(common));
    EXPECT_EQ(1u, plugin.env.update.Requests().size());
}

TEST_F(Recovery, ExistingEngineFilesAreLeftExactlyAsTheyAre) {
    WriteBytes(engines + L"\\qvcore.dll", "");
    WriteBytes(engines + L"\\scanclient.dll", std::string(70000, 'E'));
    WriteBytes(engines + L"\\smartdbv2.dat", "db");
    InitAndStart();
    ASSERT_EQ(0u, plugin.DelayedStart());
    EXPECT_EQ("", ReadBytes(engines + L"\\qvcore.dll"));
    EXPECT_EQ(std::string(70000, 'E'), ReadBytes(engines + L"\\scanclient.dll"));
    EXPECT_EQ("db", ReadBytes(engines + L"\\smartdbv2.dat"));
    for (const wchar_t* name : {L"qvcore.dll", L"scanclient.dll", L"smartdbv2.dat"}) {
        EXPECT_EQ(1, CountLines(L"Generating missing file. [path = " + engines + L"\\" + name + L"]", 32));
        EXPECT_EQ(0, CountStartingWith(L"Missing file created. [path = " + engines + L"\\" + name));
    }
    EXPECT_EQ(0, CountStartingWith(L"Cannot create missing file."));
}

TEST_F(Recovery, UpdateRequestFailuresAreLoggedAndSwallowed) {
    InitAndStart();
    plugin.env.update.FailSettings(31);
    ASSERT_EQ(0u, plugin.DelayedStart());
    EXPECT_EQ(1, CountLines(L"Failed to read the update settings [error = 31]", 4));
    EXPECT_TRUE(plugin.env.update.Requests().empty());
    EXPECT_EQ(0, plugin.env.update.GetCounts().startUpdates);

    plugin.env.update.FailSettings(0);
    plugin.env.update.SetStartUpdateResult(1627, 7);
    avhost::ClearCapturedLines();
    ASSERT_EQ(0u, plugin.DelayedStart());
    EXPECT_EQ(1, CountLines(L"StartUpdate failed [error = 1627] [status = 7]", 32));
    EXPECT_EQ(1, plugin.env.update.GetCounts().startUpdates);
}

// ---- the end of a recovery -----------------------------------------------------------------

TEST_F(Recovery, FailedRestartRequestIsLoggedAndTheFolderStaysRecorded) {
    InitAndStart();
    ASSERT_EQ(0u, plugin.DelayedStart());
    plugin.env.manager.Restore(ids::kScanSpName);
    plugin.env.update.SetRestartResult(1627);
    EXPECT_EQ(0u, Install());
    EXPECT_EQ(1, CountLines(L"Restart service using Update failed [error = 1627]", 4));
    EXPECT_EQ(0, CountLines(L"Restart request sent to the Update service", 32));
    ASSERT_EQ(1u, plugin.env.update.Restarts().size());
    EXPECT_EQ(L"KXSecurityService", plugin.env.update.Restarts()[0].serviceName);
    EXPECT_EQ(Narrow(engines), Engines()["folder"].asString());
    EXPECT_EQ(2u, Engines()["reloadStatus"].asUInt());
}

TEST_F(Recovery, EveryFixedInstallationAsksForARestart) {
    InitAndStart();
    ASSERT_EQ(0u, plugin.DelayedStart());
    plugin.env.manager.Restore(ids::kScanSpName);
    EXPECT_EQ(0u, Install());
    EXPECT_EQ(0u, Install());
    // Each installation finds, checks and hands back the provider; each asks for a restart.
    EXPECT_EQ(2u, plugin.env.update.Restarts().size());
    EXPECT_EQ(0, plugin.env.manager.Outstanding(ids::kScanSpName));
    EXPECT_EQ(2, CountLines(L"ScanSp not loaded => load now", 8));
}

TEST_F(Recovery, OtherComponentsAndMaintenanceInstallationsDoNotTouchTheRecovery) {
    InitAndStart();
    ASSERT_EQ(0u, plugin.DelayedStart());
    plugin.env.manager.Restore(ids::kScanSpName);
    WriteCache();
    EXPECT_EQ(0u, plugin.env.update.DeliverComponentInstalled(L"ScheduledUpdater", L"AntivirusX", L"C:\\e"));
    EXPECT_EQ(0u, plugin.env.update.DeliverComponentInstalled(L"kitInstaller_sync", L"Antivirus", L"C:\\e"));
    EXPECT_TRUE(plugin.env.update.Restarts().empty());
    EXPECT_FALSE(CacheGone(common));
    EXPECT_EQ(3u, Engines()["reloadStatus"].asUInt());
    EXPECT_EQ(0, plugin.env.manager.CountsOf(ids::kScanSpName).gets);
}

} // namespace
