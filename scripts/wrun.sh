#!/usr/bin/env bash
# Developer helper: runs one program of a build under Wine with the build's prefix, output to a
# file first (a pipe straight from Wine can keep the reader waiting after the program ends).
build="$1"; shift
export WINEPREFIX="$build/wineprefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
out=$(mktemp)
timeout "${WRUN_TIMEOUT:-300}" /usr/lib/wine/wine64 "$@" >"$out" 2>&1 </dev/null
rc=$?
cat "$out"; rm -f "$out"
exit $rc
