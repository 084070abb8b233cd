#!/usr/bin/env bash
# usage: scripts/build.sh [library | demo]
#
# Builds everything in build/mingw: the library (custom_actions.dll), the sample package, tools, tests and benchmarks.
#   library   the library alone
#   demo      the library, and the sample package with its toy programs
set -eu
source "$(dirname "$0")/common.sh"
cd "$project"
[ $# -le 1 ] || refuse "$2"
case ${1:-all} in
  library) scripts/setup.sh build; target=custom_actions ;;
  demo) scripts/setup.sh build demo; target=demo ;;
  all) scripts/setup.sh build demo test; target=all ;;
  *) refuse "$1" ;;
esac

[ -f build/mingw/CMakeCache.txt ] || echo "Configuring build/mingw"
cmake --preset mingw --log-level=WARNING >/dev/null
cmake --build --preset mingw --target "$target"
