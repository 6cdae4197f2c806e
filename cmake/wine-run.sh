#!/bin/sh
# Runs a Windows program under wine64 with a private, quiet wine prefix.
# WINEPREFIX defaults to a folder beside the build tree's binaries.
set -e
if [ -z "${WINE64:-}" ]; then
  WINE64=$(dpkg -L wine64 2>/dev/null | grep '/wine64$' | head -n 1)
  [ -n "$WINE64" ] || WINE64=/usr/lib/wine/wine64
fi
prog=$1
if [ -z "${WINEPREFIX:-}" ]; then
  WINEPREFIX="$(cd "$(dirname "$prog")/.." && pwd)/wineprefix"
fi
export WINEPREFIX
export WINEDEBUG="${WINEDEBUG:--all}"
# The first start creates the prefix; serialise it so parallel tests do not race.
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  mkdir -p "$WINEPREFIX"
  (
    flock 9
    [ -f "$WINEPREFIX/system.reg" ] || "$WINE64" cmd /c exit >/dev/null 2>&1 || true
  ) 9>"$WINEPREFIX.lock"
fi
exec "$WINE64" "$@"
