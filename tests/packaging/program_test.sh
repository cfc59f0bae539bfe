#!/usr/bin/env bash
# program_test.sh PROGRAM VERSION MANUAL COMPLETION: --version is one line of name and version; manual
# page and completion have each option that --help has, and no other.
set -euo pipefail
readonly program=$1 version=$2 manual=$3 completion=$4
name=$(basename -- "$program")
readonly name

fail() {
  printf 'failed: %s\n' "$*" >&2
  exit 1
}

# Found otherwise than the programs that make manual and completion do: at the beginning of lines.
options_of_help() {
  "$program" --help | grep -oE -- '^  -[-a-z0-9]+(,-[-a-z0-9]+)*' | tr ',' '\n' | tr -d ' ' | sort -u
}

# What bash offers for the last of the words.
completions_of() {  # WORD...
  bash -c 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
    function=$(complete -p "$1" | sed -E "s/.* -F ([^ ]+) .*/\1/")
    "$function"; printf "%s\n" "${COMPREPLY[@]}"' bash "$completion" "$name" "$@"
}

options=$(options_of_help)
(($(wc -l <<<"$options") > 3)) || fail "options of --help not found: $options"

[[ $("$program" --version) == "$name $version" ]] || fail "--version says $("$program" --version)"

text_of_manual() { gzip -dc -- "$manual" | sed -E 's/\\-/-/g; s/\\e/\\/g; s/\\&//g'; }

in_manual=$(text_of_manual | sed -nE 's/^\.B (-[^ ]+).*/\1/p' | tr ',' '\n' | sort -u)
[[ $in_manual == "$options" ]] || fail "in the manual: $in_manual; in --help: $options"
grep -qE '^\.SH NAME$' < <(text_of_manual) || fail "the manual has no name"

offered=$(completions_of - | sort -u)
[[ $offered == "$options" ]] || fail "offered for completion: $offered; in --help: $options"
offered=$(completions_of --vers)
[[ $offered == --version ]] || fail "--vers is completed to '$offered'"

# Nothing that --help says is lost on the way, headings apart.
words_of() { tr -s '[:space:]' '\n' | sed '/^$/d' | sort -u; }
text_of_help() { "$program" --help | grep -vE '^Usage:|^[A-Z][^.]*:$'; }
missing=$(comm -23 <(text_of_help | words_of) <(text_of_manual | words_of) | grep -vx REQUIRED || true)
[[ -z $missing ]] || fail "the manual lacks these words: $missing"
