#!/usr/bin/env bash
# usage: scripts/coverage.sh
#
# Measures the line coverage of custom_actions/: prints the share of each file and every line that was not run (also in
# build/coverage/). Exits with 1 if a test fails or coverage is below 95 %.
set -eu
source "$(dirname "$0")/common.sh"
cd "$project"
[ $# = 0 ] || refuse "$1"
scripts/setup.sh build demo test coverage
echo "Building build/mingw-debug"
cmake --preset mingw-debug --log-level=WARNING >/dev/null
cmake --build --preset mingw-debug

folder=build/coverage
rm -rf "$folder"
mkdir -p "$folder"
find build/mingw-debug -name '*.gcda' -delete
trap 'scripts/wine.sh --end' EXIT

# Not LibraryImage, which checks the release build.
failed=0
run() {
  echo "Running $1"
  scripts/wine.sh --limit 900 "build/mingw-debug/$1.exe" --gtest_brief=1 --gtest_filter="$2" \
    >"$folder/$1.txt" || failed=1
  tr -d '\r' <"$folder/$1.txt" | grep -E '^\[  (PASSED|FAILED)' || true
}
run custom_actions_tests '-LibraryImage.*'
run sweep_tests '*'

echo "Counting the lines"
gcovr --gcov-executable x86_64-w64-mingw32-gcov-posix --root . --filter 'custom_actions/' \
  --txt "$folder/files.txt" --csv "$folder/files.csv" --json "$folder/lines.json" build/mingw-debug >/dev/null
cat "$folder/files.txt"

# The lines that were not run.
python3 - "$folder/lines.json" >"$folder/not_run.txt" <<'END'
import json, sys
for file in json.load(open(sys.argv[1]))["files"]:
    source = open(file["file"]).read().splitlines()
    for line in file["lines"]:
        if line["count"] == 0 and not line.get("gcovr/noncode"):
            print(f'{file["file"]}:{line["line_number"]}: {source[line["line_number"] - 1].strip()}')
END
echo "Not run:"
cat "$folder/not_run.txt"
share=$(sed -n 's/^TOTAL .* \([0-9]*\)%.*/\1/p' "$folder/files.txt")
echo "Run: $share % of the lines of custom_actions/ (required: 95 %)"
[ "$failed" = 0 ] && [ "$share" -ge 95 ]
