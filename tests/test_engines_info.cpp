// Signature version and count as other plug-ins ask for them: from the update plug-in's
// statistics, else from "Plugins\update.txt" in the engines folder, cached in the object and
// withheld while the engines are being recovered.
#include "support/FileUtil.h"
#include "tests/common/PluginHarness.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <string>

namespace {

using namespace testing_support;
namespace ids = qv::kxsdk::ids;

constexpr int32_t kEnginesCategory = 2;  // "scansp"
constexpr int kGetEnginesVersion = 10;
constexpr int kGetSignaturesCount = 11;
constexpr DWORD kRecovering = 0x8004D082;

void WriteBytes(const std::wstring& path, const std::string& bytes) {
    HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, h) << "cannot write " << std::string(path.begin(), path.end());
    DWORD written = 0;
    if (!bytes.empty()) WriteFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    CloseHandle(h);
}

bool HasLine(const std::wstring& text, uint32_t severity) {
    for (const auto& line : avhost::CapturedLines()) {
        if (line.text == text && line.severity == severity) return true;
    }
    return false;
}

class EnginesInfo : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, plugin.primary);
        ASSERT_NE(nullptr, plugin.scan);
        engines = TempFolder(L"engines-info");
        CreateDirectoryW((engines + L"\\Plugins").c_str(), nullptr);
        plugin.env.servConfig.SetText(kEnginesCategory, L"scansp", engines.c_str());
        avhost::ClearCapturedLines();
    }
    void TearDown() override { qv::file::DeleteFolderTree(engines.c_str()); }

    void WriteUpdateFile(const std::string& content) { WriteBytes(engines + L"\\Plugins\\update.txt", content); }

    // Version and count through the interface slots, each checked for success.
    void Query(std::wstring& version, uint64_t& count) {
        qv::StringW text(L"previous");
        ASSERT_EQ(0u, (CallSlot<DWORD>(plugin.scan, kGetEnginesVersion, &text)));
        version = text.c_str();
        count = 12345;
        ASSERT_EQ(0u, (CallSlot<DWORD>(plugin.scan, kGetSignaturesCount, &count)));
    }

    // A fresh start-up: the engines folder is recorded again at Init and the cache, which
    // nothing clears, is recomputed by the delayed start.
    void Restart() {
        plugin.UnInit();
        ASSERT_EQ(0u, plugin.Init());
        ASSERT_EQ(0u, plugin.DelayedStart());
    }

    PluginUnderTest plugin;
    std::wstring engines;
};

TEST_F(EnginesInfo, UpdateFileGivesTheLastWordOfLinesTwoAndFour) {
    WriteUpdateFile("[Kit]\nSignatures count: 123456\n  Built on 2024-05-01  \nVersion 13.1.0.777 \n");
    ASSERT_EQ(0u, plugin.Init());
    std::wstring version;
    uint64_t count = 0;
    Query(version, count);
    EXPECT_EQ(L"13.1.0.777", version);
    EXPECT_EQ(123456u, count);
    // The update plug-in was asked first and had nothing for the engines.
    EXPECT_TRUE(HasLine(L"No AV signatures statistics found.", 4));
    EXPECT_TRUE(HasLine(L"Signature [version = 13.1.0.777] [count = 123456]", 32));

    // A word without a blank before it is the whole line; a tab does not separate words; the
    // count stops at its first non-digit.
    WriteUpdateFile("x\ncount=42\nz\n7.7\n");
    Restart();
    Query(version, count);
    EXPECT_EQ(L"7.7", version);
    EXPECT_EQ(0u, count);

    WriteUpdateFile("x\nCount\t99\nz\nv\t8.8\n");
    Restart();
    Query(version, count);
    EXPECT_EQ(L"v\t8.8", version);
    EXPECT_EQ(0u, count);

    WriteUpdateFile("x\nCount 512abc\nz\nVersion 1.0\n");
    Restart();
    Query(version, count);
    EXPECT_EQ(512u, count);

    // Lines past the fourth are not read; a fourth line without its line feed still counts.
    WriteUpdateFile("x\nCount 3\nz\nVersion 4.4\nCount 999\nVersion 9.9\n");
    Restart();
    Query(version, count);
    EXPECT_EQ(L"4.4", version);
    EXPECT_EQ(3u, count);

    WriteUpdateFile("x\nCount 5\nz\nVersion 5.5");
    Restart();
    Query(version, count);
    EXPECT_EQ(L"5.5", version);
    EXPECT_EQ(5u, count);
}

TEST_F(EnginesInfo, CarriageReturnsStayInTheVersionAndAreIgnoredByTheCount) {
    WriteUpdateFile("[Kit]\r\nSignatures 77\r\nDate\r\nVersion 2.0.1\r\n");
    ASSERT_EQ(0u, plugin.Init());
    std::wstring version;
    uint64_t count = 0;
    Query(version, count);
    EXPECT_EQ(L"2.0.1\r", version);
    EXPECT_EQ(77u, count);
}

TEST_F(EnginesInfo, ShortOrMissingFileGivesNothingButStillSucceeds) {
    WriteUpdateFile("[Kit]\nSignatures 77\nDate\n");
    ASSERT_EQ(0u, plugin.Init());
    std::wstring version = L"x";
    uint64_t count = 1;
    Query(version, count);
    EXPECT_EQ(L"", version);
    EXPECT_EQ(0u, count);
    EXPECT_TRUE(HasLine(L"Signature [version = ] [count = 0]", 32));

    DeleteFileW((engines + L"\\Plugins\\update.txt").c_str());
    avhost::ClearCapturedLines();
    Query(version, count);
    EXPECT_EQ(L"", version);
    EXPECT_EQ(0u, count);
    EXPECT_TRUE(HasLine(L"Update file not found [path = " + engines + L"\\Plugins\\update.txt]", 4));
}

TEST_F(EnginesInfo, EnginesFolderGetsOneSeparatorBeforeTheFileName) {
    // A trailing backslash is dropped when the folder is recorded, a trailing slash is kept and
    // no second separator follows it.
    plugin.env.servConfig.SetText(kEnginesCategory, L"scansp", (engines + L"\\missing\\").c_str());
    ASSERT_EQ(0u, plugin.Init());
    std::wstring version;
    uint64_t count = 0;
    Query(version, count);
    EXPECT_TRUE(HasLine(L"Update file not found [path = " + engines + L"\\missing\\Plugins\\update.txt]", 4));

    plugin.env.servConfig.SetText(kEnginesCategory, L"scansp", (engines + L"\\missing/").c_str());
    Restart();
    avhost::ClearCapturedLines();
    Query(version, count);
    EXPECT_TRUE(HasLine(L"Update file not found [path = " + engines + L"\\missing/Plugins\\update.txt]", 4));

    WriteUpdateFile("x\nCount 31\nz\nVersion 3.1\n");
    plugin.env.servConfig.SetText(kEnginesCategory, L"scansp", (engines + L"/").c_str());
    Restart();
    Query(version, count);
    EXPECT_EQ(L"3.1", version);
    EXPECT_EQ(31u, count);
}

TEST_F(EnginesInfo, FileIsReadFromTheRecordedEnginesFolder) {
    // The same folder as configured, recorded in another letter case: the record is kept as it
    // is and the file is looked for there.
    std::wstring recorded = engines;
    CharUpperBuffW(&recorded[0], static_cast<DWORD>(recorded.size()));
    Json::Value document(Json::objectValue);
    document["/AntivirusScan"]["engines"]["folder"] = std::string(recorded.begin(), recorded.end());
    document["/AntivirusScan"]["engines"]["reloadStatus"] = 2;
    plugin.env.settings.SetDocument(document);
    ASSERT_EQ(0u, plugin.Init());
    std::wstring version;
    uint64_t count = 0;
    Query(version, count);
    EXPECT_TRUE(HasLine(L"Update file not found [path = " + recorded + L"\\Plugins\\update.txt]", 4));

    WriteUpdateFile("x\nCount 64\nz\nVersion 6.4\n");
    Query(version, count);
    EXPECT_EQ(L"6.4", version);
    EXPECT_EQ(64u, count);
}

TEST_F(EnginesInfo, StatisticsOfTheUpdatePluginArePreferredToTheFile) {
    WriteUpdateFile("x\nCount 31\nz\nVersion 3.1\n");
    plugin.env.update.SetStatistic(L"Antivirus", L"20.5.1", 987654);
    plugin.env.update.SetStatistic(L"AntiSpam", L"1.1", 11);
    ASSERT_EQ(0u, plugin.Init());
    std::wstring version;
    uint64_t count = 0;
    Query(version, count);
    EXPECT_EQ(L"20.5.1", version);
    EXPECT_EQ(987654u, count);
    EXPECT_FALSE(avhost::Contains(L"Update file not found"));

    // The entry's name is matched exactly.
    plugin.env.update.ClearStatistics();
    plugin.env.update.SetStatistic(L"antivirus", L"20.5.2", 5);
    Restart();
    Query(version, count);
    EXPECT_EQ(L"3.1", version);
    EXPECT_EQ(31u, count);

    // A failing update plug-in is logged with its code, and the file answers.
    plugin.env.update.SetStatistic(L"Antivirus", L"20.5.3", 6);
    plugin.env.update.FailStatistics(31);
    avhost::ClearCapturedLines();
    Restart();
    Query(version, count);
    EXPECT_EQ(L"3.1", version);
    EXPECT_TRUE(HasLine(L"Cannot obtain update statistics. [error = 31]", 4));
}

TEST_F(EnginesInfo, NegativeCountFromTheStatisticsIsWidenedWithItsSign) {
    plugin.env.update.SetStatistic(L"Antivirus", L"1.0", -1);
    ASSERT_EQ(0u, plugin.Init());
    std::wstring version;
    uint64_t count = 0;
    Query(version, count);
    EXPECT_EQ(18446744073709551615ull, count);
    EXPECT_TRUE(HasLine(L"Signature [version = 1.0] [count = 18446744073709551615]", 32));

    plugin.env.update.SetStatistic(L"Antivirus", L"1.0", INT32_MIN);
    Restart();
    Query(version, count);
    EXPECT_EQ(static_cast<uint64_t>(static_cast<int64_t>(INT32_MIN)), count);
}

TEST_F(EnginesInfo, CacheIsFilledOnDemandAndRefreshedByTheDelayedStart) {
    plugin.env.update.SetStatistic(L"Antivirus", L"1.0", 10);
    ASSERT_EQ(0u, plugin.Init());
    const int atInit = plugin.env.update.GetCounts().statistics;

    std::wstring version;
    uint64_t count = 0;
    Query(version, count);
    EXPECT_EQ(L"1.0", version);
    EXPECT_EQ(10u, count);
    // Computed once, by the first getter; the second finds the cache filled.
    EXPECT_EQ(atInit + 1, plugin.env.update.GetCounts().statistics);

    plugin.env.update.SetStatistic(L"Antivirus", L"2.0", 20);
    Query(version, count);
    EXPECT_EQ(L"1.0", version);
    EXPECT_EQ(10u, count);
    EXPECT_EQ(atInit + 1, plugin.env.update.GetCounts().statistics);

    ASSERT_EQ(0u, plugin.DelayedStart());
    Query(version, count);
    EXPECT_EQ(L"2.0", version);
    EXPECT_EQ(20u, count);
}

TEST_F(EnginesInfo, EmptyCacheIsRecomputedAtEveryCall) {
    plugin.env.update.SetStatistic(L"Antivirus", L"", 0);
    ASSERT_EQ(0u, plugin.Init());
    std::wstring version = L"x";
    uint64_t count = 1;
    const int before = plugin.env.update.GetCounts().statistics;
    Query(version, count);
    Query(version, count);
    EXPECT_EQ(L"", version);
    EXPECT_EQ(0u, count);
    EXPECT_EQ(before + 4, plugin.env.update.GetCounts().statistics);

    // Only the empty half is recomputed.
    plugin.env.update.SetStatistic(L"Antivirus", L"3.0", 0);
    Query(version, count);
    EXPECT_EQ(L"3.0", version);
    const int filled = plugin.env.update.GetCounts().statistics;
    qv::StringW text;
    ASSERT_EQ(0u, (CallSlot<DWORD>(plugin.scan, kGetEnginesVersion, &text)));
    EXPECT_EQ(filled, plugin.env.update.GetCounts().statistics);
}

TEST_F(EnginesInfo, RecoveryWithholdsTheAnswersAndLeavesTheCacheAlone) {
    WriteUpdateFile("x\nCount 31\nz\nVersion 3.1\n");
    plugin.env.update.SetStatistic(L"Antivirus", L"1.0", 10);
    plugin.env.manager.SetMissing(ids::kScanSpName);
    ASSERT_EQ(0u, plugin.Init());
    avhost::ClearCapturedLines();
    const int before = plugin.env.update.GetCounts().statistics;

    qv::StringW version(L"previous");
    uint64_t count = 77;
    EXPECT_EQ(kRecovering, (CallSlot<DWORD>(plugin.scan, kGetEnginesVersion, &version)));
    EXPECT_EQ(kRecovering, (CallSlot<DWORD>(plugin.scan, kGetSignaturesCount, &count)));
    EXPECT_TRUE(version.IsEmpty());
    EXPECT_EQ(0u, count);
    EXPECT_EQ(before, plugin.env.update.GetCounts().statistics);
    int withheld = 0;
    for (const auto& line : avhost::CapturedLines()) {
        if (line.text == L"EnginesRecoveryInProgress..." && line.severity == 8 &&
            (line.function == L"AntivirusScanAL::GetEnginesVersion" ||
             line.function == L"AntivirusScanAL::GetSignaturesCount"))
            ++withheld;
    }
    EXPECT_EQ(2, withheld);
    EXPECT_FALSE(avhost::Contains(L"Signature [version"));
}

TEST_F(EnginesInfo, NullOutputsAreRejected) {
    ASSERT_EQ(0u, plugin.Init());
    EXPECT_EQ(87u, (CallSlot<DWORD>(plugin.scan, kGetEnginesVersion, static_cast<qv::StringW*>(nullptr))));
    EXPECT_EQ(87u, (CallSlot<DWORD>(plugin.scan, kGetSignaturesCount, static_cast<uint64_t*>(nullptr))));
}

} // namespace
