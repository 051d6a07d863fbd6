// The module's settings document as the plug-in loads and saves it through the host's settings
// store: defaults, unopenable sections, partial writes, persistence across plug-in lifetimes, and
// documents of the wrong shape.
#include "tests/common/PluginHarness.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace {

using namespace testing_support;
using qv::kxsdk::AntivirusScan::HashChainSettings;

// IAntivirusScan slots used here.
enum Slot { kEnableBackup = 8, kIsBackupEnabled = 9, kReportHashChain = 14, kGetHashChainSettings = 15,
            kReportSignatureInfo = 16, kIsSignatureInfoReported = 17 };

const wchar_t kSectionPath[] = L"/AntivirusScan";

bool LineWith(const std::wstring& text, uint32_t severity) {
    for (const auto& line : avhost::CapturedLines()) {
        if (line.text == text && line.severity == severity) return true;
    }
    return false;
}

// The text after `prefix` of the first line starting with it, or "<none>".
std::wstring LineAfter(const std::wstring& prefix) {
    for (const auto& line : avhost::CapturedLines()) {
        if (line.text.compare(0, prefix.size(), prefix) == 0) return line.text.substr(prefix.size());
    }
    return L"<none>";
}

// What the object holds, read through its slots.
struct Observed {
    bool backup = true;
    bool hashChain = true;
    bool signatureInfo = true;
    // From the engines bookkeeping lines that Init logs right after loading the settings.
    std::wstring reloadStatus;
    std::wstring enginesFolder;
};

Observed Observe(void* scan) {
    Observed o;
    HashChainSettings hash{true};
    EXPECT_EQ(0u, CallSlot<DWORD>(scan, kIsBackupEnabled, &o.backup));
    EXPECT_EQ(0u, CallSlot<DWORD>(scan, kGetHashChainSettings, &hash));
    EXPECT_EQ(0u, CallSlot<DWORD>(scan, kIsSignatureInfoReported, &o.signatureInfo));
    o.hashChain = hash.enabled;
    o.reloadStatus = LineAfter(L"Last reload engines status = ");
    o.enginesFolder = LineAfter(L"LastOk engines folder = ");
    return o;
}

std::vector<std::wstring> KeysWritten(const host::SettingsStore& store) {
    std::vector<std::wstring> keys;
    for (const auto& set : store.SetLog()) keys.push_back(set.key);
    return keys;
}

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

Json::Value Document(const Json::Value& section) {
    Json::Value document(Json::objectValue);
    document["/AntivirusScan"] = section;
    return document;
}

// `depth` objects nested one in the other, the innermost holding `leaf`.
Json::Value Nested(int depth, const Json::Value& leaf, bool arrays = false) {
    Json::Value root;
    Json::Value* node = &root;
    for (int i = 0; i < depth; ++i) node = arrays ? &(*node)[0] : &(*node)["next"];
    *node = leaf;
    return root;
}

class Settings : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, plugin.primary);
        ASSERT_NE(nullptr, plugin.scan);
        avhost::ClearCapturedLines();
    }
    host::SettingsStore& store() { return plugin.env.settings; }
    Json::Value Section() { return store().Section(kSectionPath); }
    PluginUnderTest plugin;
};

TEST_F(Settings, OpenableEmptySectionLoadsDefaultsAndWritesNothing) {
    ASSERT_EQ(0u, plugin.Init());
    Observed o = Observe(plugin.scan);
    EXPECT_FALSE(o.backup);
    EXPECT_FALSE(o.hashChain);
    EXPECT_FALSE(o.signatureInfo);
    EXPECT_EQ(L"2", o.reloadStatus);
    EXPECT_EQ(L"", o.enginesFolder);
    EXPECT_TRUE(LineWith(L"[backup = 0]", 32));
    EXPECT_FALSE(avhost::Contains(L"Cannot load settings."));
    EXPECT_TRUE(store().SetLog().empty());
    EXPECT_TRUE(Section().isNull());
    EXPECT_GE(store().GetCounts().gets, 5);
    EXPECT_EQ(0, store().Outstanding());
    for (const auto& path : store().OpenedPaths()) EXPECT_EQ(kSectionPath, path);
}

TEST_F(Settings, StoredValuesAreLoaded) {
    store().SetDocument(Document(GoodSection()));
    ASSERT_EQ(0u, plugin.Init());
    Observed o = Observe(plugin.scan);
    EXPECT_TRUE(o.backup);
    EXPECT_TRUE(o.hashChain);
    EXPECT_TRUE(o.signatureInfo);
    EXPECT_EQ(L"1", o.reloadStatus);
    EXPECT_EQ(L"C:\\Engines\\Old", o.enginesFolder);
    EXPECT_TRUE(LineWith(L"[backup = 1]", 32));
    // Loading writes none of the user switches back.
    for (const auto& key : KeysWritten(store())) EXPECT_EQ(0u, key.rfind(L"engines/", 0)) << key.c_str();
}

TEST_F(Settings, UnopenableSectionLogsAndWritesTheDefaults) {
    store().RefuseNextOpens(1);
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(LineWith(L"Cannot load settings.", 8));
    EXPECT_TRUE(LineWith(L"[backup = 0]", 32));
    EXPECT_EQ(1, store().GetCounts().refusedOpens);

    Json::Value expected(Json::objectValue);
    expected["enableBackup"] = false;
    expected["reportHashChain"]["enabled"] = false;
    expected["reportSignatureInfo"] = false;
    EXPECT_EQ(expected, Section()) << Section().toStyledString();
    EXPECT_EQ((std::vector<std::wstring>{L"enableBackup", L"reportHashChain", L"reportSignatureInfo"}),
              KeysWritten(store()));
    Observed o = Observe(plugin.scan);
    EXPECT_FALSE(o.backup);
    EXPECT_FALSE(o.hashChain);
    EXPECT_FALSE(o.signatureInfo);
    EXPECT_EQ(L"2", o.reloadStatus);
    EXPECT_EQ(0, store().Outstanding());
}

TEST_F(Settings, UnopenableSectionOverwritesStoredSwitchesButNotTheEnginesKeys) {
    store().SetDocument(Document(GoodSection()));
    store().RefuseNextOpens(1);
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(LineWith(L"Cannot load settings.", 8));
    Observed o = Observe(plugin.scan);
    EXPECT_FALSE(o.backup);
    EXPECT_FALSE(o.hashChain);
    EXPECT_FALSE(o.signatureInfo);
    // The record starts from the defaults, not from the unread document.
    EXPECT_EQ(L"2", o.reloadStatus);
    EXPECT_EQ(L"", o.enginesFolder);
    Json::Value section = Section();
    EXPECT_EQ(Json::Value(false), section["enableBackup"]);
    EXPECT_EQ(Json::Value(false), section["reportHashChain"]["enabled"]);
    EXPECT_EQ(Json::Value(false), section["reportSignatureInfo"]);
    EXPECT_EQ(Json::Value(1), section["engines"]["reloadStatus"]);
    EXPECT_EQ(Json::Value("C:\\Engines\\Old"), section["engines"]["folder"]);
}

TEST_F(Settings, StoreThatNeverOpensLeavesDefaultsAndStillStarts) {
    store().RefuseOpen(true);
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(LineWith(L"Cannot load settings.", 8));
    EXPECT_TRUE(store().SetLog().empty());
    Observed o = Observe(plugin.scan);
    EXPECT_FALSE(o.backup);
    EXPECT_FALSE(o.hashChain);
    EXPECT_FALSE(o.signatureInfo);
    // Writes that cannot open the section fail as writes.
    EXPECT_EQ(1013u, CallSlot<DWORD>(plugin.scan, kReportSignatureInfo, true));
    EXPECT_EQ(1013u, CallSlot<DWORD>(plugin.scan, kEnableBackup, true));
    o = Observe(plugin.scan);
    EXPECT_FALSE(o.signatureInfo);
    EXPECT_FALSE(o.backup);
}

TEST_F(Settings, HashChainStoredAsBooleanStaysOffWhileTheOtherKeysLoad) {
    Json::Value section = GoodSection();
    section["reportHashChain"] = true;
    store().SetDocument(Document(section));
    ASSERT_EQ(0u, plugin.Init());
    Observed o = Observe(plugin.scan);
    EXPECT_FALSE(o.hashChain);
    EXPECT_TRUE(o.backup);
    EXPECT_TRUE(o.signatureInfo);
    EXPECT_EQ(L"1", o.reloadStatus);
    EXPECT_EQ(L"C:\\Engines\\Old", o.enginesFolder);
    EXPECT_FALSE(avhost::Contains(L"Cannot load settings."));
}

TEST_F(Settings, HashChainObjectWithoutAUsableMemberStaysOff) {
    const Json::Value members[] = {Json::Value(Json::objectValue), Json::Value(Json::nullValue)};
    for (const Json::Value& enabled : members) {
        Json::Value section = GoodSection();
        section["reportHashChain"] = Json::Value(Json::objectValue);
        if (!enabled.isObject()) section["reportHashChain"]["enabled"] = enabled;
        section["reportHashChain"]["Enabled"] = true;  // names are exact
        store().SetDocument(Document(section));
        ASSERT_EQ(0u, plugin.Init());
        Observed o = Observe(plugin.scan);
        EXPECT_FALSE(o.hashChain) << section.toStyledString();
        EXPECT_TRUE(o.backup);
        EXPECT_TRUE(o.signatureInfo);
        ASSERT_EQ(0u, plugin.UnInit());
    }
}

TEST_F(Settings, HashChainMemberIsConvertedToBool) {
    struct Case {
        Json::Value enabled;
        bool expected;
    };
    const Case cases[] = {{Json::Value(false), false}, {Json::Value(true), true}, {Json::Value(1), true},
                          {Json::Value(0), false}};
    for (const Case& c : cases) {
        Json::Value section = GoodSection();
        section["reportHashChain"]["enabled"] = c.enabled;
        store().SetDocument(Document(section));
        ASSERT_EQ(0u, plugin.Init());
        EXPECT_EQ(c.expected, Observe(plugin.scan).hashChain) << c.enabled.toStyledString();
        ASSERT_EQ(0u, plugin.UnInit());
    }
}

// A set that fails in the middle of a save keeps what was written before it and tries nothing after.
TEST_F(Settings, FailedSetLeavesEarlierKeysWrittenAndLaterOnesUntouched) {
    ASSERT_EQ(0u, plugin.Init());
    struct Case {
        int failingSet;
        std::vector<std::wstring> written;
    };
    const Case cases[] = {{1, {}}, {2, {L"enableBackup"}}, {3, {L"enableBackup", L"reportHashChain"}}};
    for (const Case& c : cases) {
        store().SetDocument(Json::Value(Json::objectValue));
        store().ResetCounts();
        avhost::ClearCapturedLines();
        store().FailSetNumber(c.failingSet);
        EXPECT_EQ(1013u, CallSlot<DWORD>(plugin.scan, kReportSignatureInfo, true));
        EXPECT_TRUE(LineWith(L"save failed", 4));
        EXPECT_EQ(c.failingSet, store().GetCounts().sets) << "no set is tried after the failing one";
        EXPECT_EQ(1, store().GetCounts().failedSets);
        Json::Value section = Section();
        std::vector<std::wstring> present;
        for (const wchar_t* key : {L"enableBackup", L"reportHashChain", L"reportSignatureInfo"}) {
            std::string narrow(key, key + wcslen(key));
            if (section.isObject() && section.isMember(narrow)) present.push_back(key);
        }
        EXPECT_EQ(c.written, present) << "failing set " << c.failingSet;
        if (c.failingSet > 1) {
            EXPECT_EQ(Json::Value(false), section["enableBackup"]);
        }
        if (c.failingSet > 2) {
            EXPECT_EQ(Json::Value(false), section["reportHashChain"]["enabled"]);
        }
        Observed o = Observe(plugin.scan);
        EXPECT_FALSE(o.signatureInfo);
        EXPECT_EQ(0, store().Outstanding());
    }
}

TEST_F(Settings, FailedSetDuringEnableBackupKeepsTheBackupKeyWritten) {
    ASSERT_EQ(0u, plugin.Init());
    const size_t optionsBefore = plugin.env.scanSp.Options().size();
    store().FailSetNumber(3);
    EXPECT_EQ(1013u, CallSlot<DWORD>(plugin.scan, kEnableBackup, true));
    EXPECT_TRUE(LineWith(L"save failed", 4));
    Json::Value section = Section();
    EXPECT_EQ(Json::Value(true), section["enableBackup"]);
    EXPECT_EQ(Json::Value(false), section["reportHashChain"]["enabled"]);
    EXPECT_FALSE(section.isMember("reportSignatureInfo"));
    // The switch itself did not change and the provider was not asked.
    EXPECT_FALSE(Observe(plugin.scan).backup);
    EXPECT_EQ(optionsBefore, plugin.env.scanSp.Options().size());
}

TEST_F(Settings, SecondInitReadsWhatTheFirstWrote) {
    ASSERT_EQ(0u, plugin.Init());
    HashChainSettings on{true};
    ASSERT_EQ(0u, CallSlot<DWORD>(plugin.scan, kEnableBackup, true));
    ASSERT_EQ(0u, (CallSlot<DWORD, const HashChainSettings&>(plugin.scan, kReportHashChain, on)));
    ASSERT_EQ(0u, plugin.UnInit());
    avhost::ClearCapturedLines();
    ASSERT_EQ(0u, plugin.Init());
    Observed o = Observe(plugin.scan);
    EXPECT_TRUE(o.backup);
    EXPECT_TRUE(o.hashChain);
    EXPECT_FALSE(o.signatureInfo);
    EXPECT_TRUE(LineWith(L"[backup = 1]", 32));
}

TEST(SettingsLifetimes, NextLifetimeReadsTheSameFile) {
    const std::wstring folder = TempFolder(L"settings");
    const std::wstring path = folder + L"\\settings.json";
    {
        PluginUnderTest first;
        ASSERT_NE(nullptr, first.scan);
        ASSERT_TRUE(first.env.settings.UseFile(path));
        ASSERT_EQ(0u, first.Init());
        HashChainSettings on{true};
        ASSERT_EQ(0u, CallSlot<DWORD>(first.scan, kEnableBackup, true));
        ASSERT_EQ(0u, (CallSlot<DWORD, const HashChainSettings&>(first.scan, kReportHashChain, on)));
        ASSERT_EQ(0u, CallSlot<DWORD>(first.scan, kReportSignatureInfo, true));
    }
    // The file itself holds the switches, as the next service start finds it.
    host::SettingsStore reread(path);
    EXPECT_FALSE(reread.LoadedCorrupt());
    Json::Value section = reread.Section(kSectionPath);
    EXPECT_EQ(Json::Value(true), section["enableBackup"]);
    EXPECT_EQ(Json::Value(true), section["reportHashChain"]["enabled"]);
    EXPECT_EQ(Json::Value(true), section["reportSignatureInfo"]);

    avhost::ClearCapturedLines();
    host::HostEnvironment fileEnv(path);
    PluginUnderTest second;
    ASSERT_NE(nullptr, second.primary);
    ASSERT_EQ(0u, second.InitWith(&fileEnv.host));
    Observed o = Observe(second.scan);
    EXPECT_TRUE(o.backup);
    EXPECT_TRUE(o.hashChain);
    EXPECT_TRUE(o.signatureInfo);
    EXPECT_TRUE(LineWith(L"[backup = 1]", 32));
    EXPECT_TRUE(fileEnv.settings.SetLog().empty());
    ASSERT_EQ(0u, second.UnInit());
    second.stopped = true;
    DeleteFileW(path.c_str());
    RemoveDirectoryW(folder.c_str());
}

// Every key holding every JSON type it must not: that field takes its default, the others load.
struct WrongType {
    const char* label;
    const char* key;        // "engines/..." is nested
    Json::Value value;
    bool backup, hashChain, signatureInfo;
    const wchar_t* reloadStatus;
    const wchar_t* folder;
};

TEST_F(Settings, EveryKeyWithEveryWrongTypeTakesItsDefault) {
    const Json::Value number(7), real(1.0), text("true"), array(Json::arrayValue), null(Json::nullValue);
    Json::Value object(Json::objectValue);
    object["enabled"] = true;
    Json::Value boolArray(Json::arrayValue);
    boolArray.append(true);
    const Json::Value yes(true), negative(-1), huge(Json::UInt64(4294967296ull)), folderText("2");
    const wchar_t* const kFolder = L"C:\\Engines\\Old";
    using Values = std::initializer_list<const Json::Value*>;
    std::vector<WrongType> cases;
    for (const Json::Value* v : Values{&number, &real, &text, &array, &boolArray, &object, &null}) {
        cases.push_back({"enableBackup", "enableBackup", *v, false, true, true, L"1", kFolder});
        cases.push_back({"reportSignatureInfo", "reportSignatureInfo", *v, true, true, false, L"1", kFolder});
    }
    for (const Json::Value* v : Values{&number, &real, &text, &array, &boolArray, &null, &yes})
        cases.push_back({"reportHashChain", "reportHashChain", *v, true, false, true, L"1", kFolder});
    for (const Json::Value* v : Values{&real, &text, &array, &object, &null, &yes, &negative, &huge})
        cases.push_back({"reloadStatus", "engines/reloadStatus", *v, true, true, true, L"2", kFolder});
    for (const Json::Value* v : Values{&number, &real, &array, &object, &null, &yes})
        cases.push_back({"folder", "engines/folder", *v, true, true, true, L"1", L""});
    for (const Json::Value* v : Values{&number, &text, &array, &null, &yes})
        cases.push_back({"engines", "engines", *v, true, true, true, L"2", L""});

    for (const WrongType& c : cases) {
        Json::Value section = GoodSection();
        std::string key = c.key;
        if (key.rfind("engines/", 0) == 0) {
            section["engines"][key.substr(8)] = c.value;
        } else {
            section[key] = c.value;
        }
        store().SetDocument(Document(section));
        avhost::ClearCapturedLines();
        ASSERT_EQ(0u, plugin.Init());
        Observed o = Observe(plugin.scan);
        const std::string what = std::string(c.label) + " = " + c.value.toStyledString();
        EXPECT_EQ(c.backup, o.backup) << what;
        EXPECT_EQ(c.hashChain, o.hashChain) << what;
        EXPECT_EQ(c.signatureInfo, o.signatureInfo) << what;
        EXPECT_EQ(c.reloadStatus, o.reloadStatus) << what;
        EXPECT_EQ(c.folder, o.enginesFolder) << what;
        EXPECT_FALSE(avhost::Contains(L"Cannot load settings.")) << what;
        EXPECT_TRUE(LineWith(c.backup ? L"[backup = 1]" : L"[backup = 0]", 32)) << what;
        EXPECT_EQ(0, store().Outstanding());
        ASSERT_EQ(0u, plugin.UnInit());
    }
}

TEST_F(Settings, MalformedUtf8InTheEnginesFolderIsReplacedNotFatal) {
    struct Sample {
        std::string bytes;
        bool replaced;  // malformed bytes show as replacement characters
    };
    const Sample samples[] = {
        {std::string("C:\\Eng\xff\xfeines"), true},          // bytes that never occur in UTF-8
        {std::string("C:\\Eng\xc3"), true},                  // truncated sequence at the end
        {std::string("C:\\Eng\xed\xa0\x80ines"), true},      // encoded surrogate
        {std::string("C:\\Eng\xe0\x80\xafines"), true},      // overlong form of '/'
        {std::string("C:\\Eng\0ines", 11), false},           // embedded NUL
    };
    for (const Sample& sample : samples) {
        const std::string& folder = sample.bytes;
        Json::Value section = GoodSection();
        section["engines"]["folder"] = Json::Value(folder.data(), folder.data() + folder.size());
        store().SetDocument(Document(section));
        avhost::ClearCapturedLines();
        ASSERT_EQ(0u, plugin.Init());
        Observed o = Observe(plugin.scan);
        EXPECT_EQ(0u, o.enginesFolder.rfind(L"C:\\Eng", 0)) << o.enginesFolder.c_str();
        EXPECT_EQ(sample.replaced, o.enginesFolder.find(L'\xFFFD') != std::wstring::npos) << o.enginesFolder.c_str();
        EXPECT_TRUE(o.backup);
        EXPECT_EQ(L"1", o.reloadStatus);
        ASSERT_EQ(0u, plugin.UnInit());
    }
}

TEST_F(Settings, DeeplyNestedValuesAreSurvived) {
    Json::Value deepObject = Nested(500, Json::Value(true));
    Json::Value deepArray = Nested(500, Json::Value(true), true);
    Json::Value withSibling(Json::objectValue);
    withSibling["enabled"] = true;
    withSibling["extra"] = deepObject;
    Json::Value deepMember(Json::objectValue);
    deepMember["enabled"] = deepObject;

    struct Case {
        const char* label;
        const char* key;
        const Json::Value* value;
        int hashChain;  // -1: not asserted
        bool backup;
    };
    const Case cases[] = {
        {"object under reportHashChain", "reportHashChain", &deepObject, 0, true},
        {"array under reportHashChain", "reportHashChain", &deepArray, 0, true},
        {"deep sibling of enabled", "reportHashChain", &withSibling, 1, true},
        {"deep enabled", "reportHashChain", &deepMember, -1, true},
        {"object under enableBackup", "enableBackup", &deepObject, 1, false},
        {"array under engines", "engines", &deepArray, 1, true},
    };
    for (const Case& c : cases) {
        Json::Value section = GoodSection();
        section[c.key] = *c.value;
        store().SetDocument(Document(section));
        avhost::ClearCapturedLines();
        ASSERT_EQ(0u, plugin.Init()) << c.label;
        Observed o = Observe(plugin.scan);
        if (c.hashChain >= 0) {
            EXPECT_EQ(c.hashChain == 1, o.hashChain) << c.label;
        }
        EXPECT_EQ(c.backup, o.backup) << c.label;
        EXPECT_TRUE(o.signatureInfo) << c.label;
        ASSERT_EQ(0u, plugin.UnInit());
    }
}

} // namespace
