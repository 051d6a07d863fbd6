#!/usr/bin/env bash
# Mutation run: makes small source-level slips in entry/, plugin/ and support/, one at a time,
# rebuilds and runs the tests, and reports which slips no test noticed. Not part of CI: it takes
# hours for a full sample. The score leaves out the survivors listed, each with the reason no test
# can tell it from the original, in tests/mutants-equivalent.tsv; see tests/README.md.
#   bash scripts/mutants.sh [-n COUNT] [-s SEED] [-t SECONDS] [-f REGEX] [-i IDS] [-k K] [-e E] [-l] [-c]
#     -n  mutants in the sample (150)        -s  seed of the sample (1)
#     -t  time limit of each test program (120)  -f  only files whose path matches REGEX
#     -i  only these mutants of the sample (comma-separated numbers, e.g. the survivors of a run)
#     -k  skip the first K mutants of the sample (to go on with a run that was cut short)
#     -e  stop after mutant E (to share a sample between two mutation trees)
#     -l  list the sample and stop
#     -c  take the verdicts that earlier runs in this mutation tree recorded (results/known.tsv)
#         as they are, and run only the mutants without one and those named by -i
# The sources are copied into the mutation tree (AVSCAN_MUTANTS, default build-mutants/) and
# mutated there, so the working tree is never touched; the copy's file is restored after each
# mutant and on any exit. The build there is incremental; the tests the mutated file needs run
# first, the rest only when those pass. A mutant that does not compile is not counted.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
count=150 seed=1 limit=120 filter='' ids='' skip=0 last=1000000 list_only=0 reuse=0
while getopts "n:s:t:f:i:k:e:lc" opt; do
  case "$opt" in
    n) count="$OPTARG" ;; s) seed="$OPTARG" ;; t) limit="$OPTARG" ;; f) filter="$OPTARG" ;; i) ids=",$OPTARG," ;; k) skip="$OPTARG" ;; e) last="$OPTARG" ;; l) list_only=1 ;; c) reuse=1 ;;
    *) sed -n '6,14p' "$0" >&2; exit 2 ;;
  esac
done
root="${AVSCAN_MUTANTS:-$here/build-mutants}"
src="$root/src" build="$root/build" out="$root/results"
mkdir -p "$src" "$out"

# A copy of the sources (tracked, and new ones not ignored), refreshed from the working tree at
# every run. Only files whose text differs are copied, and they get a fresh time: make must see
# every change, including a file put back by an earlier run.
(cd "$here" && git ls-files -z -c -o --exclude-standard) | while IFS= read -r -d '' f; do
  cmp -s "$here/$f" "$src/$f" || { mkdir -p "$(dirname "$src/$f")" && cp "$here/$f" "$src/$f"; }
done

# The sample: every candidate slip of every source, each ranked by a seeded hash of its file, its
# kind and the text of its line before and after, and the lowest ranks taken. An edit elsewhere
# leaves the rest of the sample as it was, so the survivors of one run are still in the next.
python3 - "$src" "$seed" "$count" "$filter" >"$out/sample.tsv" <<'EOF'
import collections, glob, hashlib, json, re, sys
src, seed, count, pattern = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), sys.argv[4]
SWAPS = [(" == ", " != "), (" != ", " == "), (" < ", " <= "), (" <= ", " < "), (" > ", " >= "),
         (" >= ", " > "), (" && ", " || "), (" || ", " && "), (" + 1", " - 1"), (" - 1", " + 1"),
         ("return true;", "return false;"), ("return false;", "return true;")]
SEVERITIES = ["LOG_SEV_ERROR", "LOG_SEV_WARNING", "LOG_SEV_INFO", "LOG_SEV_DETAIL"]
CODES = ["kSuccess", "kInvalidParameter", "kNotFound", "kInternalError", "kFunctionFailed", "kCantWrite",
         "kDependencyNotFound", "kInvalidState", "kNotEnoughMemory", "kInvalidData"]
def blank_strings(line):  # string and character literals and // comments cannot be mutated
    line = re.sub(r'L?"(\\.|[^"\\])*"', lambda m: "\x01" * len(m.group(0)), line)
    line = re.sub(r"'(\\.|[^'\\])*'", lambda m: "\x01" * len(m.group(0)), line)
    return line.split("//")[0]
mutants, lines_of = [], {}
for path in sorted(glob.glob(src + "/entry/*.cpp") + glob.glob(src + "/plugin/*.cpp") + glob.glob(src + "/support/*.cpp")):
    rel = path[len(src) + 1:]
    if pattern and not re.search(pattern, rel):
        continue
    lines_of[rel] = open(path, encoding="utf-8").read().split("\n")
    for no, line in enumerate(lines_of[rel], 1):
        code = blank_strings(line)
        if not code.strip() or code.lstrip().startswith(("#", "*", "/*")):
            continue
        def add(kind, start, end, text):
            mutants.append((rel, no, kind, line[:start] + text + line[end:]))
        for old, new in SWAPS:
            for m in re.finditer(re.escape(old), code):
                add("operator", m.start(), m.end(), new)
        for m in re.finditer(r"(?<![\w.])(\d+)(?![\w.])", code):
            if not re.search(r"\[\s*$", code[:m.start()]):  # not an array size
                add("constant", m.start(), m.end(), str(int(m.group(1)) + 1))
        for m in re.finditer(r"\bLOG_SEV_[A-Z]+\b", code):
            add("severity", m.start(), m.end(), SEVERITIES[(SEVERITIES.index(m.group(0)) + 1) % 4] if m.group(0) in SEVERITIES else m.group(0))
        for m in re.finditer(r"\bk[A-Z]\w+\b", code):
            if m.group(0) in CODES:
                add("error code", m.start(), m.end(), CODES[(CODES.index(m.group(0)) + 1) % len(CODES)])
        m = re.match(r"^(\s*)(if|while) \((.*)\)( \{|)$", code)
        if m and code.count("(") == code.count(")"):
            start, end = len(m.group(1)) + len(m.group(2)) + 2, len(code) - len(m.group(4)) - 1
            add("inverted condition", start, end, "!(" + line[start:end] + ")")  # the line's text, literals and all
        if re.match(r"^\s*auto \w+ = \w+\.Lock\(\);\s*$", code):
            add("removed lock guard", 0, len(line), "")
        elif re.match(r"^\s*(\(void\))?[\w:.>\-]+(\(.*\))?(\.|->)?[\w:]*\(.*\);\s*$", code) and not code.lstrip().startswith("return"):
            add("removed call", 0, len(line), "")
        elif re.match(r"^\s*[\w.\->\[\]]+ (=|\+=|-=|\|=|&=) [^=].*;\s*$", code) and code.count("(") == code.count(")"):
            add("removed statement", 0, len(line), "")
# A slip's key: its file, kind and line before and after; the same slip on identical lines of one
# file is told apart by its occurrence.
seen, ranked = collections.Counter(), []
for rel, no, kind, text in mutants:
    key = (rel, kind, lines_of[rel][no - 1].strip(), text.strip())
    seen[key] += 1
    rank = hashlib.sha256(json.dumps([seed, *key, seen[key]]).encode()).hexdigest()
    ranked.append((rank, (rel, no, kind, text), json.dumps([*key, seen[key]])))
ranked.sort(key=lambda entry: entry[0])
# In the order drawn, so that a run cut short is still a fair sample of its first mutants.
for i, (_, (rel, no, kind, text), key) in enumerate(ranked[:count], 1):
    print("\t".join([str(i), rel, str(no), kind, json.dumps(text), key]))
chosen = ranked[:count]
print("mutants: %d candidates, %d in the sample (seed %d)" % (len(mutants), len(chosen), seed), file=sys.stderr)
EOF
if [ "$list_only" -eq 1 ]; then cat "$out/sample.tsv"; exit 0; fi

# The tests that a source needs first; a source not named here runs the whole suite at once.
first_tests() {
  case "$1" in
    entry/DllMain.cpp) echo "test_entry|test_no_hang" ;;
    entry/*) echo "test_entry|test_bad_input" ;;
    plugin/Switches.cpp | plugin/FeatureNames.cpp) echo "test_switches" ;;
    plugin/ScanModes.cpp) echo "test_scan_modes" ;;
    plugin/Settings.cpp) echo "test_settings" ;;
    plugin/CoreTemp.cpp) echo "test_core_temp" ;;
    plugin/EnginesInfo.cpp | plugin/UpdateFile.cpp) echo "test_engines_info" ;;
    plugin/Reload.cpp) echo "test_reload" ;;
    plugin/Recovery.cpp | plugin/Telemetry.cpp) echo "test_recovery" ;;
    plugin/RemoteOnlyFiles.cpp) echo "test_remote_only_files" ;;
    plugin/Sinks.cpp) echo "test_plugin_sinks" ;;
    plugin/Lifecycle.cpp | plugin/ServPlugin.cpp) echo "test_lifecycle|test_host_plugins|test_no_hang" ;;
    support/StringT.cpp) echo "test_string" ;;
    support/SyncRWLock.cpp) echo "test_rwlock|test_rwlock_memory" ;;
    support/Log.cpp | support/FunctionTrace.cpp) echo "test_logging" ;;
    support/QvValue*.cpp) echo "test_value|test_settings" ;;
    support/FileUtil.cpp | support/FolderHandle.cpp | support/NtFile.cpp | support/DirectoryWalker.cpp)
      echo "test_fileutil|test_deletion_safety" ;;
    support/RundownProtection.cpp | support/ProcessExit.cpp) echo "test_shutdown_race|test_entry|test_no_hang" ;;
    support/WineChecks.cpp | support/VolumeRoot.cpp | support/FileIdentity.cpp) echo "test_volumes|test_file_layer" ;;
    support/FileCalls.cpp | support/DeleteByHandle.cpp) echo "test_file_layer|test_deletion_safety" ;;
    *) echo "" ;;
  esac
}

current="" original=""
# Put back with a fresh time (no cp -p), so that make rebuilds the file instead of keeping the
# mutant's object, which is newer than the original's time.
restore() { if [ -n "$current" ]; then cp "$original" "$src/$current"; current=""; fi; }
trap restore EXIT
trap 'exit 130' INT TERM HUP

build_all() { nice -n 15 cmake --build "$build" -j"$(nproc)" >"$out/build.log" 2>&1; }
# The DLL, log.dll and the named test programs only (a change in support/ relinks every program).
build_some() {
  local targets=(AntivirusScan log) t
  for t in ${1//|/ }; do targets+=("$t"); done
  nice -n 15 cmake --build "$build" -j"$(nproc)" --target "${targets[@]}" >"$out/build.log" 2>&1
}
# -O1: the behaviour under test is the same and each rebuild takes half the time.
nice -n 15 cmake -S "$src" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$src/cmake/mingw-w64-posix.cmake" \
  -DCMAKE_CXX_FLAGS_RELEASE="-O1 -DNDEBUG" >"$out/configure.log" 2>&1 || { tail -20 "$out/configure.log"; exit 1; }
echo "mutants: building the unmutated tree" >&2
build_all || { tail -30 "$out/build.log"; exit 1; }
source "$src/scripts/wine-env.sh" "$build"
# wine-env.sh sets an EXIT trap of its own (it stops the wineserver): keep both.
trap 'restore; /usr/lib/wine/wineserver -k >/dev/null 2>&1 || true' EXIT
# A mutant that loops forever fails its program at the time limit.
export AVSCAN_STRESS_SECONDS=3 AVSCAN_SWAP_ITERATIONS=100 AVSCAN_TEST_TIMEOUT="$limit"
run_tests() { # regex (empty: all), exclude regex
  local args=(--test-dir "$build" --timeout "$limit" -j"$(nproc)" --stop-on-failure --output-on-failure)
  [ -n "$1" ] && args+=(-R "^($1)\$")
  [ -n "${2:-}" ] && args+=(-E "^($2)\$|^release_package\$") || args+=(-E '^release_package$')
  nice -n 15 ctest "${args[@]}" >"$out/ctest.log" 2>&1
}
run_tests "" || { echo "mutants: the unmutated tree fails its tests; see $out/ctest.log" >&2; exit 1; }

# The programs that failed (or timed out) in the last run.
failed_tests() { sed -n 's/^[[:space:]]*[0-9]* - \(test_[a-z_]*\) (.*/\1/p' "$out/ctest.log" | xargs | tr ' ' ','; }
# A kill stands only when the programs that failed fail once more: on two loaded cores a timing
# test (the load test's five-second progress watch, say) can fail once without any slip.
failed_again() {
  local failed
  failed=$(failed_tests)
  [ -n "$failed" ] || return 0
  ! run_tests "${failed//,/|}"
}
# Survivors judged equivalent (no test can tell them from the original), each with its reason:
# file, the line before and after the slip, the non-blank line above it (all trimmed) and the reason,
# tab-separated.
equivalents="$here/tests/mutants-equivalent.tsv"
equivalent_reason() { # original file, mutated file, line number
  python3 - "$equivalents" "$file" "$1" "$2" "$3" <<'PY'
import sys
table, rel, original, mutated, no = sys.argv[1:6]
no = int(no)
before = open(original, encoding="utf-8").read().split("\n")
after = open(mutated, encoding="utf-8").read().split("\n")
above = next((l.strip() for l in reversed(before[:no - 1]) if l.strip()), "")
try:
    rows = [l.rstrip("\n").split("\t") for l in open(table, encoding="utf-8") if l.strip() and not l.startswith("#")]
except OSError:
    rows = []
for row in rows:
    if len(row) == 5 and row[:4] == [rel, before[no - 1].strip(), after[no - 1].strip(), above]:
        print(row[4])
        break
PY
}
killed=0 survived=0 stillborn=0 equivalent=0
: >"$out/survivors.txt"
: >"$out/verdicts.txt"
# Writes the sample's line `text` (JSON) at line `line` of the copy of `file` into `into`.
mutate() { # file, line, text, into
  python3 -c 'import json, sys
lines = open(sys.argv[1], encoding="utf-8").read().split("\n")
lines[int(sys.argv[2]) - 1] = json.loads(sys.argv[3])
open(sys.argv[4], "w", encoding="utf-8").write("\n".join(lines))' "$1" "$2" "$3" "$4"
}
# A survivor: counted, checked against the equivalents and listed with its diff.
survivor() { # original copy, mutated copy
  survived=$((survived + 1)); verdict="SURVIVED"
  reason=$(equivalent_reason "$1" "$2" "$line")
  if [ -n "$reason" ]; then
    equivalent=$((equivalent + 1)); verdict="SURVIVED, judged equivalent: $reason"
  fi
  diff=$(diff -u --label "a/$file" --label "b/$file" "$1" "$2" || true)
  printf '#%s %s:%s (%s)%s\n%s\n\n' "$id" "$file" "$line" "$kind" "${reason:+ judged equivalent: $reason}" "$diff" \
    >>"$out/survivors.txt"
}
while IFS=$'\t' read -r id file line kind text key; do
  named=0
  [[ "$ids" == *",$id,"* ]] && named=1
  [ "$reuse" -eq 1 ] || [ -z "$ids" ] || [ "$named" -eq 1 ] || continue
  [ "$id" -gt "$skip" ] && [ "$id" -le "$last" ] || continue
  # With -c a mutant not named by -i takes the verdict an earlier run recorded, if any.
  if [ "$reuse" -eq 1 ] && [ "$named" -eq 0 ]; then
    known=$(grep -F -- "$key"$'\t' "$out/known.tsv" 2>/dev/null | tail -n 1 || true)
    if [[ "$known" == "$key"$'\t'* ]]; then
      verdict="${known#*$'\t'}"
      case "$verdict" in
        "does not compile") stillborn=$((stillborn + 1)) ;;
        SURVIVED*) restore; mutate "$src/$file" "$line" "$text" "$out/mutated"; survivor "$src/$file" "$out/mutated" ;;
        *) killed=$((killed + 1)) ;;
      esac
      echo "mutant $id $file:$line ($kind): $verdict (an earlier run) [so far $killed of $((killed + survived)) killed]" |
        tee -a "$out/verdicts.txt" >&2
      continue
    fi
  fi
  [ "$current" = "$file" ] || { restore; current="$file"; original="$out/original"; cp -p "$src/$file" "$original"; }
  mutate "$original" "$line" "$text" "$src/$file"
  first=$(first_tests "$file")
  if ! { [ -n "$first" ] && build_some "$first"; } && ! build_all; then
    stillborn=$((stillborn + 1)); verdict="does not compile"
  else
    if ! run_tests "$first" && failed_again; then
      killed=$((killed + 1)); verdict="killed by $(failed_tests)"
    elif [ -n "$first" ] && ! { build_all && run_tests "" "$first"; } && failed_again; then
      killed=$((killed + 1)); verdict="killed by $(failed_tests), not by its own tests"
    else
      survivor "$original" "$src/$file"
    fi
  fi
  cp "$original" "$src/$file"
  # Every verdict is kept for -c; a survivor recorded as "SURVIVED" (its reason is looked up again).
  recorded="$verdict"
  [[ "$verdict" != SURVIVED* ]] || recorded="SURVIVED"
  printf '%s\t%s\n' "$key" "$recorded" >>"$out/known.tsv"
  [[ "$verdict" != killed* ]] || cp "$out/ctest.log" "$out/killed-$id.log" # what failed, for a doubt later
  echo "mutant $id $file:$line ($kind): $verdict [so far $killed of $((killed + survived)) killed]" | tee -a "$out/verdicts.txt" >&2
  [[ "$verdict" != SURVIVED* ]] || echo "$diff" >&2
done < <(grep -v '^mutants:' "$out/sample.tsv")
restore
build_all || true

total=$((killed + survived))
echo
cat "$out/survivors.txt"
if [ "$total" -gt 0 ]; then
  echo "mutants: $killed killed, $survived survived ($equivalent of them judged equivalent in $equivalents), $stillborn did not compile (not counted)"
  echo "mutants: $((100 * killed / total))% of the $total that compiled killed"
  [ "$total" -gt "$equivalent" ] &&
    echo "mutants: score $((100 * killed / (total - equivalent)))% — $killed killed of the $((total - equivalent)) not judged equivalent"
else
  echo "mutants: no mutant compiled"
fi
