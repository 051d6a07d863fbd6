#pragma once
// Turning a recorded line into readable text and sending it to the configured outputs.
#include "host/logdll/LogStore.h"

namespace logdll {

// "2024-05-01 10:00:00.123 [  1234] INFO    AntivirusScan  ....text", where the dots are two
// spaces per call depth; messages other than trace lines name their function before the text.
std::wstring FormatLine(const LogRecord& record, int depth);

// Writes one formatted line to the file and/or the console; the caller holds the store lock.
void EmitLine(LogStore* store, const std::wstring& line);

} // namespace logdll
