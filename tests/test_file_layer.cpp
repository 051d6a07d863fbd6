// What the file layer never does, however a path is written: clean beside a folder that sits
// directly under a volume root, delete a read-only file that DeleteFileW would keep, ask for more
// access than a deletion needs, create through a link, let a pipe impersonate the service through
// update.txt, or resolve log.dll's own imports along the default search order. The flags are read
// from the calls the seam build of the plug-in makes through its file layer.
#include "tests/common/FileSeam.h"
#include "tests/common/LogAndFileChecks.h"
#include "tests/common/SymbolicLinks.h"
#include "support/FileCalls.h"
#include "support/VolumeRoot.h"

#include <gtest/gtest.h>
#include <memory>

namespace {

using namespace testing_support;
using namespace testing_support::slots;

// The seam plug-in, its table in force before the object is made (the object loads log.dll).
struct SeamPlugin {
    host::PluginLibrary pin{SeamPluginPath()};
    FileSeam seam;
    PluginUnderTest plugin{SeamPluginPath()};
};

constexpr DWORD kOpenReparsePoint = 0x200000, kNonDirectory = 0x40, kFileCreate = 2, kDontReparse = 0x1000;

// First in the program: log.dll is not loaded yet, so the plug-in loads it.
TEST(FileLayer, EveryOpenAsksForTheLeastAndFollowsNothing) {
    ASSERT_EQ(nullptr, GetModuleHandleW(L"log.dll"));
    const std::wstring top = TempFolder(L"flags"), engines = top + L"\\engines", parent = top + L"\\temp";
    for (const std::wstring& dir : {engines, engines + L"\\Plugins", parent, parent + L"\\scansp", parent + L"\\old"})
        CreateDirectoryW(dir.c_str(), nullptr);
    WriteBytes(engines + L"\\Plugins\\update.txt", "a\ncount 7\nc\nversion 1.2\n");
    for (const wchar_t* name : {L"\\a.tmp", L"\\old\\x.tmp", L"\\old\\ro.tmp"}) WriteBytes(parent + name, "x");
    SetFileAttributesW((parent + L"\\old\\ro.tmp").c_str(), FILE_ATTRIBUTE_READONLY);
    SeamPlugin s;
    ASSERT_TRUE(s.seam.Installed());
    s.plugin.env.servConfig.SetText(2, L"scansp", engines.c_str());
    s.plugin.env.servConfig.SetText(17, L"scansp", (parent + L"\\scansp").c_str());
    s.plugin.env.update.FailStatistics(1460); // the count and version come from update.txt
    ASSERT_TRUE(s.plugin.StartAll());
    EXPECT_EQ(0u, s.plugin.env.update.DeliverComponentInstalled(L"U", L"Antivirus", engines.c_str()));
    s.plugin.StopAll();
    EXPECT_FALSE(Exists(parent + L"\\old")) << "the clean ran";

    int loads = 0, updateOpens = 0, creates = 0, deletes = 0;
    for (const FileCall& call : s.seam.Calls()) {
        if (call.kind == "LoadLibraryExW") {
            ++loads;
            EXPECT_EQ(L"\\log.dll", call.name.substr(call.name.size() - 8));
            EXPECT_EQ(DWORD(LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32), call.flags);
        } else if (call.kind == "CreateFileW" && call.name == engines + L"\\Plugins\\update.txt") {
            ++updateOpens;
            EXPECT_EQ(DWORD(SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION), call.flags & 0x1F0000);
        } else if (call.kind == "NtCreateFile" && call.disposition == kFileCreate) {
            ++creates;
            EXPECT_EQ(kOpenReparsePoint | kNonDirectory, call.flags & (kOpenReparsePoint | kNonDirectory));
            EXPECT_TRUE(call.objectFlags & kDontReparse) << "accepted by Wine and by Windows 10 1607 and later";
        } else if (call.kind == "NtCreateFile" && (call.access & DELETE)) {
            ++deletes;
            EXPECT_TRUE(call.flags & kOpenReparsePoint);
            EXPECT_EQ(call.name == L"ro.tmp", (call.access & FILE_WRITE_ATTRIBUTES) != 0) << Narrow(call.name);
            EXPECT_FALSE(call.access & (FILE_WRITE_DATA | FILE_APPEND_DATA | GENERIC_WRITE | GENERIC_ALL));
        }
    }
    EXPECT_EQ(1, loads);
    EXPECT_GE(updateOpens, 1);
    EXPECT_EQ(3, creates); // lhdb.cvd, nnml.cvd, xgdb.cvd
    EXPECT_EQ(4, deletes); // a.tmp, old, old\x.tmp, old\ro.tmp
    RemoveFolder(top);
}

// The drive letter is a link in the prefix's dosdevices folder to a scratch folder, so the core
// temp folder below sits directly under a drive root however its path is written.
TEST(FileLayer, NoPathFormOfAFolderUnderADriveRootCleansTheDrive) {
    if (!OnWine()) GTEST_SKIP() << "maps a drive letter through Wine's prefix";
    const std::wstring scratch = TempFolder(L"drive");
    wchar_t prefix[1024];
    const DWORD got = GetEnvironmentVariableW(L"WINEPREFIX", prefix, 1024);
    ASSERT_TRUE(got > 0 && got < 1024);
    wchar_t letter = 0;
    for (wchar_t c = L'Y'; c >= L'M' && !letter; --c)
        if (!(GetLogicalDrives() & (1u << (c - L'A')))) letter = c;
    ASSERT_NE(0, letter);
    const std::wstring drive = std::wstring(1, letter) + L":";
    const std::string device = Narrow(prefix) + "/dosdevices/" + char(letter - L'A' + 'a') + ":";
    const std::string unixPath = UnixPath(scratch);
    const std::wstring unixScratch(unixPath.begin(), unixPath.end());
    ASSERT_TRUE(
        StartUnix(L"ln", L"-s \"" + unixScratch + L"\" \"" + std::wstring(device.begin(), device.end()) + L"\""));
    ASSERT_TRUE(WaitFor([&] { return Exists(drive + L"\\"); }));
    CreateDirectoryW((scratch + L"\\scansp").c_str(), nullptr);
    CreateDirectoryW((scratch + L"\\old").c_str(), nullptr);
    WriteBytes(scratch + L"\\a.tmp", "a");
    WriteBytes(scratch + L"\\old\\x.tmp", "x");
    for (const std::wstring& form :
         {drive + L"\\x\\..\\scansp", drive + L"\\.\\scansp", L"\\\\?\\" + drive + L"\\scansp",
          L"\\\\.\\" + drive + L"\\scansp", drive + L"\\scansp", drive + L"/scansp"}) {
        SCOPED_TRACE(Narrow(form));
        PluginUnderTest plugin;
        plugin.env.servConfig.SetText(17, L"scansp", form.c_str());
        avhost::ClearCapturedLines();
        ASSERT_TRUE(plugin.StartAll());
        plugin.StopAll();
        EXPECT_EQ("a", ReadBytes(scratch + L"\\a.tmp"));
        EXPECT_EQ("x", ReadBytes(scratch + L"\\old\\x.tmp"));
        EXPECT_EQ(1, CountLines(L"Core temp folder parent is a root, not cleaned [path = " + form + L"]", 8));
        EXPECT_EQ(0, CountStartingWith(L"Deleting ["));
    }
    StartUnix(L"rm", L"-f \"" + std::wstring(device.begin(), device.end()) + L"\"");
    ASSERT_TRUE(WaitFor([&] { return !Exists(drive + L"\\"); }));
    RemoveFolder(scratch);
}

// A volume mounted in a folder, as the system reports it, and share roots by their canonical text.
TEST(FileLayer, MountPointsAndShareRootsAreRootsToo) {
    const std::wstring top = TempFolder(L"mount"), mount = top + L"\\mnt";
    CreateDirectoryW(mount.c_str(), nullptr);
    CreateDirectoryW((mount + L"\\scansp").c_str(), nullptr);
    WriteBytes(mount + L"\\a.tmp", "a");
    {
        SeamPlugin s;
        VolumePlay play;
        play.mountedAt = mount;
        s.seam.Play(play);
        s.plugin.env.servConfig.SetText(17, L"scansp", (mount + L"\\scansp").c_str());
        avhost::ClearCapturedLines();
        ASSERT_TRUE(s.plugin.StartAll());
        EXPECT_EQ("a", ReadBytes(mount + L"\\a.tmp"));
        EXPECT_EQ(1, CountLines(L"Core temp folder parent is a root, not cleaned [path = " + mount + L"\\scansp]", 8));
    }
    for (const wchar_t* share :
         {L"\\\\server\\share\\scansp", L"\\\\?\\UNC\\server\\share\\scansp", L"\\\\server\\share\\x\\..\\scansp"}) {
        qv::StringW canonical, parent;
        ASSERT_TRUE(qv::file::CanonicalPath(share, canonical)) << Narrow(share);
        ASSERT_TRUE(qv::file::ParentPath(canonical, parent));
        EXPECT_TRUE(qv::file::IsRootPath(parent)) << Narrow(share);
    }
    qv::StringW canonical;
    for (const wchar_t* relative : {L"Q:scansp", L"\\scansp", L"scansp", L"..\\scansp"})
        EXPECT_FALSE(qv::file::CanonicalPath(relative, canonical)) << Narrow(relative);
    RemoveFolder(top);
}

// What a folder is, asked of the volume: its path within the volume (GetFinalPathNameByHandleW with
// VOLUME_NAME_NONE, "\\" for a root; the length without the terminator when it fits, else the
// size needed with it) and the mount point of its path (GetVolumePathNameW). Either saying root
// makes it one; a folder that neither can answer for is taken as one too.
struct VolumeAnswers {
    const wchar_t* inVolume;   // null: the query fails
    const wchar_t* mountPoint; // null: the query fails; "": the folder's own path with a backslash
};
VolumeAnswers g_answers{};
std::wstring g_folder;

DWORD WINAPI PlayedFinalPath(HANDLE, LPWSTR out, DWORD room, DWORD) {
    if (!g_answers.inVolume) {
        SetLastError(ERROR_INVALID_FUNCTION);
        return 0;
    }
    const DWORD n = static_cast<DWORD>(wcslen(g_answers.inVolume));
    if (n >= room) return n + 1;
    wmemcpy(out, g_answers.inVolume, n + 1);
    return n;
}

BOOL WINAPI PlayedMountPoint(LPCWSTR, LPWSTR out, DWORD room) {
    if (!g_answers.mountPoint) {
        SetLastError(ERROR_INVALID_FUNCTION);
        return FALSE;
    }
    const std::wstring answer = *g_answers.mountPoint ? g_answers.mountPoint : g_folder + L"\\";
    if (answer.size() >= room) {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return FALSE;
    }
    wmemcpy(out, answer.c_str(), answer.size() + 1);
    return TRUE;
}

TEST(FileLayer, AFolderIsARootWhenItsVolumeSaysSo) {
    g_folder = TempFolder(L"rootanswers");
    qv::StringW path;
    ASSERT_TRUE(qv::file::CanonicalPath(g_folder.c_str(), path));
    auto folder = std::make_unique<qv::file::FolderHandle>();
    ASSERT_EQ(0u, folder->Open(path.c_str()));
    qv::file::FileCalls played = qv::file::SystemCalls();
    played.finalPathName = &PlayedFinalPath;
    played.volumePathName = &PlayedMountPoint;
    qv::file::ReplaceCalls(&played);
    const struct {
        VolumeAnswers answers;
        bool root;
    } cases[] = {
        {{L"\\", nullptr}, true},                   // a drive or share root, its mount point not known
        {{L"\\", L"C:\\"}, true},                   // the same, whatever the mount point says
        {{L"\\Temp\\x", L""}, true},                // a volume mounted in this folder
        {{L"\\Temp\\x", L"C:\\"}, false},           // a folder on the C: volume
        {{L"\\T", L"C:\\"}, false},                 // short, and still no root
        {{L"\\Users\\a\\Temp\\x", nullptr}, false}, // longer than the first buffer: asked no further
        {{nullptr, L"C:\\"}, false},                // no final names (a share): the mount point decides
        {{nullptr, L""}, true},
        {{nullptr, nullptr}, true}, // no answer at all: the safe side
    };
    for (const auto& c : cases) {
        g_answers = c.answers;
        EXPECT_EQ(c.root, qv::file::IsVolumeRoot(*folder, path))
            << Narrow(c.answers.inVolume ? c.answers.inVolume : L"(fails)") << " / "
            << Narrow(c.answers.mountPoint ? c.answers.mountPoint : L"(fails)");
    }
    qv::file::ReplaceCalls(nullptr);
    folder.reset();
    RemoveFolder(g_folder);
}

// Roots and parents by the text of a canonical path alone.
TEST(FileLayer, RootsAndParentsByTheirText) {
    for (const wchar_t* root : {L"", L"C:", L"z:", L"\\\\server\\share", L"\\\\server", L"\\\\?\\Volume{1234}"})
        EXPECT_TRUE(qv::file::IsRootPath(root)) << Narrow(root);
    for (const wchar_t* folder : {L"C:\\T", L"\\\\server\\share\\x", L"\\\\?\\Volume{1234}\\x"})
        EXPECT_FALSE(qv::file::IsRootPath(folder)) << Narrow(folder);
    const struct {
        const wchar_t* path;
        const wchar_t* parent; // null: none
    } parents[] = {{L"C:\\a\\bc", L"C:\\a"},
                   {L"C:\\a", L"C:"},
                   {L"\\\\server\\share\\x", L"\\\\server\\share"},
                   {L"C:\\a\\b\\", L"C:\\a"},
                   {L"C:", nullptr}};
    for (const auto& c : parents) {
        qv::StringW parent;
        const bool found = qv::file::ParentPath(c.path, parent);
        EXPECT_EQ(c.parent != nullptr, found) << Narrow(c.path);
        if (found && c.parent) EXPECT_EQ(std::wstring(c.parent), std::wstring(parent.c_str())) << Narrow(c.path);
    }
}

// DeleteFileW leaves a read-only file: the cache and remote-only steps keep it and log error 5.
TEST(FileLayer, ReadOnlyCacheAndRemoteOnlyFilesStay) {
    const std::wstring top = TempFolder(L"readonly"), engines = top + L"\\engines", common = top + L"\\common";
    for (const std::wstring& dir : {engines, engines + L"\\Plugins", common, common + L"\\installer"})
        CreateDirectoryW(dir.c_str(), nullptr);
    const std::wstring sdx = engines + L"\\Plugins\\sdx.cvd", dalvik = engines + L"\\Plugins\\dalvik.cvd";
    const std::wstring db = common + L"\\installer\\wslib.db", m = common + L"\\installer\\wslib.m";
    for (const std::wstring& file : {sdx, dalvik, db, m}) WriteBytes(file, "data");
    SetFileAttributesW(sdx.c_str(), FILE_ATTRIBUTE_READONLY);
    SetFileAttributesW(db.c_str(), FILE_ATTRIBUTE_READONLY);
    PluginUnderTest plugin;
    plugin.env.servConfig.SetText(2, L"scansp", engines.c_str());
    plugin.env.servConfig.SetText(0, L"common", common.c_str());
    plugin.env.servConfig.SetText(51, L"BASE", L"remote");
    plugin.env.remoteScan.SetStatus(true);
    plugin.env.manager.SetMissing(qv::kxsdk::ids::kScanSpName);
    ASSERT_TRUE(plugin.StartAll());
    EXPECT_EQ("data", ReadBytes(sdx));
    EXPECT_EQ("data", ReadBytes(db));
    EXPECT_FALSE(Exists(dalvik));
    EXPECT_FALSE(Exists(m));
    EXPECT_TRUE(LineWith(L"Cannot delete file [path = " + sdx + L"] [error = 5]", 8));
    EXPECT_TRUE(LineWith(L"Cannot delete file [error = 5] [path = " + db + L"]", 4));
    plugin.StopAll();
    RemoveFolder(top);
}

// A system that does not know OBJ_DONT_REPARSE refuses it as an invalid parameter: each
// placeholder is asked once more without it, and still only as a new name that is no link.
TEST(FileLayer, PlaceholdersAreStillMadeWhereTheSystemRefusesDontReparse) {
    const std::wstring engines = TempFolder(L"dontreparse");
    SeamPlugin s;
    VolumePlay play;
    play.noDontReparse = true;
    s.seam.Play(play);
    s.plugin.env.servConfig.SetText(2, L"scansp", engines.c_str());
    s.plugin.env.manager.SetMissing(qv::kxsdk::ids::kScanSpName);
    ASSERT_TRUE(s.plugin.StartAll());
    for (const wchar_t* name : {L"qvcore.dll", L"scanclient.dll", L"smartdbv2.dat"})
        EXPECT_EQ("", ReadBytes(engines + L"\\" + name)) << Narrow(name);
    std::vector<DWORD> asked;
    for (const FileCall& call : s.seam.Calls())
        if (call.kind == "NtCreateFile" && call.disposition == kFileCreate && call.name == L"qvcore.dll") {
            EXPECT_TRUE(call.flags & kOpenReparsePoint);
            asked.push_back(call.objectFlags & kDontReparse);
        }
    EXPECT_EQ((std::vector<DWORD>{kDontReparse, 0}), asked);
    s.plugin.StopAll();
    RemoveFolder(engines);
}

} // namespace
