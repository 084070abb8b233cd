#!/usr/bin/env bash
# Builds, lints and runs every test; ends in CTest's own summary. Nothing waits without an end: all stages together are
# over within 85 minutes on any machine, and the one that is ended for its time is named.
set -eu
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# stage SECONDS COMMAND...: runs the command, which has that long.
stage() {
  local limit=$1 code=0 start=$SECONDS
  shift
  timeout -k 15 "$limit" "$@" </dev/null || code=$?
  echo "== $1: $((SECONDS - start)) s"
  if [ "$code" = 124 ] || [ "$code" = 137 ]; then
    echo "== ENDED: $* was not done within $limit s. What runs:" >&2
    ps -eo pid,ppid,etimes,time,stat,args --sort=-etimes | cut -c1-160 >&2
  fi
  [ "$code" = 0 ] || exit "$code"
}
trap 'scripts/wine.sh --end' EXIT

stage 600 scripts/setup.sh
stage 1500 scripts/build.sh
stage 1500 scripts/lint.sh
# One at a time: some end Explorer, close programs by name or install packages, in the one prefix that all share. CTest
# itself starts no test any more at the end of its time, so that there is a summary of those that ran. A suite that fails
# is run once more, and the summary tells so: Wine loses one program in some thousands at its start (CreateProcess fails
# with 1359, also for a program that does nothing).
stage 1500 ctest --preset mingw --repeat until-pass:2 --stop-time "$(date -d '+23 minutes' +%T)"
