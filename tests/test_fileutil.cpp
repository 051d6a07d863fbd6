// Path and folder helpers against the real file system, in a private folder under %TEMP%.
// The link cases plant symbolic links inside a tree and check that deleting the tree never
// reaches what the links point to.
#include <gtest/gtest.h>

#include <windows.h>
#include <shlwapi.h>

#include <string>

#include "support/FileUtil.h"
#include "tests/common/SymbolicLinks.h"

namespace {

using qv::StringW;
namespace file = qv::file;
using namespace testing_support;

bool Exists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

void WriteText(const std::wstring& path, const char* text, DWORD attributes = FILE_ATTRIBUTE_NORMAL) {
    HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, attributes, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, h) << GetLastError();
    DWORD written = 0;
    WriteFile(h, text, static_cast<DWORD>(strlen(text)), &written, nullptr);
    CloseHandle(h);
}

std::string ReadText(const std::wstring& path) {
    HANDLE h = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE) return "<missing>";
    char buf[256];
    DWORD got = 0;
    ReadFile(h, buf, sizeof buf, &got, nullptr);
    CloseHandle(h);
    return std::string(buf, got);
}

class FileUtil : public ::testing::Test {
protected:
    void SetUp() override {
        wchar_t temp[MAX_PATH];
        ASSERT_NE(0u, GetTempPathW(MAX_PATH, temp));
        std::string test = ::testing::UnitTest::GetInstance()->current_test_info()->name();
        root_ = std::wstring(temp) + L"avfs_" + std::to_wstring(GetCurrentProcessId()) + L"_" +
                std::to_wstring(GetTickCount64()) + L"_" +
                std::wstring(test.begin(), test.end());
        ASSERT_TRUE(CreateDirectoryW(root_.c_str(), nullptr)) << GetLastError();
    }
    void TearDown() override {
        // Links planted from the Unix side go the same way, with the rest of the folder.
        if (linksFromUnix_) {
            RemoveTreeFromUnix(root_);
        } else {
            file::DeleteFolderTree(root_.c_str());
        }
    }
    std::wstring Path(const wchar_t* rel) const { return root_ + L"\\" + rel; }
    void MakeDir(const wchar_t* rel) { ASSERT_TRUE(CreateDirectoryW(Path(rel).c_str(), nullptr)) << GetLastError(); }

    // A symbolic link at `link` to `target`; false when the platform cannot make one.
    bool MakeLink(const std::wstring& link, const std::wstring& target, bool directory) {
        LinkKind kind = MakeSymbolicLink(link, target, directory);
        if (kind == LinkKind::Unix) linksFromUnix_ = true;
        return kind != LinkKind::None;
    }

    std::wstring root_;
    bool linksFromUnix_ = false;
};

TEST(PathText, JoinPutsExactlyOneSeparator) {
    StringW base(L"C:\\base\\");
    EXPECT_TRUE(file::JoinPath(base, L"\\name"));
    EXPECT_EQ(base, L"C:\\base\\name");

    base = L"C:\\base";
    file::JoinPath(base, L"name.txt");
    EXPECT_EQ(base, L"C:\\base\\name.txt");

    base = L"C:/base/";
    file::JoinPath(base, L"/\\/name");
    EXPECT_EQ(base, L"C:/base/name");

    base = L"C:\\base";
    file::JoinPath(base, L"//name");
    EXPECT_EQ(base, L"C:\\base\\name");

    StringW empty;
    file::JoinPath(empty, L"\\name");
    EXPECT_EQ(empty, L"name");
}

TEST(PathText, RemoveBackslashAndFileNameUpdateTheLength) {
    StringW path(L"C:\\a\\b\\");
    file::RemoveBackslash(path);
    EXPECT_EQ(path, L"C:\\a\\b");
    EXPECT_EQ(6u, path.Length());
    EXPECT_TRUE(file::RemoveFileName(path));
    EXPECT_EQ(path, L"C:\\a");
    EXPECT_EQ(4u, path.Length());
    path.Append(L"\\x");
    EXPECT_EQ(path, L"C:\\a\\x");

    StringW root(L"C:\\");
    EXPECT_FALSE(file::RemoveFileName(root));
    EXPECT_EQ(root, L"C:\\");

    StringW none;
    file::RemoveBackslash(none);
    EXPECT_TRUE(none.IsEmpty());
}

TEST(PathText, ModuleFolderIsTheProgramFolderWithABackslash) {
    wchar_t exe[MAX_PATH];
    ASSERT_NE(0u, GetModuleFileNameW(nullptr, exe, MAX_PATH));
    std::wstring expected(exe);
    expected.resize(expected.find_last_of(L'\\') + 1);

    StringW folder(L"previous content that must go away");
    ASSERT_TRUE(file::GetModuleFolder(folder));
    EXPECT_TRUE(folder.EndsWith(L'\\'));
    EXPECT_EQ(0, lstrcmpiW(expected.c_str(), folder.c_str())) << folder.c_str();
    EXPECT_EQ(wcslen(folder.c_str()), folder.Length());

    StringW fresh;
    ASSERT_TRUE(file::GetModuleFolder(fresh));
    EXPECT_EQ(fresh, folder);
}

TEST_F(FileUtil, CreateFolderTreeMakesEveryLevelAndAcceptsAnExistingLeaf) {
    std::wstring deep = Path(L"a\\b\\c");
    EXPECT_TRUE(file::CreateFolderTree(deep.c_str()));
    EXPECT_TRUE(PathIsDirectoryW(deep.c_str()));
    EXPECT_TRUE(file::CreateFolderTree(deep.c_str()));
    EXPECT_TRUE(file::CreateFolderTree((Path(L"a\\b\\d") + L"\\").c_str()));
    EXPECT_TRUE(PathIsDirectoryW(Path(L"a\\b\\d").c_str()));

    WriteText(Path(L"plain.txt"), "x");
    EXPECT_FALSE(file::CreateFolderTree(Path(L"plain.txt\\sub").c_str()));
    EXPECT_FALSE(file::CreateFolderTree(L""));
    EXPECT_FALSE(file::CreateFolderTree(nullptr));
}

TEST_F(FileUtil, DeleteFolderTreeRemovesNestedFoldersAndReadOnlyFiles) {
    MakeDir(L"tree");
    MakeDir(L"tree\\sub");
    MakeDir(L"tree\\sub\\deeper");
    WriteText(Path(L"tree\\a.txt"), "a");
    WriteText(Path(L"tree\\sub\\ro.txt"), "ro", FILE_ATTRIBUTE_READONLY);
    WriteText(Path(L"tree\\sub\\deeper\\ro2.txt"), "ro", FILE_ATTRIBUTE_READONLY);
    ASSERT_TRUE(SetFileAttributesW(Path(L"tree\\sub\\deeper").c_str(), FILE_ATTRIBUTE_READONLY));
    ASSERT_FALSE(DeleteFileW(Path(L"tree\\sub\\ro.txt").c_str()));  // really read-only

    EXPECT_TRUE(file::DeleteFolderTree(Path(L"tree").c_str()));
    EXPECT_FALSE(Exists(Path(L"tree")));
    EXPECT_TRUE(Exists(root_));
}

TEST_F(FileUtil, DeleteFolderTreeRefusesFilesAndMissingPaths) {
    WriteText(Path(L"file.txt"), "keep");
    EXPECT_FALSE(file::DeleteFolderTree(Path(L"file.txt").c_str()));
    EXPECT_EQ("keep", ReadText(Path(L"file.txt")));
    EXPECT_FALSE(file::DeleteFolderTree(Path(L"missing").c_str()));
    EXPECT_FALSE(file::DeleteFolderTree(L""));
    EXPECT_FALSE(file::DeleteFolderTree(nullptr));
}

TEST_F(FileUtil, PathsBeyondTheClassicLimitFailCleanly) {
    std::wstring longPath = root_ + L"\\" + std::wstring(300, L'x');
    EXPECT_FALSE(file::CreateFolderTree(longPath.c_str()));
    EXPECT_FALSE(file::DeleteFolderTree(longPath.c_str()));
    EXPECT_FALSE(Exists(longPath));

    // A tree whose inner entry is only reachable through a long path: the rest still goes.
    MakeDir(L"tree");
    WriteText(Path(L"tree\\short.txt"), "s");
    std::wstring inner = Path(L"tree\\") + std::wstring(200, L'd');
    std::wstring innerLong = L"\\\\?\\" + inner;
    ASSERT_TRUE(CreateDirectoryW(innerLong.c_str(), nullptr)) << GetLastError();
    std::wstring deepFile = innerLong + L"\\" + std::wstring(100, L'f');
    WriteText(deepFile, "deep");
    EXPECT_FALSE(file::DeleteFolderTree(Path(L"tree").c_str()));
    EXPECT_FALSE(Exists(Path(L"tree\\short.txt")));
    EXPECT_TRUE(Exists(deepFile));
    DeleteFileW(deepFile.c_str());
    RemoveDirectoryW(innerLong.c_str());
}

// Links inside the tree point at folders and a file outside it; none of those may suffer.
TEST_F(FileUtil, DeleteFolderTreeNeverFollowsLinks) {
    MakeDir(L"outside");
    MakeDir(L"outside\\sub");
    MakeDir(L"outside\\empty");
    WriteText(Path(L"outside\\keep.txt"), "keep");
    WriteText(Path(L"outside\\sub\\keep2.txt"), "keep2");
    MakeDir(L"tree");
    WriteText(Path(L"tree\\own.txt"), "own");
    if (!MakeLink(Path(L"tree\\dirlink"), Path(L"outside"), true)) GTEST_SKIP() << "no symbolic links here";
    ASSERT_TRUE(MakeLink(Path(L"tree\\emptylink"), Path(L"outside\\empty"), true));
    ASSERT_TRUE(MakeLink(Path(L"tree\\filelink"), Path(L"outside\\keep.txt"), false));
    DWORD attr = GetFileAttributesW(Path(L"tree\\dirlink").c_str());
    ASSERT_NE(0u, attr & FILE_ATTRIBUTE_REPARSE_POINT);
    ASSERT_NE(0u, attr & FILE_ATTRIBUTE_DIRECTORY);

    bool deleted = file::DeleteFolderTree(Path(L"tree").c_str());

    EXPECT_EQ("keep", ReadText(Path(L"outside\\keep.txt")));
    EXPECT_EQ("keep2", ReadText(Path(L"outside\\sub\\keep2.txt")));
    EXPECT_TRUE(PathIsDirectoryW(Path(L"outside\\empty").c_str()));
    EXPECT_FALSE(Exists(Path(L"tree\\own.txt")));
    if (OnWine()) {
        // Wine resolves every link it opens: a link to a file is replaced and goes, a link to a
        // folder cannot be removed without reaching its target, so it stays and the result says
        // the tree is not gone.
        EXPECT_FALSE(deleted);
        EXPECT_TRUE(Exists(Path(L"tree\\dirlink")));
        EXPECT_FALSE(Exists(Path(L"tree\\filelink")));
    } else {
        EXPECT_TRUE(deleted);
        EXPECT_FALSE(Exists(Path(L"tree")));
    }
}

TEST_F(FileUtil, DeleteFileEntryRemovesFilesAndLinksButNotWhatTheyPointTo) {
    WriteText(Path(L"plain.txt"), "p");
    WriteText(Path(L"ro.txt"), "ro", FILE_ATTRIBUTE_READONLY);
    MakeDir(L"folder");
    WriteText(Path(L"target.txt"), "keep");
    EXPECT_TRUE(file::DeleteFileEntry(Path(L"plain.txt").c_str()));
    EXPECT_TRUE(file::DeleteFileEntry(Path(L"ro.txt").c_str()));
    EXPECT_FALSE(Exists(Path(L"plain.txt")));
    EXPECT_FALSE(Exists(Path(L"ro.txt")));
    EXPECT_FALSE(file::DeleteFileEntry(Path(L"folder").c_str()));
    EXPECT_TRUE(PathIsDirectoryW(Path(L"folder").c_str()));
    EXPECT_FALSE(file::DeleteFileEntry(Path(L"missing.txt").c_str()));
    EXPECT_FALSE(file::DeleteFileEntry(L""));
    EXPECT_FALSE(file::DeleteFileEntry(nullptr));

    if (!MakeLink(Path(L"link.txt"), Path(L"target.txt"), false)) GTEST_SKIP() << "no symbolic links here";
    EXPECT_TRUE(file::DeleteFileEntry(Path(L"link.txt").c_str()));
    EXPECT_FALSE(Exists(Path(L"link.txt")));
    EXPECT_EQ("keep", ReadText(Path(L"target.txt")));
    // The stand-in renamed over the link is gone too: only the target is left beside the folder.
    WIN32_FIND_DATAW entry;
    HANDLE find = FindFirstFileW(Path(L"*.tmp").c_str(), &entry);
    EXPECT_EQ(INVALID_HANDLE_VALUE, find);
    if (find != INVALID_HANDLE_VALUE) FindClose(find);
}

TEST_F(FileUtil, DeleteFolderTreeOnALinkRemovesOnlyTheLink) {
    MakeDir(L"outside");
    WriteText(Path(L"outside\\keep.txt"), "keep");
    if (!MakeLink(Path(L"link"), Path(L"outside"), true)) GTEST_SKIP() << "no symbolic links here";
    MakeDir(L"outside2");
    ASSERT_TRUE(MakeLink(Path(L"emptylink"), Path(L"outside2"), true));

    bool deleted = file::DeleteFolderTree(Path(L"link").c_str());
    bool deletedEmpty = file::DeleteFolderTree(Path(L"emptylink\\").c_str());

    EXPECT_EQ("keep", ReadText(Path(L"outside\\keep.txt")));
    EXPECT_TRUE(PathIsDirectoryW(Path(L"outside2").c_str()));
    EXPECT_EQ(!Exists(Path(L"link")), deleted);
    EXPECT_EQ(!Exists(Path(L"emptylink")), deletedEmpty);
    if (!OnWine()) {
        EXPECT_TRUE(deleted);
        EXPECT_TRUE(deletedEmpty);
    }
}

} // namespace
