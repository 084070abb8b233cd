#!/usr/bin/env bash
# Runs the benchmarks, prints their table (also in build/bench/table.md) and writes it to docs/benchmarks.md. A missed
# aim does not fail the script: the figures depend on the machine.
set -eu
cd "$(dirname "${BASH_SOURCE[0]}")/.."
scripts/build.sh
mkdir -p build/bench
table=build/bench/table.md

# Start with a fresh Wine server. Standard output takes the lines of the measured actions.
trap 'scripts/wine.sh --end' EXIT
scripts/wine.sh --end
scripts/wine.sh build/mingw/benchmarks.exe >build/bench/lines.txt 2>build/bench/results.txt </dev/null ||
  { cat build/bench/results.txt >&2; exit 1; }
tr -d '\r' <build/bench/results.txt | tee "$table"

# Replaces the text between the page's two markers with the table.
awk -v table="$table" '
  /^<!-- end of the table -->/ { skip = 0 }
  !skip { print }
  /^<!-- table/ { skip = 1; while ((getline line <table) > 0) print line }' docs/benchmarks.md >build/bench/page.md
cp build/bench/page.md docs/benchmarks.md
