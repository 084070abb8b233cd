#!/usr/bin/env bash
# usage: scripts/bench.sh [--report]
#
# Runs the benchmarks, prints their table (also in build/bench/results.txt) and writes it to docs/benchmarks.md and,
# as a chart, to docs/benchmarks.svg. A missed aim does not fail the script: the figures depend on the machine.
#   --report   writes both files from the last run's results
set -eu
source "$(dirname "$0")/common.sh"
cd "$project"
case $#${1:-} in 0 | 1--report) ;; *) refuse "$*" ;; esac
results=build/bench/results.txt

run_benchmarks() {
  scripts/build.sh
  mkdir -p build/bench
  rm -f "$results"
  trap 'scripts/wine.sh --end' EXIT

  # Start with a fresh Wine server.
  scripts/wine.sh --end
  scripts/wine.sh build/mingw/benchmarks.exe >build/bench/output.txt </dev/null
  tr -d '\r' <build/bench/output.txt | tee "$results"
}

# Columns are separated by two or more spaces. An empty line ends the table; notes follow.
write_table() {
  awk -F '  +' '
    /^$/ { notes = 1; print ""; next }
    notes { print; next }
    { printf "|"; for (i = 1; i <= NF; ++i) printf " %s |", $i; print "" }
    NR == 1 { print "| --- | --- | ---: | ---: | ---: | --- | ---: | --- |" }' "$results"
}

# Replaces the text between the page's two markers with the table.
write_page() {
  write_table >build/bench/table.md
  awk '
    /^<!-- end of the table -->/ { skip = 0 }
    !skip { print }
    /^<!-- table/ { skip = 1; while ((getline line <"build/bench/table.md") > 0) print line }' \
    docs/benchmarks.md >build/bench/page.md
  cp build/bench/page.md docs/benchmarks.md
}

# A bar for each figure with an aim: the share of the aim that it uses, cut off at 1.5.
write_picture() {
  awk -F '  +' '
    function text(x, y, anchor, content) {
      gsub(/&/, "\\&amp;", content); gsub(/</, "\\&lt;", content); gsub(/>/, "\\&gt;", content)
      body = body sprintf("<text x=\"%d\" y=\"%d\" text-anchor=\"%s\">%s</text>\n", x, y, anchor, content)
    }
    function upright(of_aim, style) {
      x = left + of_aim * unit
      lines = lines sprintf("<path d=\"M%d %d V%d\" %s/>\n", x, top - 8, y, style)
      text(x, top - 14, "middle", sprintf("%.1f", of_aim))
    }
    BEGIN { left = 420; unit = 260; top = 66; y = top }
    /^$/ { exit }
    NR == 1 || $7 == "-" { next }
    {
      length_of_bar = ($7 < 0 ? 0 : $7 > 1.5 ? 1.5 : $7) * unit
      body = body sprintf("<rect x=\"%d\" y=\"%d\" width=\"%.1f\" height=\"14\" fill=\"%s\"/>\n",
                          left, y, length_of_bar, $7 > 1 ? "#d1495b" : "#2a7f9e")
      text(left - 8, y + 11, "end", $1)
      text(left + 1.5 * unit + 8, y + 11, "start", $7 ($7 > 1 ? " missed" : ""))
      y += 20
    }
    END {
      upright(0, "stroke=\"#999\""); upright(0.5, "stroke=\"#ddd\"")
      upright(1, "stroke=\"#222\" stroke-width=\"2\" stroke-dasharray=\"6 3\""); upright(1.5, "stroke=\"#ddd\"")
      text(left, 24, "start", "Share of its aim that each figure uses; above 1.0 the aim is missed")
      printf "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"900\" height=\"%d\" ", y + 12
      print "font-family=\"DejaVu Sans, Verdana, sans-serif\" font-size=\"11\">"
      print "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>"
      printf "%s%s</svg>\n", lines, body
    }' "$results" >docs/benchmarks.svg
}

[ "${1:-}" = --report ] || run_benchmarks
write_page
write_picture
