// The plug-in deletes and creates files in places it owns: the siblings of the core temp folder
// and the engine files. Links planted there are never followed, a placeholder never replaces or
// reaches through an existing name, a relative core temp folder cleans nothing, and paths past
// 260 characters fail with their log line.
#include "tests/common/LogAndFileChecks.h"
#include "tests/common/SymbolicLinks.h"

#include <gtest/gtest.h>
#include <shlwapi.h>

namespace {

using namespace testing_support;
using namespace testing_support::slots;

const wchar_t* const kOutsideFiles[] = {L"keep.txt", L"lhdb.cvd", L"dalvik.cvd", L"sub\\deep.txt"};

class DeletionSafety : public ::testing::Test {
protected:
    void SetUp() override {
        top = TempFolder(L"delsafe");
        outside = top + L"\\outside";
        parent = top + L"\\temp";
        core = parent + L"\\scansp";
        engines = top + L"\\engines";
        for (const std::wstring& dir : {outside, outside + L"\\sub", parent, core, engines, engines + L"\\Plugins"})
            CreateDirectoryW(dir.c_str(), nullptr);
        for (const wchar_t* name : kOutsideFiles) WriteBytes(outside + L"\\" + name, "outside");
        plugin.env.servConfig.SetText(17, L"scansp", core.c_str());
        plugin.env.servConfig.SetText(2, L"scansp", engines.c_str());
        avhost::ClearCapturedLines();
    }
    void TearDown() override {
        plugin.StopAll();
        plugin.stopped = true;
        SetCurrentDirectoryW(ExeFolder().c_str());
        if (!RemoveTreeFromUnix(top)) RemoveFolder(L"\\\\?\\" + top);
    }
    bool Link(const std::wstring& link, const std::wstring& target, bool directory) {
        return MakeSymbolicLink(link, target, directory) != LinkKind::None;
    }
    void ExpectOutsideIntact() {
        for (const wchar_t* name : kOutsideFiles)
            EXPECT_EQ("outside", ReadBytes(outside + L"\\" + name)) << Narrow(name);
        EXPECT_TRUE(PathIsDirectoryW((outside + L"\\sub").c_str()));
    }
    PluginUnderTest plugin;
    std::wstring top, outside, parent, core, engines;
};

TEST_F(DeletionSafety, CoreTempCleanNeverReachesThroughLinks) {
    const std::wstring sibling = parent + L"\\old";
    CreateDirectoryW(sibling.c_str(), nullptr);
    CreateDirectoryW((sibling + L"\\inner").c_str(), nullptr);
    WriteBytes(sibling + L"\\inner\\own.tmp", "own");
    if (!Link(sibling + L"\\inner\\to-folder", outside, true)) GTEST_SKIP() << "no symbolic links here";
    ASSERT_TRUE(Link(sibling + L"\\to-file.txt", outside + L"\\keep.txt", false));
    ASSERT_TRUE(Link(top + L"\\hop", outside, true)); // a link to a link
    ASSERT_TRUE(Link(sibling + L"\\via-hop", top + L"\\hop", true));
    ASSERT_TRUE(Link(parent + L"\\direct", outside, true));
    ASSERT_TRUE(plugin.StartAll());
    ExpectOutsideIntact();
    EXPECT_FALSE(Exists(sibling + L"\\inner\\own.tmp")) << "the sibling's own files go";
    EXPECT_TRUE(PathIsDirectoryW(core.c_str()));
    EXPECT_TRUE(LineWith(L"Deleting [" + parent + L"\\direct]", 16));
}

TEST_F(DeletionSafety, RemoteOnlyDeletionsNeverReachThroughLinks) {
    plugin.env.servConfig.SetText(51, L"BASE", L"remote");
    plugin.env.remoteScan.SetStatus(true);
    if (!Link(engines + L"\\Plugins\\lhdb.cvd", outside + L"\\lhdb.cvd", false)) GTEST_SKIP() << "no links here";
    WriteBytes(engines + L"\\Plugins\\sdx.cvd", "own");
    ASSERT_EQ(0u, plugin.Init());
    ExpectOutsideIntact();
    EXPECT_FALSE(Exists(engines + L"\\Plugins\\sdx.cvd")) << "the folder's own files go";
    plugin.StopAll();

    // "Plugins" itself leads outside: nothing is deleted through it.
    ASSERT_TRUE(RemoveTreeFromUnix(engines + L"\\Plugins"));
    ASSERT_TRUE(Link(engines + L"\\Plugins", outside, true));
    avhost::ClearCapturedLines();
    ASSERT_EQ(0u, plugin.Init());
    ExpectOutsideIntact();
    EXPECT_TRUE(LineWith(L"Link not followed, file kept [path = " + engines + L"\\Plugins\\dalvik.cvd]", 8));
}

TEST_F(DeletionSafety, PlaceholdersNeverOverwriteNorCreateThroughLinks) {
    WriteBytes(engines + L"\\Plugins\\lhdb.cvd", "real engine data");
    WriteBytes(engines + L"\\smartdbv2.dat", "signatures");
    // Links to files that are not there (made to existing ones, which then go).
    const std::wstring target = outside + L"\\through.cvd", recoveryTarget = outside + L"\\through.dll";
    WriteBytes(target, "soon gone");
    WriteBytes(recoveryTarget, "soon gone");
    if (!Link(engines + L"\\Plugins\\xgdb.cvd", target, false)) GTEST_SKIP() << "no symbolic links here";
    ASSERT_TRUE(Link(engines + L"\\qvcore.dll", recoveryTarget, false));
    ASSERT_TRUE(DeleteFileW(target.c_str()) && DeleteFileW(recoveryTarget.c_str()));
    plugin.env.manager.SetMissing(qv::kxsdk::ids::kScanSpName); // the recovery's placeholders too
    ASSERT_TRUE(plugin.StartAll());
    EXPECT_EQ("real engine data", ReadBytes(engines + L"\\Plugins\\lhdb.cvd"));
    EXPECT_EQ("signatures", ReadBytes(engines + L"\\smartdbv2.dat"));
    EXPECT_FALSE(Exists(target)) << "a placeholder was created through a link";
    EXPECT_FALSE(Exists(recoveryTarget));
    EXPECT_EQ("", ReadBytes(engines + L"\\Plugins\\nnml.cvd")) << "a really missing file is still created";
}

TEST_F(DeletionSafety, RelativeCoreTempFolderCleansNothing) {
    const std::wstring work = top + L"\\work";
    CreateDirectoryW(work.c_str(), nullptr);
    WriteBytes(top + L"\\precious.txt", "precious");
    ASSERT_TRUE(SetCurrentDirectoryW(work.c_str()));
    for (const wchar_t* relative : {L"..\\scansp", L"scansp"}) {
        plugin.env.servConfig.SetText(17, L"scansp", relative);
        ASSERT_TRUE(plugin.StartAll());
        plugin.StopAll();
        EXPECT_TRUE(
            LineWith(L"Core temp folder is not a full path, not cleaned [path = " + std::wstring(relative) + L"]", 8));
        EXPECT_EQ("precious", ReadBytes(top + L"\\precious.txt"));
        EXPECT_TRUE(PathIsDirectoryW(engines.c_str()));
    }
}

TEST_F(DeletionSafety, PathsLongerThan260CharactersFailCleanly) {
    const std::wstring longName(120, L'L');
    const std::wstring longCore = parent + L"\\" + longName + L"\\" + longName + L"\\scansp";
    const std::wstring longEngines = engines + L"\\" + longName + L"\\" + longName;
    plugin.env.servConfig.SetText(17, L"scansp", longCore.c_str());
    plugin.env.servConfig.SetText(2, L"scansp", longEngines.c_str());
    plugin.env.update.FailStatistics(1460);
    ASSERT_TRUE(plugin.StartAll());
    EXPECT_TRUE(LineWith(L"Cannot create core temp folder [path = " + longCore + L"]", 4));
    EXPECT_TRUE(LineWith(L"Core temp folder not found [path = " + longCore + L"]", 32));
    EXPECT_TRUE(LineWith(L"Invalid engines path = " + longEngines, 32));
    EXPECT_EQ(0u, plugin.env.update.DeliverComponentInstalled(L"U", L"Antivirus", longEngines.c_str()));
    qv::StringW version(L"x");
    EXPECT_EQ(0u, GetEnginesVersion(plugin.scan, &version));
    EXPECT_TRUE(LineStartingWith(L"Update file not found [path = "));
    plugin.StopAll();

    // A sibling holding a tree deeper than the limit: the clean goes on with the others.
    plugin.env.servConfig.SetText(17, L"scansp", core.c_str());
    const std::wstring deep = L"\\\\?\\" + parent + L"\\deep";
    ASSERT_TRUE(CreateDirectoryW(deep.c_str(), nullptr));
    ASSERT_TRUE(CreateDirectoryW((deep + L"\\" + longName).c_str(), nullptr));
    ASSERT_TRUE(CreateDirectoryW((deep + L"\\" + longName + L"\\" + longName).c_str(), nullptr));
    ASSERT_TRUE(WriteBytes(deep + L"\\" + longName + L"\\" + longName + L"\\far.tmp", "far"));
    WriteBytes(parent + L"\\near.tmp", "near");
    avhost::ClearCapturedLines();
    ASSERT_TRUE(plugin.StartAll());
    EXPECT_FALSE(Exists(parent + L"\\near.tmp"));
    EXPECT_TRUE(LineWith(L"Deleting [" + parent + L"\\deep]", 16));
    EXPECT_TRUE(PathIsDirectoryW(core.c_str()));
    ExpectOutsideIntact();
}

} // namespace
