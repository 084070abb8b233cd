#!/usr/bin/env bash
# Runs a Windows program in the project's own Wine prefix, build/wine, making the prefix first where there is none.
# CMake uses it to run what it has cross-compiled.
#   scripts/wine.sh PROGRAM [ARGUMENT...]
#   scripts/wine.sh --end       ends everything that runs in the prefix
set -eu
project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
wine=/usr/lib/wine/wine64
export WINESERVER=/usr/lib/wine/wineserver64
export WINEPREFIX=$project/build/wine
export WINEDEBUG=${WINEDEBUG:--all}
export DISPOSABLE_MACHINE=1 # the prefix is: tests may install there what they like
# Without its debugger a program that crashes ends at once; menu entries would go into the user's own menu; the other two
# would be offered for download.
export WINEDLLOVERRIDES='winedbg.exe=d;winemenubuilder.exe=d;mscoree=d;mshtml=d'

make_prefix() {
  "$wine" wineboot --init &&
    # Real windows, and no display that shows them.
    "$wine" reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f &&
    "$WINESERVER" -w
}

if [ "${1:-}" = --end ]; then
  [ ! -d "$WINEPREFIX" ] || "$WINESERVER" -k || true # it fails where no server runs
  exit 0
fi

if [ ! -f "$WINEPREFIX/.ready" ]; then
  mkdir -p "$WINEPREFIX"
  (
    flock 9
    if [ ! -f "$WINEPREFIX/.ready" ]; then
      make_prefix >"$WINEPREFIX/.setup.log" 2>&1 </dev/null 9>&- || { cat "$WINEPREFIX/.setup.log" >&2; exit 1; }
      touch "$WINEPREFIX/.ready"
    fi
  ) 9>"$WINEPREFIX/.lock"
fi

# The services of the prefix inherit the pipes of the program that brings them up, and whoever reads those pipes would
# wait for them: so they are brought up here, and stay.
if "$WINESERVER" -p >/dev/null 2>&1 </dev/null; then
  "$wine" wineboot >/dev/null 2>&1 </dev/null
fi
exec "$wine" "$@"
