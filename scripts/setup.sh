#!/usr/bin/env bash
# Installs everything the build and the tests need on a Debian 12 machine (run as root).
# Idempotent: each step checks first and is skipped when its result is already there.
set -euo pipefail

DEPS="${AVSCAN_DEPS:-/opt/avscan-deps}"
here="$(cd "$(dirname "$0")/.." && pwd)"

need_pkgs=()
for p in g++-mingw-w64-x86-64-posix wine64 cmake dpkg-dev googletest; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || need_pkgs+=("$p")
done
if [ "${#need_pkgs[@]}" -gt 0 ]; then
  echo "setup: installing ${need_pkgs[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${need_pkgs[@]}"
fi

mkdir -p "$DEPS"
export CC=x86_64-w64-mingw32-gcc-posix CXX=x86_64-w64-mingw32-g++-posix

# jsoncpp from Debian's source package, fetched through a private sources list and apt state
# directory so that the machine's own apt configuration is left as it was.
if [ ! -f "$DEPS/jsoncpp/bin/KxsJson.dll" ]; then
  src="$DEPS/src"
  if [ ! -d "$src/jsoncpp" ]; then
    aptdir="$DEPS/apt"
    mkdir -p "$aptdir/lists/partial" "$aptdir/cache/archives/partial" "$aptdir/etc" "$src"
    cat > "$aptdir/etc/sources.list" <<SRC
deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] http://deb.debian.org/debian bookworm main
SRC
    opts=(-o Dir::Etc::SourceList="$aptdir/etc/sources.list" -o Dir::Etc::SourceParts=/dev/null
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
