#!/usr/bin/env bash
# check_header.sh COMPILER...: each public header compiles alone under every language version that
# callers may use, with warnings as errors.
set -euo pipefail

root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd)
(($# > 0)) || { echo "usage: check_header.sh COMPILER..." >&2; exit 2; }

for compiler in "$@"; do
  for standard in c++11 c++14 c++17 c++20; do
    for header in "$root"/api/*.h; do
      "$compiler" -std="$standard" -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror \
        -fsyntax-only -I"$root" -include "$header" -x c++ /dev/null
      echo "ok: $compiler $standard ${header##*/}"
    done
  done
done
