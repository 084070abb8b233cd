#!/usr/bin/env bash
# Checks the format and runs clang-tidy over every source that build/mingw compiles. With --fix, formats instead.
set -eu
cd "$(dirname "${BASH_SOURCE[0]}")/.."
mapfile -t sources < <(git ls-files --cached --others --exclude-standard -- '*.cpp' '*.h')
if [ "${1:-}" = --fix ]; then
  clang-format-19 -i "${sources[@]}"
  exit 0
fi
clang-format-19 --dry-run -Werror "${sources[@]}"
echo "format: clean"

# clang reads the cross compiler's own headers of the C++ library, in that compiler's order.
cxx=x86_64-w64-mingw32-g++-posix
include_folders=()
while read -r folder; do include_folders+=("-extra-arg-before=-isystem$folder"); done \
  < <("$cxx" -x c++ -E -v /dev/null 2>&1 | sed -n 's#^ \(.*/include/c++.*\)#\1#p')
log=build/lint.log
run-clang-tidy-19 -quiet -p build/mingw \
  -extra-arg-before=--target=x86_64-w64-mingw32 -extra-arg-before=-nostdinc++ "${include_folders[@]}" \
  -extra-arg=-Wno-unknown-warning-option "$PWD/(custom_actions|tests|package|benchmarks|tools)/.*" >"$log" 2>&1 ||
  { cat "$log"; exit 1; }
echo "clang-tidy: clean"
