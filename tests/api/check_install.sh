#!/usr/bin/env bash
# check_install.sh CMAKE BUILD PREFIX HEADER LIBRARY: installs BUILD into PREFIX, which is emptied
# first; header and library then lie where callers look for them.
set -euo pipefail
cmake=$1 build=$2 prefix=$3 header=$4 library=$5

rm -rf -- "$prefix"
"$cmake" --install "$build" --prefix "$prefix"
for file in "$header" "$library" "$library.1"; do
  [[ -e $file ]] || { echo "not installed: $file"; exit 1; }
done
