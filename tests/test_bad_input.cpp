// Bad input at every door of the plug-in: the two exports, every IAntivirusScan slot, the
// lifecycle and event faces, the service configuration texts, the settings document and the
// engines kit's "Plugins\update.txt". Null arguments, unknown interface ids, strings of 1 MiB,
// text outside the Basic Multilingual Plane and lone surrogates, slots called before Init and
// after UnInit. Nothing may crash; each gets its documented answer.
#include "tests/common/ScanSlots.h"
#include "tests/common/UpdateFileModel.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

using namespace testing_support;
using namespace testing_support::slots;
namespace ids = qv::kxsdk::ids;
using qv::kxsdk::Update::IUpdate;

constexpr size_t kMiB = 1u << 20;

// Texts that are hard on any code that handles wide strings.
std::vector<std::wstring> HostileTexts() {
    std::wstring big(kMiB, L'a');
    std::wstring bigPath = L"C:\\" + std::wstring(kMiB, L'x');
    std::wstring astral = L"\xD83D\xDE00 face \xD800\xDF48 gothic";  // U+1F600, U+10348
    std::wstring loneHigh = L"name\xD800";
    std::wstring loneLow = L"\xDC00name";
    std::wstring reversed = L"\xDE00\xD83D";
    std::wstring percent = L"%s%s%s%d%n%ls";
    return {big, bigPath, astral, loneHigh, loneLow, reversed, percent, L"", L" ", L"\\", L"C:"};
}

std::string Describe(const std::wstring& text) {
    std::string out = "text of " + std::to_string(text.size()) + " units:";
    for (size_t i = 0; i < text.size() && i < 12; ++i) out += " " + std::to_string(static_cast<unsigned>(text[i]));
    return out;
}

bool BackupOf(void* scan) {
    bool on = false;
    IsBackupEnabled(scan, &on);
    return on;
}
bool HashChainOf(void* scan) {
    HashChainSettings hc{false};
    GetHashChainSettings(scan, &hc);
    return hc.enabled;
}
bool SignatureInfoOf(void* scan) {
    bool on = false;
    IsSignatureInfoReported(scan, &on);
    return on;
}

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

TEST_F(BadInput, ExportsRejectNullsUnknownNamesAndUnknownIds) {
    PluginLibrary& lib = plugin.library;
    void* out = reinterpret_cast<void*>(1);
    EXPECT_EQ(87u, lib.create(ids::kAntivirusScanObjectName, ids::kPrimaryFaceId, nullptr));
    EXPECT_EQ(1168u, lib.create(nullptr, ids::kPrimaryFaceId, &out));
    EXPECT_EQ(nullptr, out);
    for (const std::wstring& name : HostileTexts()) {
        out = reinterpret_cast<void*>(1);
        EXPECT_EQ(1168u, lib.create(name.c_str(), ids::kPrimaryFaceId, &out)) << Describe(name);
        EXPECT_EQ(nullptr, out);
        EXPECT_EQ(0u, lib.destroy(name.c_str(), plugin.primary)) << Describe(name);
    }
    EXPECT_EQ(0u, lib.destroy(nullptr, nullptr));

    // Unknown ids: a fixed-seed sample, and the known ids with one bit changed in each half.
    std::mt19937_64 random(20240601);
    std::vector<GUID> unknown = {GUID{}, qv::MakeInterfaceId(~0ull, ~0ull)};
    for (int i = 0; i < 64; ++i) unknown.push_back(qv::MakeInterfaceId(random(), random()));
    for (const GUID& known : {ids::kPrimaryFaceId, ids::kServPluginFaceId, ids::kDelayedServPluginFaceId,
                              ids::kAntivirusScanFaceId}) {
        uint64_t halves[2];
        memcpy(halves, &known, sizeof halves);
        for (int bit : {0, 63}) {
            unknown.push_back(qv::MakeInterfaceId(halves[0] ^ (1ull << bit), halves[1]));
            unknown.push_back(qv::MakeInterfaceId(halves[0], halves[1] ^ (1ull << bit)));
        }
    }
    for (const GUID& id : unknown) {
        out = reinterpret_cast<void*>(1);
        EXPECT_EQ(1168u, lib.create(ids::kAntivirusScanObjectName, id, &out));
        EXPECT_EQ(nullptr, out);
        EXPECT_EQ(nullptr, CallSlot<void*>(plugin.primary, kQueryInterface, &id));
    }
    // Every failed create gave its reference back: the object is the same one and still works.
    void* again = nullptr;
    ASSERT_EQ(0u, lib.create(ids::kAntivirusScanObjectName, ids::kPrimaryFaceId, &again));
    EXPECT_EQ(plugin.primary, again);
    lib.destroy(ids::kAntivirusScanObjectName, again);
    ScanType type;
    EXPECT_EQ(0u, GetScanType(plugin.scan, &type));
}

// Each slot with a null where it writes its answer: 87, one error line, and nothing else.
void ExpectNullsRejected(void* scan) {
    struct Call {
        const char* name;
        DWORD (*call)(void*);
    };
    const Call calls[] = {
        {"RegisterEnginesEvents", [](void* s) { return RegisterEngines(s, nullptr); }},
        {"RegisterScanEvents", [](void* s) { return RegisterScan(s, nullptr); }},
        {"RegisterSettingsEvents", [](void* s) { return RegisterSettings(s, nullptr); }},
        {"UnregisterEnginesEvents", [](void* s) { return UnregisterEngines(s, nullptr); }},
        {"UnregisterScanEvents", [](void* s) { return UnregisterScan(s, nullptr); }},
        {"UnregisterSettingsEvents", [](void* s) { return UnregisterSettings(s, nullptr); }},
        {"GetScanType", [](void* s) { return GetScanType(s, nullptr); }},
        {"GetScanModes primary", [](void* s) {
             ScanMode f;
             return GetScanModes(s, nullptr, &f);
         }},
        {"GetScanModes fallback", [](void* s) {
             ScanMode p;
             return GetScanModes(s, &p, nullptr);
         }},
        {"GetScanModes both", [](void* s) { return GetScanModes(s, nullptr, nullptr); }},
        {"IsBackupEnabled", [](void* s) { return IsBackupEnabled(s, nullptr); }},
        {"GetEnginesVersion", [](void* s) { return GetEnginesVersion(s, nullptr); }},
        {"GetSignaturesCount", [](void* s) { return GetSignaturesCount(s, nullptr); }},
        {"GetFeatureStatus", [](void* s) { return GetFeatureStatus(s, qv::StringW(L"Feature"), nullptr); }},
        {"GetHashChainSettings", [](void* s) { return GetHashChainSettings(s, nullptr); }},
        {"IsSignatureInfoReported", [](void* s) { return IsSignatureInfoReported(s, nullptr); }},
    };
    for (const Call& c : calls) {
        avhost::ClearCapturedLines();
        EXPECT_EQ(87u, c.call(scan)) << c.name;
        EXPECT_TRUE(LineWith(L"invalid parameter", 4)) << c.name;
    }
}

TEST_F(BadInput, NullOutPointersGive87AtEverySlotInEveryState) {
    {
        SCOPED_TRACE("before Init");
        ExpectNullsRejected(plugin.scan);
    }
    ASSERT_TRUE(plugin.StartAll());
    {
        SCOPED_TRACE("running");
        ExpectNullsRejected(plugin.scan);
    }
    plugin.StopAll();
    {
        SCOPED_TRACE("after UnInit");
        ExpectNullsRejected(plugin.scan);
    }
    plugin.env.manager.SetMissing(ids::kScanSpName);
    ASSERT_TRUE(plugin.StartAll());
    {
        SCOPED_TRACE("during engines recovery");
        ExpectNullsRejected(plugin.scan);
    }
    EXPECT_EQ(87u, plugin.InitWith(nullptr));
}

// Without Init (or after UnInit) there is no store and no provider: queries answer from the
// defaults, switches cannot be saved, and the events find nothing to act on.
TEST_F(BadInput, EveryFaceAnswersBeforeInitAndAfterUnInit) {
    auto expectUnconfigured = [&](const char* when) {
        SCOPED_TRACE(when);
        ScanType type = qv::kxsdk::AntivirusScan::RemoteOnly;
        ScanMode p = ScanMode(9), f = ScanMode(9);
        bool on = true;
        qv::StringW version(L"x");
        uint64_t count = 9;
        HashChainSettings hc{true};
        EXPECT_EQ(0u, GetScanType(plugin.scan, &type));
        EXPECT_EQ(0u, GetScanModes(plugin.scan, &p, &f));
        EXPECT_EQ(1013u, EnableBackup(plugin.scan, !BackupOf(plugin.scan)));
        EXPECT_EQ(1013u, ReportHashChain(plugin.scan, !HashChainOf(plugin.scan)));
        EXPECT_EQ(1013u, ReportSignatureInfo(plugin.scan, !SignatureInfoOf(plugin.scan)));
        EXPECT_EQ(0u, SetFeatureStatus(plugin.scan, qv::StringW(L"Feature"), false));
        EXPECT_EQ(0u, GetFeatureStatus(plugin.scan, qv::StringW(L"Feature"), &on));
        EXPECT_FALSE(on);
        EXPECT_EQ(0u, GetEnginesVersion(plugin.scan, &version));
        EXPECT_EQ(0u, GetSignaturesCount(plugin.scan, &count));
        EXPECT_EQ(0u, GetHashChainSettings(plugin.scan, &hc));
        EXPECT_EQ(5002u, plugin.Start());
        EXPECT_EQ(0u, plugin.Stop());
        EXPECT_EQ(0u, plugin.UnInit());
    };
    expectUnconfigured("before Init");
    EXPECT_EQ(0u, plugin.DelayedStart()) << "a delayed start without Init runs a recovery with nothing to use";

    ASSERT_TRUE(plugin.StartAll());
    IUpdate::IEvents* update = UpdateFace();
    ASSERT_NE(nullptr, update);
    void* remote = plugin.env.remoteScan.RegisteredSinks().empty() ? nullptr
                                                                    : plugin.env.remoteScan.RegisteredSinks()[0];
    ASSERT_NE(nullptr, remote);
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
    const std::wstring engines = engines_;
    struct Notice {
        const wchar_t* updater;
        const wchar_t* component;
        const wchar_t* path;
        DWORD code;
    };
    const Notice missing[] = {{L"U", L"Antivirus", nullptr, 87}, {L"U", L"Antivirus", L"", 87},
                              {L"U", nullptr, engines.c_str(), 87}, {L"U", L"", engines.c_str(), 87},
                              {nullptr, nullptr, nullptr, 87},      {nullptr, L"Antivirus", engines.c_str(), 0}};
    for (const Notice& n : missing) {
        IUpdate::ComponentInfo info{n.updater, n.component, nullptr};
        EXPECT_EQ(n.code, CallSlot<DWORD>(face, 7, &info, n.path));
    }
    const int reloadsBefore = plugin.env.scanSp.GetCounts().reloads;
    for (const std::wstring& text : HostileTexts()) {
        IUpdate::ComponentInfo asComponent{L"Updater", text.c_str(), nullptr};
        EXPECT_EQ(text.empty() ? 87u : 0u, CallSlot<DWORD>(face, 7, &asComponent, engines.c_str())) << Describe(text);
        IUpdate::ComponentInfo asUpdater{text.c_str(), L"Antivirus", nullptr};
        EXPECT_EQ(0u, CallSlot<DWORD>(face, 7, &asUpdater, engines.c_str())) << Describe(text);
        IUpdate::ComponentInfo normal{L"Updater", L"Antivirus", nullptr};
        EXPECT_EQ(text.empty() ? 87u : 0u, CallSlot<DWORD>(face, 7, &normal, text.c_str())) << Describe(text);
    }
    // Hostile updaters (the empty one too) are no maintenance updaters and every non-empty
    // hostile path still reloads; no hostile component name is "Antivirus".
    const int all = static_cast<int>(HostileTexts().size());
    EXPECT_EQ(reloadsBefore + all + (all - 1), plugin.env.scanSp.GetCounts().reloads);
    // The other fourteen notifications ignore whatever they are given.
    IUpdate::ComponentInfo nulls{nullptr, nullptr, nullptr};
    EXPECT_EQ(0u, CallSlot<DWORD>(face, 0, static_cast<const wchar_t*>(nullptr)));
    for (int slot : {3, 4, 5, 8}) EXPECT_EQ(0u, CallSlot<DWORD>(face, slot, &nulls));
    EXPECT_EQ(0u, CallSlot<DWORD>(face, 6, &nulls, DWORD(5)));
    EXPECT_EQ(0u, CallSlot<DWORD>(face, 1, uint32_t(1000)));
    EXPECT_EQ(0u, CallSlot<DWORD>(face, 2, DWORD(1)));
    EXPECT_EQ(0u, CallSlot<DWORD>(face, 9, uint32_t(7)));
    for (int slot = 10; slot <= 14; ++slot) EXPECT_EQ(0u, CallSlot<DWORD>(face, slot));
    EXPECT_FALSE(LineStartingWith(L"unexpected exception"));
}

// Feature names of every hostile kind: each keeps its own lock in memory, the file stays one
// JSON object, and the next lifetime still starts.
TEST_F(BadInput, HostileFeatureNamesAreKeptAndTheFileStaysValid) {
    const std::wstring file = root_ + L"\\settings.json";
    plugin.env.settings.UseFile(file);
    ASSERT_TRUE(plugin.StartAll());
    std::vector<std::wstring> names = HostileTexts();
    names.push_back(std::wstring(L"with\0nul", 8));
    for (size_t i = 0; i < names.size(); ++i) {
        const qv::StringW name(names[i].c_str(), names[i].size());
        const bool locked = i % 2 == 0;
        EXPECT_EQ(0u, SetFeatureStatus(plugin.scan, name, locked)) << Describe(names[i]);
        bool read = !locked;
        EXPECT_EQ(0u, GetFeatureStatus(plugin.scan, name, &read)) << Describe(names[i]);
        EXPECT_EQ(locked, read) << Describe(names[i]);
    }
    Json::Value document;
    EXPECT_TRUE(ReadSettingsFile(file, document));
    plugin.StopAll();
    EXPECT_EQ(0, plugin.env.settings.Outstanding());
    plugin.env.settings.Reload();
    EXPECT_FALSE(plugin.env.settings.LoadedCorrupt());
    EXPECT_EQ(0u, plugin.Init());
    bool locked = false;
    EXPECT_EQ(0u, GetFeatureStatus(plugin.scan, qv::StringW(names[2].c_str()), &locked));
    EXPECT_TRUE(locked) << "the non-BMP name read back from the file";
    EXPECT_EQ(0u, plugin.UnInit());
}

// Each configuration text set to each hostile text in turn. Only the scan type can fail Init
// (13); everything else is logged and the plug-in runs on.
TEST_F(BadInput, HostileConfigurationTexts) {
    struct Key {
        int32_t category;
        const wchar_t* name;
    };
    const Key keys[] = {{51, L"BASE"}, {17, L"scansp"}, {2, L"scansp"}, {0, L"signaturesPatterns"}, {0, L"common"}};
    // Texts that are relative paths name folders below the current one: let that be ours.
    const std::wstring work = root_ + L"\\work";
    CreateDirectoryW(work.c_str(), nullptr);
    ASSERT_TRUE(SetCurrentDirectoryW(work.c_str()));
    int cases = 0;
    for (const Key& key : keys) {
        for (const std::wstring& text : HostileTexts()) {
            // Roots and relative texts are left to the deletion-safety tests, in folders of their own.
            if (key.category == 17 && (text == L"\\" || text == L"C:")) continue;
            SCOPED_TRACE(Describe(text) + " as (" + std::to_string(key.category) + ")");
            plugin.env.servConfig.SetText(51, L"BASE", L"full");
            plugin.env.servConfig.SetText(17, L"scansp", (root_ + L"\\temp\\scansp").c_str());
            plugin.env.servConfig.SetText(2, L"scansp", engines_.c_str());
            plugin.env.servConfig.SetText(key.category, key.name, text.c_str());
            avhost::ClearCapturedLines();
            const DWORD init = plugin.Init();
            if (key.category == 51) {
                EXPECT_EQ(13u, init);
                EXPECT_TRUE(LineWith(L"Invalid scan type.", 4));
            } else {
                ASSERT_EQ(0u, init);
                EXPECT_EQ(0u, plugin.Start());
                EXPECT_EQ(0u, plugin.DelayedStart());
                EXPECT_EQ(0u, plugin.env.update.DeliverComponentInstalled(L"U", L"Antivirus", engines_.c_str()));
                EXPECT_EQ(0u, plugin.Stop());
                EXPECT_EQ(0u, plugin.UnInit());
            }
            EXPECT_TRUE(plugin.env.manager.Balanced());
            EXPECT_FALSE(LineStartingWith(L"unexpected exception"));
            ++cases;
        }
    }
    SetCurrentDirectoryW(ExeFolder().c_str());
    EXPECT_TRUE(Exists(engines_)) << "the engines folder itself is never removed";
    printf("hostile configuration cases: %d\n", cases);
}

// The engines kit's update file in shapes no kit should have, read while the update plug-in
// cannot answer: each gives what the reading rule gives, or nothing, and never a crash.
TEST_F(BadInput, HostileUpdateFiles) {
    plugin.env.update.FailStatistics(1460);
    ASSERT_TRUE(plugin.StartAll());
    IUpdate::IEvents* face = UpdateFace();
    ASSERT_NE(nullptr, face);
    const std::wstring file = engines_ + L"\\Plugins\\update.txt";

    std::mt19937 random(4242);
    std::string noise(64 * 1024, '\0');
    for (char& c : noise) c = static_cast<char>(random());
    const std::string longLine(kMiB, 'w');
    struct Shape {
        const char* name;
        std::string bytes;
    };
    const std::vector<Shape> shapes = {
        {"empty", ""},
        {"random bytes", noise},
        {"no line feed at all", "kit signatures 123 version 1.0"},
        {"1 MiB without a line feed", longLine},
        {"only line feeds", std::string(10, '\n')},
        {"three lines", "a\nb 5\nc\n"},
        {"fourth line without its feed", "a\nb 5\nc\nv 2.0"},
        {"1 MiB count line", "a\n" + longLine + " 77\nc\nv 3.0\n"},
        {"1 MiB version line", "a\nb 8\nc\n" + longLine + "\n"},
        {"1 MiB first line", longLine + "\nb 9\nc\nv 4.0\n"},
        {"carriage returns", "a\r\nb 10\r\nc\r\nv 5.0\r\n"},
        {"embedded NUL bytes", std::string("a\nb 1\0 2\nc\nv\0 6.0\n", 20)},
        {"high bytes", "a\nb \xff\xfe 11\nc\n\xc3\xa9 v\xe9\n"},
        {"tabs only", "\t\n\t\t\n\t\n\t \t\n"},
        {"count overflow", "a\nb 99999999999999999999999\nc\nv 7\n"},
        {"negative count", "a\nb -5\nc\nv 8\n"},
        {"blank lines", "\n\n\n\n"},
    };
    for (const Shape& shape : shapes) {
        SCOPED_TRACE(shape.name);
        ASSERT_TRUE(WriteBytes(file, shape.bytes));
        IUpdate::ComponentInfo info{L"Updater", L"Antivirus", nullptr};
        ASSERT_EQ(0u, CallSlot<DWORD>(face, 7, &info, engines_.c_str()));
        const ExpectedEngines expected = ExpectedFromUpdateFile(shape.bytes);
        qv::StringW version;
        uint64_t count = 1;
        EXPECT_EQ(0u, GetEnginesVersion(plugin.scan, &version));
        EXPECT_EQ(0u, GetSignaturesCount(plugin.scan, &count));
        EXPECT_EQ(expected.version, std::wstring(version.c_str(), version.Length()));
        EXPECT_EQ(expected.count, count);
    }
    DeleteFileW(file.c_str());
    EXPECT_FALSE(LineStartingWith(L"unexpected exception"));
}

// A settings document in no shape the plug-in wrote: not JSON at all, every key of a wrong type
// at once, a section that is no object, and nesting as deep as the store accepts from a file.
TEST_F(BadInput, HostileSettingsFiles) {
    const std::wstring file = root_ + L"\\settings.json";
    std::string deep;
    for (int i = 0; i < 900; ++i) deep += i % 2 ? "{\"k\":" : "[";
    deep += "true";
    for (int i = 899; i >= 0; --i) deep += i % 2 ? "}" : "]";
    const std::string bigText = "\"" + std::string(kMiB, 'z') + "\"";
    struct Document {
        const char* name;
        std::string text;
        bool corrupt;
    };
    const std::vector<Document> documents = {
        {"not JSON", "\x01\x02{{{ not json", true},
        {"array at the top", "[1,2,3]", true},
        {"section is an array", "{\"/AntivirusScan\": [true, false]}", false},
        {"section is a number", "{\"/AntivirusScan\": 5}", false},
        {"every key wrong at once",
         "{\"/AntivirusScan\": {\"enableBackup\": \"yes\", \"reportHashChain\": [true], \"reportSignatureInfo\": 1,"
         " \"engines\": {\"reloadStatus\": -3, \"folder\": {\"a\": 1}}, \"Feature\": \"no\"}}",
         false},
        {"engines is a string", "{\"/AntivirusScan\": {\"engines\": \"C:\\\\x\"}}", false},
        {"deep nesting in every key",
         "{\"/AntivirusScan\": {\"enableBackup\": " + deep + ", \"reportHashChain\": {\"enabled\": true, \"x\": " +
             deep + "}, \"reportSignatureInfo\": " + deep + ", \"engines\": {\"folder\": " + deep + "}, \"Feature\": " +
             deep + "}}",
         false},
        {"1 MiB values", "{\"/AntivirusScan\": {\"enableBackup\": " + bigText + ", \"engines\": {\"folder\": " +
                             bigText + "}, \"Feature\": " + bigText + "}}",
         false},
    };
    for (const Document& d : documents) {
        SCOPED_TRACE(d.name);
        ASSERT_TRUE(WriteBytes(file, d.text));
        EXPECT_EQ(!d.corrupt, plugin.env.settings.UseFile(file));
        avhost::ClearCapturedLines();
        ASSERT_EQ(0u, plugin.Init());
        bool on = true, locked = false;
        HashChainSettings hc{false};
        EXPECT_EQ(0u, IsBackupEnabled(plugin.scan, &on));
        EXPECT_FALSE(on);
        EXPECT_EQ(0u, IsSignatureInfoReported(plugin.scan, &on));
        EXPECT_FALSE(on);
        EXPECT_EQ(0u, GetHashChainSettings(plugin.scan, &hc));
        EXPECT_EQ(d.name == std::string("deep nesting in every key"), hc.enabled);
        EXPECT_EQ(0u, GetFeatureStatus(plugin.scan, qv::StringW(L"Feature"), &locked));
        EXPECT_TRUE(locked) << "a feature stored as no boolean counts as locked";
        // A switch written now replaces what it owns and leaves one JSON object behind.
        EXPECT_EQ(0u, ReportSignatureInfo(plugin.scan, true));
        Json::Value document;
        EXPECT_TRUE(ReadSettingsFile(file, document));
        EXPECT_EQ(Json::Value(true), ModuleSection(document)["reportSignatureInfo"]);
        EXPECT_EQ(0u, plugin.UnInit());
        EXPECT_EQ(0, plugin.env.settings.Outstanding());
    }
}

} // namespace
