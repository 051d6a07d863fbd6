// Signature version and count: the update plug-in's statistics, else "Plugins\update.txt" in
// the engines folder; cached in the object and withheld during an engines recovery.
#include "support/FileUtil.h"
#include "tests/common/LogAndFileChecks.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

using namespace testing_support;
using namespace testing_support::slots;

class EnginesInfo : public ::testing::Test {
protected:
    void SetUp() override {
        engines = TempFolder(L"engines-info");
        CreateDirectoryW((engines + L"\\Plugins").c_str(), nullptr);
        plugin.env.servConfig.SetText(2, L"scansp", engines.c_str());
        avhost::ClearCapturedLines();
    }
    void TearDown() override { qv::file::DeleteFolderTree(engines.c_str()); }
    void WriteUpdateFile(const std::string& content) { WriteBytes(engines + L"\\Plugins\\update.txt", content); }
    // A fresh start-up: Init records the folder, the delayed start recomputes the cache.
    void Restart() {
        plugin.UnInit();
        ASSERT_EQ(0u, plugin.Init());
        ASSERT_EQ(0u, plugin.DelayedStart());
    }
    void Query() {
        qv::StringW text(L"previous");
        ASSERT_EQ(0u, GetEnginesVersion(plugin.scan, &text));
        version = text.c_str();
        count = 12345;
        ASSERT_EQ(0u, GetSignaturesCount(plugin.scan, &count));
    }
    int Statistics() const { return plugin.env.update.GetCounts().statistics; }

    PluginUnderTest plugin;
    std::wstring engines, version;
    uint64_t count = 0;
};

TEST_F(EnginesInfo, UpdateFileGivesTheLastWordOfLinesTwoAndFour) {
    struct Case {
        const char* file;
        const wchar_t* version;
        uint64_t count;
    };
    const Case cases[] = {
        {"[Kit]\nSignatures count: 123456\n  Built  \nVersion 13.1.0.777 \n", L"13.1.0.777", 123456},
        {"x\ncount=42\nz\n7.7\n", L"7.7", 0},        // no blank: the whole line is the word
        {"x\nCount\t99\nz\nv\t8.8\n", L"v\t8.8", 0}, // a tab separates nothing
        {"x\nCount 512abc\nz\nVersion 1.0\n", L"1.0", 512},
        {"x\nCount 3\nz\nVersion 4.4\nCount 9\nVersion 9.9\n", L"4.4", 3},
        {"x\nCount 5\nz\nVersion 5.5", L"5.5", 5}, // no final line feed
        {"[Kit]\r\nSignatures 77\r\nDate\r\nVersion 2.0.1\r\n", L"2.0.1\r", 77},
        {"x\nCount\t 7\t\nz\nV 1 \t\n", L"1", 7}, // trailing blanks and tabs go first
        {"x\nCount 6\nz\n\n", L"", 6},            // an empty fourth line is still a line
        {"[Kit]\nSignatures 77\nDate\n", L"", 0}, // three lines give nothing
    };
    ASSERT_EQ(0u, plugin.Init());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        WriteUpdateFile(c.file);
        Restart();
        Query();
        EXPECT_EQ(c.version, version);
        EXPECT_EQ(c.count, count);
    }
    EXPECT_TRUE(LineWith(L"No AV signatures statistics found.", 4));
    EXPECT_TRUE(LineWith(L"Signature [version = ] [count = 0]", 32));

    DeleteFileW((engines + L"\\Plugins\\update.txt").c_str());
    Restart();
    Query();
    EXPECT_EQ(L"", version);
    EXPECT_TRUE(LineWith(L"Update file not found [path = " + engines + L"\\Plugins\\update.txt]", 4));
}

// Only the first four lines count, and only while they stay within 1 MiB together (line feeds
// included): a large file after them is never read, and an over-long head makes the file
// unreadable, which is logged.
TEST_F(EnginesInfo, LargeUpdateFilesAreReadOnlyAsFarAsTheFourthLine) {
    const std::string head = "[Kit]\nSignatures 4321\nDate\nVersion 9.8.7\n";
    const std::wstring tooLong = L"Update file too long [limit = 1048576 bytes in the first four lines] [path = " +
                                 engines + L"\\Plugins\\update.txt]";
    const size_t mib = 1u << 20;
    struct Case {
        std::string what;
        std::function<std::string()> file; // made when its turn comes: some are 64 MiB
        bool read;
    };
    std::vector<Case> cases;
    for (size_t size : {12 * mib, 64 * mib}) {
        const std::string tag = std::to_string(size / mib) + " MiB, ";
        cases.push_back(
            {tag + "four short lines first", [=] { return head + std::string(size - head.size(), 'x'); }, true});
        cases.push_back(
            {tag + "line 1 over-long", [=] { return std::string(size - head.size(), 'x') + head.substr(5); }, false});
        cases.push_back(
            {tag + "line 2 without end", [=] { return head.substr(0, 6) + std::string(size, 'x'); }, false});
    }
    // The limit itself: four lines of exactly 1 MiB; a byte more; the same without the final feed.
    const std::string exact = std::string(mib - head.size() + 5, 'x') + head.substr(5);
    cases.push_back({"1 MiB exactly", [=] { return exact + "tail"; }, true});
    cases.push_back({"1 MiB and a byte", [=] { return "x" + exact; }, false});
    cases.push_back({"1 MiB ending at the end of the file", [=] { return "x" + exact.substr(0, mib - 1); }, true});

    ASSERT_EQ(0u, plugin.Init());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        WriteUpdateFile(c.file());
        avhost::ClearCapturedLines();
        Restart();
        Query();
        EXPECT_EQ(c.read ? L"9.8.7" : L"", version);
        EXPECT_EQ(c.read ? 4321u : 0u, count);
        // Each of the three computations (start-up and the two getters) tries the file again.
        EXPECT_EQ(c.read ? 0 : 3, CountOf(tooLong));
        EXPECT_EQ(!c.read, LineWith(tooLong, 4));
    }
}

TEST_F(EnginesInfo, EnginesFolderEndingInASlashGetsNoSecondSeparator) {
    WriteUpdateFile("x\nCount 31\nz\nVersion 3.1\n");
    plugin.env.servConfig.SetText(2, L"scansp", (engines + L"/").c_str());
    ASSERT_EQ(0u, plugin.Init());
    Query();
    EXPECT_EQ(L"3.1", version);
    plugin.env.servConfig.SetText(2, L"scansp", (engines + L"\\missing/").c_str());
    Restart();
    EXPECT_TRUE(LineWith(L"Update file not found [path = " + engines + L"\\missing/Plugins\\update.txt]", 4));
}

TEST_F(EnginesInfo, StatisticsArePreferredAndANegativeCountWraps) {
    WriteUpdateFile("x\nCount 31\nz\nVersion 3.1\n");
    plugin.env.update.SetStatistic(L"Antivirus", L"20.5.1", -1);
    ASSERT_EQ(0u, plugin.Init());
    Query();
    EXPECT_EQ(L"20.5.1", version);
    EXPECT_EQ(18446744073709551615ull, count);
    EXPECT_FALSE(avhost::Contains(L"Update file not found"));

    // A failing update plug-in is logged and the file answers.
    plugin.env.update.FailStatistics(31);
    Restart();
    Query();
    EXPECT_EQ(L"3.1", version);
    EXPECT_TRUE(LineWith(L"Cannot obtain update statistics. [error = 31]", 4));
}

TEST_F(EnginesInfo, CacheIsFilledOnDemandAndLeftAloneDuringRecovery) {
    plugin.env.update.SetStatistic(L"Antivirus", L"1.0", 10);
    ASSERT_EQ(0u, plugin.Init());
    const int atInit = Statistics();
    Query();
    plugin.env.update.SetStatistic(L"Antivirus", L"2.0", 20);
    Query();
    EXPECT_EQ(L"1.0", version);
    EXPECT_EQ(atInit + 1, Statistics()) << "computed once, by the first getter";
    ASSERT_EQ(0u, plugin.DelayedStart());
    Query();
    EXPECT_EQ(L"2.0", version);
    plugin.UnInit();

    plugin.env.manager.SetMissing(qv::kxsdk::ids::kScanSpName);
    ASSERT_EQ(0u, plugin.Init());
    const int before = Statistics();
    qv::StringW text(L"previous");
    count = 77;
    EXPECT_EQ(0x8004D082u, GetEnginesVersion(plugin.scan, &text));
    EXPECT_EQ(0x8004D082u, GetSignaturesCount(plugin.scan, &count));
    EXPECT_TRUE(text.IsEmpty());
    EXPECT_EQ(0u, count);
    EXPECT_EQ(before, Statistics());
}

} // namespace
