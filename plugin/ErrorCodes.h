#pragma once
#include <windows.h>

namespace qv {
// Codes this plug-in returns that the SDK headers of the platform do not all name.
constexpr DWORD kErrorEventRegistrationRefused = 15025;
// A recovery-mode reload found the engines loadable again: the data were repaired.
constexpr DWORD kErrorDataLostRepair = 6843;
} // namespace qv
