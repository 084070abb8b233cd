#!/usr/bin/env bash
# Checks the format and runs clang-tidy over every source compiled in build/mingw. --fix only formats.
set -eu
cd "$(dirname "${BASH_SOURCE[0]}")/.."
mapfile -t sources < <(git ls-files --cached --others --exclude-standard -- '*.cpp' '*.h')
if [ "${1:-}" = --fix ]; then
  clang-format-19 -i "${sources[@]}"
  exit 0
fi
clang-format-19 --dry-run -Werror "${sources[@]}"
echo "format: clean"

# The cross compiler's C++ header folders, in its own order.
cxx=x86_64-w64-mingw32-g++-posix
include_folders=()
while read -r folder; do include_folders+=("-extra-arg-before=-isystem$folder"); done \
  < <("$cxx" -x c++ -E -v /dev/null 2>&1 | sed -n 's#^ \(.*/include/c++.*\)#\1#p')
# A clang-tidy plugin, built against the headers of that clang-tidy's version.
mkdir -p build
if [ ! build/own_code.so -nt scripts/own_code.cpp ]; then
  g++ -std=c++20 -O1 -Wall -Wextra -fno-rtti -shared -fPIC -isystem /usr/lib/llvm-19/include scripts/own_code.cpp \
    -o build/own_code.so
fi
log=build/lint.log
run-clang-tidy-19 -quiet -p build/mingw -load build/own_code.so -checks=own-code \
  -extra-arg-before=--target=x86_64-w64-mingw32 -extra-arg-before=-nostdinc++ "${include_folders[@]}" \
  -extra-arg=-Wno-unknown-warning-option "$PWD/(custom_actions|tests|package|benchmarks|tools|support)/.*" >"$log" 2>&1 ||
  { cat "$log"; exit 1; }
echo "clang-tidy: clean"
