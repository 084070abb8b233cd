#!/usr/bin/env bash
# usage: scripts/setup.sh [build] [demo] [test] [lint] [coverage]
#
# Installs the packages of Debian 12 or 13 that these need (without arguments: all of them), as root or with sudo.
# Quick and silent if they are there.
set -eu
source "$(dirname "$0")/common.sh"
cd "$project"

build=(
  cmake
  ninja-build
  g++-mingw-w64-x86-64-posix # the cross compiler
)
demo=(
  wine64           # runs the programs
  wine64-preloader # keeps a page free that each of them needs: without it, Wine 8 loses one start in some 8,000
  python3          # builds packages with the next two
  wixl             # compiles a package
  msitools         # reads and edits its tables
)
test=(
  googletest # its sources are built with the tests
)
lint=(
  clang-format-19
  clang-tidy-19
  libclang-19-dev # for the clang-tidy plugin
  llvm-19-dev
  g++
  git
)
coverage=(
  gcovr
)

[ $# -gt 0 ] || set -- build demo test lint coverage
missing=()
for use in "$@"; do
  case $use in build | demo | test | lint | coverage) ;; *) refuse "$use" ;; esac
  declare -n packages=$use
  for package in "${packages[@]}"; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)" = installed ] || missing+=("$package")
  done
done
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=()
[ "$(id -u)" = 0 ] || as_root=(sudo)
bounds=(-o Acquire::http::Timeout=60 -o Acquire::Retries=3 -o DPkg::Lock::Timeout=120)
echo "Installing ${missing[*]}"
log=$(mktemp)
{
  "${as_root[@]}" apt-get "${bounds[@]}" update &&
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get "${bounds[@]}" install -y --no-install-recommends \
      "${missing[@]}"
} >"$log" 2>&1 </dev/null || { cat "$log" >&2; exit 1; }
rm "$log"
