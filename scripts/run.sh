#!/usr/bin/env bash
# Sets up the machine, builds the plug-in and the sandbox host, and runs the plug-in in it.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
build="${AVSCAN_BUILD:-$here/build}"
bash "$here/scripts/setup.sh" >/dev/null
cmake -S "$here" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$here/cmake/mingw-w64-posix.cmake" --no-warn-unused-cli >/dev/null
cmake --build "$build" -j"$(nproc)" --target avsandbox >/dev/null
source "$here/scripts/wine-env.sh" "$build"
/usr/lib/wine/wine64 "$build/bin/avsandbox.exe" "$@"
