#!/usr/bin/env bash
# standard_error_test.sh SIM WATCH RECORD PLOT FEED DECODE FOLDER: the programs work and end as they
# say while nothing can be written to standard error. FOLDER is emptied first.
set -euo pipefail
readonly sim=$1 record=$3 folder=$7
readonly programs=("${@:1:6}")
# shellcheck source-path=SCRIPTDIR source=../support/print_quotes.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/../support/print_quotes.sh"
rm -rf -- "$folder"
mkdir -p -- "$folder"

expect_status() {  # STATUS COMMAND...
  local wanted=$1 status=0
  shift
  "$@" >/dev/null 2>/dev/full </dev/null || status=$?
  [[ $status == "$wanted" ]] || fail "status $status instead of $wanted: $*"
}

for program in "${programs[@]}"; do expect_status 2 "$program" --no-such-option; done

trap end_processes EXIT
"$sim" --port 0 --rate 50 >"$folder/sim.out" 2>/dev/full </dev/null &
processes+=($!)
wait_until has_lines "$folder/sim.out" 1
address=$(sed -n 's/^listening on //p' "$folder/sim.out")
KAV_PASSWORD=any expect_status 0 "$record" --server "$address" --user me --output "$folder" \
  --progress 0.05 --count 200
[[ -s $(find "$folder" -name '*.csv.gz') ]] || fail "nothing was recorded"
kill -TERM "${processes[0]}"
wait "${processes[0]}" || fail "the simulator ended with status $?"
processes=()
