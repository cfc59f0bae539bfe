#!/usr/bin/env bash
# check_install.sh CMAKE BUILD PREFIX HEADERS LIBRARY: installs BUILD into PREFIX, which is emptied
# first; the headers (in that folder) and the library then lie where callers look for them.
set -euo pipefail
cmake=$1 build=$2 prefix=$3 headers=$4 library=$5

rm -rf -- "$prefix"
"$cmake" --install "$build" --prefix "$prefix"
for file in "$headers/kav_quote_api.h" "$headers/kav_multicast.h" "$library" "$library.1"; do
  [[ -e $file ]] || { echo "not installed: $file"; exit 1; }
done
