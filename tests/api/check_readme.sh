#!/usr/bin/env bash
# check_readme.sh README PROGRAM INCLUDE LIBRARY SIMULATOR COMPILER FLAGS...: the program that the
# README shows compiles as it stands, and prints the quotes of SIMULATOR (a path; when empty, it is
# compiled only).
set -euo pipefail
readme=$1 program=$2 include=$3 library=$4 simulator=$5
shift 5

build() {  # SOURCE OUTPUT
  "${compiler[@]}" -std=c++11 -Wall -Wextra -Wpedantic -Wconversion -Werror -isystem "$include" \
    "$1" -o "$2" "$library" -Wl,-rpath,"$(dirname -- "$library")"
}

fail() {
  printf 'failed: %s\n' "$*" >&2
  exit 1
}

# Once the condition holds; fails after 30 s.
wait_until() {
  local tries
  for ((tries = 0; tries < 300; ++tries)); do
    "$@" && return
    sleep 0.1
  done
  fail "waited in vain for: $*"
}

has_lines() { (($(wc -l <"$1") >= $2)); }

compiler=("$@")
folder=$program.run
rm -rf -- "$folder"
mkdir -p -- "$folder"
awk '/^```cpp$/ { inside = 1; next } /^```$/ { inside = 0 } inside' "$readme" >"$folder/readme.cpp"
[[ -s $folder/readme.cpp ]] || fail "no program in $readme"
build "$folder/readme.cpp" "$program"
[[ -n $simulator ]] || exit 0

processes=()
trap '((${#processes[@]} == 0)) || kill "${processes[@]}" 2>/dev/null || true' EXIT
: >"$folder/port"
"$simulator" --port 0 --rate 20 --seconds 100 --quiet >"$folder/port" 2>"$folder/sim.log" </dev/null &
processes+=($!)
wait_until has_lines "$folder/port" 1
port=$(sed -n 's/^listening on 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$folder/port")
symbol=$("$simulator" --list | sed -n '1s/^. //p')
[[ -n $port && -n $symbol ]] || fail "port '$port', symbol '$symbol'"

# The same program with the simulator's port and symbol.
sed -e "s/9000/$port/" -e "s/IF2509/$symbol/" "$folder/readme.cpp" >"$folder/here.cpp"
build "$folder/here.cpp" "$folder/here"
mkfifo "$folder/keys"
exec {keys}<>"$folder/keys"
: >"$folder/out"
"$folder/here" <"$folder/keys" >"$folder/out" 2>"$folder/errors" &
processes+=($!)
wait_until has_lines "$folder/out" 5
printf '\n' >&"$keys"
wait "${processes[1]}" || fail "the program ended with status $?: $(<"$folder/errors")"
grep -qE "^[0-9]{2}:[0-9]{2}:[0-9]{2} $symbol [0-9]" "$folder/out" || fail "$(<"$folder/out")"
[[ ! -s $folder/errors ]] || fail "$(<"$folder/errors")"
