#pragma once
// The command line of avsandbox.
#include <string>
#include <vector>

namespace sandbox {

struct Options {
    bool help = false;
    std::string scenario; // built-in name; empty: "default" unless a file is given
    std::wstring scenarioFile;
    std::wstring summaryPath;
    bool json = false;
    bool keep = false;
    std::wstring sandboxFolder;
    bool verbose = false;
};

// False with a one-line message for an unknown option, a missing value or a conflict.
bool ParseOptions(const std::vector<std::wstring>& args, Options& options, std::string& error);
std::string HelpText();

} // namespace sandbox
