#!/usr/bin/env bash
# Sets up the machine, builds the plug-in and the SDK library, and packs the release with CPack:
# build/package/AntivirusScan-<version>-win64.zip (the layout is listed in the README).
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
build="${AVSCAN_BUILD:-$here/build}"
bash "$here/scripts/setup.sh" >/dev/null
cmake -S "$here" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$here/cmake/mingw-w64-posix.cmake" >/dev/null
cmake --build "$build" -j"$(nproc)" --target AntivirusScan AntivirusScanSdk >/dev/null
rm -rf "$build/package"
(cd "$build" && cpack --config CPackConfig.cmake >/dev/null)
ls "$build"/package/*.zip
