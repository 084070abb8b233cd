#!/usr/bin/env bash
# usage: scripts/wine.sh [--limit SECONDS] PROGRAM [ARGUMENT...]
#        scripts/wine.sh --end
#
# Runs a Windows program in a Wine prefix of the project's own, which is created if missing: build/wine, or the folder
# that QBL_WINE_PREFIX names. CMake runs cross-compiled programs with it.
#   --limit   ends the program when its time is over; prints its output at the end, so that processes which it leaves
#             running hold no pipe of the caller open
#   --end     ends everything that runs in the prefix
set -eu
source "$(dirname "$0")/common.sh"
wine=/usr/lib/wine/wine64
export WINESERVER=/usr/lib/wine/wineserver64
prefix=${QBL_WINE_PREFIX:-build/wine}
case $prefix in /*) export WINEPREFIX=$prefix ;; *) export WINEPREFIX=$project/$prefix ;; esac
export WINEDEBUG=${WINEDEBUG:--all}
export DISPOSABLE_MACHINE=1 # tests may install anything in the prefix
# Disabled: the debugger, so that a crashing program ends at once; menu entries in the user's own menu; and the download
# prompts for Mono and Gecko.
export WINEDLLOVERRIDES='winedbg.exe=d;winemenubuilder.exe=d;mscoree=d;mshtml=d'

limit=
case ${1:-} in
  --end) [ $# = 1 ] || refuse "$2" ;;
  --limit)
    [[ ${2:-} =~ ^[1-9][0-9]*$ ]] || refuse "--limit ${2:-without a number}"
    limit=$2
    shift 2
    [ $# -gt 0 ] || refuse "--limit without a program"
    ;;
  -* | '') refuse "${1:-no program}" ;;
esac

# Everything in the prefix runs on one processor, the last that the caller may use. Programs call Wine's server all the
# time, and waking another processor for each answer costs far more than the answer (a fault sweep: 60 s on two
# processors, 4 s on one).
stay_on "${allowed_processors##*[-,]}"

# within SECONDS COMMAND...: runs the command with a time limit; says so if it is exceeded.
within() {
  local code=0
  timeout -k 10 "$@" || code=$?
  [ "$code" != 124 ] && [ "$code" != 137 ] || echo "wine.sh: ENDED, not done within $1 s: ${*:2}" >&2
  return "$code"
}

end_all() { within 20 "$WINESERVER" -k >/dev/null 2>&1 </dev/null || true; } # fails if no server runs

make_prefix() {
  within 180 "$wine" wineboot --init &&
    # Windows exist, but no display shows them.
    within 60 "$wine" reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f &&
    { within 30 "$WINESERVER" -w || end_all; }
}

if [ "${1:-}" = --end ]; then
  [ ! -d "$WINEPREFIX" ] || end_all
  exit 0
fi

if [ ! -f "$WINEPREFIX/.ready" ]; then
  mkdir -p "$WINEPREFIX"
  (
    flock -w 300 9 || { echo "wine.sh: another process has been creating $WINEPREFIX for 300 s" >&2; exit 1; }
    if [ ! -f "$WINEPREFIX/.ready" ]; then
      echo "wine.sh: creating $WINEPREFIX" >&2
      make_prefix >"$WINEPREFIX/.setup.log" 2>&1 </dev/null 9>&- || { cat "$WINEPREFIX/.setup.log" >&2; exit 1; }
      touch "$WINEPREFIX/.ready"
    fi
  ) 9>"$WINEPREFIX/.lock"
fi

# Wine starts a program without a path by means of another one, which takes twice as long.
case $1 in *[/\\.]*) ;; *) set -- "C:\\windows\\system32\\$1.exe" "${@:2}" ;; esac

# The prefix's services inherit the pipes of the program that starts them, and a reader of those pipes would wait for
# the services to end. So they are started here, without pipes, and stay.
if timeout -k 5 20 "$WINESERVER" -p >/dev/null 2>&1 </dev/null; then
  within 120 "$wine" wineboot >/dev/null 2>&1 </dev/null || { echo "wine.sh: wineboot ended with $?" >&2; exit 1; }
fi
[ -n "$limit" ] || exec "$wine" "$@"

output=$(mktemp)
trap 'rm -f "$output"' EXIT
code=0
within "$limit" "$wine" "$@" >"$output" 2>&1 </dev/null || code=$?
cat "$output"
exit "$code"
