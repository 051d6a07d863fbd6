#pragma once
// Feature locks are kept under their own names in the module's settings section, beside the
// module's fixed keys, and the store reads every "/" in a key as a step down a path. A feature
// name that could reach one of those keys is refused before anything is stored or cached.
#include "sdk/StringT.h"

namespace qv {

// True when `name` may name a feature lock. Otherwise writes one error line, attributed to
// `function`, saying what is wrong with it, and returns false. Refused: an empty name, a name
// holding a NUL (the store would cut the key there), a name whose first path step (leading "/"
// skipped) is "enableBackup", "reportHashChain", "reportSignatureInfo" or "engines", and a name
// made of "/" alone, which would address the section itself.
bool AcceptFeatureName(const wchar_t* function, const StringW& name);

} // namespace qv
