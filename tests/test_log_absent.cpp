// The plug-in behaves the same whatever happens to its logging: log.dll present, absent, present
// but without "LogWrite", or blocking briefly on every write. One scenario (a normal start-up
// with switches, events and a reload, then an engines recovery ending in a restart request) is
// summed up as text: results, settings document, sink events, requests to the siblings. The
// summary with a working log.dll is the reference; for the absent and broken libraries this
// program copies itself, the plug-in and its libraries into a folder prepared that way and runs
// there as a child, which writes its summary to a file.
#include "host/SettingsFile.h"
#include "tests/common/ScanSlots.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

namespace {

using namespace testing_support;
using namespace testing_support::slots;
namespace ids = qv::kxsdk::ids;

const wchar_t kModeVariable[] = L"AVSCAN_LOG_ABSENT_MODE";
const wchar_t kSummaryFile[] = L"scenario-summary.txt";

std::wstring ChildMode() {
    wchar_t mode[32] = {};
    DWORD length = GetEnvironmentVariableW(kModeVariable, mode, 32);
    return length > 0 && length < 32 ? std::wstring(mode) : std::wstring();
}

std::string Utf8(const std::wstring& text) { return host::settingsfile::ToUtf8(text.c_str()); }

// Every event any sink hears, as one line each.
class Recorder : public IAntivirusScan::ISettingsEvents,
                 public IAntivirusScan::IEnginesEvents,
                 public IAntivirusScan::IScanEvents {
public:
    int OnBackupStatusChanged(bool on) override { return Add("backup " + std::to_string(on)); }
    int OnFeatureStatusChanged(const qv::StringW& name, bool locked) override {
        return Add("feature " + Utf8(name.c_str()) + " " + std::to_string(locked));
    }
    int OnHashChainSettingsChanged(const HashChainSettings& s) override { return Add("hashChain " + std::to_string(s.enabled)); }
    int OnSignatureInfoReportingChanged(bool on) override { return Add("signatureInfo " + std::to_string(on)); }
    int OnReloadStarted(const qv::StringW& path) override { return Add("reloadStarted " + Utf8(path.c_str())); }
    int OnReloadEnded(const qv::StringW& path, int error) override {
        return Add("reloadEnded " + Utf8(path.c_str()) + " " + std::to_string(error));
    }
    int OnScanModesChanged(ScanMode p, ScanMode f) override {
        return Add("scanModes " + std::to_string(p) + " " + std::to_string(f));
    }
    std::string Take() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::string all;
        for (const std::string& line : lines_) all += "  event: " + line + "\n";
        lines_.clear();
        return all;
    }

private:
    int Add(const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(line);
        return 0;
    }
    std::mutex mutex_;
    std::vector<std::string> lines_;
};

struct Summary {
    std::string text;
    void Add(const std::string& what, long long value) { text += what + " = " + std::to_string(value) + "\n"; }
    void Add(const std::string& what, const std::string& value) { text += what + " = " + value + "\n"; }
};

std::string Replace(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) text.replace(at, from.size(), to);
    return text;
}

std::string Compact(const Json::Value& value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

// The whole scenario; the folders it uses are named {root} in the summary.
std::string RunScenario() {
    const std::wstring root = TempFolder(L"logscenario");
    const std::wstring engines = root + L"\\engines", core = root + L"\\temp\\scansp", common = root + L"\\common";
    for (const std::wstring& dir : {engines, engines + L"\\Plugins", root + L"\\temp", core, common,
                                    common + L"\\installer"})
        CreateDirectoryW(dir.c_str(), nullptr);
    WriteBytes(root + L"\\temp\\old.tmp", "x");
    WriteBytes(engines + L"\\Plugins\\update.txt", "kit\ncount 77\nx\nversion 3.2.1\n");
    WriteBytes(common + L"\\installer\\wslib.db", "x");
    Summary s;
    Recorder recorder;
    {
        PluginUnderTest plugin;
        s.Add("created", plugin.primary != nullptr);
        if (!plugin.primary) return s.text;
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
        s.Add("register", RegisterSettings(scan, &recorder) + RegisterEngines(scan, &recorder) + RegisterScan(scan, &recorder));
        s.Add("Init", plugin.Init());
        s.Add("Start", plugin.Start());
        s.Add("DelayedStart", plugin.DelayedStart());
        s.text += recorder.Take();
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
        s.Add("EnableBackup again", EnableBackup(scan, true));
        s.Add("ReportHashChain", ReportHashChain(scan, true));
        s.Add("ReportSignatureInfo", ReportSignatureInfo(scan, true));
        s.Add("SetFeatureStatus", SetFeatureStatus(scan, qv::StringW(L"Firewall"), false));
        bool locked = false;
        s.Add("GetFeatureStatus", GetFeatureStatus(scan, qv::StringW(L"Unknown"), &locked) * 10 + locked);
        s.Add("null out", IsBackupEnabled(scan, nullptr));
        env.scanSp.SetOptionResultFor(9, 5);
        s.Add("EnableBackup refused", EnableBackup(scan, false));
        env.scanSp.SetOptionResultFor(9, 0);
        env.settings.FailAllSets(true);
        s.Add("ReportSignatureInfo unsaved", ReportSignatureInfo(scan, false));
        env.settings.FailAllSets(false);
        s.text += recorder.Take();
        env.remoteScan.SetFallbackMode(1);
        s.Add("OnScanModeChanged", env.remoteScan.FireScanModeChanged());
        env.scanSp.SetReloadResult(0);
        s.Add("OnComponentInstalled", env.update.DeliverComponentInstalled(L"Updater", L"ANTIVIRUS", engines.c_str()));
        env.scanSp.SetReloadResult(1460);
        s.Add("OnComponentInstalled failing", env.update.DeliverComponentInstalled(L"U", L"Antivirus", engines.c_str()));
        s.Add("OnComponentInstalled maintenance",
              env.update.DeliverComponentInstalled(L"kitInstaller_sync", L"Antivirus", engines.c_str()));
        s.text += recorder.Take();
        s.Add("scanSp reloads", env.scanSp.GetCounts().reloads);
        s.Add("scanSp options", static_cast<long long>(env.scanSp.Options().size()));
        s.Add("Stop", plugin.Stop());
        s.Add("UnInit", plugin.UnInit());
        s.Add("balanced", env.manager.Balanced());
        s.Add("sections out", env.settings.Outstanding());
        s.Add("settings", Compact(env.settings.Document()));
        s.Add("core temp sibling left", Exists(root + L"\\temp\\old.tmp"));
        plugin.stopped = true;
    }
    {
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
        s.Add("placeholder", Exists(engines + L"\\qvcore.dll"));
        env.manager.Restore(ids::kScanSpName);
        s.Add("recovery OnComponentInstalled",
              env.update.DeliverComponentInstalled(L"Updater", L"Antivirus", engines.c_str()));
        for (const auto& restart : env.update.Restarts())
            s.Add("restart", std::to_string(restart.value) + " " + Utf8(restart.serviceName));
        plugin.StopAll();
        s.Add("recovery balanced", env.manager.Balanced());
        s.Add("recovery settings", Compact(env.settings.Document()));
    }
    RemoveFolder(root);
    // Folders differ from run to run; their names do not matter here.
    std::string text = Replace(s.text, Utf8(root), "{root}");
    text = Replace(text, Replace(Utf8(root), "\\", "\\\\"), "{root}");
    return text;
}

std::string ReadAll(const std::wstring& path) {
    std::string bytes;
    return host::settingsfile::ReadWhole(path, bytes) == host::settingsfile::ReadResult::Read ? bytes : "<missing>";
}

// Runs only inside the child processes started below.
TEST(LogAbsentChild, RunsTheScenario) {
    const std::wstring mode = ChildMode();
    if (mode.empty()) GTEST_SKIP() << "runs only as a child of the tests below";
    const std::string summary = RunScenario();
    if (mode == L"absent") {
        EXPECT_EQ(nullptr, GetModuleHandleW(L"log.dll"));
    }
    ASSERT_TRUE(WriteBytes(avhost::ProgramFolder() + kSummaryFile, summary));
}

class LoggingBroken : public ::testing::Test {
protected:
    void SetUp() override {
        if (!ChildMode().empty()) GTEST_SKIP();
        reference_ = Reference();
        ASSERT_NE(std::string::npos, reference_.find("created = 1"));
    }
    void TearDown() override {
        for (const std::wstring& file : copied_) DeleteFileW(file.c_str());
        if (!folder_.empty()) {
            DeleteFileW((folder_ + kSummaryFile).c_str());
            RemoveDirectoryW(folder_.c_str());
        }
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

    void Copy(const std::wstring& from, const std::wstring& name) {
        std::wstring to = folder_ + name;
        ASSERT_TRUE(CopyFileW(from.c_str(), to.c_str(), FALSE)) << "cannot copy " << Utf8(from);
        copied_.push_back(to);
    }

    // This program, the plug-in and every library beside them but log.dll, in a folder of their own.
    void PrepareFolder() {
        folder_ = TempFolder(L"logabsent") + L"\\";
        std::vector<wchar_t> path(32768);
        GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        Copy(path.data(), L"test_log_absent.exe");
        Copy(avhost::ProgramFolder() + L"AntivirusScan.AL", L"AntivirusScan.AL");
        WIN32_FIND_DATAW found;
        HANDLE search = FindFirstFileW((avhost::ProgramFolder() + L"*.dll").c_str(), &found);
        ASSERT_NE(INVALID_HANDLE_VALUE, search);
        do {
            if (_wcsicmp(found.cFileName, L"log.dll") != 0) Copy(avhost::ProgramFolder() + found.cFileName, found.cFileName);
        } while (FindNextFileW(search, &found));
        FindClose(search);
    }

    std::string RunChild(const wchar_t* mode) {
        const std::wstring program = folder_ + L"test_log_absent.exe";
        std::wstring commandLine = L"\"" + program + L"\" --gtest_filter=LogAbsentChild.*";
        SetEnvironmentVariableW(kModeVariable, mode);
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION process{};
        BOOL started = CreateProcessW(program.c_str(), &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr,
                                      folder_.c_str(), &startup, &process);
        SetEnvironmentVariableW(kModeVariable, nullptr);
        if (!started) {
            ADD_FAILURE() << "cannot start the child: " << GetLastError();
            return "";
        }
        DWORD exitCode = ~0u;
        if (WaitForSingleObject(process.hProcess, 120000) == WAIT_OBJECT_0) {
            GetExitCodeProcess(process.hProcess, &exitCode);
        } else {
            ADD_FAILURE() << "the child did not end";
            TerminateProcess(process.hProcess, 1);
            WaitForSingleObject(process.hProcess, 10000);
        }
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
        EXPECT_EQ(0u, exitCode) << "the child failed or crashed";
        return ReadAll(folder_ + kSummaryFile);
    }

    std::string reference_;
    std::wstring folder_;
    std::vector<std::wstring> copied_;
};

TEST_F(LoggingBroken, NoLogLibraryAnywhere) {
    ASSERT_NO_FATAL_FAILURE(PrepareFolder());
    EXPECT_EQ(reference_, RunChild(L"absent"));
}

TEST_F(LoggingBroken, LogLibraryWithoutLogWrite) {
    ASSERT_NO_FATAL_FAILURE(PrepareFolder());
    Copy(avhost::ProgramFolder() + L"nowrite\\log.dll", L"log.dll");
    EXPECT_EQ(reference_, RunChild(L"nowrite"));
}

TEST_F(LoggingBroken, LogWritesThatBlock) {
    avhost::SetLogWriteDelay(2);
    const std::string summary = RunScenario();
    avhost::SetLogWriteDelay(0);
    EXPECT_EQ(reference_, summary);
}

} // namespace
