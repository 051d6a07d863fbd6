// The host-side plug-ins carry logic of their own that the scan module's tests rely on: the
// settings store's file handling and typed reads, and the update plug-in's notification thread.
#include "host/HostEnvironment.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

namespace {

using host::SettingsStore;

// A fresh folder under the temp folder, emptied and removed afterwards.
class TempDir {
public:
    TempDir() {
        static std::atomic<int> sequence{0};
        wchar_t base[MAX_PATH];
        GetTempPathW(MAX_PATH, base);
        path_ = std::wstring(base) + L"avhost-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                std::to_wstring(++sequence);
        CreateDirectoryW(path_.c_str(), nullptr);
    }
    ~TempDir() {
        for (const std::wstring& name : Names()) DeleteFileW((path_ + L"\\" + name).c_str());
        RemoveDirectoryW(path_.c_str());
    }
    std::wstring File(const wchar_t* name) const { return path_ + L"\\" + name; }
    std::vector<std::wstring> Names() const {
        std::vector<std::wstring> names;
        WIN32_FIND_DATAW data;
        HANDLE find = FindFirstFileW((path_ + L"\\*").c_str(), &data);
        if (find == INVALID_HANDLE_VALUE) return names;
        do {
            std::wstring name = data.cFileName;
            if (name != L"." && name != L"..") names.push_back(name);
        } while (FindNextFileW(find, &data));
        FindClose(find);
        return names;
    }

private:
    std::wstring path_;
};

std::string ReadBytes(const std::wstring& path) {
    std::string bytes;
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return bytes;
    char chunk[4096];
    DWORD got = 0;
    while (ReadFile(file, chunk, sizeof chunk, &got, nullptr) && got) bytes.append(chunk, got);
    CloseHandle(file);
    return bytes;
}

void WriteBytes(const std::wstring& path, const std::string& bytes) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD wrote = 0;
    WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &wrote, nullptr);
    CloseHandle(file);
}

// Opens "/AntivirusScan" and gives it back at scope end.
class Section {
public:
    explicit Section(SettingsStore& store) : section_(store.OpenSection(L"/AntivirusScan", 0, 0, 0)) {}
    ~Section() {
        if (section_) section_->Release();
    }
    IKXSettingsSection* operator->() const { return section_; }
    explicit operator bool() const { return section_ != nullptr; }

private:
    IKXSettingsSection* section_;
};

TEST(SettingsStoreFile, SetsAreDurableAndReadByANewStore) {
    TempDir dir;
    const std::wstring path = dir.File(L"settings.json");
    {
        SettingsStore store(path);
        EXPECT_FALSE(store.LoadedCorrupt());
        Section section(store);
        ASSERT_TRUE(section);
        EXPECT_TRUE(section->SetUInt(L"engines/reloadStatus", 1));
        EXPECT_TRUE(section->SetString(L"engines/folder", L"C:\\Engines\\7"));
        EXPECT_TRUE(section->SetBool(L"enableBackup", true));
    }
    EXPECT_EQ(std::vector<std::wstring>{L"settings.json"}, dir.Names());  // no temporary file left

    SettingsStore reread(path);
    EXPECT_FALSE(reread.LoadedCorrupt());
    Json::Value doc = reread.Section(L"/AntivirusScan");
    EXPECT_EQ(1u, doc["engines"]["reloadStatus"].asUInt());  // "/" keys nest inside the section
    EXPECT_EQ("C:\\Engines\\7", doc["engines"]["folder"].asString());
    Section section(reread);
    uint32_t status = 0;
    bool backup = false;
    EXPECT_TRUE(section->GetUInt(L"engines/reloadStatus", status));
    EXPECT_TRUE(section->GetBool(L"enableBackup", backup));
    EXPECT_EQ(1u, status);
    EXPECT_TRUE(backup);
}

TEST(SettingsStoreFile, FailedSetLeavesFileAndDocumentAsTheyWere) {
    TempDir dir;
    const std::wstring path = dir.File(L"settings.json");
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
    std::vector<SettingsStore::SetRecord> log = store.SetLog();
    ASSERT_EQ(4u, log.size());
    EXPECT_EQ(L"c", log[2].key);
    EXPECT_EQ("true", log[2].value);
    EXPECT_FALSE(log[2].succeeded);
    EXPECT_EQ(0, store.Outstanding());

    store.FailAllSets(true);
    Section section(store);
    EXPECT_FALSE(section->SetUInt(L"e", 5));
    EXPECT_FALSE(SettingsStore(path).Section(L"/AntivirusScan").isMember("e"));
}

TEST(SettingsStoreFile, CorruptOrNonObjectFileReadsAsEmpty) {
    TempDir dir;
    const std::wstring path = dir.File(L"settings.json");
    for (const char* text : {"{\"/AntivirusScan\": {\"enableBackup\": tru", "", "[1, 2]"}) {
        WriteBytes(path, text);
        SettingsStore store(path);
        EXPECT_TRUE(store.LoadedCorrupt()) << text;
        EXPECT_EQ(0u, store.Document().size());
        Section section(store);
        bool backup = false;
        EXPECT_FALSE(section->GetBool(L"enableBackup", backup));
        EXPECT_TRUE(section->SetBool(L"enableBackup", false));  // a set repairs the file
        EXPECT_FALSE(SettingsStore(path).LoadedCorrupt());
    }
}

TEST(SettingsSectionGets, RefuseAbsentKeysAndOtherTypes) {
    SettingsStore store;
    Json::Value section(Json::objectValue);
    section["flag"] = true;
    section["count"] = 7;
    section["negative"] = -1;
    section["big"] = Json::Value(static_cast<Json::UInt64>(4294967296ull));
    section["real"] = 2.0;
    section["text"] = "x";
    section["obj"]["enabled"] = true;
    Json::Value doc(Json::objectValue);
    doc["/AntivirusScan"] = section;
    store.SetDocument(doc);

    Section s(store);
    uint32_t number = 99;
    bool flag = false;
    std::string text = "keep";
    Json::Value value;
    EXPECT_TRUE(s->GetUInt(L"count", number));
    EXPECT_EQ(7u, number);
    number = 99;
    for (const wchar_t* key : {L"negative", L"big", L"real", L"flag", L"text", L"missing", L"obj"}) {
        EXPECT_FALSE(s->GetUInt(key, number)) << key;
    }
    EXPECT_EQ(99u, number);
    EXPECT_FALSE(s->GetBool(L"count", flag));
    EXPECT_FALSE(s->GetString(L"count", text));
    EXPECT_EQ("keep", text);
    EXPECT_TRUE(s->GetBool(L"obj/enabled", flag));
    EXPECT_TRUE(flag);
    EXPECT_FALSE(s->GetBool(L"text/deeper", flag));
    EXPECT_TRUE(s->GetValue(L"obj", value));
    EXPECT_TRUE(value.isObject());
    EXPECT_FALSE(s->GetValue(L"missing", value));
    EXPECT_FALSE(s->GetValue(L"/", value));
    EXPECT_FALSE(s->SetBool(L"/", true));

    EXPECT_TRUE(s->SetString(L"name", L"\u00dcber"));
    EXPECT_TRUE(s->GetString(L"name", text));
    EXPECT_EQ("\xc3\x9c" "ber", text);  // kept and returned as UTF-8
    EXPECT_TRUE(s->SetUInt(L"text/inner", 3));  // a non-object step becomes an object
    EXPECT_TRUE(s->GetUInt(L"text/inner", number));
    EXPECT_EQ(3u, number);
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
        nullUpdater = info.updater == nullptr;
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
    bool nullUpdater = false;
    std::wstring component, path;
};

TEST(UpdatePluginDelivery, RunsOnItsOwnThreadAfterTheHook) {
    host::HostEnvironment env;
    RecordingUpdateSink sink;
    DWORD hookThread = 0;
    env.update.SetBeforeDelivery([&](const wchar_t*, const wchar_t*, const wchar_t*) {
        hookThread = GetCurrentThreadId();
    });
    ASSERT_EQ(0u, env.update.RegisterEvents(&sink, 0, ""));

    EXPECT_EQ(42u, env.update.DeliverComponentInstalled(nullptr, L"Antivirus", L"C:\\Engines\\2"));
    EXPECT_NE(0u, sink.threadId);
    EXPECT_NE(GetCurrentThreadId(), sink.threadId);
    EXPECT_EQ(sink.threadId, hookThread);
    EXPECT_TRUE(sink.nullUpdater);
    EXPECT_EQ(L"Antivirus", sink.component);
    EXPECT_EQ(L"C:\\Engines\\2", sink.path);

    EXPECT_EQ(42u, env.update.DeliverComponentInstalled(L"u", nullptr, nullptr));
    EXPECT_EQ(L"(null)", sink.component);
    EXPECT_EQ(L"(null)", sink.path);

    EXPECT_EQ(0u, env.update.UnregisterEvents(&sink, 0, ""));
    EXPECT_EQ(static_cast<DWORD>(ERROR_NOT_FOUND), env.update.DeliverComponentInstalled(L"u", L"c", L"p"));
    ASSERT_EQ(3u, env.update.Deliveries().size());
    EXPECT_EQ(std::vector<DWORD>{42}, env.update.Deliveries()[0].results);
}

TEST(ServConfigTexts, HandedOutTextOutlivesReplacement) {
    host::ServConfigPlugin config;
    EXPECT_EQ(nullptr, config.GetText(17, L"scansp"));
    config.SetText(17, L"scansp", L"C:\\Temp\\scansp");
    const wchar_t* first = config.GetText(17, L"scansp");
    ASSERT_NE(nullptr, first);
    config.SetText(17, L"scansp", L"D:\\Other");
    config.ClearText(17, L"scansp");
    EXPECT_STREQ(L"C:\\Temp\\scansp", first);
    EXPECT_EQ(nullptr, config.GetText(17, L"scansp"));
    EXPECT_EQ(3, config.QueryCount(17, L"scansp"));
}

} // namespace
