# Read by the other scripts at their start: goes to the project's folder. A script's usage is the comment at its top.
script=${BASH_SOURCE[1]}
case $script in /*) ;; *) script=$PWD/$script ;; esac
cd "$(dirname "$script")/.."

usage() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$script"; }

# refuse [WHAT]: ends the script, which does not understand WHAT.
refuse() {
  { [ $# = 0 ] || printf '%s: not understood: %s\n\n' "${script##*/}" "$1"; usage; } >&2
  exit 2
}

case ${1:-} in -h | --help) usage; exit 0 ;; esac
