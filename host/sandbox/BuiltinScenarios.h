#pragma once
// The named scenarios that come with the sandbox, written in the scenario file format so that
// they go through the same parser as a user's file.
#include <string>
#include <vector>

namespace sandbox {

struct BuiltinScenario {
    const char* name;
    const char* summary; // one line, for --help
    const char* json;
};

const std::vector<BuiltinScenario>& BuiltinScenarios();
// Null when there is no scenario of that name.
const BuiltinScenario* FindBuiltinScenario(const std::string& name);

} // namespace sandbox
