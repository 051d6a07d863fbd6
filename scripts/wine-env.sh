# Sourced with the build folder as argument: prepares the build tree's Wine prefix and keeps one
# wineserver alive for the whole run, so that each test program starts quickly.
export WINEPREFIX="$1/wineprefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  /usr/lib/wine/wine64 wineboot --init >/dev/null 2>&1 || true
fi
/usr/lib/wine/wineserver -p >/dev/null 2>&1 || true
trap '/usr/lib/wine/wineserver -k >/dev/null 2>&1 || true' EXIT
