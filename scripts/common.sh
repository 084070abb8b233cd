# Read by the other scripts at their start. A script's usage is the comment at its top.
project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
script=$project/scripts/${0##*/}

usage() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$script"; }

# refuse WHAT: ends the script, which does not understand WHAT.
refuse() {
  { printf '%s: not understood: %s\n\n' "${script##*/}" "$1"; usage; } >&2
  exit 2
}

# The processors that this script may use, such as 0-1 or 0,2.
while read -r key allowed_processors; do [ "$key" != Cpus_allowed_list: ] || break; done </proc/$$/status

# stay_on PROCESSOR: from here on this script and what it starts use this one alone.
stay_on() { [ "$allowed_processors" = "$1" ] || taskset -cp "$1" $$ >/dev/null; }

if [ "${1:-}" = --help ]; then
  usage
  exit 0
fi
