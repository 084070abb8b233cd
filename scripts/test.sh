#!/usr/bin/env bash
# Builds, lints and runs every test; ends in CTest's own summary.
set -eu
cd "$(dirname "${BASH_SOURCE[0]}")/.."
scripts/build.sh
scripts/lint.sh
# One at a time: some end Explorer, close programs by name or install packages, in the one prefix that all share.
ctest --preset mingw
