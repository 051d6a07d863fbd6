// The one export the test build of the plug-in adds to the two of the shipped one: a test puts
// its own file-call table in force inside the plug-in (null: the system's again).
#include "support/FileCalls.h"

extern "C" void AvscanReplaceFileCalls(const qv::file::FileCalls* calls) { qv::file::ReplaceCalls(calls); }
