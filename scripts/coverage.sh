#!/usr/bin/env bash
# Line and branch coverage of entry/, plugin/ and support/ by the whole test suite under Wine.
# A separate build tree (build-coverage/, override with AVSCAN_COVERAGE_BUILD) compiled and linked
# with --coverage; the Windows programs write their .gcda files beside the objects, through
# Wine's Z: drive, and the MinGW-w64 gcov reads them back through gcovr. Prints a per-file table
# and one total line, and writes an HTML report to build-coverage/coverage/index.html.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
build="${AVSCAN_COVERAGE_BUILD:-$here/build-coverage}"
bash "$here/scripts/setup.sh"
if ! command -v gcovr >/dev/null; then
  echo "coverage: installing gcovr"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq gcovr
fi
# The gcov that matches the cross compiler: its .gcno format is the compiler's own.
gcov="$(command -v x86_64-w64-mingw32-gcov-posix || command -v x86_64-w64-mingw32-gcov)"

# Unoptimised, so that lines and branches are the source's; counters updated atomically, since
# the plug-in runs on many threads at once; static runtimes as in the toolchain.
link="-static -static-libgcc -static-libstdc++ --coverage"
cmake -S "$here" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$here/cmake/mingw-w64-posix.cmake" \
      -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic" \
      -DCMAKE_EXE_LINKER_FLAGS="$link" -DCMAKE_SHARED_LINKER_FLAGS="$link" >/dev/null
cmake --build "$build" -j"$(nproc)"

# Counts start from zero each run. The programs run one at a time: several processes of the
# plug-in would otherwise merge into the same .gcda files at once.
find "$build" -name '*.gcda' -delete
source "$here/scripts/wine-env.sh" "$build"
# The release check looks at the package, not at the code; it has its own command.
ctest --test-dir "$build" --timeout 900 -j1 -E "^release_package$" "$@" || echo "coverage: some tests failed; the figures below still count"

if [ -z "$(find "$build" -name '*.gcda' -print -quit)" ]; then
  echo "coverage: no .gcda file was written under $build" >&2
  exit 1
fi
mkdir -p "$build/coverage"
# Every object of the build counts: the support templates are also instantiated in the tests that
# drive them directly. The Wine prefix is left out (its Z: drive leads back to the whole disk).
(cd "$build" && gcovr --root "$here" --filter "$here/entry/" --filter "$here/plugin/" --filter "$here/support/" \
   --exclude-directories '.*/wineprefix' --gcov-executable "$gcov" \
   --html-details "$build/coverage/index.html" --json-summary "$build/coverage/summary.json" "$build")
python3 - "$build/coverage/summary.json" <<'PY'
import json, sys
s = json.load(open(sys.argv[1]))
print("%-40s %8s %8s" % ("file", "lines", "branches"))
for f in sorted(s["files"], key=lambda f: f["filename"]):
    print("%-40s %7.1f%% %7.1f%%" % (f["filename"], f["line_percent"], f.get("branch_percent") or 0.0))
print("lines: %.1f%% branches: %.1f%%" % (s["line_percent"], s["branch_percent"]))
PY
echo "coverage: HTML report in $build/coverage/index.html"
