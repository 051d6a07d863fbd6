#include "host/sandbox/Options.h"

#include "host/sandbox/BuiltinScenarios.h"
#include "host/sandbox/TextUtil.h"

namespace sandbox {

bool ParseOptions(const std::vector<std::wstring>& args, Options& options, std::string& error) {
    for (size_t i = 0; i < args.size(); ++i) {
        std::wstring arg = args[i];
        std::wstring value;
        bool inlineValue = false;
        const size_t equals = arg.find(L'=');
        if (arg.rfind(L"--", 0) == 0 && equals != std::wstring::npos) {
            value = arg.substr(equals + 1);
            arg = arg.substr(0, equals);
            inlineValue = true;
        }
        auto takeValue = [&](std::wstring& out) {
            if (inlineValue) {
                out = value;
            } else if (i + 1 < args.size()) {
                out = args[++i];
            } else {
                error = "option " + Utf8(arg) + " needs a value (see --help)";
                return false;
            }
            if (out.empty()) {
                error = "option " + Utf8(arg) + " needs a non-empty value (see --help)";
                return false;
            }
            return true;
        };
        auto noValue = [&]() {
            if (inlineValue) error = "option " + Utf8(arg) + " takes no value (see --help)";
            return !inlineValue;
        };
        if (arg == L"--help" || arg == L"-h" || arg == L"/?") {
            if (!noValue()) return false;
            options.help = true;
        } else if (arg == L"--scenario") {
            std::wstring name;
            if (!takeValue(name)) return false;
            options.scenario = Utf8(name);
            if (!FindBuiltinScenario(options.scenario)) {
                std::string names;
                for (const auto& s : BuiltinScenarios()) names += std::string(names.empty() ? "" : ", ") + s.name;
                error = "unknown scenario \"" + options.scenario + "\" (built-in scenarios: " + names + ")";
                return false;
            }
        } else if (arg == L"--scenario-file") {
            if (!takeValue(options.scenarioFile)) return false;
        } else if (arg == L"--summary") {
            if (!takeValue(options.summaryPath)) return false;
        } else if (arg == L"--sandbox") {
            if (!takeValue(options.sandboxFolder)) return false;
        } else if (arg == L"--json") {
            if (!noValue()) return false;
            options.json = true;
        } else if (arg == L"--keep") {
            if (!noValue()) return false;
            options.keep = true;
        } else if (arg == L"--verbose" || arg == L"-v") {
            if (!noValue()) return false;
            options.verbose = true;
        } else if (!arg.empty() && (arg[0] == L'-' || arg[0] == L'/')) {
            error = "unknown option \"" + Utf8(arg) + "\" (see --help)";
            return false;
        } else {
            error = "unexpected argument \"" + Utf8(arg) + "\" (see --help)";
            return false;
        }
    }
    if (!options.scenario.empty() && !options.scenarioFile.empty()) {
        error = "give either --scenario or --scenario-file, not both";
        return false;
    }
    return true;
}

std::string HelpText() {
    std::string text =
        "Usage: avsandbox [options]\n"
        "\n"
        "Loads AntivirusScan.AL from the program's folder through its exports and drives it the way the\n"
        "security service does: Init, Start, DelayedStart, the IAntivirusScan calls of its sibling\n"
        "plug-ins, update and remote-scan notifications on their own threads, Stop and UnInit. The\n"
        "sibling plug-ins are backed by real files in a sandbox folder: the engines folder (with\n"
        "\"Plugins\\update.txt\"), the signature folders, the common folder, the core temp folder, the\n"
        "settings file, a telemetry JSON-lines file and the log of log.dll. The scan service provider\n"
        "loads only while the engines folder holds its engine files; the update plug-in installs an\n"
        "engines kit by copying a folder. A readable trace is printed as the scenario runs, then a\n"
        "final state table.\n"
        "\n"
        "Options:\n"
        "  --scenario NAME       run a built-in scenario (default: \"default\"):\n";
    for (const auto& s : BuiltinScenarios()) {
        std::string name = s.name;
        name.resize(13, ' ');
        text += "                          " + name + s.summary + "\n";
    }
    text += "  --scenario-file PATH  run the scenario described in a JSON file: service configuration\n"
            "                        texts, which plug-ins are present or failing, the files of the\n"
            "                        installation and the host's actions in order (format:\n"
            "                        host/sandbox/README.md; example: host/sandbox/scenarios/)\n"
            "  --summary PATH        write the run's JSON summary (final state, every step, files created\n"
            "                        and deleted, sink events, telemetry, update requests) to PATH\n"
            "  --json                print the JSON summary on standard output; the trace and the table\n"
            "                        then go to standard error\n"
            "  --keep                keep the sandbox folder for inspection (it is deleted otherwise)\n"
            "  --sandbox DIR         build the sandbox in DIR instead of a new temporary folder; DIR is\n"
            "                        created when absent, must be empty, and is always kept\n"
            "  --verbose, -v         print every message the plug-in logs, not only warnings and errors\n"
            "  --help, -h            print this help and exit\n"
            "\n"
            "Options take their value as the next argument or after \"=\" (--summary=out.json).\n"
            "\n"
            "Exit status:\n"
            "  0  the scenario ran and every expectation in it held\n"
            "  1  the scenario ran but an expected result or answer differed (see the table's last rows)\n"
            "  2  usage error, unknown option, or an invalid scenario file (one line names the field)\n"
            "  3  the sandbox folder or the plug-in could not be set up\n";
    return text;
}

} // namespace sandbox
