// The module's settings document as the plug-in loads and saves it through the host's settings
// store: defaults, unopenable sections, partial writes, persistence across plug-in lifetimes, and
// documents of the wrong shape.
#include "tests/common/DeepJson.h"
#include "tests/common/ScanSlots.h"

#include <gtest/gtest.h>

namespace {

using namespace testing_support;
using namespace testing_support::slots;

const wchar_t kSectionPath[] = L"/AntivirusScan";
const wchar_t kFolder[] = L"C:\\Engines\\Old";

// What the object holds: the switches through their slots, the engines record from the lines
// Init logs right after loading the settings.
struct Observed {
    bool backup, hashChain, signatureInfo;
    std::wstring reloadStatus, folder;
};

Observed Observe(void* scan) {
    return {BackupOf(scan), HashChainOf(scan), SignatureInfoOf(scan), LineAfter(L"Last reload engines status = "),
            LineAfter(L"LastOk engines folder = ")};
}

void ExpectObserved(const Observed& expected, void* scan, const std::string& what) {
    const Observed o = Observe(scan);
    EXPECT_EQ(expected.backup, o.backup) << what;
    EXPECT_EQ(expected.hashChain, o.hashChain) << what;
    EXPECT_EQ(expected.signatureInfo, o.signatureInfo) << what;
    EXPECT_EQ(expected.reloadStatus, o.reloadStatus) << what;
    EXPECT_EQ(expected.folder, o.folder) << what;
    EXPECT_TRUE(LineWith(expected.backup ? L"[backup = 1]" : L"[backup = 0]", 32)) << what;
}

const Observed kDefaults{false, false, false, L"2", L""};
const Observed kGood{true, true, true, L"1", kFolder};

// A section holding a non-default value in every key.
Json::Value GoodSection() {
    Json::Value section(Json::objectValue);
    section["enableBackup"] = true;
    section["reportHashChain"]["enabled"] = true;
    section["reportSignatureInfo"] = true;
    section["engines"]["reloadStatus"] = 1;
    section["engines"]["folder"] = "C:\\Engines\\Old";
    return section;
}

std::vector<std::wstring> KeysWritten(const host::SettingsStore& store) {
    std::vector<std::wstring> keys;
    for (const auto& set : store.SetLog()) keys.push_back(set.key);
    return keys;
}

const std::vector<std::wstring> kSwitchKeys = {L"enableBackup", L"reportHashChain", L"reportSignatureInfo"};

class Settings : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, plugin.scan);
        avhost::ClearCapturedLines();
    }
    host::SettingsStore& store() { return plugin.env.settings; }
    Json::Value Section() { return store().Section(kSectionPath); }
    PluginUnderTest plugin;
};

TEST_F(Settings, OpenableEmptySectionLoadsDefaultsAndWritesNothing) {
    ASSERT_EQ(0u, plugin.Init());
    ExpectObserved(kDefaults, plugin.scan, "empty");
    EXPECT_FALSE(avhost::Contains(L"Cannot load settings."));
    EXPECT_TRUE(store().SetLog().empty());
    EXPECT_TRUE(Section().isNull());
    EXPECT_EQ(0, store().Outstanding());
}

TEST_F(Settings, UnopenableSectionWritesTheDefaultSwitchesBack) {
    store().SetDocument(WithSection(GoodSection()));
    store().RefuseNextOpens(1);
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(LineWith(L"Cannot load settings.", 8));
    ExpectObserved(kDefaults, plugin.scan, "unopenable");
    EXPECT_EQ(kSwitchKeys, KeysWritten(store()));
    Json::Value expected = GoodSection();
    expected["enableBackup"] = false;
    expected["reportHashChain"]["enabled"] = false;
    expected["reportSignatureInfo"] = false;
    EXPECT_EQ(expected, Section()) << "the engines keys are not written";
    EXPECT_EQ(0, store().Outstanding());
}

// A set that fails in the middle of a save keeps what was written before it and tries nothing after.
TEST_F(Settings, FailedSetLeavesEarlierKeysWrittenAndLaterOnesUntouched) {
    ASSERT_EQ(0u, plugin.Init());
    for (int failing = 1; failing <= 3; ++failing) {
        store().SetDocument(Json::Value(Json::objectValue));
        store().ResetCounts();
        avhost::ClearCapturedLines();
        store().FailSetNumber(failing);
        EXPECT_EQ(1013u, ReportSignatureInfo(plugin.scan, true));
        EXPECT_TRUE(LineWith(L"save failed", 4));
        EXPECT_EQ(failing, store().GetCounts().sets) << "no set is tried after the failing one";
        Json::Value expected(Json::objectValue);
        if (failing > 1) expected["enableBackup"] = false;
        if (failing > 2) expected["reportHashChain"]["enabled"] = false;
        EXPECT_EQ(expected, Section().isNull() ? Json::Value(Json::objectValue) : Section()) << failing;
        EXPECT_FALSE(SignatureInfoOf(plugin.scan));
        EXPECT_EQ(0, store().Outstanding());
    }
}

TEST(SettingsLifetimes, NextLifetimeReadsTheSameFile) {
    const std::wstring folder = TempFolder(L"settings");
    const std::wstring path = folder + L"\\settings.json";
    {
        PluginUnderTest first;
        ASSERT_TRUE(first.env.settings.UseFile(path));
        ASSERT_EQ(0u, first.Init());
        ASSERT_EQ(0u, EnableBackup(first.scan, true));
        ASSERT_EQ(0u, ReportHashChain(first.scan, true));
        ASSERT_EQ(0u, ReportSignatureInfo(first.scan, true));
        ASSERT_EQ(0u, SetFeatureStatus(first.scan, L"Quarantine", false));
        ASSERT_EQ(0u, SetFeatureStatus(first.scan, L"Cloud", true));
    }
    avhost::ClearCapturedLines();
    host::HostEnvironment fileEnv(path);
    PluginUnderTest second;
    ASSERT_EQ(0u, second.InitWith(&fileEnv.host));
    ExpectObserved({true, true, true, L"2", L""}, second.scan, "second lifetime");
    EXPECT_FALSE(FeatureLocked(second.scan, L"Quarantine"));
    EXPECT_TRUE(FeatureLocked(second.scan, L"Cloud"));
    EXPECT_TRUE(fileEnv.settings.SetLog().empty());
    ASSERT_EQ(0u, second.UnInit());
    second.stopped = true;
    RemoveFolder(folder);
}

// `depth` containers nested one in the other, the innermost holding true.
Json::Value Nested(int depth, bool arrays) {
    Json::Value root;
    Json::Value* node = &root;
    for (int i = 0; i < depth; ++i) node = arrays ? &(*node)[0] : &(*node)["next"];
    *node = true;
    return root;
}

// Every key with every JSON type it must not hold, malformed UTF-8 and deep nesting: that field
// takes its default, the others load, and nothing else happens.
TEST_F(Settings, ValuesOfTheWrongShapeTakeTheirDefaults) {
    struct Case {
        std::string key; // "engines/..." is nested
        Json::Value value;
        Observed expected;
        int replaced = -1; // >= 0: the folder only starts with expected.folder, with or without U+FFFD
    };
    Json::Value object(Json::objectValue), boolArray(Json::arrayValue), emptyEnabled(Json::objectValue);
    object["enabled"] = true;
    boolArray.append(true);
    emptyEnabled["Enabled"] = true; // names are exact
    const Json::Value number(7), real(1.0), text("true"), array(Json::arrayValue), null, yes(true);
    const Json::Value deepObject = Nested(500, false), deepArray = Nested(500, true);
    Json::Value deepSibling = object, enabledOne = object;
    deepSibling["extra"] = deepObject;
    enabledOne["enabled"] = 1;

    std::vector<Case> cases = {{"none", null, kGood}};
    auto with = [](Observed o, int field) {
        if (field == 0) o.backup = false;
        if (field == 1) o.hashChain = false;
        if (field == 2) o.signatureInfo = false;
        if (field == 3 || field == 5) o.reloadStatus = L"2";
        if (field >= 4) o.folder = L"";
        return o;
    };
    for (const Json::Value& v : {number, real, text, array, boolArray, object, null}) {
        cases.push_back({"enableBackup", v, with(kGood, 0)});
        cases.push_back({"reportSignatureInfo", v, with(kGood, 2)});
    }
    for (const Json::Value& v : {number, real, text, array, boolArray, null, yes, emptyEnabled, deepObject, deepArray})
        cases.push_back({"reportHashChain", v, with(kGood, 1)});
    for (const Json::Value& v :
         {real, text, array, object, null, yes, Json::Value(-1), Json::Value(Json::UInt64(1) << 32)})
        cases.push_back({"engines/reloadStatus", v, with(kGood, 3)});
    for (const Json::Value& v : {number, real, array, object, null, yes})
        cases.push_back({"engines/folder", v, with(kGood, 4)});
    for (const Json::Value& v : {number, text, array, null, yes, deepArray})
        cases.push_back({"engines", v, with(kGood, 5)});
    cases.push_back({"enableBackup", deepObject, with(kGood, 0)});
    cases.push_back({"reportHashChain", deepSibling, kGood});
    cases.push_back({"reportHashChain", enabledOne, kGood});
    // Malformed UTF-8 shows as replacement characters (checked below); an embedded NUL does not.
    Observed eng = kGood;
    eng.folder = L"C:\\Eng";
    for (const char* bytes :
         {"C:\\Eng\xff\xfeines", "C:\\Eng\xc3", "C:\\Eng\xed\xa0\x80ines", "C:\\Eng\xe0\x80\xafines"})
        cases.push_back({"engines/folder", Json::Value(bytes), eng, true});
    cases.push_back({"engines/folder", Json::Value("C:\\Eng\0ines", "C:\\Eng\0ines" + 11), eng, false});

    for (const Case& c : cases) {
        Json::Value section = GoodSection();
        if (c.key.rfind("engines/", 0) == 0) {
            section["engines"][c.key.substr(8)] = c.value;
        } else if (c.key != "none") {
            section[c.key] = c.value;
        }
        store().SetDocument(WithSection(section));
        avhost::ClearCapturedLines();
        ASSERT_EQ(0u, plugin.Init());
        const std::string what = c.key + " = " + c.value.toStyledString().substr(0, 80);
        Observed expected = c.expected;
        if (c.replaced >= 0) {
            const std::wstring folder = LineAfter(L"LastOk engines folder = ");
            EXPECT_EQ(0u, folder.rfind(expected.folder, 0)) << what;
            EXPECT_EQ(c.replaced == 1, folder.find(L'\xFFFD') != std::wstring::npos) << what;
            expected.folder = folder;
        }
        ExpectObserved(expected, plugin.scan, what);
        EXPECT_FALSE(avhost::Contains(L"Cannot load settings.")) << what;
        EXPECT_EQ(0, store().Outstanding());
        ASSERT_EQ(0u, plugin.UnInit());
    }
}

// "reportHashChain" whose "enabled" is nested `levels` objects deep, read by Init on a thread with
// a host's 1 MiB stack. The plug-in converts at most 256 levels (past them the switch keeps its
// default, silently, as with any ill-typed key); the store holds documents of at most 1,000 levels in all and
// starts empty from a deeper file. Nothing overflows a stack, however deep the file.
TEST_F(Settings, DeeplyNestedDocumentsOnAHostThreadStack) {
    const std::wstring folder = TempFolder(L"deep-settings");
    const std::wstring file = folder + L"\\settings.json";
    struct Case {
        int levels;
        bool stored, hashChain;
    };
    // The document's root, the section and "reportHashChain" are three levels above the member.
    const Case cases[] = {{256, true, true},   {257, true, false},    {996, true, false},
                          {997, false, false}, {10000, false, false}, {100000, false, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.levels);
        const std::string text = "{\"/AntivirusScan\": {\"enableBackup\": true, \"reportHashChain\": {\"enabled\": " +
                                 NestedEnabledText(c.levels) + "}}}";
        ASSERT_TRUE(WriteBytes(file, text));
        EXPECT_EQ(c.stored, store().UseFile(file));
        avhost::ClearCapturedLines();
        DWORD result = 1;
        ASSERT_TRUE(RunWithStack(1u << 20, [&] { result = plugin.Init(); }));
        EXPECT_EQ(0u, result);
        EXPECT_EQ(c.stored, BackupOf(plugin.scan)) << "the other keys load as usual";
        EXPECT_EQ(c.hashChain, HashChainOf(plugin.scan));
        EXPECT_FALSE(avhost::Contains(L"nesting too deep")) << "an ill-typed key takes its default silently";
        EXPECT_EQ(!c.stored, LineWith(L"[backup = 0]", 32));
        EXPECT_FALSE(avhost::Contains(L"Cannot load settings."));
        EXPECT_EQ(0, store().Outstanding());
        ASSERT_EQ(0u, plugin.UnInit());
    }
    // Handed over whole, such documents are refused and the store keeps what it held.
    store().UseFile(L"");
    ASSERT_TRUE(store().SetDocument(WithSection(GoodSection())));
    for (int levels : {10000, 100000}) {
        // Built in place and torn down without recursion: jsoncpp copies and destroys values
        // recursively, and a copy this deep would overflow the test's own stack.
        Json::Value document = WithSection(GoodSection());
        document["/AntivirusScan"]["reportHashChain"]["enabled"] = NestedEnabled(levels);
        EXPECT_FALSE(store().SetDocument(document)) << levels;
        ReleaseDeep(document);
    }
    EXPECT_EQ(GoodSection(), Section());
    RemoveFolder(folder);
}

} // namespace
