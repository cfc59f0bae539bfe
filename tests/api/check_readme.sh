#!/usr/bin/env bash
# check_readme.sh README PROGRAM INCLUDE LIBRARY SIMULATOR COMPILER FLAGS...: the program that the
# README shows compiles as it stands, and prints the quotes of SIMULATOR (a path; when empty, it is
# compiled only).
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=../support/print_quotes.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/../support/print_quotes.sh"
readme=$1 program=$2 include=$3 library=$4 simulator=$5
shift 5

build() {  # SOURCE OUTPUT
  "${compiler[@]}" -std=c++11 -Wall -Wextra -Wpedantic -Wconversion -Werror -isystem "$include" \
    "$1" -o "$2" "$library" -Wl,-rpath,"$(dirname -- "$library")"
}

compiler=("$@")
folder=$program.run
rm -rf -- "$folder"
mkdir -p -- "$folder"
awk '/^```cpp$/ { inside = 1; next } /^```$/ { inside = 0 } inside' "$readme" >"$folder/readme.cpp"
[[ -s $folder/readme.cpp ]] || fail "no program in $readme"
build "$folder/readme.cpp" "$program"
[[ -n $simulator ]] || exit 0

begin_simulator "$simulator" "$folder"
# The same program with the simulator's port and symbol.
sed -e "s/9000/$port/" -e "s/IF2612/$symbol/" "$folder/readme.cpp" >"$folder/here.cpp"
build "$folder/here.cpp" "$folder/here"
expect_printed "$folder" "$folder/here"
