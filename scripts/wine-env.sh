# Sourced with the build folder as argument: prepares the build tree's Wine prefix and keeps one
# wineserver alive for the whole run, so that each test program starts quickly.
export WINEPREFIX="$1/wineprefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  /usr/lib/wine/wine64 wineboot --init </dev/null >/dev/null 2>&1 || true
fi
/usr/lib/wine/wineserver -p >/dev/null 2>&1 || true
# Start Wine's own services now: the first program of a session would otherwise start them, and
# they would inherit and hold the test runner's output pipe open after that program ends.
/usr/lib/wine/wine64 wineboot </dev/null >/dev/null 2>&1 || true
trap '/usr/lib/wine/wineserver -k >/dev/null 2>&1 || true' EXIT
