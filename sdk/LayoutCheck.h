#pragma once
// Switches for the size and offset checks that stand beside every struct crossing a module
// boundary, as VST3 checks its released structs. The numbers are those of x86-64 Windows, where
// MinGW-w64 g++ and MSVC x64 lay these structs out alike; other targets skip the checks. A check
// that fails means that a released layout changed: the change is wrong, not the check.
#include <cstddef>

#if defined(_M_X64) || defined(__x86_64__)
#define QV_SDK_CHECK_LAYOUT 1
#else
#define QV_SDK_CHECK_LAYOUT 0
#endif

// A struct that holds a List or a Map is not standard-layout (the containers have virtual slots),
// and offsetof on it is conditionally supported: g++ and MSVC support it, g++ warns all the same.
#if defined(__GNUC__)
#define QV_SDK_LAYOUT_CHECKS_BEGIN                                                                                     \
    _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Winvalid-offsetof\"")
#define QV_SDK_LAYOUT_CHECKS_END _Pragma("GCC diagnostic pop")
#else
#define QV_SDK_LAYOUT_CHECKS_BEGIN
#define QV_SDK_LAYOUT_CHECKS_END
#endif
