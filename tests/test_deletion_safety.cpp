// The plug-in deletes and creates files in two places it owns: the siblings of the core temp
// folder within its parent, and the engine files of the engines folder. Links planted there
// (symbolic links, and junctions where the platform makes them) are never followed, wherever
// they sit in the tree; a placeholder never replaces or reaches through an existing name; a
// core temp folder given as a relative path cleans nothing; and paths beyond 260 characters fail
// with their log line instead of crashing.
#include "tests/common/ScanSlots.h"
#include "tests/common/SymbolicLinks.h"

#include <gtest/gtest.h>
#include <shlwapi.h>

#include <string>
#include <vector>

namespace {

using namespace testing_support;
using namespace testing_support::slots;
namespace ids = qv::kxsdk::ids;

std::string Narrow(const std::wstring& s) {
    std::string out;
    for (wchar_t c : s) out += c < 128 ? static_cast<char>(c) : '?';
    return out;
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

// A junction (mount point) at `link` to the folder `target`, where the platform makes them.
bool MakeJunction(const std::wstring& link, const std::wstring& target) {
    if (!CreateDirectoryW(link.c_str(), nullptr)) return false;
    HANDLE h = CreateFileW(link.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                           FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (h == INVALID_HANDLE_VALUE) {
        RemoveDirectoryW(link.c_str());
        return false;
    }
    const std::wstring substitute = L"\\??\\" + target;
    std::vector<BYTE> buffer(8 + 8 + (substitute.size() + target.size() + 2) * 2);
    auto put16 = [&](size_t at, size_t v) { buffer[at] = BYTE(v & 0xFF); buffer[at + 1] = BYTE(v >> 8); };
    const DWORD tag = 0xA0000003;  // IO_REPARSE_TAG_MOUNT_POINT
    memcpy(buffer.data(), &tag, 4);
    put16(4, buffer.size() - 8);
    put16(8, 0);                               // substitute name offset
    put16(10, substitute.size() * 2);          // substitute name length
    put16(12, (substitute.size() + 1) * 2);    // print name offset
    put16(14, target.size() * 2);              // print name length
    memcpy(&buffer[16], substitute.c_str(), (substitute.size() + 1) * 2);
    memcpy(&buffer[16 + (substitute.size() + 1) * 2], target.c_str(), (target.size() + 1) * 2);
    DWORD returned = 0;
    BOOL ok = DeviceIoControl(h, 0x000900A4 /* FSCTL_SET_REPARSE_POINT */, buffer.data(),
                              static_cast<DWORD>(buffer.size()), nullptr, 0, &returned, nullptr);
    CloseHandle(h);
    if (!ok || GetFileAttributesW((link + L"\\").c_str()) == INVALID_FILE_ATTRIBUTES) {
        RemoveDirectoryW(link.c_str());
        return false;
    }
    return true;
}

class DeletionSafety : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, plugin.primary);
        top = TempFolder(L"delsafe");
        outside = top + L"\\outside";
        parent = top + L"\\temp";
        core = parent + L"\\scansp";
        engines = top + L"\\engines";
        for (const std::wstring& dir : {outside, outside + L"\\sub", parent, core, engines, engines + L"\\Plugins"})
            CreateDirectoryW(dir.c_str(), nullptr);
        for (const wchar_t* name : {L"keep.txt", L"dalvik.cvd", L"lhdb.cvd", L"sdx.xmd", L"sub\\deep.txt"})
            WriteBytes(outside + L"\\" + name, "outside");
        plugin.env.servConfig.SetText(17, L"scansp", core.c_str());
        plugin.env.servConfig.SetText(2, L"scansp", engines.c_str());
        avhost::ClearCapturedLines();
    }
    void TearDown() override {
        plugin.StopAll();
        plugin.stopped = true;
        SetCurrentDirectoryW(ExeFolder().c_str());
        if (!RemoveTreeFromUnix(top)) RemoveEverything(L"\\\\?\\" + top);
    }
    static void RemoveEverything(const std::wstring& path) {
        WIN32_FIND_DATAW entry;
        HANDLE find = FindFirstFileW((path + L"\\*").c_str(), &entry);
        if (find != INVALID_HANDLE_VALUE) {
            do {
                std::wstring name = entry.cFileName;
                if (name == L"." || name == L"..") continue;
                std::wstring full = path + L"\\" + name;
                SetFileAttributesW(full.c_str(), FILE_ATTRIBUTE_NORMAL);
                if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) &&
                    !(entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT))
                    RemoveEverything(full);
                else if (!DeleteFileW(full.c_str()))
                    RemoveDirectoryW(full.c_str());
            } while (FindNextFileW(find, &entry));
            FindClose(find);
        }
        RemoveDirectoryW(path.c_str());
    }
    bool Link(const std::wstring& link, const std::wstring& target, bool directory) {
        return MakeSymbolicLink(link, target, directory) != LinkKind::None;
    }
    // A link to a file that is not there (made to an existing one, which then goes).
    bool DanglingLink(const std::wstring& link, const std::wstring& target) {
        if (!WriteBytes(target, "soon gone") || !Link(link, target, false)) return false;
        return DeleteFileW(target.c_str()) && !Exists(target);
    }
    void ExpectOutsideIntact() {
        for (const wchar_t* name : {L"keep.txt", L"dalvik.cvd", L"lhdb.cvd", L"sdx.xmd", L"sub\\deep.txt"})
            EXPECT_EQ("outside", ReadText(outside + L"\\" + name)) << Narrow(name);
    }

    PluginUnderTest plugin;
    std::wstring top, outside, parent, core, engines;
};

// Links nested inside a sibling folder of the core temp folder, and a junction among the
// siblings: the clean goes through the sibling but never through a link.
TEST_F(DeletionSafety, CoreTempCleanNeverReachesThroughNestedLinksOrJunctions) {
    const std::wstring sibling = parent + L"\\old";
    CreateDirectoryW(sibling.c_str(), nullptr);
    CreateDirectoryW((sibling + L"\\inner").c_str(), nullptr);
    WriteBytes(sibling + L"\\inner\\own.tmp", "own");
    if (!Link(sibling + L"\\inner\\to-folder", outside, true)) GTEST_SKIP() << "no symbolic links here";
    ASSERT_TRUE(Link(sibling + L"\\to-file.txt", outside + L"\\keep.txt", false));
    ASSERT_TRUE(Link(sibling + L"\\inner\\to-sub", outside + L"\\sub", true));
    // A link to a link to the outside folder.
    ASSERT_TRUE(Link(top + L"\\hop", outside, true));
    ASSERT_TRUE(Link(sibling + L"\\via-hop", top + L"\\hop", true));
    const bool junction = MakeJunction(parent + L"\\junction", outside);
    if (!junction) {
        ASSERT_TRUE(Link(parent + L"\\junction", outside, true)) << "no junction, and no link instead";
    }
    printf("junction made as %s\n", junction ? "a mount point" : "a symbolic link (no mount points here)");

    ASSERT_TRUE(plugin.StartAll());

    ExpectOutsideIntact();
    EXPECT_TRUE(PathIsDirectoryW((outside + L"\\sub").c_str()));
    EXPECT_FALSE(Exists(sibling + L"\\inner\\own.tmp")) << "the sibling's own files go";
    EXPECT_TRUE(PathIsDirectoryW(core.c_str()));
    EXPECT_TRUE(LineWith(L"Deleting [" + sibling + L"]", 16));
    EXPECT_TRUE(LineWith(L"Deleting [" + parent + L"\\junction]", 16));
}

// A remote-only installation deletes ten engine files by name at Init. A file that is a link
// goes as a link; a "Plugins" folder that is a link to somewhere else is not the engines
// folder's own, and nothing is deleted through it.
TEST_F(DeletionSafety, RemoteOnlyDeletionsNeverReachThroughLinks) {
    plugin.env.servConfig.SetText(51, L"BASE", L"remote");
    plugin.env.remoteScan.SetStatus(true);
    if (!Link(engines + L"\\Plugins\\lhdb.cvd", outside + L"\\lhdb.cvd", false)) GTEST_SKIP() << "no links here";
    WriteBytes(engines + L"\\Plugins\\sdx.cvd", "own");
    ASSERT_EQ(0u, plugin.Init());
    ExpectOutsideIntact();
    EXPECT_FALSE(Exists(engines + L"\\Plugins\\sdx.cvd")) << "the folder's own files go";
    plugin.StopAll();

    // Now "Plugins" itself leads outside.
    ASSERT_TRUE(RemoveTreeFromUnix(engines + L"\\Plugins"));
    ASSERT_FALSE(Exists(engines + L"\\Plugins"));
    const bool junction = MakeJunction(engines + L"\\Plugins", outside);
    if (!junction) {
        ASSERT_TRUE(Link(engines + L"\\Plugins", outside, true));
    }
    avhost::ClearCapturedLines();
    ASSERT_EQ(0u, plugin.Init());
    ExpectOutsideIntact();
    EXPECT_TRUE(LineWith(L"Link not followed, file kept [path = " + engines + L"\\Plugins\\dalvik.cvd]", 8));
    EXPECT_TRUE(Exists(engines + L"\\Plugins")) << "the link itself is left for the installer";
}

// Placeholders are created with CREATE_NEW: an existing file keeps its bytes, and a name that
// is a link to a file not yet there does not create that file through the link.
TEST_F(DeletionSafety, PlaceholdersNeverOverwriteNorCreateThroughLinks) {
    WriteBytes(engines + L"\\Plugins\\lhdb.cvd", "real engine data");
    const std::wstring target = outside + L"\\created-through-link.cvd";
    if (!DanglingLink(engines + L"\\Plugins\\xgdb.cvd", target)) GTEST_SKIP() << "no symbolic links here";
    ASSERT_TRUE(plugin.StartAll());
    EXPECT_EQ("real engine data", ReadText(engines + L"\\Plugins\\lhdb.cvd"));
    EXPECT_FALSE(Exists(target)) << "a placeholder was created through a link";
    EXPECT_TRUE(Exists(engines + L"\\Plugins\\nnml.cvd")) << "a really missing file is still created";
    plugin.StopAll();

    // The recovery placeholders, the same way.
    const std::wstring recoveryTarget = outside + L"\\qvcore-through-link.dll";
    ASSERT_TRUE(DanglingLink(engines + L"\\qvcore.dll", recoveryTarget));
    WriteBytes(engines + L"\\smartdbv2.dat", "signatures");
    plugin.env.manager.SetMissing(ids::kScanSpName);
    avhost::ClearCapturedLines();
    ASSERT_TRUE(plugin.StartAll());
    EXPECT_FALSE(Exists(recoveryTarget));
    EXPECT_EQ("signatures", ReadText(engines + L"\\smartdbv2.dat"));
    EXPECT_EQ(0u, [&] {
        WIN32_FILE_ATTRIBUTE_DATA data;
        return GetFileAttributesExW((engines + L"\\scanclient.dll").c_str(), GetFileExInfoStandard, &data)
                   ? data.nFileSizeLow
                   : 99u;
    }());
}

// A core temp folder named by a relative path would make the process's current folder decide
// what gets cleaned; such a folder is never cleaned.
TEST_F(DeletionSafety, RelativeCoreTempFolderCleansNothing) {
    const std::wstring work = top + L"\\work";
    CreateDirectoryW(work.c_str(), nullptr);
    WriteBytes(top + L"\\precious.txt", "precious");
    ASSERT_TRUE(SetCurrentDirectoryW(work.c_str()));
    for (const wchar_t* relative : {L"..\\scansp", L"scansp", L".\\scansp", L"..\\work\\scansp"}) {
        SCOPED_TRACE(Narrow(relative));
        plugin.env.servConfig.SetText(17, L"scansp", relative);
        avhost::ClearCapturedLines();
        ASSERT_TRUE(plugin.StartAll());
        plugin.StopAll();
        EXPECT_TRUE(LineWith(L"Core temp folder is not a full path, not cleaned [path = " + std::wstring(relative) + L"]", 8));
        EXPECT_EQ("precious", ReadText(top + L"\\precious.txt"));
        EXPECT_TRUE(PathIsDirectoryW(work.c_str()));
        EXPECT_TRUE(PathIsDirectoryW(engines.c_str()));
        ExpectOutsideIntact();
    }
    SetCurrentDirectoryW(ExeFolder().c_str());
}

// Paths past the classic limit: each use fails with its documented line and the plug-in runs on.
TEST_F(DeletionSafety, PathsLongerThan260CharactersFailCleanly) {
    const std::wstring longName(120, L'L');
    const std::wstring longCore = parent + L"\\" + longName + L"\\" + longName + L"\\scansp";
    ASSERT_GT(longCore.size(), 260u);
    plugin.env.servConfig.SetText(17, L"scansp", longCore.c_str());
    const std::wstring longEngines = engines + L"\\" + longName + L"\\" + longName;
    plugin.env.servConfig.SetText(2, L"scansp", longEngines.c_str());
    ASSERT_TRUE(plugin.StartAll());
    EXPECT_TRUE(LineWith(L"Cannot create core temp folder [path = " + longCore + L"]", 4));
    EXPECT_TRUE(LineWith(L"Core temp folder not found [path = " + longCore + L"]", 32));
    EXPECT_TRUE(LineWith(L"Invalid engines path = " + longEngines, 32));
    EXPECT_EQ(0u, plugin.env.update.DeliverComponentInstalled(L"U", L"Antivirus", longEngines.c_str()));
    plugin.StopAll();

    // A sibling holding a tree deeper than the limit: what can be reached goes, the rest stays,
    // and the clean goes on with the other siblings.
    plugin.env.servConfig.SetText(17, L"scansp", core.c_str());
    plugin.env.servConfig.SetText(2, L"scansp", engines.c_str());
    const std::wstring deep = L"\\\\?\\" + parent + L"\\deep\\" + longName + L"\\" + longName;
    ASSERT_TRUE(CreateDirectoryW((L"\\\\?\\" + parent + L"\\deep").c_str(), nullptr));
    ASSERT_TRUE(CreateDirectoryW((L"\\\\?\\" + parent + L"\\deep\\" + longName).c_str(), nullptr));
    ASSERT_TRUE(CreateDirectoryW(deep.c_str(), nullptr));
    ASSERT_TRUE(WriteBytes(deep + L"\\" + longName + L".tmp", "far"));
    WriteBytes(parent + L"\\near.tmp", "near");
    avhost::ClearCapturedLines();
    ASSERT_TRUE(plugin.StartAll());
    EXPECT_FALSE(Exists(parent + L"\\near.tmp"));
    EXPECT_TRUE(LineWith(L"Deleting [" + parent + L"\\deep]", 16));
    EXPECT_TRUE(PathIsDirectoryW(core.c_str()));
    ExpectOutsideIntact();

    // The update file of a kit whose folder is past the limit is not found; the answer is empty.
    plugin.StopAll();
    plugin.env.update.FailStatistics(1460);
    ASSERT_EQ(0u, plugin.Init());
    plugin.env.update.DeliverComponentInstalled(L"U", L"Antivirus", longEngines.c_str());
    qv::StringW version(L"x");
    EXPECT_EQ(0u, GetEnginesVersion(plugin.scan, &version));
    EXPECT_TRUE(LineStartingWith(L"Update file not found [path = "));
}

} // namespace
