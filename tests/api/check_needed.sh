#!/usr/bin/env bash
# check_needed.sh LIBRARY: the shared object asks for nothing beyond the standard libraries, so
# that it loads into any host program.
set -euo pipefail
library=$1

needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
[[ -n $needed ]] || { echo "readelf shows no needed libraries"; exit 1; }
surplus=$(grep -vxE 'libstdc\+\+\.so\.6|libgcc_s\.so\.1|libm\.so\.6|libc\.so\.6|ld-linux-x86-64\.so\.2' \
  <<<"$needed" || true)
[[ -z $surplus ]] || { echo "needs also: $surplus"; exit 1; }
