#!/usr/bin/env bash
# check_shared_object.sh LIBRARY: programs will ask for libkavquote.so.1, and find both functions
# of the public header under their plain names.
set -euo pipefail
library=$1

soname=$(readelf -d "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[[ $soname == libkavquote.so.1 ]] || { echo "soname is '$soname'"; exit 1; }

exported=$(nm -D --defined-only "$library" | awk '$2 == "T" { print $3 }')
for name in CreateKAVQuoteApi DestroyKAVQuoteApi; do
  grep -qx "$name" <<<"$exported" || { echo "not exported: $name"; exit 1; }
done
