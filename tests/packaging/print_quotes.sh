# shellcheck shell=bash
# expect_quotes SIMULATOR FOLDER PROGRAM...: runs the example shortest_client (PROGRAM with whatever it
# has to be started with) against a simulator of its own, until it has printed five quotes.

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

processes=()
end_processes() { ((${#processes[@]} == 0)) || kill "${processes[@]}" 2>/dev/null || true; }

expect_quotes() {
  local quote_server=$1 room=$2 address symbol keys
  shift 2
  trap end_processes EXIT
  : >"$room/sim.out"
  "$quote_server" --port 0 --rate 20 --seconds 100 --quiet >"$room/sim.out" 2>"$room/sim.err" </dev/null &
  processes+=($!)
  wait_until has_lines "$room/sim.out" 1
  address=$(sed -n 's/^listening on //p' "$room/sim.out")
  symbol=$("$quote_server" --list | sed -n '1s/^. //p')
  [[ -n $address && -n $symbol ]] || fail "address '$address', symbol '$symbol'"

  rm -f -- "$room/keys"
  mkfifo "$room/keys"
  exec {keys}<>"$room/keys"
  : >"$room/out"
  "$@" "${address%:*}" "${address#*:}" "$symbol" <"$room/keys" >"$room/out" 2>"$room/err" &
  processes+=($!)
  wait_until has_lines "$room/out" 5
  printf '\n' >&"$keys"
  wait "${processes[1]}" || fail "the example ended with status $?: $(<"$room/err")"
  grep -qE "^[0-9]{2}:[0-9]{2}:[0-9]{2} $symbol [0-9]" "$room/out" || fail "$(<"$room/out")"
  [[ ! -s $room/err ]] || fail "$(<"$room/err")"
  head -n 5 -- "$room/out"
}
