#!/usr/bin/env bash
# Sets up the machine, checks the formatting, runs the static analysis, builds everything, packs
# the release and runs every test under Wine through CTest, the release check among them.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
build="${AVSCAN_BUILD:-$here/build}"
bash "$here/scripts/setup.sh"
# Unformatted code fails the run before anything is built.
bash "$here/scripts/format-check.sh"
cmake -S "$here" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$here/cmake/mingw-w64-posix.cmake" >/dev/null
# A clang-tidy or cppcheck finding fails the run too, before the build (it reads the compile
# database that the configure step has just written).
bash "$here/scripts/static-check.sh" "$build"
cmake --build "$build" -j"$(nproc)"
# The release ZIP, for the release check among the tests (example host built against it).
bash "$here/scripts/package.sh" >/dev/null
source "$here/scripts/wine-env.sh" "$build"
ctest --test-dir "$build" --output-on-failure --timeout 600 -j"$(nproc)" "$@"
