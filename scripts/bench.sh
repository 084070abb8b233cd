#!/usr/bin/env bash
# Runs the benchmarks and prints their table, which is also left in build/bench/results.txt. Ends with 0 whether or not
# an aim is met: the figures are the machine's as much as ours.
set -eu
cd "$(dirname "${BASH_SOURCE[0]}")/.."
scripts/build.sh

mkdir -p build/bench
rm -f build/bench/results.txt
trap 'scripts/wine.sh --end' EXIT

# A program and Wine's server take turns: on two processors they would wake each other across them, which takes longer
# than the calls that are measured and varies tenfold. So both run on one, the server started anew there.
scripts/wine.sh --end
processor=$(taskset -cp $$ | sed 's/.*: *\([0-9]*\).*/\1/')
taskset -c "$processor" scripts/wine.sh build/mingw/benchmarks.exe >build/bench/output.txt </dev/null
tr -d '\r' <build/bench/output.txt | tee build/bench/results.txt
