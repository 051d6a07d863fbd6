// The backup, hash-chain and signature-information switches and the feature locks, driven through
// the IAntivirusScan slots as other plug-ins call them: results, store writes, the backup option
// pushed to the scan service provider, and the settings events heard by a registered sink.
#include "tests/common/PluginHarness.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace testing_support;
using qv::kxsdk::AntivirusScan::HashChainSettings;
using qv::kxsdk::AntivirusScan::IAntivirusScan;
using qv::kxsdk::AntivirusScan::ScanMode;
using qv::kxsdk::AntivirusScan::ScanType;
using Lines = std::vector<std::wstring>;

enum Slot {
    kRegisterSettingsEvents = 2,
    kUnregisterSettingsEvents = 5,
    kGetScanType = 6,
    kGetScanModes = 7,
    kEnableBackup = 8,
    kIsBackupEnabled = 9,
    kGetEnginesVersion = 10,
    kGetSignaturesCount = 11,
    kSetFeatureStatus = 12,
    kGetFeatureStatus = 13,
    kReportHashChain = 14,
    kGetHashChainSettings = 15,
    kReportSignatureInfo = 16,
    kIsSignatureInfoReported = 17,
};

constexpr uint32_t kBackupOption = 9;
const wchar_t kSectionPath[] = L"/AntivirusScan";

bool LineWith(const std::wstring& text, uint32_t severity) {
    for (const auto& line : avhost::CapturedLines()) {
        if (line.text == text && line.severity == severity) return true;
    }
    return false;
}

// Records every settings event as one line, in the order heard.
class SettingsSink : public IAntivirusScan::ISettingsEvents {
public:
    int OnBackupStatusChanged(bool enabled) override { return Add(L"backup=" + Bit(enabled)); }
    int OnFeatureStatusChanged(const qv::StringW& feature, bool isLocked) override {
        return Add(L"feature=" + std::wstring(feature.c_str()) + L"," + Bit(isLocked));
    }
    int OnHashChainSettingsChanged(const HashChainSettings& settings) override {
        return Add(L"hashChain=" + Bit(settings.enabled));
    }
    int OnSignatureInfoReportingChanged(bool enabled) override { return Add(L"signatureInfo=" + Bit(enabled)); }

    Lines Take() {
        std::lock_guard<std::mutex> hold(mutex_);
        Lines taken;
        taken.swap(lines_);
        return taken;
    }

private:
    static std::wstring Bit(bool b) { return b ? L"1" : L"0"; }
    int Add(const std::wstring& line) {
        std::lock_guard<std::mutex> hold(mutex_);
        lines_.push_back(line);
        return 1627;  // the plug-in ignores what sinks answer
    }
    std::mutex mutex_;
    Lines lines_;
};

// Slot-numbered callers, so that a reordered interface fails here.
DWORD EnableBackup(void* scan, bool on) { return CallSlot<DWORD>(scan, kEnableBackup, on); }
DWORD ReportHashChain(void* scan, bool on) {
    HashChainSettings settings{on};
    return CallSlot<DWORD, const HashChainSettings&>(scan, kReportHashChain, settings);
}
DWORD ReportSignatureInfo(void* scan, bool on) { return CallSlot<DWORD>(scan, kReportSignatureInfo, on); }
DWORD SetFeatureStatus(void* scan, const wchar_t* name, bool locked) {
    qv::StringW feature(name);
    return CallSlot<DWORD, const qv::StringW&, bool>(scan, kSetFeatureStatus, feature, locked);
}
bool FeatureLocked(void* scan, const wchar_t* name) {
    qv::StringW feature(name);
    bool locked = false;
    EXPECT_EQ(0u, (CallSlot<DWORD, const qv::StringW&, bool*>(scan, kGetFeatureStatus, feature, &locked)));
    return locked;
}
bool BackupEnabled(void* scan) {
    bool enabled = true;
    EXPECT_EQ(0u, CallSlot<DWORD>(scan, kIsBackupEnabled, &enabled));
    return enabled;
}
bool HashChainEnabled(void* scan) {
    HashChainSettings settings{true};
    EXPECT_EQ(0u, CallSlot<DWORD>(scan, kGetHashChainSettings, &settings));
    return settings.enabled;
}
bool SignatureInfoReported(void* scan) {
    bool enabled = true;
    EXPECT_EQ(0u, CallSlot<DWORD>(scan, kIsSignatureInfoReported, &enabled));
    return enabled;
}

std::vector<host::ScanSpPlugin::OptionRecord> BackupOptions(const host::ScanSpPlugin& scanSp) {
    std::vector<host::ScanSpPlugin::OptionRecord> backup;
    for (const auto& option : scanSp.Options()) {
        if (option.option == kBackupOption) backup.push_back(option);
    }
    return backup;
}

class Switches : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, plugin.primary);
        ASSERT_NE(nullptr, plugin.scan);
    }
    // Init, the sink registered, and every record of Init's own work forgotten.
    void Start() {
        ASSERT_EQ(0u, plugin.Init());
        ASSERT_EQ(0u, CallSlot<DWORD>(plugin.scan, kRegisterSettingsEvents, static_cast<IAntivirusScan::ISettingsEvents*>(&sink)));
        Forget();
    }
    void Forget() {
        store().ResetCounts();
        avhost::ClearCapturedLines();
        sink.Take();
        optionsBefore = BackupOptions(plugin.env.scanSp).size();
    }
    std::vector<host::ScanSpPlugin::OptionRecord> NewBackupOptions() {
        auto all = BackupOptions(plugin.env.scanSp);
        return {all.begin() + static_cast<std::ptrdiff_t>(optionsBefore), all.end()};
    }
    void TearDown() override {
        CallSlot<DWORD>(plugin.scan, kUnregisterSettingsEvents, static_cast<IAntivirusScan::ISettingsEvents*>(&sink));
    }
    host::SettingsStore& store() { return plugin.env.settings; }
    Json::Value Section() { return store().Section(kSectionPath); }
    Json::Value Stored(const char* key) { return Section().isObject() ? Section()[key] : Json::Value(); }

    SettingsSink sink;
    PluginUnderTest plugin;
    size_t optionsBefore = 0;
};

TEST_F(Switches, EnableBackupAppliesPersistsAndNotifiesOnce) {
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ(0u, EnableBackup(plugin.scan, true));
    auto applied = NewBackupOptions();
    ASSERT_EQ(1u, applied.size());
    EXPECT_EQ(1u, applied[0].value);
    EXPECT_EQ(4u, applied[0].size);
    EXPECT_EQ(0u, applied[0].reserved);
    EXPECT_EQ(Json::Value(true), Stored("enableBackup"));
    EXPECT_TRUE(BackupEnabled(plugin.scan));
    EXPECT_EQ((Lines{L"backup=1"}), sink.Take());
    EXPECT_TRUE(LineWith(L"[status = 1]", 32));
    EXPECT_EQ(0, store().Outstanding());

    // The same value again changes nothing anywhere.
    Forget();
    EXPECT_EQ(0u, EnableBackup(plugin.scan, true));
    EXPECT_TRUE(LineWith(L"already in this state", 32));
    EXPECT_TRUE(store().SetLog().empty());
    EXPECT_TRUE(NewBackupOptions().empty());
    EXPECT_TRUE(sink.Take().empty());

    Forget();
    EXPECT_EQ(0u, EnableBackup(plugin.scan, false));
    applied = NewBackupOptions();
    ASSERT_EQ(1u, applied.size());
    EXPECT_EQ(0u, applied[0].value);
    EXPECT_EQ(Json::Value(false), Stored("enableBackup"));
    EXPECT_FALSE(BackupEnabled(plugin.scan));
    EXPECT_EQ((Lines{L"backup=0"}), sink.Take());
}

TEST_F(Switches, BackupWithoutScanProviderPutsTheOldValueBack) {
    plugin.env.manager.SetMissing(qv::kxsdk::ids::kScanSpName);
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ(1359u, EnableBackup(plugin.scan, true));
    EXPECT_TRUE(LineWith(L"ScanSp not loaded.", 8));
    EXPECT_TRUE(LineWith(L"apply failed", 4));
    // Written first with the new value, then again with the record's.
    std::vector<std::string> backupWrites;
    for (const auto& set : store().SetLog()) {
        if (set.key == L"enableBackup") backupWrites.push_back(set.value);
    }
    EXPECT_EQ((std::vector<std::string>{"true", "false"}), backupWrites);
    EXPECT_EQ(Json::Value(false), Stored("enableBackup"));
    EXPECT_FALSE(BackupEnabled(plugin.scan));
    EXPECT_TRUE(sink.Take().empty());
    EXPECT_EQ(0, store().Outstanding());
}

TEST_F(Switches, ProviderRefusingTheOptionIsAnInternalError) {
    ASSERT_NO_FATAL_FAILURE(Start());
    plugin.env.scanSp.SetOptionResultFor(kBackupOption, 31);
    EXPECT_EQ(1359u, EnableBackup(plugin.scan, true));
    EXPECT_TRUE(LineWith(L"Cannot apply backup status. [error = 31]", 8));
    EXPECT_TRUE(LineWith(L"apply failed", 4));
    ASSERT_EQ(1u, NewBackupOptions().size());
    EXPECT_EQ(Json::Value(false), Stored("enableBackup"));
    EXPECT_FALSE(BackupEnabled(plugin.scan));
    EXPECT_TRUE(sink.Take().empty());

    // Once the provider accepts it, the same request goes through.
    plugin.env.scanSp.SetOptionResultFor(kBackupOption, 0);
    EXPECT_EQ(0u, EnableBackup(plugin.scan, true));
    EXPECT_TRUE(BackupEnabled(plugin.scan));
    EXPECT_EQ((Lines{L"backup=1"}), sink.Take());
}

TEST_F(Switches, StoreWriteFailureChangesNothing) {
    ASSERT_NO_FATAL_FAILURE(Start());
    store().FailAllSets(true);
    EXPECT_EQ(1013u, EnableBackup(plugin.scan, true));
    EXPECT_TRUE(LineWith(L"save failed", 4));
    EXPECT_EQ(1013u, ReportHashChain(plugin.scan, true));
    EXPECT_EQ(1013u, ReportSignatureInfo(plugin.scan, true));
    EXPECT_TRUE(NewBackupOptions().empty()) << "nothing is applied that could not be saved";
    EXPECT_FALSE(BackupEnabled(plugin.scan));
    EXPECT_FALSE(HashChainEnabled(plugin.scan));
    EXPECT_FALSE(SignatureInfoReported(plugin.scan));
    EXPECT_TRUE(sink.Take().empty());
    EXPECT_TRUE(Section().isNull());
    EXPECT_EQ(0, store().Outstanding());
}

TEST_F(Switches, ReportHashChainPersistsAndFiresTheThirdEvent) {
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ(0u, ReportHashChain(plugin.scan, true));
    EXPECT_TRUE(LineWith(L"[enabled = 1]", 32));
    EXPECT_TRUE(HashChainEnabled(plugin.scan));
    EXPECT_EQ(Json::Value(true), Stored("reportHashChain")["enabled"]);
    EXPECT_EQ(1u, Stored("reportHashChain").size());
    EXPECT_EQ((Lines{L"hashChain=1"}), sink.Take());
    EXPECT_TRUE(NewBackupOptions().empty());

    // Unchanged: written again, no event.
    Forget();
    EXPECT_EQ(0u, ReportHashChain(plugin.scan, true));
    EXPECT_TRUE(LineWith(L"already in this state", 32));
    EXPECT_EQ(3u, store().SetLog().size());
    EXPECT_TRUE(sink.Take().empty());

    EXPECT_EQ(0u, ReportHashChain(plugin.scan, false));
    EXPECT_FALSE(HashChainEnabled(plugin.scan));
    EXPECT_EQ(Json::Value(false), Stored("reportHashChain")["enabled"]);
    EXPECT_EQ((Lines{L"hashChain=0"}), sink.Take());
}

TEST_F(Switches, ReportSignatureInfoPersistsAndFiresTheFourthEvent) {
    ASSERT_NO_FATAL_FAILURE(Start());
    // Already false: the store is written again with the current record.
    EXPECT_EQ(0u, ReportSignatureInfo(plugin.scan, false));
    EXPECT_TRUE(LineWith(L"already in this state", 32));
    std::vector<std::wstring> keys;
    for (const auto& set : store().SetLog()) keys.push_back(set.key);
    EXPECT_EQ((std::vector<std::wstring>{L"enableBackup", L"reportHashChain", L"reportSignatureInfo"}), keys);
    EXPECT_EQ(Json::Value(false), Stored("reportSignatureInfo"));
    EXPECT_TRUE(sink.Take().empty());

    // Even a failing rewrite of an unchanged value answers success.
    store().FailAllSets(true);
    EXPECT_EQ(0u, ReportSignatureInfo(plugin.scan, false));
    store().FailAllSets(false);

    EXPECT_EQ(0u, ReportSignatureInfo(plugin.scan, true));
    EXPECT_TRUE(SignatureInfoReported(plugin.scan));
    EXPECT_EQ(Json::Value(true), Stored("reportSignatureInfo"));
    EXPECT_EQ((Lines{L"signatureInfo=1"}), sink.Take());
    // The other switches were saved from the record, unchanged.
    EXPECT_EQ(Json::Value(false), Stored("enableBackup"));
    EXPECT_EQ(Json::Value(false), Stored("reportHashChain")["enabled"]);
}

TEST_F(Switches, SwitchSavesCarryTheOtherSwitchesAlong) {
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_EQ(0u, EnableBackup(plugin.scan, true));
    ASSERT_EQ(0u, ReportHashChain(plugin.scan, true));
    ASSERT_EQ(0u, ReportSignatureInfo(plugin.scan, true));
    EXPECT_EQ((Lines{L"backup=1", L"hashChain=1", L"signatureInfo=1"}), sink.Take());
    EXPECT_EQ(Json::Value(true), Stored("enableBackup"));
    EXPECT_EQ(Json::Value(true), Stored("reportHashChain")["enabled"]);
    EXPECT_EQ(Json::Value(true), Stored("reportSignatureInfo"));
    // The engines keys are never written by a switch.
    for (const auto& set : store().SetLog()) EXPECT_NE(0u, set.key.rfind(L"engines", 0));
}

TEST_F(Switches, UnregisteredSinkHearsNothing) {
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_EQ(0u, CallSlot<DWORD>(plugin.scan, kUnregisterSettingsEvents,
                                  static_cast<IAntivirusScan::ISettingsEvents*>(&sink)));
    ASSERT_EQ(0u, EnableBackup(plugin.scan, true));
    ASSERT_EQ(0u, SetFeatureStatus(plugin.scan, L"Quarantine", false));
    EXPECT_TRUE(sink.Take().empty());
}

TEST_F(Switches, FeatureLocksDefaultToLockedAndKeepTheFirstAnswer) {
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_TRUE(FeatureLocked(plugin.scan, L"NeverSet"));
    // The table keeps its answer: later store changes are not seen while the plug-in lives.
    Json::Value document = store().Document();
    document["/AntivirusScan"]["NeverSet"] = false;
    store().SetDocument(document);
    EXPECT_TRUE(FeatureLocked(plugin.scan, L"NeverSet"));
    // Reading never writes.
    EXPECT_TRUE(store().SetLog().empty());
    EXPECT_TRUE(sink.Take().empty());
    EXPECT_EQ(0, store().Outstanding());
}

TEST_F(Switches, FeatureLocksAreReadFromTheStoreOnFirstQuery) {
    Json::Value document(Json::objectValue);
    document["/AntivirusScan"]["Stored"] = false;
    document["/AntivirusScan"]["NotABool"] = 0;
    store().SetDocument(document);
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_FALSE(FeatureLocked(plugin.scan, L"Stored"));
    EXPECT_TRUE(FeatureLocked(plugin.scan, L"NotABool"));
    EXPECT_TRUE(FeatureLocked(plugin.scan, L"stored")) << "names differing in case are different features";
}

TEST_F(Switches, SetFeatureStatusPersistsAndFiresTheSecondEvent) {
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ(0u, SetFeatureStatus(plugin.scan, L"Quarantine", false));
    EXPECT_TRUE(LineWith(L"[name = Quarantine] [isLocked = 0]", 32));
    EXPECT_EQ((Lines{L"feature=Quarantine,0"}), sink.Take());
    EXPECT_EQ(Json::Value(false), Stored("Quarantine"));
    EXPECT_FALSE(FeatureLocked(plugin.scan, L"Quarantine"));
    EXPECT_TRUE(FeatureLocked(plugin.scan, L"quarantine"));
    EXPECT_TRUE(FeatureLocked(plugin.scan, L"QUARANTINE"));

    EXPECT_EQ(0u, SetFeatureStatus(plugin.scan, L"QUARANTINE", false));
    EXPECT_EQ(0u, SetFeatureStatus(plugin.scan, L"Quarantine", true));
    EXPECT_EQ((Lines{L"feature=QUARANTINE,0", L"feature=Quarantine,1"}), sink.Take());
    EXPECT_TRUE(FeatureLocked(plugin.scan, L"Quarantine"));
    EXPECT_FALSE(FeatureLocked(plugin.scan, L"QUARANTINE"));
    EXPECT_TRUE(FeatureLocked(plugin.scan, L"quarantine"));
    EXPECT_EQ(Json::Value(true), Stored("Quarantine"));
    EXPECT_EQ(Json::Value(false), Stored("QUARANTINE"));
    EXPECT_FALSE(Section().isMember("quarantine"));

    // Setting the same value again still writes and notifies.
    Forget();
    EXPECT_EQ(0u, SetFeatureStatus(plugin.scan, L"Quarantine", true));
    EXPECT_EQ((Lines{L"feature=Quarantine,1"}), sink.Take());
    EXPECT_EQ(1u, store().SetLog().size());
    EXPECT_EQ(0, store().Outstanding());
}

TEST_F(Switches, FeatureStoreFailuresAreIgnored) {
    ASSERT_NO_FATAL_FAILURE(Start());
    store().FailAllSets(true);
    EXPECT_EQ(0u, SetFeatureStatus(plugin.scan, L"Quarantine", false));
    EXPECT_EQ((Lines{L"feature=Quarantine,0"}), sink.Take());
    EXPECT_FALSE(FeatureLocked(plugin.scan, L"Quarantine")) << "the table is the authority";
    store().FailAllSets(false);
    store().RefuseOpen(true);
    EXPECT_EQ(0u, SetFeatureStatus(plugin.scan, L"Other", false));
    EXPECT_FALSE(FeatureLocked(plugin.scan, L"Other"));
    EXPECT_TRUE(FeatureLocked(plugin.scan, L"Unknown"));
    store().RefuseOpen(false);
    EXPECT_TRUE(Section().isNull());
}

TEST_F(Switches, InitAppliesTheLoadedBackupStatusOnce) {
    for (bool stored : {true, false}) {
        Json::Value document(Json::objectValue);
        document["/AntivirusScan"]["enableBackup"] = stored;
        store().SetDocument(document);
        const size_t before = BackupOptions(plugin.env.scanSp).size();
        ASSERT_EQ(0u, plugin.Init());
        auto all = BackupOptions(plugin.env.scanSp);
        ASSERT_EQ(before + 1, all.size());
        EXPECT_EQ(stored ? 1u : 0u, all.back().value);
        EXPECT_EQ(4u, all.back().size);
        EXPECT_EQ(stored, BackupEnabled(plugin.scan));
        ASSERT_EQ(0u, plugin.UnInit());
    }
}

TEST_F(Switches, InitToleratesAProviderRefusingTheBackupOption) {
    plugin.env.scanSp.SetOptionResultFor(kBackupOption, 50);
    Json::Value document(Json::objectValue);
    document["/AntivirusScan"]["enableBackup"] = true;
    store().SetDocument(document);
    avhost::ClearCapturedLines();
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(LineWith(L"Cannot apply backup status. [error = 50]", 8));
    EXPECT_TRUE(BackupEnabled(plugin.scan));
}

TEST_F(Switches, NullOutPointersAreRejectedOnEveryQuerySlot) {
    ASSERT_NO_FATAL_FAILURE(Start());
    ScanMode mode;
    qv::StringW feature(L"Quarantine");
    struct Case {
        const char* slot;
        DWORD result;
    };
    const Case cases[] = {
        {"6 GetScanType", CallSlot<DWORD>(plugin.scan, kGetScanType, static_cast<ScanType*>(nullptr))},
        {"7 GetScanModes primary", CallSlot<DWORD>(plugin.scan, kGetScanModes, static_cast<ScanMode*>(nullptr), &mode)},
        {"7 GetScanModes fallback", CallSlot<DWORD>(plugin.scan, kGetScanModes, &mode, static_cast<ScanMode*>(nullptr))},
        {"9 IsBackupEnabled", CallSlot<DWORD>(plugin.scan, kIsBackupEnabled, static_cast<bool*>(nullptr))},
        {"10 GetEnginesVersion", CallSlot<DWORD>(plugin.scan, kGetEnginesVersion, static_cast<qv::StringW*>(nullptr))},
        {"11 GetSignaturesCount", CallSlot<DWORD>(plugin.scan, kGetSignaturesCount, static_cast<uint64_t*>(nullptr))},
        {"13 GetFeatureStatus",
         CallSlot<DWORD, const qv::StringW&, bool*>(plugin.scan, kGetFeatureStatus, feature, nullptr)},
        {"15 GetHashChainSettings",
         CallSlot<DWORD>(plugin.scan, kGetHashChainSettings, static_cast<HashChainSettings*>(nullptr))},
        {"17 IsSignatureInfoReported",
         CallSlot<DWORD>(plugin.scan, kIsSignatureInfoReported, static_cast<bool*>(nullptr))},
    };
    for (const Case& c : cases) EXPECT_EQ(87u, c.result) << c.slot;
    int logged = 0;
    for (const auto& line : avhost::CapturedLines()) {
        if (line.text == L"invalid parameter" && line.severity == 4) ++logged;
    }
    EXPECT_EQ(9, logged);
    // A rejected query leaves nothing behind: the feature was not added as locked.
    EXPECT_EQ(0u, SetFeatureStatus(plugin.scan, L"Quarantine", false));
    EXPECT_FALSE(FeatureLocked(plugin.scan, L"Quarantine"));
}

TEST_F(Switches, ConcurrentReportsLeaveTheStoreAndTheRecordAgreeing) {
    ASSERT_NO_FATAL_FAILURE(Start());
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < 50; ++i) {
                const bool on = ((i + t) % 3) == 0;
                EXPECT_EQ(0u, ReportSignatureInfo(plugin.scan, on));
                EXPECT_EQ(0u, ReportHashChain(plugin.scan, !on));
                EXPECT_EQ(0u, SetFeatureStatus(plugin.scan, t % 2 ? L"Odd" : L"Even", on));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(Json::Value(SignatureInfoReported(plugin.scan)), Stored("reportSignatureInfo"));
    EXPECT_EQ(Json::Value(HashChainEnabled(plugin.scan)), Stored("reportHashChain")["enabled"]);
    EXPECT_EQ(Json::Value(FeatureLocked(plugin.scan, L"Odd")), Stored("Odd"));
    EXPECT_EQ(Json::Value(FeatureLocked(plugin.scan, L"Even")), Stored("Even"));
    EXPECT_EQ(0, store().Outstanding());
    int featureEvents = 0;
    for (const auto& line : sink.Take()) featureEvents += line.rfind(L"feature=", 0) == 0 ? 1 : 0;
    EXPECT_EQ(200, featureEvents) << "every feature set notifies, changed or not";
}

// Feature locks and switches written in one lifetime are what the next one starts from.
TEST(SwitchLifetimes, NextLifetimeStartsFromTheStoredSwitchesAndLocks) {
    const std::wstring folder = TempFolder(L"switches");
    const std::wstring path = folder + L"\\settings.json";
    {
        PluginUnderTest first;
        ASSERT_NE(nullptr, first.scan);
        ASSERT_TRUE(first.env.settings.UseFile(path));
        ASSERT_EQ(0u, first.Init());
        ASSERT_EQ(0u, EnableBackup(first.scan, true));
        ASSERT_EQ(0u, SetFeatureStatus(first.scan, L"Quarantine", false));
        ASSERT_EQ(0u, SetFeatureStatus(first.scan, L"Cloud", true));
        EXPECT_TRUE(FeatureLocked(first.scan, L"Remembered"));
    }
    host::HostEnvironment fileEnv(path);
    PluginUnderTest second;
    ASSERT_NE(nullptr, second.primary);
    ASSERT_EQ(0u, second.InitWith(&fileEnv.host));
    EXPECT_TRUE(BackupEnabled(second.scan));
    auto applied = BackupOptions(fileEnv.scanSp);
    ASSERT_EQ(1u, applied.size());
    EXPECT_EQ(1u, applied[0].value);
    EXPECT_FALSE(FeatureLocked(second.scan, L"Quarantine"));
    EXPECT_TRUE(FeatureLocked(second.scan, L"Cloud"));
    EXPECT_TRUE(FeatureLocked(second.scan, L"Remembered"));
    EXPECT_FALSE(fileEnv.settings.Section(kSectionPath).isMember("Remembered")) << "a query writes nothing";
    ASSERT_EQ(0u, second.UnInit());
    second.stopped = true;
    DeleteFileW(path.c_str());
    RemoveDirectoryW(folder.c_str());
}

} // namespace
