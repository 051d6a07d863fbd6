#!/usr/bin/env bash
# Checks the release ZIP that scripts/package.sh made: its layout, the DLL's exports, imports,
# symbols and version resource, and that the example host builds against the unpacked package
# alone (a copy of its sources outside this tree) and runs the plug-in under Wine.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${1:-${AVSCAN_BUILD:-$here/build}}" && pwd)"
fail() { echo "release check: $*" >&2; exit 1; }

version=$(sed -n 's/^project(AntivirusScan VERSION \([0-9.]*\).*/\1/p' "$here/CMakeLists.txt")
zip="$build/package/AntivirusScan-$version-win64.zip"
[ -f "$zip" ] || fail "no $zip; run scripts/package.sh first"
work="$build/release-check"
rm -rf "$work" && mkdir -p "$work"
unzip -q "$zip" -d "$work"
pkg="$work/AntivirusScan-$version-win64"
for f in README.md CHANGES bin/AntivirusScan.AL bin/AntivirusScan.AL.debug bin/AntivirusScan.pdb bin/KxsJson.dll \
         include/sdk/IAntivirusScan.h include/sdk/StringT.h include/json/json.h \
         lib/libAntivirusScanSdk.a lib/libKxsJson.dll.a \
         lib/cmake/AntivirusScanSdk/AntivirusScanSdkConfig.cmake lib/cmake/AntivirusScanSdk/AntivirusScanSdkConfigVersion.cmake; do
  [ -f "$pkg/$f" ] || fail "$f missing from the package"
done

# The SDK stands on its own: include/ holds sdk/ and jsoncpp, nothing of the implementation.
included=$(cd "$pkg/include" && ls | xargs)
[ "$included" = "json sdk" ] || fail "include/ holds $included, not just json and sdk"

# The binary contract: two exports, the same imported DLLs.
dll="$pkg/bin/AntivirusScan.AL"
dump=$(x86_64-w64-mingw32-objdump -p "$dll")
exports=$(sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' <<<"$dump" | awk 'NR > 1 && NF { print $NF }' | sort | xargs)
[ "$exports" = "QvCreateObject QvDestroyObject" ] || fail "exports: $exports"
imports=$(sed -n 's/^[[:space:]]*DLL Name: //p' <<<"$dump" | tr '[:upper:]' '[:lower:]' | sort | xargs)
# advapi32.dll seeds the stack-protector guard (static libssp); libssp-0.dll must not be imported.
[ "$imports" = "advapi32.dll kernel32.dll kxsjson.dll msvcrt.dll shlwapi.dll winmm.dll" ] || fail "imports: $imports"

# Hardening, as Microsoft's binary checks want it of both shipped DLLs: ASLR with a 64-bit
# address space and DEP in the optional header; no section both writable and executable, and no
# shared writable section (objdump -h lists READONLY for a section that cannot be written, CODE
# for one that can be executed, SHARED for IMAGE_SCN_MEM_SHARED).
hardened() {
  local image="$1" name="${1##*/}" flag bad
  local characteristics
  characteristics=$(x86_64-w64-mingw32-objdump -p "$image" | sed -n '/^DllCharacteristics/,/^[A-Z]/p' | awk 'NR > 1 { print $1 }')
  for flag in DYNAMIC_BASE HIGH_ENTROPY_VA NX_COMPAT; do
    grep -qx "$flag" <<<"$characteristics" || fail "$name lacks $flag"
  done
  bad=$(x86_64-w64-mingw32-objdump -h "$image" | awk '
    /^ *[0-9]+ / { name = $2; getline flags
                   writable = flags ~ /ALLOC/ && flags !~ /READONLY/
                   if (writable && flags ~ /CODE/) print name " writable and executable"
                   if (writable && flags ~ /SHARED/) print name " shared and writable" }')
  [ -z "$bad" ] || fail "$name: $bad"
}
hardened "$dll"
hardened "$pkg/bin/KxsJson.dll"
# Stack protection: the canary and its failure handler linked in from the static libssp. The
# shipped DLL is stripped, so the symbols are read from its split-off file; KxsJson.dll keeps them.
canary() {
  local symbols
  symbols=$(x86_64-w64-mingw32-nm "$1" 2>/dev/null | awk '{ print $NF }')
  grep -qx '__stack_chk_guard' <<<"$symbols" && grep -qx '__stack_chk_fail' <<<"$symbols"
}
canary "$dll.debug" || fail "AntivirusScan.AL is built without the stack protector"
canary "$pkg/bin/KxsJson.dll" || fail "KxsJson.dll is built without the stack protector"
grep -qi 'DLL Name: libssp' <<<"$(x86_64-w64-mingw32-objdump -p "$pkg/bin/KxsJson.dll")" &&
  fail "KxsJson.dll imports libssp instead of linking it"

# Symbols: the shipped DLL stripped and linked to its split-off DWARF; the PDB named in its
# CodeView record.
sections() { x86_64-w64-mingw32-objdump -h "$1" | awk '{ print $2 }'; }
shipped=$(sections "$dll") split=$(sections "$dll.debug")
grep -qx '\.debug_info' <<<"$shipped" && fail "the shipped DLL still holds DWARF"
grep -qx '\.debug_info' <<<"$split" || fail "no DWARF in AntivirusScan.AL.debug"
x86_64-w64-mingw32-objcopy --dump-section .gnu_debuglink="$work/debuglink" "$dll" "$work/scratch.dll"
grep -q 'AntivirusScan\.AL\.debug' "$work/debuglink" || fail "no debug link to AntivirusScan.AL.debug"
grep -Eq 'format RSDS .* pdb ([^ ]*[\\/])?AntivirusScan\.pdb\)' <<<"$dump" || fail "no CodeView record naming AntivirusScan.pdb"

# The version resource, read back from the shipped DLL.
rc=$(x86_64-w64-mingw32-windres -i "$dll" -O rc)
for value in "\"FileVersion\", \"$version\"" '"FileDescription", "Antivirus scan adapter plug-in"' \
             '"OriginalFilename", "AntivirusScan.AL"'; do
  grep -qF "VALUE $value" <<<"$rc" || fail "version resource lacks $value"
done

# include/ on its own: every SDK header, against nothing but the package.
for h in "$pkg"/include/sdk/*.h; do echo "#include \"sdk/${h##*/}\""; done > "$work/sdk_headers.cpp"
x86_64-w64-mingw32-g++-posix -std=c++17 -DJSON_DLL -fsyntax-only -isystem "$pkg/include" "$work/sdk_headers.cpp" ||
  fail "the SDK headers do not compile on their own"

# The example host, from a copy of its sources, against the unpacked package.
cp -r "$here/examples/minimal-host" "$work/minimal-host-src"
cmake -S "$work/minimal-host-src" -B "$work/minimal-host" -DCMAKE_BUILD_TYPE=Release -DCMAKE_SYSTEM_NAME=Windows \
      -DCMAKE_CXX_COMPILER=x86_64-w64-mingw32-g++-posix -DCMAKE_PREFIX_PATH="$pkg" >/dev/null
cmake --build "$work/minimal-host" >/dev/null
export WINEPREFIX="${WINEPREFIX:-$build/wineprefix}" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
# Output to a file first: a pipe straight from Wine can keep the reader waiting.
status=0
timeout 300 /usr/lib/wine/wine64 "$work/minimal-host/minimal-host.exe" >"$work/minimal-host.out" 2>&1 </dev/null || status=$?
out=$(tr -d '\r' <"$work/minimal-host.out")
echo "$out"
[ "$status" -eq 0 ] || fail "minimal-host.exe exited with $status"
grep -qxF "version $version.0, \"Antivirus scan adapter plug-in\", AntivirusScan.AL" <<<"$out" ||
  fail "GetFileVersionInfoW read another version resource"
# The fake update plug-in's version, handed back through the SDK's string type.
grep -qF "engines version 2024.05.17.1" <<<"$out" || fail "GetEnginesVersion did not hand the version back"
grep -qxF "minimal host: done" <<<"$out" || fail "the example host did not finish"
echo "release check: $(basename "$zip") passed"
