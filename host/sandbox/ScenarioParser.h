#pragma once
// Reads a scenario from JSON text. Every mistake is reported as one line that names the field
// ("actions[2].value") and what was wrong with it; unknown fields are mistakes too, so that a
// misspelt key does not silently fall back to a default.
#include "host/sandbox/Scenario.h"

#include <stdexcept>
#include <string>

namespace sandbox {

class ScenarioError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// source names the text in messages (a file path or "built-in scenario NAME").
Scenario ParseScenario(const std::string& text, const std::string& source);

// The plug-in names a scenario may set up, as the component manager serves them.
bool IsKnownPluginName(const std::wstring& name);

} // namespace sandbox
