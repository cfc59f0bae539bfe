# shellcheck shell=bash
# A program that prints quotes, such as the examples, against a simulator of its own.

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

# Sets host, port, and symbol, which is one of the simulator's.
begin_simulator() {  # SIMULATOR FOLDER
  local address
  trap end_processes EXIT
  : >"$2/sim.out"
  "$1" --port 0 --rate 20 --seconds 100 --quiet >"$2/sim.out" 2>"$2/sim.err" </dev/null &
  processes+=($!)
  wait_until has_lines "$2/sim.out" 1
  address=$(sed -n 's/^listening on //p' "$2/sim.out")
  symbol=$("$1" --list | sed -n '1s/^. //p')
  [[ -n $address && -n $symbol ]] || fail "address '$address', symbol '$symbol'"
  host=${address%:*}
  port=${address#*:}
}

# Runs a program until it has printed five quotes of the simulator's symbol; Enter ends it, and it says
# nothing on standard error.
expect_printed() {  # FOLDER PROGRAM...
  local room=$1 keys
  shift
  rm -f -- "$room/keys"
  mkfifo "$room/keys"
  exec {keys}<>"$room/keys"
  : >"$room/out"
  "$@" <"$room/keys" >"$room/out" 2>"$room/err" &
  processes+=($!)
  wait_until has_lines "$room/out" 5
  printf '\n' >&"$keys"
  wait "${processes[-1]}" || fail "the program ended with status $?: $(<"$room/err")"
  grep -qE "^[0-9]{2}:[0-9]{2}:[0-9]{2} $symbol [0-9]" "$room/out" || fail "$(<"$room/out")"
  [[ ! -s $room/err ]] || fail "$(<"$room/err")"
  head -n 5 -- "$room/out"
}

# The same for the example shortest_client, or one that takes its arguments, with a simulator.
expect_quotes() {  # SIMULATOR FOLDER PROGRAM...
  local room=$2
  begin_simulator "$1" "$room"
  shift 2
  expect_printed "$room" "$@" "$host" "$port" "$symbol"
}
