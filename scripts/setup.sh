#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, on Debian 12 or 13. Quick and silent if all are there.
#   scripts/setup.sh [PACKAGE...]   also installs these
set -eu
packages=(
  cmake
  ninja-build
  g++-mingw-w64-x86-64-posix # the cross compiler
  googletest                 # its sources are built with the tests
  wine64                     # runs the programs
  python3                    # builds packages with the next two
  wixl                       # compiles a package
  msitools                   # reads and edits its tables
  clang-format-19
  clang-tidy-19
  libclang-19-dev # for the clang-tidy plugin
  llvm-19-dev
  g++
  git
  "$@"
)
missing=()
for package in "${packages[@]}"; do
  [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)" = installed ] || missing+=("$package")
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
