#!/usr/bin/env bash
# Builds, lints and runs every test; ends in CTest's own summary.
set -eu
cd "$(dirname "${BASH_SOURCE[0]}")/.."
scripts/build.sh
scripts/lint.sh
ctest --preset mingw --parallel 2
