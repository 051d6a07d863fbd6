// The sandbox host run as its users run it: avsandbox.exe in a child process, outcomes read from
// its JSON summary, never from the readable trace.
#include "tests/common/LogAndFileChecks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

namespace {

using namespace testing_support;
using namespace testing_support::slots;

struct SandboxRun {
    DWORD exitCode = 0xFFFFFFFF;
    std::string out, err;
    Json::Value summary;
};

bool ParseJson(const std::string& text, Json::Value& value) {
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    return reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
}

HANDLE Inheritable(const std::wstring& path) {
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    return CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit, CREATE_ALWAYS, 0, nullptr);
}

SandboxRun RunSandbox(const std::wstring& arguments) {
    SandboxRun run;
    const std::wstring folder = TempFolder(L"sandbox-run");
    const std::wstring outPath = folder + L"\\out.txt", errPath = folder + L"\\err.txt";
    std::wstring command =
        L"\"" + ExeFolder() + L"\\avsandbox.exe\" " + arguments + L" --summary \"" + folder + L"\\summary.json\"";
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
    run.out = ReadBytes(outPath);
    run.err = ReadBytes(errPath);
    if (!ParseJson(ReadBytes(folder + L"\\summary.json"), run.summary)) run.summary = Json::Value();
    RemoveFolder(folder);
    return run;
}

bool Has(const Json::Value& list, const std::string& item) {
    for (const Json::Value& v : list)
        if (v.asString() == item) return true;
    return false;
}

const Json::Value& StepOf(const Json::Value& summary, const std::string& action, int occurrence = 1) {
    static const Json::Value none;
    for (const Json::Value& step : summary["steps"])
        if (step["action"].asString() == action && --occurrence == 0) return step;
    return none;
}

std::string Compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::vector<std::string> Events(const Json::Value& summary) {
    std::vector<std::string> events;
    for (const Json::Value& e : summary["sinkEvents"])
        events.push_back(e["sink"].asString() + ":" + e["event"].asString() + Compact(e["args"]));
    return events;
}

// Runs a built-in scenario and checks what every run must end with.
Json::Value Scenario(const wchar_t* name) {
    const SandboxRun run = RunSandbox(std::wstring(L"--scenario ") + name);
    EXPECT_EQ(0u, run.exitCode) << run.err;
    EXPECT_TRUE(run.summary["ok"].asBool());
    EXPECT_TRUE(run.summary["plugins"]["balanced"].asBool());
    return run.summary;
}

TEST(Sandbox, DefaultScenarioStartsUpdatesSwitchesAndStops) {
    const Json::Value s = Scenario(L"default");
    const Json::Value& state = s["state"];
    EXPECT_EQ("full", state["scanType"].asString());
    EXPECT_EQ("[3,5]", Compact(state["scanModes"]));
    EXPECT_TRUE(state["backup"].asBool());
    EXPECT_EQ("2024.06.12.1015", state["signaturesVersion"].asString());
    EXPECT_EQ(7533120u, state["signaturesCount"].asUInt64());
    EXPECT_EQ("2024.05.01.0830", StepOf(s, "query", 4)["answer"].asString()) << "from update.txt before the update";
    EXPECT_EQ(2u, s["settings"]["reloadStatus"].asUInt());
    EXPECT_EQ("engines\\2024.06.12", s["settings"]["lastOkFolderInSandbox"].asString());
    EXPECT_EQ(1, s["scanSp"]["reloads"].asInt());
    EXPECT_EQ((std::vector<std::string>{"engines:OnReloadStarted[\"engines\\\\2024.06.12\"]",
                                        "engines:OnReloadEnded[\"engines\\\\2024.06.12\",0]",
                                        "settings:OnBackupStatusChanged[true]", "scan:OnScanModesChanged[3,5]"}),
              Events(s));
    EXPECT_TRUE(Has(s["files"]["created"], "engines\\2024.05.01\\Plugins\\nnml.cvd"));
    EXPECT_TRUE(Has(s["files"]["deleted"], "temp\\scan-4711.tmp"));
    EXPECT_FALSE(Has(s["files"]["deleted"], "common\\installer\\wslib.db"));
    EXPECT_EQ(0u, s["telemetry"].size());
    EXPECT_EQ(0u, s["update"]["requests"].size());
}

TEST(Sandbox, RecoveryScenarioRepairsTheEnginesAndAsksForARestart) {
    const Json::Value s = Scenario(L"recovery");
    ASSERT_EQ(1u, s["telemetry"].size());
    EXPECT_EQ("AntivirusScan.EnginesRecoveryStarted", s["telemetry"][0]["issue"].asString());
    const Json::Value& delayed = StepOf(s, "delayedStart");
    EXPECT_TRUE(Has(delayed["files"]["created"], "engines\\2024.05.01\\qvcore.dll"));
    EXPECT_FALSE(Has(delayed["files"]["created"], "engines\\2024.05.01\\scanclient.dll"));
    EXPECT_TRUE(Has(delayed["files"]["deleted"], "common\\installer\\wslib.db"));
    ASSERT_EQ(1u, delayed["updateRequests"].size());
    EXPECT_EQ("Antivirus-Engines-Recovery", delayed["updateRequests"][0]["requester"].asString());
    const Json::Value& install = StepOf(s, "install");
    ASSERT_EQ(1u, install["restarts"].size());
    EXPECT_EQ("KXSecurityService", install["restarts"][0]["serviceName"].asString());
    EXPECT_EQ(2u, s["settings"]["reloadStatus"].asUInt());
    EXPECT_EQ(0u, s["sinkEvents"].size());
    EXPECT_EQ(0x8004D082u, s["state"]["scanModesResult"].asUInt());
}

TEST(Sandbox, RemoteOnlyScenarioDeletesTheTenLocalFilesAndScansRemotely) {
    const Json::Value s = Scenario(L"remote-only");
    std::vector<std::string> deleted, ten;
    for (const Json::Value& v : StepOf(s, "init")["files"]["deleted"]) deleted.push_back(v.asString());
    for (const char* name : {"dalvik.cvd", "dalvik.ivd", "dalvik.xmd", "lhdb.cvd", "nnml.cvd", "xgdb.cvd", "mdx.xmd",
                             "sdx.cvd", "sdx.ivd", "sdx.xmd"})
        ten.push_back(std::string("engines\\2024.05.01\\Plugins\\") + name);
    std::sort(deleted.begin(), deleted.end());
    std::sort(ten.begin(), ten.end());
    EXPECT_EQ(ten, deleted);
    for (const Json::Value& created : s["files"]["created"])
        EXPECT_EQ(std::string::npos, created.asString().find("Plugins")) << created.asString();
    EXPECT_EQ("remote", s["state"]["scanType"].asString());
    EXPECT_EQ("[1,0]", Compact(s["state"]["scanModes"]));
    EXPECT_EQ((std::vector<std::string>{"scan:OnScanModesChanged[1,0]"}), Events(s));
}

TEST(Sandbox, BadInputGivesOneErrorLineAndAUsageExitCode) {
    const std::wstring folder = TempFolder(L"sandbox-bad");
    struct Case {
        const char* scenario; // file content; null: `arguments` alone
        const wchar_t* arguments;
        const char* mustName;
    };
    const Case cases[] = {
        {"{\"actions\": [{\"do\": \"init\"},", L"", "not valid JSON: line 1"},
        {R"({"actions": [{"do": "init", "expcet": 0}]})", L"", "field \"actions[0].expcet\": unknown field"},
        {nullptr, L"--bogus", "--bogus"},
    };
    for (const Case& c : cases) {
        std::wstring arguments = c.arguments;
        if (c.scenario) {
            ASSERT_TRUE(WriteBytes(folder + L"\\bad.json", c.scenario));
            arguments = L"--scenario-file \"" + folder + L"\\bad.json\"";
        }
        const SandboxRun run = RunSandbox(arguments);
        EXPECT_EQ(2u, run.exitCode) << c.mustName;
        const std::string& err = run.err;
        EXPECT_EQ(0u, err.find("avsandbox: ")) << err;
        EXPECT_NE(std::string::npos, err.find(c.mustName)) << err;
        EXPECT_GE(1, std::count(err.begin(), err.end(), '\n')) << "one line: " << err;
        EXPECT_TRUE(run.out.empty());
    }
    RemoveFolder(folder);
}

} // namespace
