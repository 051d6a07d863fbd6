// Engine plug-in files under "<engines>\Plugins": a remote-only installation loses the local
// scanner's files at Init; full and light ones get the three they need at the delayed start.
#include "support/FileUtil.h"
#include "tests/common/LogAndFileChecks.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace testing_support;
using namespace testing_support::slots;

const wchar_t* const kTen[] = {L"dalvik.cvd", L"dalvik.ivd", L"dalvik.xmd", L"lhdb.cvd", L"nnml.cvd",
                               L"xgdb.cvd",   L"mdx.xmd",    L"sdx.cvd",    L"sdx.ivd",  L"sdx.xmd"};

class RemoteOnlyFiles : public ::testing::Test {
protected:
    void SetUp() override {
        engines = TempFolder(L"engines");
        plugins = engines + L"\\Plugins";
        CreateDirectoryW(plugins.c_str(), nullptr);
        plugin.env.servConfig.SetText(2, L"scansp", engines.c_str());
        plugin.env.remoteScan.SetStatus(true);
        avhost::ClearCapturedLines();
    }
    void TearDown() override {
        plugin.StopAll();
        qv::file::DeleteFolderTree(engines.c_str());
    }
    void UseScanType(const wchar_t* type) { plugin.env.servConfig.SetText(51, L"BASE", type); }
    std::vector<std::wstring> Sorted() {
        auto names = Names(plugins);
        std::sort(names.begin(), names.end());
        return names;
    }
    PluginUnderTest plugin;
    std::wstring engines, plugins;
};

TEST_F(RemoteOnlyFiles, RemoteOnlyLosesAllTenAtInitAndGetsNothingAtDelayedStart) {
    for (const wchar_t* name : kTen) WriteBytes(plugins + L"\\" + name, "signatures");
    WriteBytes(plugins + L"\\update.txt", "kept");
    UseScanType(L"remote");
    ASSERT_EQ(0u, plugin.Init());
    // "nnml.cvd " (trailing blank) still reaches nnml.cvd.
    const std::vector<std::wstring> left = {L"update.txt"};
    EXPECT_EQ(left, Sorted());
    ASSERT_EQ(0u, plugin.Start());
    ASSERT_EQ(0u, plugin.DelayedStart());
    EXPECT_EQ(left, Sorted());
    EXPECT_EQ(0, CountStartingWith(L"File "));
}

TEST_F(RemoteOnlyFiles, FullAndLightCreateOnlyTheMissingOnes) {
    for (const wchar_t* type : {L"full", L"light"}) {
        SCOPED_TRACE(Narrow(type));
        for (const std::wstring& name : Names(plugins)) DeleteFileW((plugins + L"\\" + name).c_str());
        WriteBytes(plugins + L"\\lhdb.cvd", "local heuristics");
        UseScanType(type);
        avhost::ClearCapturedLines();
        ASSERT_TRUE(plugin.StartAll());
        EXPECT_EQ((std::vector<std::wstring>{L"lhdb.cvd", L"nnml.cvd", L"xgdb.cvd"}), Sorted());
        EXPECT_EQ("local heuristics", ReadBytes(plugins + L"\\lhdb.cvd"));
        EXPECT_EQ("", ReadBytes(plugins + L"\\nnml.cvd"));
        EXPECT_EQ(1, CountLines(L"File " + plugins + L"\\nnml.cvd  does not exist. Will create it", 8));
        EXPECT_EQ(0, CountStartingWith(L"File " + plugins + L"\\lhdb.cvd"));
        plugin.StopAll();
    }
}

TEST_F(RemoteOnlyFiles, FileHeldOpenIsLoggedOnceAndTheOthersStillGo) {
    for (const wchar_t* name : kTen) WriteBytes(plugins + L"\\" + name, "signatures");
    const std::wstring locked = plugins + L"\\dalvik.xmd";
    HANDLE h = HoldOpen(locked);
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    UseScanType(L"remote");
    const DWORD init = plugin.Init();
    CloseHandle(h);
    ASSERT_EQ(0u, init);
    EXPECT_EQ(1, CountStartingWith(L"Cannot delete file"));
    EXPECT_EQ(1, CountLines(L"Cannot delete file [path = " + locked + L"] [error = 32]", 8));
    EXPECT_EQ((std::vector<std::wstring>{L"dalvik.xmd"}), Names(plugins));
}

TEST_F(RemoteOnlyFiles, UncreatablePlaceholdersAreEachTriedAndNothingElseSuffers) {
    // A plain file where the "Plugins" folder should be keeps every placeholder out.
    RemoveDirectoryW(plugins.c_str());
    WriteBytes(plugins, "not a folder");
    UseScanType(L"full");
    ASSERT_TRUE(plugin.StartAll());
    for (const wchar_t* name : {L"lhdb.cvd", L"nnml.cvd ", L"xgdb.cvd"})
        EXPECT_EQ(1,
                  CountFramed(L"Cannot create missing file. [error = ", L"[path = " + plugins + L"\\" + name + L"]", 4))
            << Narrow(name);
    EXPECT_EQ("not a folder", ReadBytes(plugins));
    EXPECT_EQ(1, CountStartingWith(L"Signature [version = "));
    ScanMode primary, fallback;
    EXPECT_EQ(0u, GetScanModes(plugin.scan, &primary, &fallback));
}

} // namespace
