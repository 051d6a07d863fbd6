#pragma once
// The outcome of a run in two forms: a JSON summary for programs (tests read it instead of the
// trace) and a final state table for people.
#include "host/sandbox/RunRecord.h"

#include <json/json.h>

namespace sandbox {

Json::Value BuildSummary(const RunRecord& record);
void PrintFinalTable(const RunRecord& record);

} // namespace sandbox
