#pragma once
// Every code the plug-in returns from its exports and interface slots, in one place. The
// Win32 codes keep their system values; the recovery code is part of the published interface
// and stays declared there. The sink containers of support/ return kSuccess, kInvalidParameter
// and kFunctionFailed by their Win32 names.
//
// A result of a sibling plug-in or of Win32 that is ignored on purpose is cast to (void) at the
// call, so that every ignored result is visible as such.
#include "sdk/IAntivirusScan.h"

#include <windows.h>

namespace qv {

constexpr DWORD kSuccess = ERROR_SUCCESS;                         // 0
constexpr DWORD kPathNotFound = ERROR_PATH_NOT_FOUND;             // 3
constexpr DWORD kNotEnoughMemory = ERROR_NOT_ENOUGH_MEMORY;       // 8: a slot ran out of memory
constexpr DWORD kInvalidData = ERROR_INVALID_DATA;                // 13
constexpr DWORD kInvalidParameter = ERROR_INVALID_PARAMETER;      // 87: a null out-pointer or a bad name
constexpr DWORD kCantWrite = ERROR_CANTWRITE;                     // 1013: the settings store refused
constexpr DWORD kNotFound = ERROR_NOT_FOUND;                      // 1168: no such object or interface
constexpr DWORD kInternalError = ERROR_INTERNAL_ERROR;            // 1359: an unexpected exception
constexpr DWORD kFunctionFailed = ERROR_FUNCTION_FAILED;          // 1627
constexpr DWORD kDependencyNotFound = ERROR_DEPENDENCY_NOT_FOUND; // 5002: a sibling plug-in is missing
constexpr DWORD kInvalidState = ERROR_INVALID_STATE;              // 5023
// A recovery-mode reload found the engines loadable again: the data were repaired.
constexpr DWORD kDataLostRepair = 6843;
// The update plug-in refused the event registration.
constexpr DWORD kEventRegistrationRefused = 15025;
// While engines recovery runs, answers are withheld with this code.
using kxsdk::AntivirusScan::kRecoveryInProgress;

} // namespace qv
