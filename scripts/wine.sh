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
    # A first boot cut short (a killed run, a machine too loaded for
    # wineboot's own time-outs) leaves a prefix without the system's
    # environment, where every child process fails to start. Such a
    # prefix is booted again from scratch.
    for try in 1 2 3; do
      mkdir -p "$WINEPREFIX"
      "$server" -p 600 </dev/null >/dev/null 2>&1 || true
      "$wine64" cmd /c exit </dev/null >/dev/null 2>&1 || true
      if "$wine64" reg query 'HKLM\System\CurrentControlSet\Control\Session Manager\Environment' /v ComSpec \
        </dev/null 2>/dev/null | grep -qi 'cmd\.exe'; then
        exit 0
      fi
      echo "wine.sh: the prefix $WINEPREFIX is incomplete (no ComSpec); booting it again ($try)" >&2
      "$server" -k </dev/null >/dev/null 2>&1 || true
      rm -rf "$WINEPREFIX"
    done
    echo "wine.sh: cannot boot a wine prefix in $WINEPREFIX" >&2
    exit 2
    ;;
  stop)
    "$server" -k </dev/null >/dev/null 2>&1 || true
    ;;
esac
