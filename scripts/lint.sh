#!/usr/bin/env bash
# usage: scripts/lint.sh [--fix] [FILE...]
#
# Checks the format of all sources, or of these files, and runs clang-tidy over those compiled in build/mingw; for a
# header, over the sources that include it. A source is checked again only if it, a file that it includes, its compiler
# options or the checks have changed since it was found clean.
#   --fix   formats instead
set -eu
source "$(dirname "$0")/common.sh"
cd "$project"
fix=
if [ "${1:-}" = --fix ]; then
  fix=yes
  shift
fi
for file in "$@"; do
  case $file in -*) refuse "$file" ;; esac
  [ -f "$file" ] || refuse "$file (no such file)"
done

chosen=("$@")
[ $# -gt 0 ] || mapfile -t chosen < <(git ls-files --cached --others --exclude-standard -- '*.cpp' '*.h')
scripts/setup.sh lint
if [ -n "$fix" ]; then
  clang-format-19 -i "${chosen[@]}"
  exit 0
fi
format=clean
clang-format-19 --dry-run -Werror "${chosen[@]}" || format="FINDINGS (scripts/lint.sh --fix)"

# A clang-tidy plugin, built against the headers of that clang-tidy's version.
folder=build/lint
mkdir -p "$folder"
if [ ! "$folder/own_code.so" -nt scripts/own_code.cpp ]; then
  g++ -std=c++20 -O1 -Wall -Wextra -fno-rtti -shared -fPIC -isystem /usr/lib/llvm-19/include scripts/own_code.cpp \
    -o "$folder/own_code.so"
fi
# The cross compiler's C++ header folders, in its own order.
export tidy_options="--target=x86_64-w64-mingw32 -nostdinc++"
while read -r include; do tidy_options+=" -isystem$include"; done \
  < <(x86_64-w64-mingw32-g++-posix -x c++ -E -v /dev/null 2>&1 | sed -n 's#^ \(.*/include/c++.*\)#\1#p')

# What is to be checked: a line "SOURCE KEY" for each. The key stands for all that the result depends on; it is "-" if
# the build does not know yet what the source includes.
python3 - "$tidy_options" "${chosen[@]}" >"$folder/sources.txt" <<'END'
import hashlib, json, os, shlex, subprocess, sys

BUILD = "build/mingw"
options, chosen = sys.argv[1], {os.path.realpath(name) for name in sys.argv[2:]}

def content(path, known={}):
    if path not in known:
        known[path] = open(path, "rb").read() if os.path.exists(path) else b""
    return known[path]

ours = options.encode() + content(".clang-tidy") + content("scripts/own_code.cpp")
ours += subprocess.run(["clang-tidy-19", "--version"], capture_output=True, check=True).stdout

included, times, target = {}, {}, None
for line in subprocess.run(["ninja", "-C", BUILD, "-t", "deps"], capture_output=True, text=True).stdout.splitlines():
    if line.startswith("    "):
        included[target].append(os.path.realpath(os.path.join(BUILD, line.strip())))
    elif ": #deps" in line:
        target = os.path.realpath(os.path.join(BUILD, line.split(": #deps")[0]))
        included[target] = []

for unit in json.load(open(f"{BUILD}/compile_commands.json")):
    source = os.path.realpath(unit["file"])
    if not source.startswith(os.getcwd() + "/") or not source.endswith(".cpp"):
        continue
    command = shlex.split(unit["command"])
    output = os.path.realpath(os.path.join(BUILD, command[command.index("-o") + 1]))
    files = included.get(output, [])
    if not chosen & {source, *files}:
        continue
    known = files and all(os.path.exists(f) and os.path.getmtime(f) <= os.path.getmtime(output) for f in files)
    digest = hashlib.sha256(ours + unit["command"].encode())
    for path in files:
        digest.update(path.encode() + b"\0" + hashlib.sha256(content(path)).digest())
    print(os.path.relpath(source), digest.hexdigest() if known else "-")
END

# check_source SOURCE KEY: keeps the key of a source that is clean; otherwise leaves the findings in a file.
check_source() {
  local name=$folder/${1//\//_} options=() option
  for option in $tidy_options; do options+=("--extra-arg-before=$option"); done
  echo "clang-tidy: $1"
  if clang-tidy-19 --quiet -p build/mingw --load="$folder/own_code.so" --checks=own-code "${options[@]}" \
    --extra-arg=-Wno-unknown-warning-option "$1" >"$name.findings" 2>&1 </dev/null; then
    rm "$name.findings"
    [ "$2" = - ] || echo "$2" >"$name.clean"
  fi
}
export -f check_source
export folder
rm -f "$folder"/*.findings
while read -r source key; do
  [ "$key" != - ] && [ "$(cat "$folder/${source//\//_}.clean" 2>/dev/null)" = "$key" ] || echo "$source $key"
done <"$folder/sources.txt" >"$folder/changed.txt"
xargs -r -L 1 -P "$(nproc)" bash -c 'check_source "$@"' check_source <"$folder/changed.txt"

all=$(wc -l <"$folder/sources.txt")
changed=$(wc -l <"$folder/changed.txt")
findings=$(find "$folder" -name '*.findings' | wc -l)
find "$folder" -name '*.findings' -exec cat {} +
echo "Lint: ${#chosen[@]} files, format $format; $all sources, $changed new or changed, $findings with findings" |
  tee "$folder/summary.txt"
[ "$format" = clean ] && [ "$findings" = 0 ]
