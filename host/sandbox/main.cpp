// avsandbox: runs AntivirusScan.AL in a sandbox host on real files (see Options.cpp for usage).
#include "host/sandbox/BuiltinScenarios.h"
#include "host/sandbox/Console.h"
#include "host/sandbox/Options.h"
#include "host/sandbox/SandboxFolder.h"
#include "host/sandbox/ScenarioParser.h"
#include "host/sandbox/ScenarioRunner.h"
#include "host/sandbox/Summary.h"
#include "host/sandbox/TextUtil.h"

#include <windows.h>
#include <shellapi.h>

#include <exception>

namespace {

using namespace sandbox;

enum ExitCode { kOk = 0, kExpectationFailed = 1, kUsage = 2, kSetup = 3 };

int Fail(int code, const std::string& message) {
    Out().Error("avsandbox: " + message);
    return code;
}

std::vector<std::wstring> Arguments() {
    std::vector<std::wstring> args;
    int count = 0;
    LPWSTR* argv = CommandLineToArgvW(GetCommandLineW(), &count);
    if (!argv) return args;
    for (int i = 1; i < count; ++i) args.push_back(argv[i]);
    LocalFree(argv);
    return args;
}

bool LoadScenario(const Options& options, Scenario& scenario, std::string& error) {
    try {
        if (!options.scenarioFile.empty()) {
            std::string text;
            if (!ReadFileText(options.scenarioFile, text)) {
                error = "cannot read scenario file " + Utf8(options.scenarioFile) +
                        " [error = " + std::to_string(GetLastError()) + "]";
                return false;
            }
            scenario = ParseScenario(text, Utf8(options.scenarioFile));
            return true;
        }
        const BuiltinScenario* builtin = FindBuiltinScenario(options.scenario.empty() ? "default" : options.scenario);
        scenario = ParseScenario(builtin->json, std::string("built-in scenario ") + builtin->name);
        scenario.source = "built-in";
        return true;
    } catch (const ScenarioError& e) {
        error = e.what();
        return false;
    }
}

void PrintHeader(const Scenario& scenario, const SandboxLayout& layout) {
    Out().Line("avsandbox: scenario \"" + scenario.name + "\" (" + scenario.source + ")");
    if (!scenario.description.empty()) Out().Line("  " + scenario.description);
    Out().Line("sandbox   " + Utf8(layout.root));
    Out().Line("  engines      " + Utf8(layout.Relative(layout.engines)));
    Out().Line("  signatures   " + Utf8(layout.Relative(layout.signatures)) + "\\*");
    Out().Line("  common       " + Utf8(layout.Relative(layout.common)));
    Out().Line("  core temp    " + Utf8(layout.Relative(layout.coreTemp)));
    Out().Line("  kits         " + Utf8(layout.Relative(layout.kits)));
    Out().Line("  settings     " + Utf8(layout.Relative(layout.settingsFile)));
    Out().Line("  telemetry    " + Utf8(layout.Relative(layout.telemetryFile)));
    Out().Line("  log          " + Utf8(layout.Relative(layout.logFile)));
}

int Run() {
    Options options;
    std::string error;
    if (!ParseOptions(Arguments(), options, error)) return Fail(kUsage, error);
    if (options.help) {
        Out().Document(HelpText());
        return kOk;
    }
    Out().TraceToStandardError(options.json);

    Scenario scenario;
    if (!LoadScenario(options, scenario, error)) return Fail(kUsage, error);

    std::wstring root;
    const bool given = !options.sandboxFolder.empty();
    if (given ? !PrepareGivenRoot(options.sandboxFolder, root, error) : !MakeTemporaryRoot(root, error))
        return Fail(kSetup, error);
    const bool keep = options.keep || given;
    const SandboxLayout layout = LayOut(root, scenario);
    if (!Populate(layout, scenario, error)) {
        if (!keep) RemoveTree(root);
        return Fail(kSetup, "cannot lay out the sandbox: " + error);
    }
    PrintHeader(scenario, layout);

    RunRecord record;
    bool ran;
    {
        RunOptions runOptions;
        runOptions.verbose = options.verbose;
        ScenarioRunner runner(scenario, layout, runOptions);
        ran = runner.Run(record, error);
    }
    record.kept = keep;
    PrintFinalTable(record);

    const Json::Value summary = BuildSummary(record);
    std::string summaryError;
    if (!options.summaryPath.empty() && !WriteFileText(options.summaryPath, PrettyJson(summary)))
        summaryError = "cannot write the summary to " + Utf8(options.summaryPath);
    if (options.json) Out().Document(PrettyJson(summary));

    if (keep)
        Out().Line("sandbox kept in " + Utf8(root));
    else
        RemoveTree(root);

    if (!ran) return Fail(kSetup, error);
    if (!summaryError.empty()) return Fail(kSetup, summaryError);
    return record.Ok() ? kOk : kExpectationFailed;
}

} // namespace

int main() {
    try {
        return Run();
    } catch (const std::exception& e) {
        return Fail(kSetup, std::string("unexpected failure: ") + e.what());
    } catch (...) {
        return Fail(kSetup, "unexpected failure");
    }
}
