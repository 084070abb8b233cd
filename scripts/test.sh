#!/usr/bin/env bash
# Builds, lints and runs every test; ends with CTest's summary. Every stage has a time limit, 85 minutes together; a
# stage that exceeds its limit is ended and named.
set -eu
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# stage SECONDS COMMAND...: runs the command with a time limit.
stage() {
  local limit=$1 code=0 start=$SECONDS
  shift
  timeout -k 15 "$limit" "$@" </dev/null || code=$?
  echo "== $1: $((SECONDS - start)) s"
  if [ "$code" = 124 ] || [ "$code" = 137 ]; then
    echo "== ENDED: $* was not done within $limit s. Processes:" >&2
    ps -eo pid,ppid,etimes,time,stat,args --sort=-etimes | cut -c1-160 >&2
  fi
  [ "$code" = 0 ] || exit "$code"
}
trap 'scripts/wine.sh --end' EXIT

stage 600 scripts/setup.sh
stage 1500 scripts/build.sh
stage 1500 scripts/lint.sh
# One at a time: some suites end Explorer, close programs by name or install packages, all in the same prefix.
# --stop-time makes CTest print its summary before the stage's limit. A suite that fails is repeated once, and the
# summary says so: CreateProcess fails on Wine about once in some thousand calls (error 1359, for any program).
stage 1500 ctest --preset mingw --repeat until-pass:2 --stop-time "$(date -d '+23 minutes' +%T)"
