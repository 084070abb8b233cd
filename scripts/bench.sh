#!/usr/bin/env bash
# usage: scripts/bench.sh
#
# Runs the benchmarks, prints their table (also in build/bench/results.txt) and writes it to docs/benchmarks.md. A
# missed aim does not fail the script: the figures depend on the machine.
set -eu
source "$(dirname "$0")/common.sh"
cd "$project"
[ $# = 0 ] || refuse "$1"
scripts/build.sh
mkdir -p build/bench
results=build/bench/results.txt

# Start with a fresh Wine server. Standard output takes the lines of the measured actions.
trap 'scripts/wine.sh --end' EXIT
scripts/wine.sh --end
failed=0
scripts/wine.sh build/mingw/benchmarks.exe >build/bench/lines.txt 2>"$results" </dev/null || failed=1
cat "$results"
[ "$failed" = 0 ] || exit 1

# Replaces the text between the page's two markers with the table, without the spaces that align its columns.
tr -d '\r' <"$results" | tr -s ' ' >build/bench/table.md
awk '
  /^<!-- end of the table -->/ { skip = 0 }
  !skip { print }
  /^<!-- table/ { skip = 1; while ((getline line <"build/bench/table.md") > 0) print line }' \
  docs/benchmarks.md >build/bench/page.md
cp build/bench/page.md docs/benchmarks.md
