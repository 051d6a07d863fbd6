// Engine plug-in files under "<engines>\Plugins": a remote-only installation loses the local
// scanner's files at Init; full and light installations get the three they need at the delayed
// start, as empty placeholders where they are missing.
#include "support/FileUtil.h"
#include "tests/common/PluginHarness.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace testing_support;
namespace ids = qv::kxsdk::ids;

constexpr int32_t kScanType = 51;  // "BASE"
constexpr int32_t kEngines = 2;    // "scansp"

const wchar_t* const kTen[] = {L"dalvik.cvd", L"dalvik.ivd", L"dalvik.xmd", L"lhdb.cvd", L"nnml.cvd",
                               L"xgdb.cvd",   L"mdx.xmd",    L"sdx.cvd",    L"sdx.ivd",  L"sdx.xmd"};
const wchar_t* const kThree[] = {L"lhdb.cvd", L"nnml.cvd", L"xgdb.cvd"};

void WriteBytes(const std::wstring& path, const std::string& bytes) {
    HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, h) << "cannot write test file";
    DWORD written = 0;
    if (!bytes.empty()) WriteFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    CloseHandle(h);
}

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

// The names in a folder, as the file system spells them.
std::vector<std::wstring> Names(const std::wstring& folder) {
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW entry;
    HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &entry);
    if (find == INVALID_HANDLE_VALUE) return names;
    do {
        std::wstring name = entry.cFileName;
        if (name != L"." && name != L"..") names.push_back(name);
    } while (FindNextFileW(find, &entry));
    FindClose(find);
    return names;
}

bool Has(const std::vector<std::wstring>& names, const std::wstring& name) {
    for (const auto& n : names) {
        if (n == name) return true;
    }
    return false;
}

std::string Narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

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

class RemoteOnlyFiles : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, plugin.primary);
        engines = TempFolder(L"engines");
        plugins = engines + L"\\Plugins";
        CreateDirectoryW(plugins.c_str(), nullptr);
        plugin.env.servConfig.SetText(kEngines, L"scansp", engines.c_str());
        plugin.env.remoteScan.SetStatus(true);
        avhost::ClearCapturedLines();
    }
    void TearDown() override {
        plugin.StopAll();
        qv::file::DeleteFolderTree(engines.c_str());
    }
    void UseScanType(const wchar_t* type) { plugin.env.servConfig.SetText(kScanType, L"BASE", type); }
    void WriteAllTen() {
        for (const wchar_t* name : kTen) WriteBytes(plugins + L"\\" + name, "signatures");
    }

    PluginUnderTest plugin;
    std::wstring engines, plugins;
};

TEST_F(RemoteOnlyFiles, RemoteOnlyLosesAllTenAtInitAndGetsNothingAtDelayedStart) {
    WriteAllTen();
    WriteBytes(plugins + L"\\update.txt", "kept");
    WriteBytes(plugins + L"\\other.cvd", "kept");
    UseScanType(L"remote");
    ASSERT_EQ(0u, plugin.Init());
    // The trailing blank of "nnml.cvd " still reaches nnml.cvd.
    EXPECT_EQ((std::vector<std::wstring>{L"other.cvd", L"update.txt"}), Names(plugins)) << "after Init";
    EXPECT_EQ(0, CountStartingWith(L"Cannot delete file"));

    ASSERT_EQ(0u, plugin.Start());
    ASSERT_EQ(0u, plugin.DelayedStart());
    EXPECT_EQ((std::vector<std::wstring>{L"other.cvd", L"update.txt"}), Names(plugins)) << "after DelayedStart";
    EXPECT_EQ(0, CountStartingWith(L"File "));
    EXPECT_EQ(0, CountStartingWith(L"Generating missing file."));
}

TEST_F(RemoteOnlyFiles, FullAndLightKeepEverythingAndCreateOnlyTheMissingOnes) {
    for (const wchar_t* type : {L"full", L"light"}) {
        SCOPED_TRACE(Narrow(type));
        for (const std::wstring& name : Names(plugins)) DeleteFileW((plugins + L"\\" + name).c_str());
        for (const wchar_t* name : {L"dalvik.cvd", L"dalvik.ivd", L"dalvik.xmd", L"mdx.xmd", L"sdx.cvd", L"sdx.ivd",
                                    L"sdx.xmd"})
            WriteBytes(plugins + L"\\" + name, "signatures");
        WriteBytes(plugins + L"\\lhdb.cvd", "local heuristics");
        UseScanType(type);
        avhost::ClearCapturedLines();
        ASSERT_EQ(0u, plugin.Init());
        EXPECT_EQ(8u, Names(plugins).size()) << "nothing is deleted at Init";
        EXPECT_EQ(0, CountStartingWith(L"Cannot delete file"));

        ASSERT_EQ(0u, plugin.Start());
        ASSERT_EQ(0u, plugin.DelayedStart());
        const auto names = Names(plugins);
        EXPECT_EQ(10u, names.size());
        EXPECT_TRUE(Has(names, L"nnml.cvd")) << "created without the trailing blank";
        EXPECT_FALSE(Has(names, L"nnml.cvd "));
        EXPECT_EQ("local heuristics", ReadBytes(plugins + L"\\lhdb.cvd"));
        EXPECT_EQ("", ReadBytes(plugins + L"\\nnml.cvd"));
        EXPECT_EQ("", ReadBytes(plugins + L"\\xgdb.cvd"));
        EXPECT_EQ("signatures", ReadBytes(plugins + L"\\dalvik.cvd"));
        EXPECT_EQ(0, CountStartingWith(L"File " + plugins + L"\\lhdb.cvd"));
        EXPECT_EQ(1, CountLines(L"File " + plugins + L"\\nnml.cvd  does not exist. Will create it", 8));
        EXPECT_EQ(1, CountLines(L"File " + plugins + L"\\xgdb.cvd does not exist. Will create it", 8));
        EXPECT_EQ(0, CountStartingWith(L"Cannot create missing file."));

        // A second start-up finds them all and creates nothing.
        plugin.StopAll();
        avhost::ClearCapturedLines();
        ASSERT_EQ(0u, plugin.Init());
        ASSERT_EQ(0u, plugin.DelayedStart());
        EXPECT_EQ(0, CountStartingWith(L"File "));
        EXPECT_EQ(10u, Names(plugins).size());
        plugin.StopAll();
    }
}

TEST_F(RemoteOnlyFiles, RunsOnEveryStartUpRecoveryOrNot) {
    UseScanType(L"light");
    plugin.env.manager.SetMissing(ids::kScanSpName);
    ASSERT_EQ(0u, plugin.Init());
    ASSERT_EQ(0u, plugin.DelayedStart());
    for (const wchar_t* name : kThree) EXPECT_EQ("", ReadBytes(plugins + L"\\" + name)) << Narrow(name);
    EXPECT_EQ(1, CountLines(L"[(Engines-Recovery)]", 8));
}

TEST_F(RemoteOnlyFiles, FileHeldOpenIsLoggedOnceAndTheOthersStillGo) {
    WriteAllTen();
    const std::wstring locked = plugins + L"\\dalvik.xmd";
    HANDLE h = CreateFileW(locked.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    UseScanType(L"remote");
    const DWORD init = plugin.Init();
    CloseHandle(h);
    ASSERT_EQ(0u, init);
    EXPECT_EQ(1, CountStartingWith(L"Cannot delete file"));
    EXPECT_EQ(1, CountLines(L"Cannot delete file [path = " + locked + L"] [error = 32]", 8));
    EXPECT_EQ((std::vector<std::wstring>{L"dalvik.xmd"}), Names(plugins));
}

TEST_F(RemoteOnlyFiles, PlaceholdersThatCannotBeCreatedAreEachTriedAndNothingElseSuffers) {
    // A read-only attribute does not keep files out of a folder here (nor on Windows, for
    // folders); a plain file standing where the "Plugins" folder should be does.
    RemoveDirectoryW(plugins.c_str());
    WriteBytes(plugins, "not a folder");
    UseScanType(L"full");
    ASSERT_EQ(0u, plugin.Init());
    ASSERT_EQ(0u, plugin.Start());
    ASSERT_EQ(0u, plugin.DelayedStart());
    for (const wchar_t* name : {L"lhdb.cvd", L"nnml.cvd ", L"xgdb.cvd"}) {
        const std::wstring path = plugins + L"\\" + name;
        EXPECT_EQ(1, CountLines(L"File " + path + L" does not exist. Will create it", 8)) << Narrow(name);
        int failures = 0;
        const std::wstring tail = L"[path = " + path + L"]";
        for (const auto& line : avhost::CapturedLines()) {
            if (line.severity == 4 && line.text.rfind(L"Cannot create missing file. [error = ", 0) == 0 &&
                line.text.size() > tail.size() &&
                line.text.compare(line.text.size() - tail.size(), std::wstring::npos, tail) == 0)
                ++failures;
        }
        EXPECT_EQ(1, failures) << Narrow(name);
    }
    EXPECT_EQ("not a folder", ReadBytes(plugins));
    // The rest of the delayed start went on as usual.
    EXPECT_EQ(1, CountStartingWith(L"Signature [version = "));
    EXPECT_EQ(0, CountLines(L"[(Engines-Recovery)]", 8));
    qv::kxsdk::AntivirusScan::ScanMode primary, fallback;
    EXPECT_EQ(0u, (CallSlot<DWORD>(plugin.scan, 7, &primary, &fallback)));
}

TEST_F(RemoteOnlyFiles, MissingEnginesFolderEndsAfterOneLine) {
    const std::wstring missing = engines + L"\\gone";
    plugin.env.servConfig.SetText(kEngines, L"scansp", missing.c_str());
    UseScanType(L"remote");
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_EQ(1, CountLines(L"Invalid engines path = " + missing, 32));
    plugin.StopAll();

    UseScanType(L"full");
    avhost::ClearCapturedLines();
    ASSERT_EQ(0u, plugin.Init());
    ASSERT_EQ(0u, plugin.DelayedStart());
    EXPECT_EQ(1, CountLines(L"Invalid engines path = " + missing, 32));
    EXPECT_EQ(0, CountStartingWith(L"File "));
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(missing.c_str()));
}

TEST_F(RemoteOnlyFiles, EnginesFolderWithATrailingBackslashGetsNoSecondSeparator) {
    const std::wstring configured = engines + L"\\";
    plugin.env.servConfig.SetText(kEngines, L"scansp", configured.c_str());
    UseScanType(L"full");
    ASSERT_EQ(0u, plugin.Init());
    ASSERT_EQ(0u, plugin.DelayedStart());
    EXPECT_EQ(1, CountLines(L"File " + engines + L"\\Plugins\\xgdb.cvd does not exist. Will create it", 8));
    EXPECT_EQ(3, CountStartingWith(L"Missing file created. [path = " + engines + L"\\Plugins\\"));
    plugin.StopAll();

    WriteAllTen();
    UseScanType(L"remote");
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(Names(plugins).empty());
}

} // namespace
