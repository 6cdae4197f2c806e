#!/usr/bin/env bash
# Starts or stops the wine server of a build tree: start boots the prefix
# with the server and wine's services detached from the caller's output, so
# that ctest (which waits for its pipes to close) is not held by them.
#   wine.sh start BUILD_DIR | wine.sh stop BUILD_DIR
set -euo pipefail
dir=$(cd "$2" && pwd)
export WINEPREFIX=$dir/wineprefix WINEDEBUG=-all
wine64=$(dpkg -L wine64 | grep '/wine64$' | head -n 1)
server=$(dpkg -L wine64 | grep '/wineserver64$' | head -n 1)
case "$1" in
  start)
    mkdir -p "$WINEPREFIX"
    "$server" -p 600 </dev/null >/dev/null 2>&1
    "$wine64" cmd /c exit </dev/null >/dev/null 2>&1 || true
    ;;
  stop)
    "$server" -k </dev/null >/dev/null 2>&1 || true
    ;;
esac
