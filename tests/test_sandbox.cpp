// The sandbox host, run as its users run it: avsandbox.exe in a child process, one run per
// case. Outcomes are read from its JSON summary (and from the files of a kept sandbox), never
// from the readable trace.
#include "tests/common/PluginHarness.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

using testing_support::ExeFolder;
using testing_support::TempFolder;

struct SandboxRun {
    DWORD exitCode = 0xFFFFFFFF;
    std::string out;
    std::string err;
    Json::Value summary;  // null when no summary was asked for or it could not be read
};

std::string ReadWhole(const std::wstring& path) {
    std::string bytes;
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return bytes;
    char buffer[65536];
    DWORD got = 0;
    while (ReadFile(file, buffer, sizeof buffer, &got, nullptr) && got > 0) bytes.append(buffer, got);
    CloseHandle(file);
    return bytes;
}

bool WriteWhole(const std::wstring& path, const std::string& bytes) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    DWORD wrote = 0;
    const bool ok = WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &wrote, nullptr) && wrote == bytes.size();
    CloseHandle(file);
    return ok;
}

bool ParseJson(const std::string& text, Json::Value& value) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    return reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
}

std::wstring Widen(const std::string& text) { return std::wstring(text.begin(), text.end()); }

bool RemoveTree(const std::wstring& folder) {
    WIN32_FIND_DATAW entry;
    HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &entry);
    if (find != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring name = entry.cFileName;
            if (name == L"." || name == L"..") continue;
            if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                RemoveTree(folder + L"\\" + name);
            else
                DeleteFileW((folder + L"\\" + name).c_str());
        } while (FindNextFileW(find, &entry));
        FindClose(find);
    }
    return RemoveDirectoryW(folder.c_str()) != FALSE;
}

HANDLE Inheritable(const std::wstring& path) {
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    return CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                       nullptr);
}

// Runs avsandbox.exe from the test's own folder with these arguments; with wantSummary the
// run also writes --summary to a file that is read back.
SandboxRun RunSandbox(const std::wstring& arguments, bool wantSummary = true) {
    SandboxRun run;
    const std::wstring folder = TempFolder(L"sandbox-run");
    const std::wstring outPath = folder + L"\\out.txt", errPath = folder + L"\\err.txt";
    const std::wstring summaryPath = folder + L"\\summary.json";
    std::wstring command = L"\"" + ExeFolder() + L"\\avsandbox.exe\" " + arguments;
    if (wantSummary) command += L" --summary \"" + summaryPath + L"\"";

    HANDLE out = Inheritable(outPath), err = Inheritable(errPath);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = out;
    startup.hStdError = err;
    PROCESS_INFORMATION process{};
    if (CreateProcessW(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process)) {
        if (WaitForSingleObject(process.hProcess, 240000) == WAIT_OBJECT_0)
            GetExitCodeProcess(process.hProcess, &run.exitCode);
        else
            TerminateProcess(process.hProcess, 0xFFFFFFFF);
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
    }
    CloseHandle(out);
    CloseHandle(err);
    run.out = ReadWhole(outPath);
    run.err = ReadWhole(errPath);
    if (wantSummary && !ParseJson(ReadWhole(summaryPath), run.summary)) run.summary = Json::Value();
    RemoveTree(folder);
    return run;
}

std::vector<std::string> Strings(const Json::Value& list) {
    std::vector<std::string> items;
    for (const Json::Value& item : list) items.push_back(item.asString());
    return items;
}

bool Has(const std::vector<std::string>& items, const std::string& item) {
    return std::find(items.begin(), items.end(), item) != items.end();
}

const Json::Value* StepOf(const Json::Value& summary, const std::string& action, int occurrence = 1) {
    for (const Json::Value& step : summary["steps"]) {
        if (step["action"].asString() == action && --occurrence == 0) return &step;
    }
    return nullptr;
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty()) lines.push_back(line);
    }
    return lines;
}

// "[1,0]": parsed numbers keep their storage type, so compare the text.
std::string Compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::string EventText(const Json::Value& event) {
    return event["sink"].asString() + ":" + event["event"].asString() + Compact(event["args"]);
}

class Sandbox : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(INVALID_FILE_ATTRIBUTES, GetFileAttributesW((ExeFolder() + L"\\avsandbox.exe").c_str()))
            << "avsandbox.exe is not built beside the tests";
    }
};

TEST_F(Sandbox, DefaultScenarioStartsUpdatesSwitchesAndStops) {
    const SandboxRun run = RunSandbox(L"--scenario default");
    ASSERT_EQ(0u, run.exitCode) << run.err;
    const Json::Value& s = run.summary;
    ASSERT_TRUE(s.isObject());
    EXPECT_TRUE(s["ok"].asBool());
    EXPECT_EQ(0, s["expectations"]["failed"].asInt());
    EXPECT_EQ("default", s["scenario"]["name"].asString());

    // The plug-in's answers before it was stopped.
    const Json::Value& state = s["state"];
    EXPECT_EQ("full", state["scanType"].asString());
    EXPECT_EQ("[3,5]", Compact(state["scanModes"]));  // remote service turned on, local fallback
    EXPECT_TRUE(state["backup"].asBool());
    EXPECT_EQ("2024.06.12.1015", state["signaturesVersion"].asString());  // the installed kit's statistics
    EXPECT_EQ(7533120u, state["signaturesCount"].asUInt64());

    // Before the update the answers came from the first engines folder's "Plugins\update.txt".
    const Json::Value* before = StepOf(s, "query", 4);
    ASSERT_NE(nullptr, before);
    EXPECT_EQ("2024.05.01.0830", (*before)["answer"].asString());

    // The settings file: the reload went through, and its folder is the last good one.
    EXPECT_EQ(2u, s["settings"]["reloadStatus"].asUInt());
    EXPECT_EQ("engines\\2024.06.12", s["settings"]["lastOkFolderInSandbox"].asString());
    EXPECT_TRUE(s["settings"]["enableBackup"].asBool());
    EXPECT_EQ(1, s["scanSp"]["reloads"].asInt());
    EXPECT_EQ(1u, s["scanSp"]["backupOption"].asUInt());

    std::vector<std::string> events;
    for (const Json::Value& e : s["sinkEvents"]) events.push_back(EventText(e));
    const std::vector<std::string> expected = {
        "engines:OnReloadStarted[\"engines\\\\2024.06.12\"]", "engines:OnReloadEnded[\"engines\\\\2024.06.12\",0]",
        "settings:OnBackupStatusChanged[true]", "scan:OnScanModesChanged[3,5]"};
    EXPECT_EQ(expected, events);

    const auto created = Strings(s["files"]["created"]);
    const auto deleted = Strings(s["files"]["deleted"]);
    EXPECT_TRUE(Has(created, "engines\\2024.05.01\\Plugins\\nnml.cvd"));  // missing placeholder at delayed start
    EXPECT_TRUE(Has(created, "engines\\2024.06.12\\qvcore.dll"));         // the kit
    EXPECT_TRUE(Has(created, "temp\\scansp\\"));                          // core temp folder
    EXPECT_TRUE(Has(deleted, "temp\\scan-4711.tmp"));                     // its leftover neighbours
    EXPECT_TRUE(Has(deleted, "temp\\dumps\\crash-0001.dmp"));
    EXPECT_FALSE(Has(deleted, "common\\installer\\wslib.db"));            // no recovery, cache kept

    EXPECT_EQ(0u, s["telemetry"].size());
    EXPECT_EQ(0u, s["update"]["requests"].size());
    EXPECT_EQ(0u, s["update"]["restarts"].size());
    EXPECT_TRUE(s["plugins"]["balanced"].asBool());

    // Not kept: the temporary sandbox is gone, and the trace was printed.
    EXPECT_FALSE(s["sandbox"]["kept"].asBool());
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(Widen(s["sandbox"]["root"].asString()).c_str()));
    EXPECT_NE(std::string::npos, run.out.find("Final state"));
}

TEST_F(Sandbox, RecoveryScenarioRepairsTheEnginesAndAsksForARestart) {
    const std::wstring parent = TempFolder(L"sandbox-recovery"), folder = parent + L"\\box";
    const SandboxRun run = RunSandbox(L"--scenario recovery --sandbox \"" + folder + L"\"");
    ASSERT_EQ(0u, run.exitCode) << run.err;
    const Json::Value& s = run.summary;
    ASSERT_TRUE(s.isObject());
    EXPECT_TRUE(s["ok"].asBool());
    EXPECT_TRUE(s["sandbox"]["kept"].asBool());

    ASSERT_EQ(1u, s["telemetry"].size());
    const Json::Value& event = s["telemetry"][0];
    EXPECT_EQ("AntivirusScan.EnginesRecoveryStarted", event["issue"].asString());
    EXPECT_EQ("full", event["error"].asString());
    EXPECT_EQ(1805, event["error_code"].asInt());
    EXPECT_EQ("2024.05.01.0830", event["qv_av_signatures_version"].asString());

    // Delayed start: cache deleted, placeholders created, signature update requested.
    const Json::Value* delayed = StepOf(s, "delayedStart");
    ASSERT_NE(nullptr, delayed);
    const auto created = Strings((*delayed)["files"]["created"]);
    const auto deleted = Strings((*delayed)["files"]["deleted"]);
    EXPECT_TRUE(Has(created, "engines\\2024.05.01\\qvcore.dll"));
    EXPECT_TRUE(Has(created, "engines\\2024.05.01\\smartdbv2.dat"));
    EXPECT_FALSE(Has(created, "engines\\2024.05.01\\scanclient.dll"));  // was there already
    EXPECT_TRUE(Has(deleted, "common\\installer\\wslib.db"));
    EXPECT_TRUE(Has(deleted, "common\\installer\\wslib.m"));
    ASSERT_EQ(1u, (*delayed)["updateRequests"].size());
    const Json::Value& request = (*delayed)["updateRequests"][0];
    EXPECT_EQ("Antivirus-Engines-Recovery", request["requester"].asString());
    EXPECT_EQ(1u, request["signaturesOnly"].asUInt());
    EXPECT_EQ(0u, request["interactive"].asUInt());
    EXPECT_EQ("https://updates.example.invalid/antivirus", request["locations"][0].asString());

    // The installed kit made the provider loadable: restart requested, folder confirmed.
    const Json::Value* install = StepOf(s, "install");
    ASSERT_NE(nullptr, install);
    ASSERT_EQ(1u, (*install)["restarts"].size());
    EXPECT_EQ("KXSecurityService", (*install)["restarts"][0]["serviceName"].asString());
    EXPECT_EQ(1u, (*install)["restarts"][0]["value"].asUInt());
    EXPECT_EQ(2u, s["settings"]["reloadStatus"].asUInt());
    EXPECT_EQ("engines\\2024.05.01", s["settings"]["lastOkFolderInSandbox"].asString());
    EXPECT_EQ(0u, s["sinkEvents"].size());  // a recovery-mode reload tells no sink
    EXPECT_EQ(0, s["scanSp"]["reloads"].asInt());
    EXPECT_EQ(2, s["scanSp"]["lookups"].asInt());

    // The flag stays set for the life of the process.
    EXPECT_EQ(0x8004D082u, s["state"]["scanModesResult"].asUInt());
    EXPECT_EQ(0x8004D082u, s["state"]["signaturesVersionResult"].asUInt());
    EXPECT_TRUE(s["plugins"]["balanced"].asBool());

    // The kept sandbox holds the host's files: the telemetry line and log.dll's log.
    Json::Value line;
    ASSERT_TRUE(ParseJson(ReadWhole(folder + L"\\host\\telemetry.jsonl"), line));
    EXPECT_EQ(event, line);
    const std::string log = ReadWhole(folder + L"\\host\\avscan.log");
    EXPECT_NE(std::string::npos, log.find("Dependency not found : ScanSp."));
    EXPECT_NE(std::string::npos, log.find("ScanSp load FIXED => restart service required"));
    RemoveTree(parent);
}

TEST_F(Sandbox, RemoteOnlyScenarioDeletesTheTenLocalFilesAndScansRemotely) {
    const SandboxRun run = RunSandbox(L"--scenario remote-only");
    ASSERT_EQ(0u, run.exitCode) << run.err;
    const Json::Value& s = run.summary;
    ASSERT_TRUE(s.isObject());
    EXPECT_TRUE(s["ok"].asBool());

    const Json::Value* init = StepOf(s, "init");
    ASSERT_NE(nullptr, init);
    auto deleted = Strings((*init)["files"]["deleted"]);
    std::sort(deleted.begin(), deleted.end());
    std::vector<std::string> ten;
    for (const char* name : {"dalvik.cvd", "dalvik.ivd", "dalvik.xmd", "lhdb.cvd", "nnml.cvd", "xgdb.cvd", "mdx.xmd",
                             "sdx.cvd", "sdx.ivd", "sdx.xmd"})
        ten.push_back(std::string("engines\\2024.05.01\\Plugins\\") + name);
    std::sort(ten.begin(), ten.end());
    EXPECT_EQ(ten, deleted);  // and nothing else, "rdx.cvd" among the survivors
    for (const std::string& created : Strings(s["files"]["created"]))
        EXPECT_EQ(std::string::npos, created.find("Plugins")) << created;  // nothing recreated at delayed start

    EXPECT_EQ("remote", s["state"]["scanType"].asString());
    EXPECT_EQ("[1,0]", Compact(s["state"]["scanModes"]));
    const Json::Value* firstModes = StepOf(s, "query", 2);
    ASSERT_NE(nullptr, firstModes);
    EXPECT_EQ("[1,1]", Compact((*firstModes)["answer"]));
    const Json::Value* off = StepOf(s, "remoteStatus");
    ASSERT_NE(nullptr, off);
    EXPECT_EQ(13u, (*off)["result"].asUInt());
    ASSERT_EQ(1u, s["sinkEvents"].size());
    EXPECT_EQ("scan:OnScanModesChanged[1,0]", EventText(s["sinkEvents"][0]));
}

TEST_F(Sandbox, ScenarioFileDrivesPluginsConfigurationAndARestart) {
    const std::wstring folder = TempFolder(L"sandbox-file");
    const std::wstring file = folder + L"\\scenario.json";
    ASSERT_TRUE(WriteWhole(file, R"json({
      "name": "light without telemetry",
      "config": {"scanType": "LIGHT"},
      "plugins": {"Product.Matrix": "missing", "ctc": {"refuse": 31}},
      "engines": {"files": ["scanclient.dll"], "version": "1.0", "count": 10},
      "kits": {"full": {"files": ["qvcore.dll", "scanclient.dll", "smartdbv2.dat"], "version": "2.0", "count": 20}},
      "actions": [
        {"do": "init", "expect": 0}, {"do": "start"}, {"do": "delayedStart"},
        {"do": "install", "kit": "full", "target": "engines2", "expect": 0},
        {"do": "restartService"},
        {"do": "init", "expect": 0}, {"do": "start"}, {"do": "delayedStart"},
        {"do": "query", "what": "scanModes", "expect": 0, "answer": [4, 4]},
        {"do": "query", "what": "signaturesVersion", "answer": "2.0"}
      ]
    })json"));
    const SandboxRun run = RunSandbox(L"--scenario-file \"" + file + L"\"");
    ASSERT_EQ(0u, run.exitCode) << run.err;
    const Json::Value& s = run.summary;
    ASSERT_TRUE(s.isObject());
    EXPECT_EQ("light without telemetry", s["scenario"]["name"].asString());
    EXPECT_EQ(2, s["processes"].asInt());
    EXPECT_EQ(0u, s["telemetry"].size());              // telemetry plug-in missing: no event
    EXPECT_EQ(1u, s["update"]["requests"].size());      // the recovery went on regardless
    EXPECT_EQ(1u, s["update"]["restarts"].size());
    EXPECT_EQ("light", s["state"]["scanType"].asString());
    EXPECT_EQ("engines2", s["settings"]["lastOkFolderInSandbox"].asString());
    EXPECT_EQ("shutdown", s["steps"][s["steps"].size() - 1]["action"].asString());  // left running: the host stops it
    EXPECT_TRUE(s["plugins"]["balanced"].asBool());
    RemoveTree(folder);
}

// Runs a scenario given as JSON text through a file.
SandboxRun RunScenarioText(const std::string& json) {
    const std::wstring folder = TempFolder(L"sandbox-text");
    const std::wstring file = folder + L"\\scenario.json";
    SandboxRun run;
    if (!WriteWhole(file, json)) return run;
    run = RunSandbox(L"--scenario-file \"" + file + L"\"");
    RemoveTree(folder);
    return run;
}

// Engines missing their core; one update that brings signatures only. Whether the provider then
// loads depends on whether the 0-byte placeholders of the recovery count as engine files.
std::string SignaturesOnlyRecovery(bool emptyFilesLoad) {
    return std::string(R"({
      "engines": {"files": ["scanclient.dll"], "version": "1.0", "count": 10},
      "common": ["installer\\wslib.db"],
      "kits": {"signatures": {"files": ["Plugins\\lhdb.cvd"], "version": "1.1", "count": 11}},
      "scanSp": {"emptyFilesLoad": )") +
           (emptyFilesLoad ? "true" : "false") + R"(},
      "actions": [
        {"do": "init"}, {"do": "start"}, {"do": "delayedStart"},
        {"do": "writeFile", "path": "common\\installer\\wslib.db", "text": "rebuilt"},
        {"do": "install", "kit": "signatures", "expect": 0},
        {"do": "stop"}, {"do": "uninit"}
      ]})";
}

TEST_F(Sandbox, ProviderLoadsOnlyFromWhatTheEnginesFolderHolds) {
    {
        const SandboxRun run = RunScenarioText(SignaturesOnlyRecovery(false));
        ASSERT_EQ(0u, run.exitCode) << run.err;
        const Json::Value& s = run.summary;
        const Json::Value* install = StepOf(s, "install");
        ASSERT_NE(nullptr, install);
        EXPECT_EQ(0u, (*install)["restarts"].size());  // still broken: no restart
        EXPECT_TRUE(Has(Strings((*install)["files"]["deleted"]), "common\\installer\\wslib.db"));  // cache invalidated again
        EXPECT_EQ(1u, s["settings"]["reloadStatus"].asUInt());  // the reload never completed
        EXPECT_EQ(2, s["scanSp"]["lookups"].asInt());
    }
    {
        const SandboxRun run = RunScenarioText(SignaturesOnlyRecovery(true));
        ASSERT_EQ(0u, run.exitCode) << run.err;
        const Json::Value& s = run.summary;
        const Json::Value* install = StepOf(s, "install");
        ASSERT_NE(nullptr, install);
        ASSERT_EQ(1u, (*install)["restarts"].size());  // the placeholders were enough
        EXPECT_FALSE(Has(Strings((*install)["files"]["deleted"]), "common\\installer\\wslib.db"));
        EXPECT_EQ(2u, s["settings"]["reloadStatus"].asUInt());
    }
}

TEST_F(Sandbox, MaintenanceInstallCopiesTheKitButReloadsNothing) {
    const SandboxRun run = RunScenarioText(R"({
      "engines": {"files": ["qvcore.dll", "scanclient.dll", "smartdbv2.dat"], "version": "1.0", "count": 10},
      "kits": {"k": {"files": ["qvcore.dll"], "version": "1.1", "count": 11}},
      "actions": [
        {"do": "init"}, {"do": "start"}, {"do": "delayedStart"},
        {"do": "install", "kit": "k", "updater": "KITINSTALLER_SYNC", "expect": 0},
        {"do": "install", "kit": "kits\\missing", "expect": 3},
        {"do": "stop"}, {"do": "uninit"}
      ]})");
    ASSERT_EQ(0u, run.exitCode) << run.err << run.out;
    const Json::Value& s = run.summary;
    const Json::Value* install = StepOf(s, "install");
    ASSERT_NE(nullptr, install);
    EXPECT_TRUE(Has(Strings((*install)["files"]["changed"]), "engines\\qvcore.dll"));  // the copy happened
    EXPECT_EQ(3u, s["settings"]["reloadStatus"].asUInt());
    EXPECT_EQ(0, s["scanSp"]["reloads"].asInt());
    EXPECT_EQ(0u, s["sinkEvents"].size());

    // A kit folder that is not there: nothing installed, nobody told.
    const Json::Value* absent = StepOf(s, "install", 2);
    ASSERT_NE(nullptr, absent);
    EXPECT_TRUE((*absent)["files"]["changed"].empty());
    ASSERT_EQ(2u, s["update"]["installs"].size());
    EXPECT_FALSE(s["update"]["installs"][1]["error"].asString().empty());
    EXPECT_EQ(3u, s["settings"]["reloadStatus"].asUInt());
}

TEST_F(Sandbox, UnmetExpectationFailsTheRunAndNamesTheStep) {
    const std::wstring folder = TempFolder(L"sandbox-expect");
    const std::wstring file = folder + L"\\scenario.json";
    ASSERT_TRUE(WriteWhole(file, R"({"actions": [{"do": "init"}, {"do": "query", "what": "scanType", "answer": "light"}]})"));
    const SandboxRun run = RunSandbox(L"--scenario-file \"" + file + L"\"");
    EXPECT_EQ(1u, run.exitCode);
    ASSERT_TRUE(run.summary.isObject());
    EXPECT_FALSE(run.summary["ok"].asBool());
    EXPECT_EQ(1, run.summary["expectations"]["failed"].asInt());
    const Json::Value& step = run.summary["steps"][1];
    EXPECT_FALSE(step["ok"].asBool());
    EXPECT_EQ("actions[1]", step["field"].asString());
    EXPECT_EQ("full", step["answer"].asString());
    RemoveTree(folder);
}

struct BadInput {
    const char* label;
    const char* scenario;      // file content; null: pass `arguments` alone
    const wchar_t* arguments;  // extra arguments
    const char* mustName;      // text the one error line must hold
};

TEST_F(Sandbox, BadInputGivesOneErrorLineAndAUsageExitCode) {
    const std::wstring folder = TempFolder(L"sandbox-bad");
    const BadInput cases[] = {
        {"broken JSON", "{\"actions\": [{\"do\": \"init\"},", L"", "not valid JSON: line 1"},
        {"wrong type", R"({"actions": [{"do": "init"}, {"do": "enableBackup", "value": "yes"}]})", L"",
         "field \"actions[1].value\": expected true or false"},
        {"wrong type deep", R"({"remoteScan": {"fallbackMode": "two"}, "actions": [{"do": "init"}]})", L"",
         "field \"remoteScan.fallbackMode\""},
        {"unknown field", R"({"actions": [{"do": "init", "expcet": 0}]})", L"", "field \"actions[0].expcet\": unknown field"},
        {"unknown action", R"({"actions": [{"do": "reboot"}]})", L"", "field \"actions[0].do\": unknown action \"reboot\""},
        {"no actions", R"({"name": "empty"})", L"", "field \"actions\""},
        {"path outside", R"({"common": ["..\\..\\x"], "actions": [{"do": "init"}]})", L"", "field \"common[0]\""},
        {"unknown option", nullptr, L"--bogus", "--bogus"},
        {"option without value", nullptr, L"--summary", "--summary"},
        {"unknown scenario", nullptr, L"--scenario nightly", "nightly"},
    };
    int index = 0;
    for (const BadInput& c : cases) {
        std::wstring arguments = c.arguments;
        if (c.scenario) {
            const std::wstring file = folder + L"\\bad" + std::to_wstring(index++) + L".json";
            ASSERT_TRUE(WriteWhole(file, c.scenario));
            arguments = L"--scenario-file \"" + file + L"\"";
        }
        const SandboxRun run = RunSandbox(arguments, false);
        EXPECT_EQ(2u, run.exitCode) << c.label;
        const auto lines = Lines(run.err);
        ASSERT_EQ(1u, lines.size()) << c.label << ": " << run.err;
        EXPECT_EQ(0u, lines[0].find("avsandbox: ")) << c.label;
        EXPECT_NE(std::string::npos, lines[0].find(c.mustName)) << c.label << ": " << lines[0];
        EXPECT_TRUE(run.out.empty()) << c.label << ": nothing runs, so nothing is traced";
    }
    RemoveTree(folder);
}

TEST_F(Sandbox, HelpDocumentsEveryOption) {
    const SandboxRun run = RunSandbox(L"--help", false);
    EXPECT_EQ(0u, run.exitCode);
    for (const char* option : {"--scenario NAME", "--scenario-file PATH", "--summary PATH", "--json", "--keep",
                               "--sandbox DIR", "--verbose", "--help", "default", "recovery", "remote-only"})
        EXPECT_NE(std::string::npos, run.out.find(option)) << option;
}

TEST_F(Sandbox, JsonGoesToStandardOutputAndAGivenSandboxMustBeEmpty) {
    const std::wstring parent = TempFolder(L"sandbox-json"), folder = parent + L"\\box";
    const SandboxRun run = RunSandbox(L"--scenario remote-only --json --sandbox \"" + folder + L"\"", false);
    ASSERT_EQ(0u, run.exitCode) << run.err;
    Json::Value printed;
    ASSERT_TRUE(ParseJson(run.out, printed)) << "standard output holds only the summary";
    EXPECT_EQ("remote-only", printed["scenario"]["name"].asString());
    EXPECT_NE(std::string::npos, run.err.find("Final state"));  // the trace went to standard error

    // The kept sandbox: the settings file holds the plug-in's section.
    Json::Value settings;
    ASSERT_TRUE(ParseJson(ReadWhole(folder + L"\\host\\settings.json"), settings));
    EXPECT_EQ(2u, settings["/AntivirusScan"]["engines"]["reloadStatus"].asUInt());

    // Running again into the same, now full, folder is refused before anything starts.
    const SandboxRun again = RunSandbox(L"--scenario remote-only --sandbox \"" + folder + L"\"", false);
    EXPECT_EQ(3u, again.exitCode);
    ASSERT_EQ(1u, Lines(again.err).size()) << again.err;
    EXPECT_NE(std::string::npos, again.err.find("is not empty"));
    RemoveTree(parent);
}

} // namespace
