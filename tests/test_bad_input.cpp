// Bad input at the plug-in's doors beyond the exports: every IAntivirusScan slot, the lifecycle
// and event faces, the service configuration texts, the settings document and the engines kit's
// "Plugins\update.txt" (its shapes are fuzzed elsewhere). Nothing may crash; each gets its documented answer.
#include "tests/common/ScanSlots.h"

#include <gtest/gtest.h>

#include <tuple>

namespace {

using namespace testing_support;
using namespace testing_support::slots;
namespace ids = qv::kxsdk::ids;
using qv::kxsdk::Update::IUpdate;

constexpr size_t kMiB = 1u << 20;

class BadInput : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, plugin.primary);
        root_ = TempFolder(L"badinput");
        engines_ = root_ + L"\\engines";
        CreateDirectoryW(engines_.c_str(), nullptr);
        CreateDirectoryW((engines_ + L"\\Plugins").c_str(), nullptr);
        plugin.env.servConfig.SetText(2, L"scansp", engines_.c_str());
        avhost::ClearCapturedLines();
    }
    void TearDown() override {
        SetCurrentDirectoryW(ExeFolder().c_str());
        plugin.StopAll();
        plugin.stopped = true;
        RemoveFolder(root_);
    }
    IUpdate::IEvents* UpdateFace() {
        auto sinks = plugin.env.update.RegisteredSinks();
        return sinks.empty() ? nullptr : sinks[0];
    }
    PluginUnderTest plugin;
    std::wstring root_, engines_;
};

// Each slot with a null where it writes its answer: 87 and an error line.
void ExpectNullsRejected(void* scan, const char* when) {
    SCOPED_TRACE(when);
    ScanMode mode;
    const std::pair<const char*, DWORD (*)(void*)> calls[] = {
        {"RegisterEnginesEvents", [](void* s) { return RegisterEngines(s, nullptr); }},
        {"RegisterScanEvents", [](void* s) { return RegisterScan(s, nullptr); }},
        {"RegisterSettingsEvents", [](void* s) { return RegisterSettings(s, nullptr); }},
        {"UnregisterEnginesEvents", [](void* s) { return UnregisterEngines(s, nullptr); }},
        {"UnregisterScanEvents", [](void* s) { return UnregisterScan(s, nullptr); }},
        {"UnregisterSettingsEvents", [](void* s) { return UnregisterSettings(s, nullptr); }},
        {"GetScanType", [](void* s) { return GetScanType(s, nullptr); }},
        {"GetScanModes both", [](void* s) { return GetScanModes(s, nullptr, nullptr); }},
        {"IsBackupEnabled", [](void* s) { return IsBackupEnabled(s, nullptr); }},
        {"GetEnginesVersion", [](void* s) { return GetEnginesVersion(s, nullptr); }},
        {"GetSignaturesCount", [](void* s) { return GetSignaturesCount(s, nullptr); }},
        {"GetFeatureStatus", [](void* s) { return GetFeatureStatus(s, qv::StringW(L"Feature"), nullptr); }},
        {"GetHashChainSettings", [](void* s) { return GetHashChainSettings(s, nullptr); }},
        {"IsSignatureInfoReported", [](void* s) { return IsSignatureInfoReported(s, nullptr); }},
    };
    for (const auto& c : calls) {
        avhost::ClearCapturedLines();
        EXPECT_EQ(87u, c.second(scan)) << c.first;
        EXPECT_TRUE(LineWith(L"invalid parameter", 4)) << c.first;
    }
    avhost::ClearCapturedLines();
    EXPECT_EQ(87u, GetScanModes(scan, nullptr, &mode));
    EXPECT_EQ(87u, GetScanModes(scan, &mode, nullptr));
    EXPECT_EQ(2, CountOf(L"invalid parameter"));
    // A rejected query leaves nothing behind: the feature was not added as locked.
    EXPECT_EQ(0u, SetFeatureStatus(scan, qv::StringW(L"Feature"), false));
    EXPECT_FALSE(FeatureLocked(scan, L"Feature"));
}

TEST_F(BadInput, NullOutPointersGive87AtEverySlotInEveryState) {
    ExpectNullsRejected(plugin.scan, "before Init");
    ASSERT_TRUE(plugin.StartAll());
    ExpectNullsRejected(plugin.scan, "running");
    plugin.StopAll();
    ExpectNullsRejected(plugin.scan, "after UnInit");
    plugin.env.manager.SetMissing(ids::kScanSpName);
    ASSERT_TRUE(plugin.StartAll());
    ExpectNullsRejected(plugin.scan, "during engines recovery");
}

// Without Init (or after UnInit) there is no store and no provider: queries answer from the
// defaults, switches cannot be saved, and late events find nothing to act on.
TEST_F(BadInput, EveryFaceAnswersBeforeInitAndAfterUnInit) {
    auto expectUnconfigured = [&](const char* when) {
        SCOPED_TRACE(when);
        ScanType type;
        ScanMode p, f;
        qv::StringW version;
        uint64_t count = 9;
        EXPECT_EQ(0u, GetScanType(plugin.scan, &type));
        EXPECT_EQ(0u, GetScanModes(plugin.scan, &p, &f));
        EXPECT_EQ(1013u, EnableBackup(plugin.scan, !BackupOf(plugin.scan)));
        EXPECT_EQ(1013u, ReportHashChain(plugin.scan, !HashChainOf(plugin.scan)));
        EXPECT_EQ(1013u, ReportSignatureInfo(plugin.scan, !SignatureInfoOf(plugin.scan)));
        EXPECT_EQ(0u, SetFeatureStatus(plugin.scan, qv::StringW(L"Feature"), false));
        EXPECT_FALSE(FeatureLocked(plugin.scan, L"Feature"));
        EXPECT_EQ(0u, GetEnginesVersion(plugin.scan, &version));
        EXPECT_EQ(0u, GetSignaturesCount(plugin.scan, &count));
        EXPECT_EQ(5002u, plugin.Start());
        EXPECT_EQ(0u, plugin.Stop());
        EXPECT_EQ(0u, plugin.UnInit());
    };
    expectUnconfigured("before Init");
    EXPECT_EQ(0u, plugin.DelayedStart()) << "a recovery with nothing to use";
    ASSERT_TRUE(plugin.StartAll());
    IUpdate::IEvents* update = UpdateFace();
    ASSERT_NE(nullptr, update);
    ASSERT_FALSE(plugin.env.remoteScan.RegisteredSinks().empty());
    void* remote = plugin.env.remoteScan.RegisteredSinks()[0];
    plugin.StopAll();
    expectUnconfigured("after UnInit");
    // Late notifications from plug-ins that missed the Stop.
    IUpdate::ComponentInfo info{L"Updater", L"Antivirus", nullptr};
    EXPECT_EQ(0u, CallSlot<DWORD>(update, 7, &info, engines_.c_str()));
    EXPECT_EQ(0u, CallSlot<DWORD>(remote, 0, true));
    EXPECT_EQ(0u, CallSlot<DWORD>(remote, 1));
    EXPECT_EQ(0u, CallSlot<DWORD>(remote, 3));
    EXPECT_TRUE(plugin.env.manager.Balanced());
    EXPECT_FALSE(LineStartingWith(L"unexpected exception"));
}

TEST_F(BadInput, InstallationNoticesWithMissingOrHostileNames) {
    ASSERT_TRUE(plugin.StartAll());
    IUpdate::IEvents* face = UpdateFace();
    ASSERT_NE(nullptr, face);
    const wchar_t* const engines = engines_.c_str();
    const std::tuple<const wchar_t*, const wchar_t*, const wchar_t*, DWORD> missing[] = {
        {L"U", L"Antivirus", nullptr, 87}, {L"U", L"Antivirus", L"", 87},   {L"U", nullptr, engines, 87},
        {L"U", L"", engines, 87},          {nullptr, nullptr, nullptr, 87}, {nullptr, L"Antivirus", engines, 0}};
    for (const auto& n : missing) {
        IUpdate::ComponentInfo info{std::get<0>(n), std::get<1>(n), nullptr};
        EXPECT_EQ(std::get<3>(n), CallSlot<DWORD>(face, 7, &info, std::get<2>(n)));
    }
    const int reloadsBefore = plugin.env.scanSp.GetCounts().reloads;
    const std::vector<std::wstring> texts = HostileTexts();
    for (const std::wstring& text : texts) {
        const DWORD emptyIs87 = text.empty() ? 87u : 0u;
        IUpdate::ComponentInfo asComponent{L"Updater", text.c_str(), nullptr};
        EXPECT_EQ(emptyIs87, CallSlot<DWORD>(face, 7, &asComponent, engines)) << Describe(text);
        IUpdate::ComponentInfo asUpdater{text.c_str(), L"Antivirus", nullptr};
        EXPECT_EQ(0u, CallSlot<DWORD>(face, 7, &asUpdater, engines)) << Describe(text);
        IUpdate::ComponentInfo normal{L"Updater", L"Antivirus", nullptr};
        EXPECT_EQ(emptyIs87, CallSlot<DWORD>(face, 7, &normal, text.c_str())) << Describe(text);
    }
    // Every hostile updater reloads, and every non-empty hostile path; no component is "Antivirus".
    const int all = static_cast<int>(texts.size());
    EXPECT_EQ(reloadsBefore + all + (all - 1), plugin.env.scanSp.GetCounts().reloads);
    // The other notifications ignore whatever they are given.
    IUpdate::ComponentInfo nulls{nullptr, nullptr, nullptr};
    EXPECT_EQ(0u, CallSlot<DWORD>(face, 0, static_cast<const wchar_t*>(nullptr)));
    for (int slot : {3, 4, 5, 8}) EXPECT_EQ(0u, CallSlot<DWORD>(face, slot, &nulls));
    EXPECT_EQ(0u, CallSlot<DWORD>(face, 6, &nulls, DWORD(5)));
    EXPECT_EQ(0u, CallSlot<DWORD>(face, 1, uint32_t(1000)));
    EXPECT_EQ(0u, CallSlot<DWORD>(face, 2, DWORD(1)));
    EXPECT_EQ(0u, CallSlot<DWORD>(face, 9, uint32_t(7)));
    for (int slot = 10; slot <= 14; ++slot) EXPECT_EQ(0u, CallSlot<DWORD>(face, slot));
}

// Hostile feature names each keep their own lock (the empty one and one holding a NUL are
// refused), the file stays one JSON object, and the next lifetime reads them back.
TEST_F(BadInput, HostileFeatureNamesAreKeptAndTheFileStaysValid) {
    const std::wstring file = root_ + L"\\settings.json";
    plugin.env.settings.UseFile(file);
    ASSERT_TRUE(plugin.StartAll());
    std::vector<std::wstring> names = HostileTexts();
    names.push_back(std::wstring(L"with\0nul", 8));
    for (size_t i = 0; i < names.size(); ++i) {
        const qv::StringW name(names[i].c_str(), names[i].size());
        const bool refused = names[i].empty() || names[i].find(L'\0') != std::wstring::npos;
        const DWORD expected = refused ? 87 : 0;
        bool read = i % 2 != 0;
        EXPECT_EQ(expected, SetFeatureStatus(plugin.scan, name, i % 2 == 0)) << Describe(names[i]);
        EXPECT_EQ(expected, GetFeatureStatus(plugin.scan, name, &read));
        EXPECT_EQ(refused ? i % 2 != 0 : i % 2 == 0, read) << Describe(names[i]) << ": written only when accepted";
    }
    Json::Value document;
    EXPECT_TRUE(ReadSettingsFile(file, document));
    plugin.StopAll();
    plugin.env.settings.Reload();
    EXPECT_FALSE(plugin.env.settings.LoadedCorrupt());
    EXPECT_EQ(0u, plugin.Init());
    EXPECT_TRUE(FeatureLocked(plugin.scan, names[2].c_str())) << "the non-BMP name read back from the file";
}

// Each configuration text set to each hostile text in turn. Only the scan type can fail Init
// (13); everything else is logged and the plug-in runs on.
TEST_F(BadInput, HostileConfigurationTexts) {
    const std::pair<int32_t, const wchar_t*> keys[] = {
        {51, L"BASE"}, {17, L"scansp"}, {2, L"scansp"}, {0, L"signaturesPatterns"}, {0, L"common"}};
    // Relative texts name folders below the current one: let that be ours.
    const std::wstring work = root_ + L"\\work";
    CreateDirectoryW(work.c_str(), nullptr);
    ASSERT_TRUE(SetCurrentDirectoryW(work.c_str()));
    for (const auto& key : keys) {
        for (const std::wstring& text : HostileTexts()) {
            // Roots as the core temp folder are left to the deletion-safety tests.
            if (key.first == 17 && (text == L"\\" || text == L"C:")) continue;
            SCOPED_TRACE(Describe(text) + " as " + std::to_string(key.first));
            plugin.env.servConfig.SetText(51, L"BASE", L"full");
            plugin.env.servConfig.SetText(17, L"scansp", (root_ + L"\\temp\\scansp").c_str());
            plugin.env.servConfig.SetText(2, L"scansp", engines_.c_str());
            plugin.env.servConfig.SetText(key.first, key.second, text.c_str());
            avhost::ClearCapturedLines();
            if (key.first == 51) {
                EXPECT_EQ(13u, plugin.Init());
                EXPECT_TRUE(LineWith(L"Invalid scan type.", 4));
            } else {
                ASSERT_TRUE(plugin.StartAll());
                EXPECT_EQ(0u, plugin.env.update.DeliverComponentInstalled(L"U", L"Antivirus", engines_.c_str()));
                plugin.StopAll();
            }
            EXPECT_TRUE(plugin.env.manager.Balanced());
            EXPECT_FALSE(LineStartingWith(L"unexpected exception"));
        }
    }
    EXPECT_TRUE(Exists(engines_)) << "the engines folder itself is never removed";
}

// Settings files in no shape the plug-in wrote: not JSON, a section that is no object, every key
// wrong at once, deep nesting, 1 MiB values. Defaults load, and a switch written then leaves one
// JSON object behind.
TEST_F(BadInput, HostileSettingsFiles) {
    const std::wstring file = root_ + L"\\settings.json";
    std::string deep;
    for (int i = 0; i < 900; ++i) deep += i % 2 ? "{\"k\":" : "[";
    deep += "true";
    for (int i = 899; i >= 0; --i) deep += i % 2 ? "}" : "]";
    const std::string big = "\"" + std::string(kMiB, 'z') + "\"";
    const std::string section = "{\"/AntivirusScan\": ";
    struct Document {
        std::string text;
        bool corrupt, hashChain;
    };
    const Document documents[] = {
        {"\x01\x02{{{ not json", true, false},
        {"[1,2,3]", true, false},
        {section + "[true, false]}", false, false},
        {section + "5}", false, false},
        {section + "{\"enableBackup\": \"yes\", \"reportHashChain\": [true], \"reportSignatureInfo\": 1,"
                   " \"engines\": {\"reloadStatus\": -3, \"folder\": {\"a\": 1}}, \"Feature\": \"no\"}}",
         false, false},
        {section + "{\"engines\": \"C:\\\\x\"}}", false, false},
        {section + "{\"enableBackup\": " + deep + ", \"reportHashChain\": {\"enabled\": true, \"x\": " + deep +
             "}, \"reportSignatureInfo\": " + deep + ", \"engines\": {\"folder\": " + deep + "}, \"Feature\": " + deep +
             "}}",
         false, true},
        {section + "{\"enableBackup\": " + big + ", \"engines\": {\"folder\": " + big + "}, \"Feature\": " + big + "}}",
         false, false},
    };
    int index = 0;
    for (const Document& d : documents) {
        SCOPED_TRACE("document " + std::to_string(index++));
        ASSERT_TRUE(WriteBytes(file, d.text));
        EXPECT_EQ(!d.corrupt, plugin.env.settings.UseFile(file));
        ASSERT_EQ(0u, plugin.Init());
        EXPECT_FALSE(BackupOf(plugin.scan));
        EXPECT_FALSE(SignatureInfoOf(plugin.scan));
        EXPECT_EQ(d.hashChain, HashChainOf(plugin.scan));
        EXPECT_TRUE(FeatureLocked(plugin.scan, L"Feature")) << "a feature stored as no boolean counts as locked";
        EXPECT_EQ(0u, ReportSignatureInfo(plugin.scan, true));
        Json::Value document;
        EXPECT_TRUE(ReadSettingsFile(file, document));
        EXPECT_EQ(Json::Value(true), ModuleSection(document)["reportSignatureInfo"]);
        EXPECT_EQ(0u, plugin.UnInit());
        EXPECT_EQ(0, plugin.env.settings.Outstanding());
    }
}

} // namespace
