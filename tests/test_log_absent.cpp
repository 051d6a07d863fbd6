// The plug-in behaves the same whatever happens to its logging: log.dll present, absent, present
// but without "LogWrite", or blocking briefly on every write. One scenario (a start-up with
// switches, events and a reload, then an engines recovery ending in a restart request) is summed
// up as text; the summary with a working log.dll is the reference. For the absent and broken
// libraries this program, the plug-in and its libraries are copied into a folder prepared that way
// and run there as a child, which writes its summary to a file.
#include "host/SettingsFile.h"
#include "support/Log.h"
#include "tests/common/ChildProcess.h"
#include "tests/common/ScanSlots.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace testing_support;
using namespace testing_support::slots;
namespace ids = qv::kxsdk::ids;

const wchar_t kSummaryFile[] = L"scenario-summary.txt";
const wchar_t kChildSwitch[] = L"--log-child";

bool IsChild() { return wcsstr(GetCommandLineW(), kChildSwitch) != nullptr; }

std::string Utf8(const std::wstring& text) { return host::settingsfile::ToUtf8(text.c_str()); }

struct Summary {
    std::string text;
    void Add(const std::string& what, long long value) { text += what + " = " + std::to_string(value) + "\n"; }
    void Add(const std::string& what, const std::string& value) { text += what + " = " + value + "\n"; }
};

std::string Replace(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text;
}

std::string Compact(const Json::Value& value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

// The folders one run uses, below a temporary root.
struct Folders {
    std::wstring root = TempFolder(L"logscenario");
    std::wstring engines = root + L"\\engines", core = root + L"\\temp\\scansp", common = root + L"\\common";
};

void LayOut(const Folders& folders) {
    const std::wstring &root = folders.root, &engines = folders.engines, &core = folders.core, &common = folders.common;
    for (const std::wstring& dir :
         {engines, engines + L"\\Plugins", root + L"\\temp", core, common, common + L"\\installer"})
        CreateDirectoryW(dir.c_str(), nullptr);
    WriteBytes(root + L"\\temp\\old.tmp", "x");
    WriteBytes(engines + L"\\Plugins\\update.txt", "kit\ncount 77\nx\nversion 3.2.1\n");
    WriteBytes(common + L"\\installer\\wslib.db", "x");
}

// A light installation through a whole service lifetime; false when the plug-in was not created.
bool RunLifetime(const Folders& folders, Summary& s) {
    const std::wstring &root = folders.root, &engines = folders.engines, &core = folders.core, &common = folders.common;
    PluginUnderTest plugin;
    s.Add("created", plugin.primary != nullptr);
    if (!plugin.primary) return false;
    auto& env = plugin.env;
    env.settings.UseFile(root + L"\\settings.json");
    env.servConfig.SetText(51, L"BASE", L"light");
    env.servConfig.SetText(17, L"scansp", core.c_str());
    env.servConfig.SetText(2, L"scansp", engines.c_str());
    env.servConfig.SetText(0, L"common", common.c_str());
    env.remoteScan.SetStatus(true);
    env.remoteScan.SetFallbackMode(2);
    env.update.FailStatistics(1460);
    void* scan = plugin.scan;
    s.Add("Init", plugin.Init());
    s.Add("Start", plugin.Start());
    s.Add("DelayedStart", plugin.DelayedStart());
    ScanType type;
    ScanMode p, f;
    s.Add("GetScanType", GetScanType(scan, &type) * 100 + type);
    s.Add("GetScanModes", GetScanModes(scan, &p, &f) * 100 + p * 10 + f);
    qv::StringW version;
    uint64_t count = 0;
    s.Add("GetEnginesVersion", GetEnginesVersion(scan, &version));
    s.Add("version", Utf8(version.c_str()));
    s.Add("GetSignaturesCount", GetSignaturesCount(scan, &count) * 1000 + static_cast<long long>(count));
    s.Add("EnableBackup", EnableBackup(scan, true));
    s.Add("ReportSignatureInfo", ReportSignatureInfo(scan, true));
    s.Add("SetFeatureStatus", SetFeatureStatus(scan, qv::StringW(L"Firewall"), false));
    env.scanSp.SetOptionResultFor(9, 5);
    s.Add("EnableBackup refused", EnableBackup(scan, false));
    env.scanSp.SetOptionResultFor(9, 0);
    env.settings.FailAllSets(true);
    s.Add("ReportSignatureInfo unsaved", ReportSignatureInfo(scan, false));
    env.settings.FailAllSets(false);
    env.remoteScan.SetFallbackMode(1);
    s.Add("OnScanModeChanged", env.remoteScan.FireScanModeChanged());
    env.scanSp.SetReloadResult(0);
    s.Add("OnComponentInstalled", env.update.DeliverComponentInstalled(L"Updater", L"ANTIVIRUS", engines.c_str()));
    env.scanSp.SetReloadResult(1460);
    s.Add("OnComponentInstalled failing", env.update.DeliverComponentInstalled(L"U", L"Antivirus", engines.c_str()));
    s.Add("Stop", plugin.Stop());
    s.Add("UnInit", plugin.UnInit());
    s.Add("balanced", env.manager.Balanced());
    s.Add("settings", Compact(env.settings.Document()));
    plugin.stopped = true;
    return true;
}

// A full installation whose scan service provider is missing at Init: the recovery.
void RunRecovery(const Folders& folders, Summary& s) {
    const std::wstring &root = folders.root, &engines = folders.engines, &common = folders.common;
    PluginUnderTest plugin;
    auto& env = plugin.env;
    env.settings.UseFile(root + L"\\settings.json");
    env.servConfig.SetText(51, L"BASE", L"full");
    env.servConfig.SetText(2, L"scansp", engines.c_str());
    env.servConfig.SetText(0, L"common", common.c_str());
    env.manager.SetMissing(ids::kScanSpName);
    s.Add("recovery Init", plugin.Init());
    s.Add("recovery Start", plugin.Start());
    s.Add("recovery DelayedStart", plugin.DelayedStart());
    ScanMode p, f;
    s.Add("recovery GetScanModes", static_cast<long long>(GetScanModes(plugin.scan, &p, &f)));
    for (const auto& event : env.telemetry.Events()) s.Add("telemetry", Compact(event.event));
    s.Add("update requests", static_cast<long long>(env.update.Requests().size()));
    s.Add("cache left", Exists(common + L"\\installer\\wslib.db"));
    env.manager.Restore(ids::kScanSpName);
    s.Add("recovery OnComponentInstalled",
          env.update.DeliverComponentInstalled(L"Updater", L"Antivirus", engines.c_str()));
    for (const auto& restart : env.update.Restarts())
        s.Add("restart", std::to_string(restart.value) + " " + Utf8(restart.serviceName));
    plugin.StopAll();
    s.Add("recovery balanced", env.manager.Balanced());
    s.Add("recovery settings", Compact(env.settings.Document()));
}

// The whole scenario; the folders it uses are named {root} in the summary.
std::string RunScenario() {
    const Folders folders;
    const std::wstring& root = folders.root;
    LayOut(folders);
    Summary s;
    if (!RunLifetime(folders, s)) return s.text;
    RunRecovery(folders, s);
    RemoveFolder(root);
    // Folders differ from run to run; their names do not matter here.
    std::string text = Replace(s.text, Utf8(root), "{root}");
    text = Replace(text, Replace(Utf8(root), "\\", "\\\\"), "{root}");
    return text;
}

// Runs only in the child started below: the scenario, and this program's own logging falls
// back to a stub whose write refuses.
TEST(LogBrokenChild, RunsTheScenario) {
    if (!IsChild()) GTEST_SKIP() << "runs only as a child of the tests below";
    const std::string summary = RunScenario();
    logging::CLogDLLRef holder;
    holder.Acquire();
    ASSERT_NE(nullptr, holder.Get());
    uint32_t severity = logging::LOG_SEV_ERROR;
    EXPECT_EQ(static_cast<HRESULT>(0x80004002),
              logging::Write(holder.Get(), 0, &severity, GetModuleHandleW(nullptr), L"Child::Write", L"x %d", 1));
    holder.Release();
    EXPECT_EQ(nullptr, GetModuleHandleW(L"log.dll"));
    if (!HasFailure()) {
        EXPECT_TRUE(WriteBytes(avhost::ProgramFolder() + kSummaryFile, summary));
    }
}

class LoggingBroken : public ::testing::Test {
protected:
    void SetUp() override {
        if (IsChild()) GTEST_SKIP();
        reference_ = Reference();
        ASSERT_NE(std::string::npos, reference_.find("created = 1"));
    }
    void TearDown() override {
        if (!folder_.empty()) RemoveFolder(folder_);
    }

    // The summary with log.dll working, made once for all tests.
    static const std::string& Reference() {
        static const std::string summary = [] {
            avhost::ClearCapturedLines();
            std::string text = RunScenario();
            EXPECT_FALSE(avhost::CapturedLines().empty()) << "the reference run logged nothing";
            return text;
        }();
        return summary;
    }

    // This program, the plug-in and every library beside them but log.dll (or `logLibrary` as
    // log.dll) in a folder of their own; runs the child there and returns its summary.
    std::string RunInFolder(const wchar_t* logLibrary) {
        folder_ = TempFolder(L"logbroken") + L"\\";
        const std::wstring from = avhost::ProgramFolder();
        std::vector<wchar_t> self(32768);
        GetModuleFileNameW(nullptr, self.data(), static_cast<DWORD>(self.size()));
        std::vector<std::pair<std::wstring, std::wstring>> copies = {{self.data(), L"test_log_absent.exe"},
                                                                     {from + L"AntivirusScan.AL", L"AntivirusScan.AL"}};
        if (logLibrary) copies.push_back({from + logLibrary, L"log.dll"});
        WIN32_FIND_DATAW found;
        HANDLE search = FindFirstFileW((from + L"*.dll").c_str(), &found);
        EXPECT_NE(INVALID_HANDLE_VALUE, search);
        if (search == INVALID_HANDLE_VALUE) return "";
        do {
            if (_wcsicmp(found.cFileName, L"log.dll") != 0) copies.push_back({from + found.cFileName, found.cFileName});
        } while (FindNextFileW(search, &found));
        FindClose(search);
        for (const auto& copy : copies)
            EXPECT_TRUE(CopyFileW(copy.first.c_str(), (folder_ + copy.second).c_str(), FALSE)) << Utf8(copy.first);
        const std::wstring args = std::wstring(L"--gtest_filter=LogBrokenChild.* ") + kChildSwitch;
        EXPECT_EQ(0u, RunProgram(folder_ + L"test_log_absent.exe", args, folder_.c_str(), 120000));
        std::string bytes;
        using host::settingsfile::ReadResult;
        return host::settingsfile::ReadWhole(folder_ + kSummaryFile, bytes) == ReadResult::Read ? bytes : "<missing>";
    }

    std::string reference_;
    std::wstring folder_;
};

TEST_F(LoggingBroken, NoLogLibrary) { EXPECT_EQ(reference_, RunInFolder(nullptr)); }

TEST_F(LoggingBroken, LogLibraryWithoutLogWrite) { EXPECT_EQ(reference_, RunInFolder(L"nowrite\\log.dll")); }

TEST_F(LoggingBroken, LogWritesThatBlock) {
    avhost::SetLogWriteDelay(2);
    const std::string summary = RunScenario();
    avhost::SetLogWriteDelay(0);
    EXPECT_EQ(reference_, summary);
}

} // namespace
