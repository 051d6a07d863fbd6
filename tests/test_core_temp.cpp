// The scan service provider's core temp folder and crash handler: the folder made at Init, its
// siblings cleaned by the delayed start while the folder and its contents stay, links among the
// siblings removed without reaching their targets, and the two crash-handler options.
#include "tests/common/LogAndFileChecks.h"
#include "tests/common/SymbolicLinks.h"

#include <gtest/gtest.h>
#include <shlwapi.h>

namespace {

using namespace testing_support;
using namespace testing_support::slots;

class CoreTemp : public ::testing::Test {
protected:
    void SetUp() override {
        parent = TempFolder(L"coretemp");
        core = parent + L"\\scansp";
        avhost::ClearCapturedLines();
    }
    void TearDown() override {
        for (const std::wstring& folder : {parent, outside})
            if (!folder.empty() && !RemoveTreeFromUnix(folder)) RemoveFolder(folder);
    }
    void Configure(const std::wstring& path) { plugin.env.servConfig.SetText(17, L"scansp", path.c_str()); }
    // Contents of its own, and siblings of every kind: read-only files, nested folders, a name
    // that only begins like the core temp folder.
    void Populate() {
        for (const wchar_t* dir : {L"\\scansp\\work", L"\\old", L"\\old\\deeper", L"\\scansp.old"})
            CreateDirectoryW((parent + dir).c_str(), nullptr);
        WriteBytes(core + L"\\work\\job.bin", "job");
        for (const wchar_t* file : {L"\\a.tmp", L"\\ro.tmp", L"\\old\\x.tmp", L"\\old\\deeper\\ro.tmp"})
            WriteBytes(parent + file, "x");
        SetFileAttributesW((parent + L"\\ro.tmp").c_str(), FILE_ATTRIBUTE_READONLY);
        SetFileAttributesW((parent + L"\\old\\deeper\\ro.tmp").c_str(), FILE_ATTRIBUTE_READONLY);
        SetFileAttributesW((parent + L"\\old").c_str(), FILE_ATTRIBUTE_READONLY); // a folder's bit is cleared
    }
    // A read-only file beside the folder stays, as DeleteFileW leaves it (with its "Deleting" line
    // and a warning); one inside a sibling's tree goes with the tree.
    void ExpectCleaned(bool coreKept) {
        for (const wchar_t* name : {L"a.tmp", L"old", L"scansp.old"})
            EXPECT_FALSE(Exists(parent + L"\\" + name)) << Narrow(name);
        EXPECT_EQ("x", ReadBytes(parent + L"\\ro.tmp"));
        EXPECT_TRUE(LineWith(L"Deleting [" + parent + L"\\ro.tmp]", 16));
        EXPECT_TRUE(LineWith(L"Entry kept [path = " + parent + L"\\ro.tmp] [error = 5]", 8));
        EXPECT_EQ(coreKept ? "job" : "<missing>", ReadBytes(core + L"\\work\\job.bin"));
        EXPECT_EQ(coreKept, Exists(core));
    }
    PluginUnderTest plugin;
    std::wstring parent, core, outside;
};

TEST_F(CoreTemp, SiblingsGoTheFolderAndItsContentsStay) {
    struct Case {
        const wchar_t* configured; // appended to the parent
        bool coreKept;
    };
    for (const Case& c : {Case{L"\\scansp", true}, Case{L"\\SCANSP", true}, Case{L"\\scansp\\", false}}) {
        SCOPED_TRACE(Narrow(c.configured));
        Configure(parent + c.configured);
        avhost::ClearCapturedLines();
        ASSERT_EQ(0u, plugin.Init());
        ASSERT_TRUE(PathIsDirectoryW(core.c_str()));
        Populate();
        ASSERT_EQ(0u, plugin.DelayedStart());
        ExpectCleaned(c.coreKept);
        EXPECT_TRUE(LineWith(L"Deleting [" + parent + L"\\old]", 16));
        EXPECT_EQ(c.coreKept ? 4 : 5, CountStartingWith(L"Deleting ["));
        EXPECT_TRUE(PathIsDirectoryW(parent.c_str()));
        plugin.UnInit();
    }
}

TEST_F(CoreTemp, EmptyConfigurationCleansNothing) {
    WriteBytes(parent + L"\\a.tmp", "a");
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_TRUE(LineWith(L"Core temp path is empty!", 4));
    ASSERT_EQ(0u, plugin.DelayedStart());
    EXPECT_TRUE(avhost::Contains(L"Core temp folder not found [path = ]"));
    EXPECT_EQ(0, CountStartingWith(L"Deleting ["));
    EXPECT_EQ("a", ReadBytes(parent + L"\\a.tmp"));
}

TEST_F(CoreTemp, LinksAmongTheSiblingsNeverTakeTheirTargetsWithThem) {
    outside = TempFolder(L"coretemp-outside");
    CreateDirectoryW((outside + L"\\sub").c_str(), nullptr);
    WriteBytes(outside + L"\\keep.txt", "keep");
    WriteBytes(outside + L"\\sub\\keep2.txt", "keep2");
    Configure(core);
    ASSERT_EQ(0u, plugin.Init());
    Populate();
    if (MakeSymbolicLink(parent + L"\\linked", outside, true) == LinkKind::None) GTEST_SKIP() << "no symbolic links";
    ASSERT_NE(LinkKind::None, MakeSymbolicLink(parent + L"\\linked.txt", outside + L"\\keep.txt", false));
    ASSERT_NE(LinkKind::None, MakeSymbolicLink(core + L"\\own-link", outside, true));
    ASSERT_EQ(0u, plugin.DelayedStart());
    EXPECT_EQ("keep", ReadBytes(outside + L"\\keep.txt"));
    EXPECT_EQ("keep2", ReadBytes(outside + L"\\sub\\keep2.txt"));
    EXPECT_TRUE(LineWith(L"Deleting [" + parent + L"\\linked]", 16));
    ExpectCleaned(true);
    EXPECT_TRUE(Exists(core + L"\\own-link"));
    // Under Wine no call removes a link without reaching through it: links stay, each logged.
    for (const wchar_t* name : {L"linked", L"linked.txt"}) {
        const std::wstring link = parent + L"\\" + name;
        EXPECT_EQ(OnWine(), Exists(link));
        EXPECT_EQ(OnWine(), LineWith(L"Link not followed, entry kept [path = " + link + L"]", 8));
    }
}

// A free drive letter mapped to `folder`: Wine keeps its letters as links in its dosdevices
// folder, planted here from the Unix side; Windows maps one with DefineDosDeviceW. "X:" or empty.
std::wstring MapDrive(const std::wstring& folder, std::wstring& unmap) {
    for (wchar_t letter = L'q'; letter <= L'y'; ++letter) {
        const std::wstring name{letter, L':'};
        if (GetDriveTypeW((name + L"\\").c_str()) != DRIVE_NO_ROOT_DIR) continue;
        if (OnWine()) {
            const std::string dos = UnixPath(L"C:\\") + "/../dosdevices/" + Narrow(name);
            unmap = L"\"" + std::wstring(dos.begin(), dos.end()) + L"\"";
            const std::string target = UnixPath(folder);
            StartUnix(L"ln", L"-s \"" + std::wstring(target.begin(), target.end()) + L"\" " + unmap);
        } else {
            DefineDosDeviceW(0, name.c_str(), folder.c_str());
        }
        if (WaitFor([&] { return PathIsDirectoryW((name + L"\\").c_str()) != FALSE; })) return name;
        return L"";
    }
    return L"";
}

// A core temp folder straight under a drive root would make the whole volume its siblings: that
// parent is never cleaned, a notable decision. The drive is this test's folder under a free
// letter, so a clean that went ahead would only empty that folder.
TEST_F(CoreTemp, FolderUnderADriveRootIsNeverCleanedAround) {
    std::wstring unmap;
    const std::wstring drive = MapDrive(parent, unmap);
    if (drive.empty()) GTEST_SKIP() << "no drive letter could be mapped";
    WriteBytes(parent + L"\\a.tmp", "a");
    Configure(drive + L"\\scansp");
    ASSERT_EQ(0u, plugin.Init());
    ASSERT_EQ(0u, plugin.DelayedStart());
    EXPECT_EQ("a", ReadBytes(parent + L"\\a.tmp"));
    EXPECT_TRUE(Exists(core));
    EXPECT_EQ(0, CountStartingWith(L"Deleting ["));
    EXPECT_TRUE(LineWith(L"Core temp folder parent is a root, not cleaned [path = " + drive + L"\\scansp]", 8));
    plugin.UnInit();
    if (OnWine()) {
        StartUnix(L"rm", unmap);
        WaitFor([&] { return GetDriveTypeW((drive + L"\\").c_str()) == DRIVE_NO_ROOT_DIR; });
    } else {
        DefineDosDeviceW(DDD_REMOVE_DEFINITION, drive.c_str(), nullptr);
    }
}

TEST(CrashHandler, BothOptionsAreSetWhateverTheFirstGives) {
    PluginUnderTest plugin;
    plugin.env.scanSp.CrashHandler().FailFirstCall(31);
    ASSERT_EQ(0u, plugin.Init());
    std::vector<std::pair<uint32_t, uint32_t>> options;
    for (const auto& o : plugin.env.scanSp.CrashHandler().Options()) options.emplace_back(o.option, o.value);
    EXPECT_EQ((std::vector<std::pair<uint32_t, uint32_t>>{{6001u, 1u}, {6002u, 0u}}), options);
    EXPECT_TRUE(LineWith(L"SilentSubmitDump [error = 31]", 32));
    EXPECT_TRUE(LineWith(L"SilentSubmitDefaultAct [error = 0]", 32));
    EXPECT_EQ(0, plugin.env.scanSp.OutstandingInterfaces());
}

} // namespace
