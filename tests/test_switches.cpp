// The backup, hash-chain and signature-information switches and the feature locks, driven through
// the IAntivirusScan slots as other plug-ins call them: results, store writes, the backup option
// pushed to the scan service provider, and the settings events heard by a registered sink.
#include "tests/common/EventRecorder.h"
#include "tests/common/FaultInjection.h"
#include "tests/common/ScanSlots.h"

#include <gtest/gtest.h>
#include <algorithm>
#include <thread>

namespace {

using namespace testing_support;
using namespace testing_support::slots;
using Events = std::vector<std::string>;

constexpr uint32_t kBackupOption = 9;

class Switches : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(nullptr, plugin.scan); }
    void TearDown() override { UnregisterSettings(plugin.scan, sink.Settings()); }
    // Init, the sink registered, and every record of Init's own work forgotten.
    void Start() {
        ASSERT_EQ(0u, plugin.Init());
        ASSERT_EQ(0u, RegisterSettings(plugin.scan, sink.Settings()));
        Forget();
    }
    void Forget() {
        store().ResetCounts();
        avhost::ClearCapturedLines();
        sink.Take();
        optionsBefore = BackupOptions().size();
    }
    // Backup options pushed to the provider since the last Forget.
    std::vector<uint32_t> BackupOptions(bool all = true) {
        std::vector<uint32_t> values;
        for (const auto& option : plugin.env.scanSp.Options()) {
            if (option.option != kBackupOption) continue;
            EXPECT_EQ(4u, option.size);
            values.push_back(option.value);
        }
        if (!all) values.erase(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(optionsBefore));
        return values;
    }
    std::vector<std::wstring> KeysWritten() {
        std::vector<std::wstring> keys;
        for (const auto& set : store().SetLog()) keys.push_back(set.key);
        return keys;
    }
    host::SettingsStore& store() { return plugin.env.settings; }
    Json::Value Stored(const char* key) {
        const Json::Value section = store().Section(L"/AntivirusScan");
        return section.isObject() ? section[key] : Json::Value();
    }

    EventRecorder sink;
    PluginUnderTest plugin;
    size_t optionsBefore = 0;
};

TEST_F(Switches, EnableBackupAppliesPersistsAndNotifiesOnlyOnChange) {
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ(0u, EnableBackup(plugin.scan, true));
    EXPECT_EQ(std::vector<uint32_t>{1}, BackupOptions(false));
    EXPECT_EQ(Json::Value(true), Stored("enableBackup"));
    EXPECT_TRUE(BackupOf(plugin.scan));
    EXPECT_EQ(Events{"backup=1"}, sink.Take());
    EXPECT_TRUE(LineWith(L"[status = 1]", 32));

    Forget();
    EXPECT_EQ(0u, EnableBackup(plugin.scan, true));
    EXPECT_TRUE(LineWith(L"already in this state", 32));
    EXPECT_TRUE(store().SetLog().empty());
    EXPECT_TRUE(BackupOptions(false).empty());
    EXPECT_TRUE(sink.Take().empty());

    // A provider refusing the option is an internal error and the old value stays.
    plugin.env.scanSp.SetOptionResultFor(kBackupOption, 31);
    EXPECT_EQ(1359u, EnableBackup(plugin.scan, false));
    EXPECT_TRUE(LineWith(L"Cannot apply backup status. [error = 31]", 8));
    EXPECT_EQ(Json::Value(true), Stored("enableBackup"));
    EXPECT_TRUE(BackupOf(plugin.scan));
    EXPECT_TRUE(sink.Take().empty());
    EXPECT_EQ(0, store().Outstanding());
}

TEST_F(Switches, BackupWithoutScanProviderPutsTheOldValueBack) {
    plugin.env.manager.SetMissing(qv::kxsdk::ids::kScanSpName);
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ(1359u, EnableBackup(plugin.scan, true));
    EXPECT_TRUE(LineWith(L"ScanSp not loaded.", 8));
    EXPECT_TRUE(LineWith(L"apply failed", 4));
    std::vector<std::string> backupWrites;
    for (const auto& set : store().SetLog()) {
        if (set.key == L"enableBackup") backupWrites.push_back(set.value);
    }
    EXPECT_EQ((std::vector<std::string>{"true", "false"}), backupWrites);
    EXPECT_EQ(Json::Value(false), Stored("enableBackup"));
    EXPECT_FALSE(BackupOf(plugin.scan));
    EXPECT_TRUE(sink.Take().empty());
}

TEST_F(Switches, StoreWriteFailureChangesNothing) {
    ASSERT_NO_FATAL_FAILURE(Start());
    store().FailAllSets(true);
    EXPECT_EQ(1013u, EnableBackup(plugin.scan, true));
    EXPECT_TRUE(LineWith(L"save failed", 4));
    EXPECT_EQ(1013u, ReportHashChain(plugin.scan, true));
    EXPECT_EQ(1013u, ReportSignatureInfo(plugin.scan, true));
    EXPECT_TRUE(BackupOptions(false).empty()) << "nothing is applied that could not be saved";
    EXPECT_FALSE(BackupOf(plugin.scan));
    EXPECT_FALSE(HashChainOf(plugin.scan));
    EXPECT_FALSE(SignatureInfoOf(plugin.scan));
    EXPECT_TRUE(sink.Take().empty());
    EXPECT_EQ(0, store().Outstanding());
}

TEST_F(Switches, HashChainAndSignatureInfoPersistAndNotify) {
    ASSERT_NO_FATAL_FAILURE(Start());
    // Unchanged: the store is written again with the whole record, and nobody is told.
    EXPECT_EQ(0u, ReportSignatureInfo(plugin.scan, false));
    EXPECT_TRUE(LineWith(L"already in this state", 32));
    EXPECT_EQ((std::vector<std::wstring>{L"enableBackup", L"reportHashChain", L"reportSignatureInfo"}), KeysWritten());
    EXPECT_EQ(Json::Value(false), Stored("reportSignatureInfo"));
    EXPECT_TRUE(sink.Take().empty());

    EXPECT_EQ(0u, ReportHashChain(plugin.scan, true));
    EXPECT_TRUE(LineWith(L"[enabled = 1]", 32));
    EXPECT_EQ(0u, ReportSignatureInfo(plugin.scan, true));
    EXPECT_EQ(0u, ReportHashChain(plugin.scan, true));
    EXPECT_EQ((Events{"hashChain=1", "signatureInfo=1"}), sink.Take());
    EXPECT_TRUE(HashChainOf(plugin.scan));
    EXPECT_TRUE(SignatureInfoOf(plugin.scan));
    EXPECT_EQ(Json::Value(true), Stored("reportHashChain")["enabled"]);
    EXPECT_EQ(Json::Value(true), Stored("reportSignatureInfo"));
    EXPECT_EQ(Json::Value(false), Stored("enableBackup"));
    EXPECT_TRUE(BackupOptions(false).empty());
    EXPECT_EQ(0, store().Outstanding());
}

TEST_F(Switches, FeatureLocks) {
    Json::Value section(Json::objectValue);
    section["Stored"] = false;
    section["NotABool"] = 0;
    store().SetDocument(WithSection(section));
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_TRUE(FeatureLocked(plugin.scan, L"NeverSet"));
    EXPECT_TRUE(FeatureLocked(plugin.scan, L"NotABool"));
    EXPECT_FALSE(FeatureLocked(plugin.scan, L"Stored"));
    EXPECT_TRUE(FeatureLocked(plugin.scan, L"stored")) << "names differing in case are different features";
    EXPECT_TRUE(store().SetLog().empty()) << "reading never writes";

    EXPECT_EQ(0u, SetFeatureStatus(plugin.scan, L"Quarantine", false));
    EXPECT_TRUE(LineWith(L"[name = Quarantine] [isLocked = 0]", 32));
    EXPECT_EQ(0u, SetFeatureStatus(plugin.scan, L"QUARANTINE", false));
    EXPECT_EQ(0u, SetFeatureStatus(plugin.scan, L"QUARANTINE", false));
    EXPECT_EQ((Events{"feature=Quarantine,0", "feature=QUARANTINE,0", "feature=QUARANTINE,0"}), sink.Take())
        << "every set notifies, changed or not";
    EXPECT_FALSE(FeatureLocked(plugin.scan, L"Quarantine"));
    EXPECT_TRUE(FeatureLocked(plugin.scan, L"quarantine"));
    EXPECT_EQ(Json::Value(false), Stored("Quarantine"));
    EXPECT_EQ(Json::Value(false), Stored("QUARANTINE"));
    EXPECT_EQ(3u, store().SetLog().size());
    EXPECT_EQ(0, store().Outstanding());
}

// Names that would reach another key of the section, or be cut short on the way to the store,
// are refused by both operations: 87 and one error line each, and nothing stored, read, cached
// or announced. Names that merely resemble them are ordinary features.
TEST_F(Switches, FeatureNamesThatReachOtherKeysAreRefused) {
    Json::Value section(Json::objectValue);
    section["enableBackup"] = true;
    section["reportHashChain"]["enabled"] = true;
    section["reportSignatureInfo"] = true;
    section["engines"]["reloadStatus"] = 1;
    section["engines"]["folder"] = "C:\\Engines";
    section["victim"] = false;
    store().SetDocument(WithSection(section));
    ASSERT_NO_FATAL_FAILURE(Start());
    const Json::Value started = store().Section(L"/AntivirusScan");
    const std::wstring reaches = L"Feature name refused: reaches the module's key [name = ";
    const std::pair<qv::StringW, std::wstring> refused[] = {
        {L"", L"Feature name refused: empty"},
        {qv::StringW(L"victim\0tail", 11),
         L"Feature name refused: holds a NUL character [name = victim] [length = 11]"},
        {qv::StringW(L"\0", 1), L"Feature name refused: holds a NUL character [name = ] [length = 1]"},
        {L"enableBackup", reaches + L"enableBackup] [key = enableBackup]"},
        {L"reportHashChain", reaches + L"reportHashChain] [key = reportHashChain]"},
        {L"reportSignatureInfo", reaches + L"reportSignatureInfo] [key = reportSignatureInfo]"},
        {L"engines", reaches + L"engines] [key = engines]"},
        {L"engines/folder", reaches + L"engines/folder] [key = engines]"},
        {L"engines/reloadStatus", reaches + L"engines/reloadStatus] [key = engines]"},
        {L"//reportHashChain/enabled", reaches + L"//reportHashChain/enabled] [key = reportHashChain]"},
        {L"enableBackup/", reaches + L"enableBackup/] [key = enableBackup]"},
        {L"/", L"Feature name refused: names no key [name = /]"},
    };
    auto messages = [] {
        std::vector<std::pair<std::wstring, std::wstring>> found;
        for (const auto& line : avhost::CapturedLines()) {
            if (line.text.rfind(L"-> ", 0) == 0 || line.text.rfind(L"<- ", 0) == 0) continue;
            EXPECT_EQ(4u, line.severity) << std::string(line.text.begin(), line.text.end());
            found.emplace_back(line.function, line.text);
        }
        avhost::ClearCapturedLines();
        return found;
    };
    for (const auto& name : refused) {
        SCOPED_TRACE(Describe(std::wstring(name.first.c_str(), name.first.Length())));
        EXPECT_EQ(87u, SetFeatureStatus(plugin.scan, name.first, false));
        EXPECT_EQ(
            (std::vector<std::pair<std::wstring, std::wstring>>{{L"AntivirusScanAL::SetFeatureStatus", name.second}}),
            messages());
        bool locked = false;
        EXPECT_EQ(87u, GetFeatureStatus(plugin.scan, name.first, &locked));
        EXPECT_FALSE(locked) << "not written";
        EXPECT_EQ(
            (std::vector<std::pair<std::wstring, std::wstring>>{{L"AntivirusScanAL::GetFeatureStatus", name.second}}),
            messages());
    }
    EXPECT_TRUE(sink.Take().empty());
    EXPECT_TRUE(store().SetLog().empty());
    EXPECT_EQ(0, store().GetCounts().gets);
    EXPECT_EQ(started, store().Section(L"/AntivirusScan"));
    EXPECT_FALSE(FeatureLocked(plugin.scan, L"victim"));
    EXPECT_TRUE(BackupOf(plugin.scan));
    EXPECT_TRUE(HashChainOf(plugin.scan));
    EXPECT_TRUE(SignatureInfoOf(plugin.scan));

    for (const wchar_t* name :
         {L"Engines", L"enginesX", L"reportHashChains", L"my/engines", L"a/engines", L" enableBackup"}) {
        EXPECT_EQ(0u, SetFeatureStatus(plugin.scan, name, false)) << name;
        EXPECT_FALSE(FeatureLocked(plugin.scan, name)) << name;
    }
    EXPECT_EQ(6u, store().SetLog().size());
    EXPECT_EQ(6u, sink.Take().size());
}

// Two EnableBackup calls meet at the provider, which may take either value last: the last call to
// end pushes the record's value once more, and a push that fails is a warning of its own.
TEST_F(Switches, OverlappingBackupCallsPushTheRecordOnceMore) {
    FaultyHost faults(plugin.env);
    Start();
    const std::string site = "ScanSp::SetOption(9)";
    faults.plan.Arm(site, 3);
    DWORD second = kInjectedError;
    faults.plan.HoldFirst(site, [&] {
        std::thread other([&] { second = EnableBackup(plugin.scan, true); });
        other.join();
    });
    EXPECT_EQ(0u, EnableBackup(plugin.scan, true));
    EXPECT_EQ(0u, second);
    const std::vector<std::string> sites = faults.plan.Sites();
    EXPECT_EQ(3, std::count(sites.begin(), sites.end(), site));
    EXPECT_TRUE(faults.plan.Failed());
    EXPECT_TRUE(BackupOf(plugin.scan));
    EXPECT_TRUE(LineIn(L"Cannot apply backup status [value = 1]", 8, L"AntivirusScanAL::RefreshBackupStatus"));
    plugin.StopAll(); // while the siblings it holds, the fault wrappers, are still there
}

// Init's last step pushes the loaded backup flag to the scan provider, whatever its value.
TEST(SwitchesAtInit, AppliesTheStoredBackupStatus) {
    for (bool stored : {true, false}) {
        PluginUnderTest fresh;
        Json::Value document(Json::objectValue);
        document["/AntivirusScan"]["enableBackup"] = stored;
        fresh.env.settings.SetDocument(document);
        ASSERT_EQ(0u, fresh.Init());
        std::vector<uint32_t> values;
        for (const auto& option : fresh.env.scanSp.Options())
            if (option.option == kBackupOption) values.push_back(option.value);
        EXPECT_EQ(std::vector<uint32_t>{stored ? 1u : 0u}, values);
        EXPECT_EQ(stored, BackupOf(fresh.scan));
    }
}

} // namespace
