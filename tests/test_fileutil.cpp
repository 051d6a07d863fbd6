// Path and folder helpers against the real file system, in a private folder under %TEMP%.
// The link case plants symbolic links inside a tree and checks that deleting the tree never
// reaches what the links point to.
#include <gtest/gtest.h>

#include <windows.h>
#include <shlwapi.h>

#include <string>

#include "support/FileUtil.h"
#include "tests/common/LogAndFileChecks.h"
#include "tests/common/ScanSlots.h"
#include "tests/common/SymbolicLinks.h"

namespace {

using qv::StringW;
namespace file = qv::file;
using namespace testing_support;
using namespace testing_support::slots;

class FileUtil : public ::testing::Test {
protected:
    void SetUp() override { root_ = TempFolder(L"fileutil"); }
    void TearDown() override {
        // Links planted from the Unix side go the same way, with the rest of the folder.
        linksFromUnix_ ? (void)RemoveTreeFromUnix(root_) : RemoveFolder(root_);
    }
    std::wstring Path(const wchar_t* rel) const { return root_ + L"\\" + rel; }
    void MakeDirs(std::initializer_list<const wchar_t*> rels) {
        for (const wchar_t* rel : rels) ASSERT_TRUE(CreateDirectoryW(Path(rel).c_str(), nullptr)) << GetLastError();
    }
    void Write(const wchar_t* rel, const char* text, bool readOnly = false) {
        ASSERT_TRUE(WriteBytes(Path(rel), text));
        if (readOnly) {
            ASSERT_TRUE(SetFileAttributesW(Path(rel).c_str(), FILE_ATTRIBUTE_READONLY));
        }
    }
    // A symbolic link; false when the platform cannot make one.
    bool MakeLink(const wchar_t* link, const wchar_t* target, bool directory) {
        LinkKind kind = MakeSymbolicLink(Path(link), Path(target), directory);
        if (kind == LinkKind::Unix) linksFromUnix_ = true;
        return kind != LinkKind::None;
    }

    std::wstring root_;
    bool linksFromUnix_ = false;
};

TEST(PathText, JoinPutsExactlyOneSeparator) {
    const struct {
        const wchar_t *base, *name, *joined;
    } cases[] = {
        {L"C:\\base\\", L"\\name", L"C:\\base\\name"},
        {L"C:\\base", L"name.txt", L"C:\\base\\name.txt"},
        {L"C:/base/", L"/\\/name", L"C:/base/name"},
        {L"C:\\base", L"//name", L"C:\\base\\name"},
        {L"", L"\\name", L"name"},
    };
    for (const auto& c : cases) {
        StringW path(c.base);
        EXPECT_TRUE(file::JoinPath(path, c.name));
        EXPECT_EQ(path, c.joined) << path.c_str();
    }
}

TEST(PathText, ModuleFolderIsTheProgramFolderWithABackslash) {
    wchar_t exe[MAX_PATH];
    ASSERT_NE(0u, GetModuleFileNameW(nullptr, exe, MAX_PATH));
    std::wstring expected(exe);
    expected.resize(expected.find_last_of(L'\\') + 1);
    StringW folder(L"previous content that must go away");
    ASSERT_TRUE(file::GetModuleFolder(folder));
    EXPECT_EQ(0, lstrcmpiW(expected.c_str(), folder.c_str())) << folder.c_str();
    EXPECT_EQ(wcslen(folder.c_str()), folder.Length());
}

TEST_F(FileUtil, CreateFolderTreeMakesEveryLevelAndAcceptsAnExistingLeaf) {
    const std::wstring deep = Path(L"a\\b\\c");
    EXPECT_TRUE(file::CreateFolderTree(deep.c_str()));
    EXPECT_TRUE(PathIsDirectoryW(deep.c_str()));
    EXPECT_TRUE(file::CreateFolderTree(deep.c_str()));
    EXPECT_TRUE(file::CreateFolderTree((Path(L"a\\b\\d") + L"\\").c_str()));
    EXPECT_TRUE(PathIsDirectoryW(Path(L"a\\b\\d").c_str()));
    Write(L"plain.txt", "x");
    EXPECT_FALSE(file::CreateFolderTree(Path(L"plain.txt\\sub").c_str()));
    EXPECT_FALSE(file::CreateFolderTree(L""));
    EXPECT_FALSE(file::CreateFolderTree(nullptr));
}

TEST_F(FileUtil, DeleteFolderTreeRemovesNestedFoldersAndReadOnlyFiles) {
    // Names next to "." and ".." that are entries all the same (two characters, two dots first),
    // and a folder of one character, whose path ends in a separator and that character.
    MakeDirs({L"tree", L"tree\\sub", L"tree\\sub\\deeper", L"tree\\..x", L"tree\\s"});
    Write(L"tree\\a.txt", "a");
    Write(L"tree\\ab", "ab");
    Write(L"tree\\..x\\.y", "y");
    Write(L"tree\\s\\f", "f");
    Write(L"tree\\sub\\ro.txt", "ro", true);
    Write(L"tree\\sub\\deeper\\ro2.txt", "ro", true);
    ASSERT_TRUE(SetFileAttributesW(Path(L"tree\\sub\\deeper").c_str(), FILE_ATTRIBUTE_READONLY));
    EXPECT_TRUE(file::DeleteFolderTree(Path(L"tree").c_str()));
    EXPECT_FALSE(Exists(Path(L"tree")));
    EXPECT_TRUE(Exists(root_));
}

TEST_F(FileUtil, DeleteFolderTreeRefusesFilesAndMissingPaths) {
    Write(L"file.txt", "keep");
    EXPECT_FALSE(file::DeleteFolderTree(Path(L"file.txt").c_str()));
    EXPECT_EQ("keep", ReadBytes(Path(L"file.txt")));
    EXPECT_FALSE(file::DeleteFolderTree(Path(L"missing").c_str()));
    EXPECT_FALSE(file::DeleteFolderTree(nullptr));
}

TEST_F(FileUtil, PathsBeyondTheClassicLimitFailCleanly) {
    const std::wstring longPath = root_ + L"\\" + std::wstring(300, L'x');
    EXPECT_FALSE(file::CreateFolderTree(longPath.c_str()));
    EXPECT_FALSE(file::DeleteFolderTree(longPath.c_str()));
    EXPECT_FALSE(Exists(longPath));
}

// Links inside the tree point at folders and a file outside it; none of those may suffer.
TEST_F(FileUtil, DeleteFolderTreeNeverFollowsLinks) {
    MakeDirs({L"outside", L"outside\\sub", L"outside\\empty", L"tree"});
    Write(L"outside\\keep.txt", "keep");
    Write(L"outside\\sub\\keep2.txt", "keep2");
    Write(L"tree\\own.txt", "own");
    if (!MakeLink(L"tree\\dirlink", L"outside", true)) GTEST_SKIP() << "no symbolic links here";
    ASSERT_TRUE(MakeLink(L"tree\\emptylink", L"outside\\empty", true));
    ASSERT_TRUE(MakeLink(L"tree\\filelink", L"outside\\keep.txt", false));
    ASSERT_NE(0u, GetFileAttributesW(Path(L"tree\\dirlink").c_str()) & FILE_ATTRIBUTE_REPARSE_POINT);

    const bool deleted = file::DeleteFolderTree(Path(L"tree").c_str());

    EXPECT_EQ("keep", ReadBytes(Path(L"outside\\keep.txt")));
    EXPECT_EQ("keep2", ReadBytes(Path(L"outside\\sub\\keep2.txt")));
    EXPECT_TRUE(PathIsDirectoryW(Path(L"outside\\empty").c_str()));
    EXPECT_FALSE(Exists(Path(L"tree\\own.txt")));
    // Wine resolves every link it opens: a link cannot be removed without reaching its target,
    // so it stays and the result says the tree is not gone.
    EXPECT_EQ(!OnWine(), deleted);
    EXPECT_EQ(OnWine(), Exists(Path(L"tree\\dirlink")));
    EXPECT_EQ(OnWine(), Exists(Path(L"tree\\filelink")));
}

} // namespace
