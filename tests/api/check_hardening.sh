#!/usr/bin/env bash
# check_hardening.sh library|module|program FILE: names each protection that the built file lacks, one a
# line, and fails if there is any.
set -euo pipefail
kind=$1 file=$2

[[ $kind =~ ^(library|module|program)$ ]] || { echo "neither library, module nor program: $kind"; exit 2; }
segments=$(readelf -lW "$file")
dynamic=$(readelf -dW "$file")
symbols=$(readelf -W --dyn-syms "$file")
notes=$(readelf -nW "$file")
missing=()

require() {  # NAME TEXT PATTERN: a line of the text matches
  grep -qE -- "$3" <<<"$2" || missing+=("$1")
}

refuse() {  # NAME TEXT PATTERN: no line does
  ! grep -qE -- "$3" <<<"$2" || missing+=("$1")
}

require "stack protector" "$symbols" ' UND __stack_chk_fail\b'
require "checked copies" "$symbols" ' UND __[a-z_]+_chk\b'
require "read-only relocations" "$segments" '^ *GNU_RELRO '
require "binding at start" "$dynamic" '\((FLAGS|FLAGS_1)\).*\b(BIND_NOW|NOW)\b'
require "no executable stack" "$segments" '^ *GNU_STACK( +0x[0-9a-f]+){5} RW  '
refuse "no text relocations" "$dynamic" '\(TEXTREL\)|\(FLAGS\).*\bTEXTREL\b'
refuse "no memory both writable and executable" "$segments" '^ *LOAD .* RWE '
require "code apart from data" "$segments" '^ *LOAD( +0x[0-9a-f]+){5} R   '
# The exported functions whose first instruction is no mark, and those that the loader would call
# in the C library's start files, which may have none. The note alone is a promise of the linker's.
unmarked_functions() {
  grep -E '\((INIT|FINI)\)' <<<"$dynamic" || true
  objdump -d --no-show-raw-insn "$file" |
    awk 'NR == FNR { if ($4 == "FUNC" && $7 != "UND") exported[substr($8, 1, index($8 "@", "@") - 1)]; next }
      /^[0-9a-f]+ <.*>:$/ { name = substr($2, 2, length($2) - 3); first = name in exported; next }
      first { if ($2 != "endbr64") print name; first = 0 }' <(printf '%s\n' "$symbols") -
}

case $kind in
  library | module)
    require "note of marked jump targets" "$notes" 'x86 feature:.*\bIBT\b'
    [[ -z $(unmarked_functions) ]] || missing+=("marked jump targets")
    require "shadow stack" "$notes" 'x86 feature:.*\bSHSTK\b'
    # Python keeps what it has loaded.
    [[ $kind == module ]] || require "stays loaded" "$dynamic" '\(FLAGS_1\).*\bNODELETE\b'
    ;;
  program) require "any address" "$dynamic" '\(FLAGS_1\).*\bPIE\b' ;;
esac

((${#missing[@]} > 0)) || exit 0
printf '%s\n' "${missing[@]}"
exit 1
