// The host-side plug-ins carry logic of their own that the scan module's tests rely on: the
// settings store's file handling and typed reads, and the update plug-in's notification thread.
#include "host/HostEnvironment.h"
#include "tests/common/LogAndFileChecks.h"
#include "tests/common/ScanSlots.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using host::SettingsStore;
using namespace testing_support;
using namespace testing_support::slots;

// Opens "/AntivirusScan" and gives it back at scope end.
class Section {
public:
    explicit Section(SettingsStore& store) : section_(store.OpenSection(L"/AntivirusScan", 0, 0, 0)) {}
    ~Section() {
        if (section_) section_->Release();
    }
    IKXSettingsSection* operator->() const { return section_; }

private:
    IKXSettingsSection* section_;
};

class SettingsStoreFile : public ::testing::Test {
protected:
    void TearDown() override { RemoveFolder(folder); }
    const std::wstring folder = TempFolder(L"hostsettings");
    const std::wstring path = folder + L"\\settings.json";
};

TEST_F(SettingsStoreFile, SetsAreDurableAndNestedByTheirSlashes) {
    {
        SettingsStore store(path);
        EXPECT_FALSE(store.LoadedCorrupt());
        Section section(store);
        EXPECT_TRUE(section->SetUInt(L"engines/reloadStatus", 1));
        EXPECT_TRUE(section->SetBool(L"enableBackup", true));
    }
    EXPECT_EQ(std::vector<std::wstring>{L"settings.json"}, Names(folder)); // replaced whole, no temporary left
    SettingsStore reread(path);
    EXPECT_FALSE(reread.LoadedCorrupt());
    EXPECT_EQ(1u, reread.Section(L"/AntivirusScan")["engines"]["reloadStatus"].asUInt());
    uint32_t status = 0;
    EXPECT_TRUE(Section(reread)->GetUInt(L"engines/reloadStatus", status));
    EXPECT_EQ(1u, status);
}

TEST_F(SettingsStoreFile, FailedSetLeavesFileAndDocumentAsTheyWere) {
    SettingsStore store(path);
    {
        Section section(store);
        ASSERT_TRUE(section->SetBool(L"a", true));
        store.FailSetNumber(2);
        EXPECT_TRUE(section->SetBool(L"b", true));
        const std::string before = ReadBytes(path);
        EXPECT_FALSE(section->SetBool(L"c", true));
        EXPECT_EQ(before, ReadBytes(path));
        EXPECT_TRUE(section->SetBool(L"d", true));
    }
    Json::Value doc = store.Section(L"/AntivirusScan");
    EXPECT_TRUE(doc.isMember("b"));
    EXPECT_FALSE(doc.isMember("c"));
    EXPECT_TRUE(doc.isMember("d"));
    EXPECT_EQ(0, store.Outstanding());
}

TEST_F(SettingsStoreFile, CorruptOrNonObjectFileReadsAsEmpty) {
    for (const char* text : {"{\"/AntivirusScan\": {\"enableBackup\": tru", "", "[1, 2]"}) {
        ASSERT_TRUE(WriteBytes(path, text));
        SettingsStore store(path);
        EXPECT_TRUE(store.LoadedCorrupt()) << text;
        EXPECT_EQ(0u, store.Document().size());
        bool backup = false;
        EXPECT_FALSE(Section(store)->GetBool(L"enableBackup", backup));
        EXPECT_TRUE(Section(store)->SetBool(L"enableBackup", false)); // a set repairs the file
        EXPECT_FALSE(SettingsStore(path).LoadedCorrupt());
    }
}

TEST(SettingsSectionGets, RefuseAbsentKeysAndOtherTypes) {
    Json::Value doc(Json::objectValue);
    Json::Value& section = doc["/AntivirusScan"];
    section["flag"] = true;
    section["count"] = 7;
    section["negative"] = -1;
    section["big"] = Json::Value(static_cast<Json::UInt64>(4294967296ull));
    section["real"] = 2.0;
    section["text"] = "x";
    section["obj"]["enabled"] = true;
    SettingsStore store;
    store.SetDocument(doc);
    Section s(store);
    uint32_t number = 99;
    bool flag = false;
    std::string text = "keep";
    for (const wchar_t* key : {L"negative", L"big", L"real", L"flag", L"text", L"missing", L"obj"})
        EXPECT_FALSE(s->GetUInt(key, number)) << key;
    EXPECT_EQ(99u, number);
    EXPECT_FALSE(s->GetBool(L"count", flag));
    EXPECT_FALSE(s->GetString(L"count", text));
    EXPECT_EQ("keep", text);
    EXPECT_TRUE(s->GetUInt(L"count", number));
    EXPECT_EQ(7u, number);
    EXPECT_TRUE(s->GetBool(L"obj/enabled", flag));
    EXPECT_TRUE(flag);
    EXPECT_FALSE(s->GetBool(L"text/deeper", flag));
}

class RecordingUpdateSink : public qv::kxsdk::Update::IUpdate::IEvents {
public:
    using Info = qv::kxsdk::Update::IUpdate::ComponentInfo;
    DWORD OnUpdateStarted(const wchar_t*) override { return 0; }
    DWORD OnUpdateProgress(uint32_t) override { return 0; }
    DWORD OnUpdateFinished(DWORD) override { return 0; }
    DWORD OnComponentDownloaded(const Info&) override { return 0; }
    DWORD OnComponentVerified(const Info&) override { return 0; }
    DWORD OnComponentInstalling(const Info&) override { return 0; }
    DWORD OnComponentFailed(const Info&, DWORD) override { return 0; }
    DWORD OnComponentInstalled(const Info& info, const wchar_t* enginesPath) override {
        threadId = GetCurrentThreadId();
        component = info.component ? info.component : L"(null)";
        path = enginesPath ? enginesPath : L"(null)";
        return 42;
    }
    DWORD OnComponentRolledBack(const Info&) override { return 0; }
    DWORD OnRestartRequired(uint32_t) override { return 0; }
    DWORD OnUpdateSettingsChanged() override { return 0; }
    DWORD OnScheduleChanged() override { return 0; }
    DWORD OnLicenseChanged() override { return 0; }
    DWORD OnProxyChanged() override { return 0; }
    DWORD OnServiceStopping() override { return 0; }

    DWORD threadId = 0;
    std::wstring component, path;
};

TEST(UpdatePluginDelivery, RunsOnItsOwnThreadAfterTheHook) {
    host::HostEnvironment env;
    RecordingUpdateSink sink;
    DWORD hookThread = 0;
    env.update.SetBeforeDelivery(
        [&](const wchar_t*, const wchar_t*, const wchar_t*) { hookThread = GetCurrentThreadId(); });
    ASSERT_EQ(0u, env.update.RegisterEvents(&sink, 0, ""));
    EXPECT_EQ(42u, env.update.DeliverComponentInstalled(nullptr, L"Antivirus", L"C:\\Engines\\2"));
    EXPECT_NE(0u, sink.threadId);
    EXPECT_NE(GetCurrentThreadId(), sink.threadId);
    EXPECT_EQ(sink.threadId, hookThread);
    EXPECT_EQ(L"Antivirus", sink.component);
    EXPECT_EQ(L"C:\\Engines\\2", sink.path);
    EXPECT_EQ(0u, env.update.UnregisterEvents(&sink, 0, ""));
    EXPECT_EQ(static_cast<DWORD>(ERROR_NOT_FOUND), env.update.DeliverComponentInstalled(L"u", L"c", L"p"));
    ASSERT_EQ(2u, env.update.Deliveries().size());
    EXPECT_EQ(std::vector<DWORD>{42}, env.update.Deliveries()[0].results);
}

} // namespace
