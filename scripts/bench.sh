#!/usr/bin/env bash
# Sets up the machine, builds the plug-in and the benchmark programs, runs them all under Wine and
# prints one table: each measurement, its baseline measured in the same run, the ratio and the
# goal, and where the documented algorithm sets a higher floor, that floor measured in the same
# run and the ratio to it with its own goal. A goal that is missed shows as MISS in the table;
# the exit status is non-zero only when a benchmark program fails to run to its end.
set -uo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
build="${AVSCAN_BUILD:-$here/build}"
results="$build/bench-results"
mkdir -p "$build"

bash "$here/scripts/setup.sh" >"$build/bench-setup.log" 2>&1 || { cat "$build/bench-setup.log"; exit 1; }
if ! { cmake -S "$here" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$here/cmake/mingw-w64-posix.cmake" -DAVSCAN_BENCH=ON &&
       cmake --build "$build" -j"$(nproc)" --target avbench_support avbench_plugin avbench_memory; } \
     >"$build/bench-build.log" 2>&1; then
  tail -40 "$build/bench-build.log"
  exit 1
fi
source "$here/scripts/wine-env.sh" "$build"

rm -rf "$results"
mkdir -p "$results"
status=0
# Program and arguments, in the order of the table.
runs=("plugin queries threads" "support" "plugin clean reload startup update" "memory")
for i in "${!runs[@]}"; do
  read -r name args <<<"${runs[$i]}"
  echo "bench: avbench_$name ${args:-}" >&2
  # Output goes to files first: a pipe straight from Wine can keep its reader waiting.
  # shellcheck disable=SC2086
  timeout 900 /usr/lib/wine/wine64 "$build/bin/avbench_$name.exe" $args \
    >"$results/$i-$name.out" 2>"$results/$i-$name.err" </dev/null
  rc=$?
  if [ "$rc" -ne 0 ]; then
    echo "bench: avbench_$name ${args:-} ended with status $rc" >&2
    cat "$results/$i-$name.err" >&2
    status=1
  fi
done

{
  echo "Date: $(date -u '+%Y-%m-%d %H:%M UTC')"
  echo "Machine: $(nproc) processors, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'), $(/usr/lib/wine/wine64 --version 2>/dev/null)"
  echo
  echo "| # | What | Measurement | Baseline (same run) | Ratio | Goal | Result | Floor (same run) | To floor | Goal | Result |"
  echo "|---|---|---|---|---|---|---|---|---|---|---|"
  cat "$results"/*.out | awk -F'\t' '
    { sub(/\r$/, "") }  # the programs write text-mode line ends
    $1 == "ROW" {
      n++
      if ($9 == "") floor = "| - | - | - | - |"
      else floor = sprintf("| %s | %s | %s | %s |", $9, $10, $11, $12)
      printf "| %d | %s | %s | %s | %s | %s | %s %s\n", n, $2, $3, $4, $5, $6, $7, floor
      notes[n] = $8
    }
    END {
      print ""
      print "Notes (by row):"
      for (i = 1; i <= n; i++) if (notes[i] != "") printf "- [%d] %s\n", i, notes[i]
    }'
} >"$results/table.md"
cat "$results/table.md"
misses=$(grep '^| [0-9]' "$results/table.md" | awk -F' [|] ' '$7 == "MISS"' | wc -l)
floorMisses=$(grep -c '| MISS |$' "$results/table.md" || true)
echo
echo "bench: $(grep -c '^| [0-9]' "$results/table.md") rows, $misses missing their goal, $floorMisses more than 1.2x their algorithm's floor; results in $results"
exit $status
