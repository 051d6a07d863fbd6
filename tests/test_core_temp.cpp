// The scan service provider's core temp folder and crash handler, as Init and the delayed start
// handle them: the folder made at Init, its siblings cleaned while the folder and its contents
// stay, links among the siblings removed without reaching what they point to, and the two
// crash-handler options switched off.
#include "support/FileUtil.h"
#include "tests/common/PluginHarness.h"
#include "tests/common/SymbolicLinks.h"

#include <gtest/gtest.h>
#include <shlwapi.h>

#include <string>

namespace {

using namespace testing_support;
namespace ids = qv::kxsdk::ids;

constexpr int32_t kCoreTempCategory = 17;  // "scansp"

std::string Narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

bool Exists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

void WriteText(const std::wstring& path, const char* text, DWORD attributes = FILE_ATTRIBUTE_NORMAL) {
    HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, attributes, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, h) << "cannot write " << Narrow(path);
    DWORD written = 0;
    WriteFile(h, text, static_cast<DWORD>(strlen(text)), &written, nullptr);
    CloseHandle(h);
}

std::string ReadText(const std::wstring& path) {
    HANDLE h = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE) return "<missing>";
    char buffer[256];
    DWORD got = 0;
    ReadFile(h, buffer, sizeof buffer, &got, nullptr);
    CloseHandle(h);
    return std::string(buffer, got);
}

bool HasLine(const std::wstring& text, uint32_t severity) {
    for (const auto& line : avhost::CapturedLines()) {
        if (line.text == text && line.severity == severity) return true;
    }
    return false;
}

int CountStartingWith(const std::wstring& prefix) {
    int n = 0;
    for (const auto& line : avhost::CapturedLines()) {
        if (line.text.rfind(prefix, 0) == 0) ++n;
    }
    return n;
}

class CoreTemp : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, plugin.primary);
        parent = top = TempFolder(L"coretemp");
        core = parent + L"\\scansp";
        avhost::ClearCapturedLines();
    }
    void TearDown() override {
        // Links planted from the Unix side go with the rest, as links.
        for (const std::wstring& folder : {top, outside}) {
            if (folder.empty()) continue;
            if (linksFromUnix) {
                RemoveTreeFromUnix(folder);
            } else {
                qv::file::DeleteFolderTree(folder.c_str());
            }
        }
    }

    void Configure(const std::wstring& path) { plugin.env.servConfig.SetText(kCoreTempCategory, L"scansp", path.c_str()); }
    void MakeDir(const std::wstring& path) { ASSERT_TRUE(CreateDirectoryW(path.c_str(), nullptr)) << Narrow(path); }
    bool Link(const std::wstring& link, const std::wstring& target, bool directory) {
        LinkKind kind = MakeSymbolicLink(link, target, directory);
        if (kind == LinkKind::Unix) linksFromUnix = true;
        return kind != LinkKind::None;
    }

    // The core temp folder with contents of its own and siblings of every kind.
    void Populate() {
        MakeDir(core + L"\\work");
        WriteText(core + L"\\work\\job.bin", "job");
        WriteText(core + L"\\lock.dat", "lock");
        WriteText(parent + L"\\a.tmp", "a");
        WriteText(parent + L"\\ro.tmp", "ro", FILE_ATTRIBUTE_READONLY);
        MakeDir(parent + L"\\old");
        MakeDir(parent + L"\\old\\deeper");
        WriteText(parent + L"\\old\\x.tmp", "x");
        WriteText(parent + L"\\old\\deeper\\ro.tmp", "ro", FILE_ATTRIBUTE_READONLY);
        // A name that only begins like the core temp folder is a sibling as well.
        MakeDir(parent + L"\\scansp.old");
    }
    void ExpectSiblingsGone() {
        for (const wchar_t* name : {L"a.tmp", L"ro.tmp", L"old", L"scansp.old"}) {
            EXPECT_FALSE(Exists(parent + L"\\" + name)) << Narrow(name);
        }
    }
    void ExpectCoreKept() {
        EXPECT_TRUE(PathIsDirectoryW(core.c_str()));
        EXPECT_EQ("job", ReadText(core + L"\\work\\job.bin"));
        EXPECT_EQ("lock", ReadText(core + L"\\lock.dat"));
    }

    PluginUnderTest plugin;
    std::wstring top, parent, core, outside;
    bool linksFromUnix = false;
};

TEST_F(CoreTemp, InitMakesTheFolderAndTheCleanRemovesOnlyItsSiblings) {
    const std::wstring nested = parent + L"\\deep\\er";
    core = nested + L"\\scansp";
    Configure(core);
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(HasLine(L"Core temp " + core, 32));
    ASSERT_TRUE(PathIsDirectoryW(core.c_str()));

    parent = nested;
    Populate();
    ASSERT_EQ(0u, plugin.DelayedStart());
    ExpectSiblingsGone();
    ExpectCoreKept();
    EXPECT_TRUE(HasLine(L"Deleting [" + parent + L"\\a.tmp]", 16));
    EXPECT_TRUE(HasLine(L"Deleting [" + parent + L"\\old]", 16));
    EXPECT_EQ(0, CountStartingWith(L"Deleting [" + core + L"]"));
    EXPECT_EQ(4, CountStartingWith(L"Deleting ["));
}

TEST_F(CoreTemp, CoreFolderNamedInAnotherLetterCaseIsStillKept) {
    MakeDir(core);
    Configure(parent + L"\\SCANSP");
    ASSERT_EQ(0u, plugin.Init());
    Populate();
    ASSERT_EQ(0u, plugin.DelayedStart());
    ExpectSiblingsGone();
    ExpectCoreKept();
}

TEST_F(CoreTemp, StoredTrailingBackslashRemovesTheFolderItselfToo) {
    Configure(core + L"\\");
    ASSERT_EQ(0u, plugin.Init());
    ASSERT_TRUE(PathIsDirectoryW(core.c_str()));
    Populate();
    ASSERT_EQ(0u, plugin.DelayedStart());
    ExpectSiblingsGone();
    EXPECT_FALSE(Exists(core));
    EXPECT_TRUE(HasLine(L"Deleting [" + core + L"]", 16));
    EXPECT_TRUE(PathIsDirectoryW(parent.c_str()));
}

TEST_F(CoreTemp, EmptyConfigurationStoresNothingAndTheCleanFindsNoFolder) {
    WriteText(parent + L"\\a.tmp", "a");
    ASSERT_EQ(0u, plugin.Init());  // no "scansp" text at all
    EXPECT_TRUE(HasLine(L"Core temp ", 32));
    EXPECT_TRUE(HasLine(L"Core temp path is empty!", 4));
    ASSERT_EQ(0u, plugin.DelayedStart());
    EXPECT_TRUE(avhost::Contains(L"Core temp folder not found [path = ]"));
    EXPECT_EQ(0, CountStartingWith(L"Deleting ["));
    EXPECT_EQ("a", ReadText(parent + L"\\a.tmp"));
}

TEST_F(CoreTemp, FolderThatCannotBeMadeIsStillStoredAndReportedMissing) {
    WriteText(parent + L"\\blocker", "not a folder");
    WriteText(parent + L"\\a.tmp", "a");
    core = parent + L"\\blocker\\scansp";
    Configure(core);
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(HasLine(L"Cannot create core temp folder [path = " + core + L"]", 4));
    ASSERT_EQ(0u, plugin.DelayedStart());
    EXPECT_TRUE(avhost::Contains(L"Core temp folder not found [path = " + core + L"]"));
    EXPECT_EQ(0, CountStartingWith(L"Deleting ["));
    EXPECT_EQ("a", ReadText(parent + L"\\a.tmp"));
    EXPECT_EQ("not a folder", ReadText(parent + L"\\blocker"));
}

// Only the link goes, never what it points to; the other siblings go all the same.
TEST_F(CoreTemp, LinksAmongTheSiblingsNeverTakeTheirTargetsWithThem) {
    outside = TempFolder(L"coretemp-outside");
    MakeDir(outside + L"\\sub");
    MakeDir(outside + L"\\empty");
    WriteText(outside + L"\\keep.txt", "keep");
    WriteText(outside + L"\\sub\\keep2.txt", "keep2");
    WriteText(outside + L"\\ro.txt", "ro", FILE_ATTRIBUTE_READONLY);
    Configure(core);
    ASSERT_EQ(0u, plugin.Init());
    Populate();
    if (!Link(parent + L"\\linked", outside, true)) GTEST_SKIP() << "no symbolic links here";
    ASSERT_TRUE(Link(parent + L"\\linked-empty", outside + L"\\empty", true));
    ASSERT_TRUE(Link(parent + L"\\linked.txt", outside + L"\\keep.txt", false));
    ASSERT_TRUE(Link(parent + L"\\linked-ro.txt", outside + L"\\ro.txt", false));
    // Inside the core temp folder nothing is touched, links included.
    ASSERT_TRUE(Link(core + L"\\own-link", outside, true));

    ASSERT_EQ(0u, plugin.DelayedStart());

    EXPECT_EQ("keep", ReadText(outside + L"\\keep.txt"));
    EXPECT_EQ("keep2", ReadText(outside + L"\\sub\\keep2.txt"));
    EXPECT_EQ("ro", ReadText(outside + L"\\ro.txt"));
    EXPECT_NE(0u, GetFileAttributesW((outside + L"\\ro.txt").c_str()) & FILE_ATTRIBUTE_READONLY);
    EXPECT_TRUE(PathIsDirectoryW((outside + L"\\empty").c_str()));
    EXPECT_TRUE(HasLine(L"Deleting [" + parent + L"\\linked]", 16));
    EXPECT_FALSE(Exists(parent + L"\\linked.txt"));
    ExpectSiblingsGone();
    ExpectCoreKept();
    EXPECT_TRUE(Exists(core + L"\\own-link"));
    // Nothing of the replacement of a link to a file is left behind.
    WIN32_FIND_DATAW entry;
    HANDLE find = FindFirstFileW((parent + L"\\*.tmp").c_str(), &entry);
    EXPECT_EQ(INVALID_HANDLE_VALUE, find) << Narrow(entry.cFileName);
    if (find != INVALID_HANDLE_VALUE) FindClose(find);
    if (!OnWine()) {
        EXPECT_FALSE(Exists(parent + L"\\linked"));
        EXPECT_FALSE(Exists(parent + L"\\linked-empty"));
        EXPECT_FALSE(Exists(parent + L"\\linked-ro.txt"));
    }
    // Under Wine every open resolves a link, and no call removes a link to a folder without
    // reaching through it: such links stay, as does a link to a read-only file.
}

// ---- crash handler -------------------------------------------------------------------------

class CrashHandler : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, plugin.primary);
        avhost::ClearCapturedLines();
    }
    std::vector<std::pair<uint32_t, uint32_t>> Options() {
        std::vector<std::pair<uint32_t, uint32_t>> options;
        for (const auto& o : plugin.env.scanSp.CrashHandler().Options()) options.emplace_back(o.option, o.value);
        return options;
    }
    PluginUnderTest plugin;
};

const std::vector<std::pair<uint32_t, uint32_t>> kBothOptions = {{6001u, 1u}, {6002u, 0u}};

TEST_F(CrashHandler, InitSwitchesOffSilentSubmissionAndHandsTheInterfaceBack) {
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_EQ(kBothOptions, Options());
    EXPECT_TRUE(HasLine(L"SilentSubmitDump [error = 0]", 32));
    EXPECT_TRUE(HasLine(L"SilentSubmitDefaultAct [error = 0]", 32));
    EXPECT_EQ(1, plugin.env.scanSp.GetCounts().getInterfaces);
    EXPECT_EQ(1, plugin.env.scanSp.GetCounts().releaseInterfaces);
    EXPECT_EQ(0, plugin.env.scanSp.OutstandingInterfaces());
}

TEST_F(CrashHandler, BothOptionsAreSetWhateverTheFirstGives) {
    plugin.env.scanSp.CrashHandler().FailFirstCall(31);
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_EQ(kBothOptions, Options());
    EXPECT_TRUE(HasLine(L"SilentSubmitDump [error = 31]", 32));
    EXPECT_TRUE(HasLine(L"SilentSubmitDefaultAct [error = 0]", 32));
    EXPECT_EQ(0, plugin.env.scanSp.OutstandingInterfaces());
    ASSERT_EQ(0u, plugin.UnInit());

    plugin.env.scanSp.CrashHandler().Reset();
    plugin.env.scanSp.CrashHandler().FailOption(6002, 1627);
    avhost::ClearCapturedLines();
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_EQ(kBothOptions, Options());
    EXPECT_TRUE(HasLine(L"SilentSubmitDump [error = 0]", 32));
    EXPECT_TRUE(HasLine(L"SilentSubmitDefaultAct [error = 1627]", 32));
    EXPECT_EQ(0, plugin.env.scanSp.OutstandingInterfaces());
}

TEST_F(CrashHandler, RefusedInterfaceIsHandedBackAndNoOptionIsSet) {
    plugin.env.scanSp.FailGetInterface(50, true);
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(Options().empty());
    EXPECT_EQ(0, plugin.env.scanSp.OutstandingInterfaces());
    EXPECT_EQ(1, plugin.env.scanSp.GetCounts().releaseInterfaces);
    EXPECT_FALSE(avhost::Contains(L"SilentSubmit"));
    ASSERT_EQ(0u, plugin.UnInit());

    plugin.env.scanSp.FailGetInterface(50, false);
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(Options().empty());
    EXPECT_EQ(0, plugin.env.scanSp.OutstandingInterfaces());
}

TEST_F(CrashHandler, WithoutTheProviderNothingIsAsked) {
    plugin.env.manager.SetMissing(ids::kScanSpName);
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_EQ(0, plugin.env.scanSp.GetCounts().getInterfaces);
    EXPECT_TRUE(Options().empty());
    EXPECT_FALSE(avhost::Contains(L"SilentSubmit"));
}

} // namespace
