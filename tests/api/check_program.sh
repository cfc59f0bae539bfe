#!/usr/bin/env bash
# check_program.sh SOURCE PROGRAM INCLUDE LIBRARY COMPILER FLAGS...: compiles and links SOURCE as a
# caller with a C++11 compiler would, and runs it.
set -euo pipefail
source=$1 program=$2 include=$3 library=$4
shift 4

"$@" -std=c++11 -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -isystem "$include" \
  "$source" -o "$program" "$library" -Wl,-rpath,"$(dirname -- "$library")"
"$program"
