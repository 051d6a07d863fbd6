#!/usr/bin/env bash
# Installs everything the build and the tests need on a Debian 12 machine (run as root).
# Idempotent: each step checks first and is skipped when its result is already there.
set -euo pipefail

DEPS="${AVSCAN_DEPS:-/opt/avscan-deps}"
here="$(cd "$(dirname "$0")/.." && pwd)"

need_pkgs=()
for p in g++-mingw-w64-x86-64-posix wine64 cmake dpkg-dev googletest gcc clang-format clang-tidy cppcheck; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || need_pkgs+=("$p")
done
if [ "${#need_pkgs[@]}" -gt 0 ]; then
  echo "setup: installing ${need_pkgs[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${need_pkgs[@]}"
fi

mkdir -p "$DEPS"
export CC=x86_64-w64-mingw32-gcc-posix CXX=x86_64-w64-mingw32-g++-posix

# Source entries for apt, derived from the machine's own apt configuration so that its mirrors,
# proxies and keys keep working: every `deb` entry becomes a `deb-src` entry, options and all.
# One-line lists (sources.list, sources.list.d/*.list) go to one list; each deb822 file
# (sources.list.d/*.sources) goes, stanza by stanza, to a file of the same name.
derive_source_entries() {
  local etc="$1" out="$2" f
  rm -rf "$out/sources.list.d"
  mkdir -p "$out/sources.list.d"
  : > "$out/sources.list"
  for f in "$etc/sources.list" "$etc"/sources.list.d/*.list; do
    [ -f "$f" ] || continue
    awk '$1 == "deb" || $1 == "deb-src" { $1 = "deb-src"; print }' "$f" >> "$out/sources.list"
  done
  sort -u -o "$out/sources.list" "$out/sources.list"
  for f in "$etc"/sources.list.d/*.sources; do
    [ -f "$f" ] || continue
    # Paragraph mode: one record per stanza; field names are case-insensitive, values may be
    # continued on indented lines, which are copied as they stand.
    awk 'BEGIN { RS = ""; FS = "\n" }
      { out = ""; keep = 0
        for (i = 1; i <= NF; i++) {
          line = $i
          if (tolower(line) ~ /^types:/) {
            n = split(substr(line, 7), types, /[ \t]+/)
            for (t = 1; t <= n; t++) if (types[t] == "deb" || types[t] == "deb-src") keep = 1
            line = "Types: deb-src"
          }
          out = out line "\n"
        }
        if (keep) printf "%s%s", (stanzas++ ? "\n" : ""), out
      }' "$f" > "$out/sources.list.d/$(basename "$f")"
    [ -s "$out/sources.list.d/$(basename "$f")" ] || rm -f "$out/sources.list.d/$(basename "$f")"
  done
  if [ ! -s "$out/sources.list" ] && [ -z "$(ls -A "$out/sources.list.d")" ]; then
    echo "setup: no deb entries in $etc; cannot fetch the jsoncpp sources" >&2
    return 1
  fi
}

# jsoncpp from Debian's source package, fetched through a private sources list and apt state
# directory so that the machine's own apt configuration is left as it was. It is built again when
# the files that say how (its CMakeLists, the toolchain, the hardening flags) have changed since.
json_recipe=$(cat "$here/cmake/deps/jsoncpp/CMakeLists.txt" "$here/cmake/mingw-w64-posix.cmake" \
                  "$here/cmake/Hardening.cmake" | sha256sum | cut -d' ' -f1)
if [ ! -f "$DEPS/jsoncpp/bin/KxsJson.dll" ] || [ "$(cat "$DEPS/jsoncpp/recipe" 2>/dev/null)" != "$json_recipe" ]; then
  src="$DEPS/src"
  if [ ! -d "$src/jsoncpp" ]; then
    aptdir="$DEPS/apt"
    mkdir -p "$aptdir/lists/partial" "$aptdir/cache/archives/partial" "$aptdir/etc" "$src"
    derive_source_entries "${AVSCAN_APT_ETC:-/etc/apt}" "$aptdir/etc"
    opts=(-o Dir::Etc::SourceList="$aptdir/etc/sources.list" -o Dir::Etc::SourceParts="$aptdir/etc/sources.list.d"
          -o Dir::State::Lists="$aptdir/lists" -o Dir::Cache="$aptdir/cache" -o Dir::State::status=/var/lib/dpkg/status)
    apt-get "${opts[@]}" update -qq
    (cd "$src" && apt-get "${opts[@]}" source --download-only -qq libjsoncpp=1.9.5-4)
    (cd "$src" && dpkg-source --no-check -x libjsoncpp_1.9.5-4.dsc jsoncpp >/dev/null)
  fi
  rm -rf "$DEPS/build-jsoncpp"
  cmake -S "$here/cmake/deps/jsoncpp" -B "$DEPS/build-jsoncpp" -DJSONCPP_SOURCE_DIR="$src/jsoncpp" \
        -DCMAKE_TOOLCHAIN_FILE="$here/cmake/mingw-w64-posix.cmake" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_INSTALL_PREFIX="$DEPS/jsoncpp" >/dev/null
  cmake --build "$DEPS/build-jsoncpp" -j"$(nproc)" >/dev/null
  cmake --install "$DEPS/build-jsoncpp" >/dev/null
  echo "$json_recipe" > "$DEPS/jsoncpp/recipe"
fi

# GoogleTest from Debian's googletest sources, cross-built as static libraries.
if [ ! -f "$DEPS/googletest/lib/libgtest.a" ]; then
  rm -rf "$DEPS/build-googletest"
  cmake -S /usr/src/googletest -B "$DEPS/build-googletest" \
        -DCMAKE_TOOLCHAIN_FILE="$here/cmake/mingw-w64-posix.cmake" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_INSTALL_PREFIX="$DEPS/googletest" -Dgtest_disable_pthreads=OFF >/dev/null
  cmake --build "$DEPS/build-googletest" -j"$(nproc)" >/dev/null
  cmake --install "$DEPS/build-googletest" >/dev/null
fi
echo "setup: dependencies ready in $DEPS"
