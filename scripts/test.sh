#!/usr/bin/env bash
# usage: scripts/test.sh
#
# Builds, runs every test and then the linters, and ends in the summary of both; exits with 1 if either fails. Every
# stage has a time limit, 85 minutes together; a stage that exceeds its limit is ended and named.
set -eu
source "$(dirname "$0")/common.sh"
cd "$project"
[ $# = 0 ] || refuse "$1"

# stage SECONDS COMMAND...: runs the command with a time limit.
stage() {
  local limit=$1 code=0 start=$SECONDS
  shift
  echo "== $*"
  timeout -k 15 "$limit" "$@" </dev/null || code=$?
  echo "== $1: $((SECONDS - start)) s"
  [ "$code" != 124 ] && [ "$code" != 137 ] || echo "== ENDED: $* was not done within $limit s" >&2
  return "$code"
}
trap 'scripts/wine.sh --end' EXIT

stage 600 scripts/setup.sh build demo test lint
stage 1500 scripts/build.sh
failed=0
tests=build/ctest.txt
rm -f "$tests" build/lint/summary.txt
# --stop-time makes CTest print its summary before the stage's limit.
stage 1500 ctest --preset mingw --no-tests=error --output-log "$tests" --stop-time "$(date -d '+23 minutes' +%T)" ||
  failed=1
stage 1500 scripts/lint.sh || failed=1

echo
cat build/lint/summary.txt 2>/dev/null || echo "Lint: FAILED"
sed -n '/tests passed,/,$p' "$tests"
exit "$failed"
