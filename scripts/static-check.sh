#!/usr/bin/env bash
# The static-analysis gate: clang-tidy (the checks of .clang-tidy) and cppcheck over entry/,
# plugin/, support/ and sdk/, as the MinGW build compiles them. Any finding fails it; a false
# positive is suppressed where it stands, with its reason (NOLINT(check) for clang-tidy,
# cppcheck-suppress id for cppcheck).
#   bash scripts/static-check.sh [build folder]     (default build/, or AVSCAN_BUILD)
# It reads the build's compile_commands.json and configures the build folder first when there is
# none. Files are analysed in parallel, one process per core.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-${AVSCAN_BUILD:-$here/build}}"
jobs="$(nproc)"
cd "$here"
if [ ! -f "$build/compile_commands.json" ]; then
  cmake -S "$here" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$here/cmake/mingw-w64-posix.cmake" >/dev/null
fi
work="$build/static-check"
rm -rf "$work" && mkdir -p "$work"

# The sources of the plug-in, and one unit that includes every SDK header, so that the headers no
# source includes are analysed too.
mapfile -t sources < <(ls entry/*.cpp plugin/*.cpp support/*.cpp)
for h in sdk/*.h; do echo "#include \"$h\""; done >"$work/sdk_headers.cpp"

# The compile database of those units: the MinGW build's commands with the response files spelt
# out, and for the SDK unit the command of a plug-in source. Each unit gets a key made of its
# command, its text, every header of the tree, .clang-tidy and the tool's version; a unit whose
# key had no finding last time is not analysed again (the cache lives in the build folder).
headers_key=$( (cat .clang-tidy; clang-tidy --version; find entry plugin support sdk -name '*.h' | sort | xargs cat) |
  sha256sum | cut -d' ' -f1)
python3 - "$build/compile_commands.json" "$work" "$here" "$headers_key" "${sources[@]}" <<'EOF'
import hashlib, json, os, shlex, sys
db_file, work, root, headers_key, sources = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4], sys.argv[5:]
entries = {os.path.realpath(e["file"]): e for e in json.load(open(db_file))}
def arguments(entry):
    args = shlex.split(entry["command"]) if "command" in entry else list(entry["arguments"])
    out = []
    for a in args:
        if a.startswith("@"):
            out += shlex.split(open(os.path.join(entry["directory"], a[1:])).read())
        else:
            out.append(a)
    return out
result = []
for s in sources:
    path = os.path.realpath(os.path.join(root, s))
    if path not in entries:
        sys.exit("static-check: %s is not in the compile database; configure the build first" % s)
    e = entries[path]
    result.append({"directory": e["directory"], "file": path, "arguments": arguments(e)})
sdk = os.path.join(work, "sdk_headers.cpp")
template = next(r for r in result if r["file"].endswith("/plugin/Sinks.cpp"))
args = list(template["arguments"])
args[-1] = sdk
args[args.index("-o") + 1] = os.path.join(work, "sdk_headers.obj")
result.append({"directory": template["directory"], "file": sdk, "arguments": args})
json.dump(result, open(os.path.join(work, "compile_commands.json"), "w"), indent=1)
with open(os.path.join(work, "units.txt"), "w") as units:
    for r in result:
        key = hashlib.sha256((json.dumps(r["arguments"]) + headers_key).encode() + open(r["file"], "rb").read())
        name = os.path.relpath(r["file"], root).replace("/", "_").replace(".", "_")
        units.write("%s\t%s\t%s\n" % (r["file"], name, key.hexdigest()))
EOF

# clang-tidy parses as clang for the MinGW target; libstdc++'s headers are the MinGW g++ ones,
# which clang does not find under a "12-posix" folder by itself.
cxx_include="$(dirname "$(x86_64-w64-mingw32-g++-posix -print-libgcc-file-name)")/include/c++"
tidy_args=(--quiet -p "$work" --extra-arg-before=--target=x86_64-w64-mingw32 --extra-arg=-nostdinc++
           "--extra-arg=-isystem$cxx_include" "--extra-arg=-isystem$cxx_include/x86_64-w64-mingw32"
           "--extra-arg=-isystem$cxx_include/backward" --extra-arg=-Wno-unknown-warning-option)
cache="$build/static-check-cache"
mkdir -p "$work/tidy" "$cache"
todo=()
while IFS=$'\t' read -r unit name key; do
  [ "$(cat "$cache/$name" 2>/dev/null)" = "$key" ] && continue
  todo+=("$unit $name")
  echo "$key" >"$work/tidy/$name.key"
done <"$work/units.txt"
# One clang-tidy per core; each writes its log and its exit status. (No path here holds a space.)
export TIDY_ARGS="${tidy_args[*]}" TIDY_OUT="$work/tidy"
if [ "${#todo[@]}" -gt 0 ]; then
  printf '%s\n' "${todo[@]}" | xargs -P "$jobs" -n 2 sh -c \
    'clang-tidy $TIDY_ARGS "$1" >"$TIDY_OUT/$2.log" 2>&1; echo $? >"$TIDY_OUT/$2.rc"' tidy
fi
tidy_status=0
for item in "${todo[@]}"; do
  name="${item#* }"
  if [ "$(cat "$work/tidy/$name.rc")" = 0 ] && ! grep -qE ': (warning|error): ' "$work/tidy/$name.log"; then
    cp "$work/tidy/$name.key" "$cache/$name"
  else
    tidy_status=1
  fi
done
# A header's finding shows in every unit that includes it: each once.
tidy_findings=$(cat /dev/null "$work"/tidy/*.log 2>/dev/null | grep -E '^[^ ].*: (warning|error): ' | sort -u || true)

# cppcheck sees the build's definitions; it does not need the system headers.
defines=(-DUNICODE -D_UNICODE -DNOMINMAX -DWIN32_LEAN_AND_MEAN -D_WIN32_WINNT=0x0601 -DJSON_DLL -D_WIN32 -D_WIN64
         -D__MINGW32__ -D__GNUC__=12 -D__cplusplus=201703L)
cppcheck_findings=$(cppcheck --std=c++17 --language=c++ --platform=win64 --library=windows -j "$jobs" -q \
  --enable=warning,performance,portability --inline-suppr --suppress=missingIncludeSystem \
  --template='{file}:{line}:{column}: {severity}: {message} [{id}]' -I "$here" "${defines[@]}" \
  "${sources[@]}" "$work/sdk_headers.cpp" 2>&1 | sort -u || true)

count=0
for findings in "$tidy_findings" "$cppcheck_findings"; do
  [ -n "$findings" ] || continue
  echo "$findings"
  count=$((count + $(wc -l <<<"$findings")))
done
if [ "$count" -ne 0 ] || [ "$tidy_status" -ne 0 ]; then
  [ "$count" -ne 0 ] || cat /dev/null "$work"/tidy/*.log 2>/dev/null
  echo "static-check: $count findings (clang-tidy logs in $work/tidy); fix them or suppress each where it" \
       "stands, with its reason" >&2
  exit 1
fi
echo "static-check: ${#sources[@]} sources and the SDK headers, 0 findings from clang-tidy and cppcheck" \
     "($((${#sources[@]} + 1 - ${#todo[@]})) units unchanged since their last clean analysis)"
