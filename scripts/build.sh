#!/usr/bin/env bash
# Builds the library (build/mingw/custom_actions.dll), the sample package and the test programs.
set -eu
cd "$(dirname "${BASH_SOURCE[0]}")/.."
scripts/setup.sh
cmake --preset mingw --log-level=WARNING >/dev/null
cmake --build --preset mingw
