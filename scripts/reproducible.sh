#!/usr/bin/env bash
# usage: scripts/reproducible.sh
#
# Builds the library twice from scratch, in two folders below build/reproducible, and compares the library and its symbol
# file byte by byte. Exits with 1 and names the sections that differ if they are not the same. Takes a minute or more.
set -eu
source "$(dirname "$0")/common.sh"
cd "$project"
[ $# = 0 ] || refuse "$1"
scripts/setup.sh build demo # python3 is among the demo's
export CCACHE_DISABLE=1 # a cached object would be the same file, not the same result

# Different paths of different length, for the sources and for the build, so that one left in a file shows.
builds=build/reproducible
rm -rf "$builds"
build() { # SOURCES OUTPUT
  echo "Building the library in $builds/$2"
  local start=$SECONDS log=$builds/$2.log
  mkdir -p "$builds/$1"
  tar -c --exclude=./build --exclude=./.git . | tar -x -C "$builds/$1"
  (
    cd "$builds/$1"
    cmake --preset mingw -DBUILD_TESTING=OFF -B "../$2"
    cmake --build "../$2" --target custom_actions
  ) >"$log" 2>&1 || { tail -n 40 "$log" >&2; echo "reproducible.sh: the build failed; its log: $log" >&2; exit 1; }
  echo "  done after $((SECONDS - start)) s"
}
build first first_output
build the_second_one second

python3 - "$builds/first_output" "$builds/second" <<'END_OF_SCRIPT'
import subprocess, sys
from pathlib import Path

first, second = map(Path, sys.argv[1:])
failed = False
for name in ("custom_actions.dll", "custom_actions.dll.debug"):
    one, other = (first / name).read_bytes(), (second / name).read_bytes()
    if one == other:
        print(f"{name}: the same {len(one)} bytes twice")
        continue
    failed = True
    print(f"{name}: DIFFERENT: {len(one)} and {len(other)} bytes")
    listed = subprocess.run(["x86_64-w64-mingw32-objdump", "-h", first / name], capture_output=True, text=True, check=True)
    rows = [line.split() for line in listed.stdout.splitlines() if line.strip()[:1].isdigit()]
    sections = [(int(row[5], 16), int(row[5], 16) + int(row[2], 16), row[1]) for row in rows if row[5].strip("0")]
    sections = [(0, min(start for start, _, _ in sections), "the headers"), *sections]
    for start, end, section in sections:
        places = [place for place in range(start, min(end, len(one), len(other))) if one[place] != other[place]]
        if places:
            print(f"  {section}: {len(places)} bytes, the first at 0x{places[0]:x} of the file")
if failed:
    raise SystemExit(f"reproducible.sh: not reproducible; both builds are in {first.parent}")
END_OF_SCRIPT
