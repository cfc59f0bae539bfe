#!/usr/bin/env bash
# from_help.sh PROGRAM OUTPUT SCRIPT [NAME=VALUE...]: writes what the awk script SCRIPT makes of the
# text that PROGRAM --help prints; packed when OUTPUT ends in .gz.
set -euo pipefail
program=$1 output=$2 script=$3
shift 3
variables=()
for variable in "$@"; do variables+=(-v "$variable"); done

pack() { if [[ $output == *.gz ]]; then gzip -9n; else cat; fi; }

trap 'rm -f -- "$output.new"' EXIT
"$program" --help |
  LC_ALL=C awk "${variables[@]}" -f "$(dirname -- "$script")/help_lines.awk" -f "$script" |
  pack >"$output.new"
mv -f -- "$output.new" "$output"
