#pragma once
// Documents nested far deeper than any stack allows a recursive walk: chains of objects
// {"enabled": {"enabled": ... true}}. jsoncpp copies and destroys its values recursively, so these
// are built and taken apart here without recursion; a test hands them only to code that must not
// walk them whole.
#include <json/json.h>

#include <functional>
#include <string>

namespace testing_support {

// `levels` objects, each holding the next under "enabled"; the innermost holds true.
Json::Value NestedEnabled(int levels);
std::string NestedEnabledText(int levels);
// Empties `value` one level at a time, so that no destructor recurses.
void ReleaseDeep(Json::Value& value);

// Runs `job` on a new thread whose stack reserve is `bytes`, as a host's thread may have, and
// waits for it. False when the thread could not be made or did not end within a minute.
bool RunWithStack(size_t bytes, const std::function<void()>& job);

} // namespace testing_support
