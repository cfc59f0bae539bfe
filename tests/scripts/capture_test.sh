#!/usr/bin/env bash
# capture_test.sh FEED WATCH DECODE FOLDER: what tcpdump captures of all multicast feeds decodes to the
# very quotes that the viewer received. In a network namespace of its own, so as root only. FOLDER is
# emptied first and is all that the test writes to.
set -euo pipefail
feed=$1 watch=$2 decode=$3 folder=$4

skip() {
  printf 'skipped: %s\n' "$*" >&2
  exit 77
}

fail() {
  printf 'failed: %s\n' "$*" >&2
  exit 1
}

if [[ ${KAV_TEST_NETWORK:-} != own ]]; then
  ((EUID == 0)) || skip "not root"
  command -v tcpdump >/dev/null || skip "no tcpdump"
  unshare --net true 2>/dev/null || skip "no network namespace can be made here"
  KAV_TEST_NETWORK=own exec unshare --net bash "$0" "$@"
fi

# Once the condition holds; fails after 30 s.
wait_until() {
  local tries
  for ((tries = 0; tries < 300; ++tries)); do
    "$@" && return
    sleep 0.1
  done
  fail "waited in vain for: $*; $(tail -n 3 "$folder"/*.err)"
}

says() { grep -qF -- "$2" "$folder/$1"; }
has_joined() { (($(grep -c '0AFFEF ' /proc/net/igmp) == ${#groups[@]} / 2)); }  # 239.255.10.x
has_ended() { ! kill -0 "$1" 2>/dev/null; }
has_captured() { (($(tcpdump -nr "$folder/feeds.pcap" 2>/dev/null | wc -l) >= $1)); }

processes=()
trap '((${#processes[@]} == 0)) || kill "${processes[@]}" 2>/dev/null || true' EXIT
rm -rf -- "$folder"
mkdir -p -- "$folder"
ip link set lo up

groups=() number=0
for name in SHFE CFFEX CZCE GFEX LUMEN INE; do
  number=$((number + 1))
  groups+=(--multicast "239.255.10.$number:3000$number:$name@127.0.0.1")
done

: >"$folder/tcpdump.err"
tcpdump -Z root -U -ni lo -s 0 -w "$folder/feeds.pcap" udp and dst net 239.255.10.0/24 \
  2>"$folder/tcpdump.err" &
processes+=($!)
wait_until says tcpdump.err "listening on lo"
"$watch" "${groups[@]}" --format csv >"$folder/watch.csv" 2>"$folder/watch.err" </dev/null &
processes+=($!)
wait_until has_joined
"$feed" --count 2000 --speed 0 --rate 2000 --quiet >"$folder/feed.out" 2>"$folder/feed.err" </dev/null
sent=$(sed -nE 's/^end: //p' "$folder/feed.err" | grep -oE '[0-9]+ sent' | awk '{ n += $1 } END { print n }')
((sent == 2000)) || fail "sent: $sent: $(<"$folder/feed.err")"

has_watched() { (($(wc -l <"$folder/watch.csv") >= sent + 1)); }
wait_until has_watched
wait_until has_captured "$sent"
kill -INT "${processes[0]}"
kill -TERM "${processes[1]}"
wait_until has_ended "${processes[1]}"
wait "${processes[1]}" || fail "the viewer ended with status $?: $(<"$folder/watch.err")"
wait_until has_ended "${processes[0]}"
processes=()

"$decode" "$folder/feeds.pcap" --format csv >"$folder/decode.csv" 2>"$folder/decode.err" ||
  fail "the decoder ended with status $?: $(<"$folder/decode.err")"
(($(wc -l <"$folder/decode.csv") == sent + 1)) || fail "$(<"$folder/decode.err")"
# The viewer may be told of two groups in another order than they were sent.
cmp <(sort "$folder/watch.csv") <(sort "$folder/decode.csv") || fail "the quotes differ"
