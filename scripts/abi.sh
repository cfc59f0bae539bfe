#!/usr/bin/env bash
# What programs that were built against the installed headers need from the library.
#
#   abi.sh dump LIBRARY HEADERS OUTPUT   describes the functions of C linkage that LIBRARY exports, and
#                                        their types as far as the folder HEADERS declares them
#   abi.sh compare OLD NEW               two such descriptions: 0 when NEW serves all that was built
#                                        for OLD, 1 when not (told on standard output), 2 on an error
#
# The library has to carry full debug information: g++ -g -femit-class-debug-always.
set -euo pipefail

root=$(cd -- "$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")/.." && pwd)
readonly root

dump() {  # LIBRARY HEADERS OUTPUT
  abidw --no-corpus-path --no-comp-dir-path --no-show-locs --drop-private-types \
    --headers-dir "$2" --suppressions "$root/cmake/abi/others.ini" --out-file "$3" "$1" || exit 2
  grep -q '<function-decl ' "$3" || { echo "no functions in $1" >&2; exit 2; }
}

# What is added breaks nobody. A changed record sets only the bit for changes that somebody should
# look at (4); one that surely breaks sets another (8); 1 and 2 are errors.
compare() {  # OLD NEW
  local status=0
  abidiff --no-added-syms --no-unreferenced-symbols "$1" "$2" || status=$?
  (((status & 3) == 0)) || exit 2
  ((status == 0)) || exit 1
}

case ${1:-} in
  dump | compare) "$@" ;;
  *) echo "usage: abi.sh dump LIBRARY HEADERS OUTPUT | compare OLD NEW" >&2; exit 2 ;;
esac
