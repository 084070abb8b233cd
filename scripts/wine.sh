#!/usr/bin/env bash
# Runs a Windows program in the project's own Wine prefix (below build/), making the prefix first where there is
# none. CMake uses it to run what it has cross-compiled.
#   scripts/wine.sh PROGRAM [ARGUMENT...]
#   scripts/wine.sh --end       ends everything that still runs in the prefix
set -eu
project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export WINEPREFIX=${WINEPREFIX_OVERRIDE:-$project/build/wine}
export WINESERVER=/usr/lib/wine/wineserver64
export WINEDEBUG=${WINEDEBUG:--all}
# Without its debugger a program that crashes ends at once; the other two are offers to download what nobody needs.
export WINEDLLOVERRIDES='winedbg.exe=d;mscoree=d;mshtml=d'
wine=/usr/lib/wine/wine64

if [ "${1:-}" = --end ]; then
  [ ! -d "$WINEPREFIX" ] || "$WINESERVER" -k || true # it fails where no server runs
  exit 0
fi

if [ ! -f "$WINEPREFIX/.ready" ]; then
  mkdir -p "$WINEPREFIX"
  (
    flock 9
    if [ ! -f "$WINEPREFIX/.ready" ]; then
      {
        "$wine" wineboot --init
        # Real windows, and no display that shows them.
        "$wine" reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f
        "$WINESERVER" -w
      } >"$WINEPREFIX/.setup.log" 2>&1 9>&- </dev/null || { cat "$WINEPREFIX/.setup.log" >&2; exit 1; }
      touch "$WINEPREFIX/.ready"
    fi
  ) 9>"$WINEPREFIX/.lock"
fi
exec "$wine" "$@"
