#!/usr/bin/env bash
# Installs what building and testing need and the machine does not have yet: Debian packages, by name. Says nothing and
# takes no time when all is there. Debian 12 and 13. More packages may be named: scripts/setup.sh PACKAGE...
set -eu
packages=(
  cmake
  ninja-build
  g++-mingw-w64-x86-64-posix # the cross compiler
  googletest                 # its sources are compiled with the tests
  wine64                     # runs what was compiled
  python3                    # makes packages with the next two
  wixl                       # fills them with files
  msitools                   # reads and changes their tables
  clang-format-19
  clang-tidy-19
  libclang-19-dev # an extension of clang-tidy's is made with these
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
