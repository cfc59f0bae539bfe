#!/usr/bin/env bash
# run_blocks.sh ROOT BUILD ROOM NAME: runs code blocks of the pages as a reader would, in the folder
# ROOM and a network of its own; NAME is one of the functions at the end. Exit status: 0 they do what
# the page says, 1 they do not, 77 this machine has no network for us.
set -euo pipefail
readonly root=$1 build=$2 room=$3 name=$4

fail() {
  printf 'failed: %s\n' "$*" >&2
  exit 1
}

if [[ -z ${KAV_OWN_NETWORK:-} ]]; then
  own=(unshare --net)
  ((EUID == 0)) || own=(unshare --map-root-user --net)
  "${own[@]}" ip link set lo up 2>/dev/null || exit 77
  KAV_OWN_NETWORK=yes exec "${own[@]}" bash "$0" "$@"
fi

# ---- a reader's machine ----

prepare() {
  ip link set lo up 2>/dev/null || true
  rm -rf -- "$room"
  mkdir -p -- "$room/home" "$room/project/build"
  ln -s -- "$build" "$room/project/build/release"
  ln -s -- "$root/examples" "$room/project/examples"
  cd -- "$room/project"
  export HOME=$room/home PATH=/usr/bin:/bin:$PATH  # Debian's Python, not one that was put before it
  export PATH=$build/apps/sim:$build/apps/watch:$build/apps/feed:$PATH
  export PATH=$build/apps/decode:$build/apps/record:$build/apps/plot:$PATH
  ln -s -- "$room/out" "$room/err" .
  : >out
  : >err
}

# The block number N of a page, counted from 1; lines that call ./kav are left out, other tests run it.
block() {  # PAGE N
  local text
  text=$(awk -v wanted="$2" '/^```/ { if (inside) inside = 0; else { inside = 1; ++n; next } }
    inside && n == wanted' "$root/$1" | grep -v '^\./kav ' || true)
  [[ -n $text ]] || fail "$1 has no block $2"
  printf '%s\n' "$text"
}

groups=()
# Ends the program that was begun last, which a shell may have become; it has to end well.
end_last() {
  pkill -TERM -P "${groups[-1]}" || kill -TERM "${groups[-1]}" || fail "it had ended already:" "$(tail err)"
  wait "${groups[-1]}" || fail "status $?:" "$(tail err)"
}

end_groups() {
  local group
  for group in "${groups[@]}"; do kill -KILL -- "-$group" 2>/dev/null || true; done
}
trap end_groups EXIT

# Commands that go on for ever; their output is appended to out and err.
begin() {  # COMMANDS
  setsid bash -euc "$1" <"$room/keys" >>out 2>>err &
  groups+=($!)
}

limit=60  # seconds that a block may take
run() {
  timeout "$limit" bash -euc "$1" </dev/null >>"$room/out" 2>>"$room/err" ||
    fail "status $?: $1" "$(tail -n 20 -- "$room/err")"
}

# Once enough lines match; fails after 60 s.
wait_for_lines() {  # FILE COUNT PATTERN
  local tries
  for ((tries = 0; tries < 600; ++tries)); do
    (($(grep -cE -- "$3" "$1" || true) >= $2)) && return
    sleep 0.1
  done
  fail "waited in vain for $2 lines like '$3' in $1:" "$(tail -n 20 "$1" err)"
}

# ---- the pages ----

commands_and_options_of_kav_exist() {
  local page line command options word help
  help=$("$root/kav" help)
  for page in "$root"/README.md "$root"/CONTRIBUTING.md "$root"/docs/*.md; do
    while IFS= read -r line; do
      read -r _ command options <<<"${line%%#*}"
      grep -qE "^  $command( |$)" <<<"$help" || fail "$page: there is no ./kav $command"
      for word in $options; do
        grep -qwF -- "$word" <<<"$help" || [[ $word == FILE* || $word =~ ^[0-9]+$ ]] ||
          fail "$page: ./kav $command knows no $word"
      done
      printf '%s\n' "$line" >>out
    done < <(awk '/^```/ { inside = !inside } inside' "$page" | grep '^\./kav ' || true)
  done
  (($(wc -l <out) >= 20)) || fail "hardly any line calls ./kav"
}

getting_started_ends_with_quotes() {
  run "$(block docs/getting-started.md 2)"
  begin "$(block docs/getting-started.md 3 | sed -n 's/&$//p')"
  wait_for_lines out 1 '^listening on'  # a reader is slower than the simulator, a test is not
  begin "$(block docs/getting-started.md 3 | sed '/&$/d')"
  wait_for_lines out 3 'IF2612'
  : >out
  begin "$(block docs/getting-started.md 4)"
  wait_for_lines out 3 '^[0-9:]{8} IF2612 [0-9.]+$'
  run "$(block docs/examples.md 1)"
  run './queue_hand_over 127.0.0.1 9000 5 IF2612'
  wait_for_lines out 1 '^5 quotes, 0 dropped'
}

installing_gives_what_cmake_and_pkg_config_find() {
  local way libraries
  run "$(block docs/installing.md 1)"
  awk '/^```cpp/ { inside = 1; next } /^```/ { inside = 0 } inside' "$root/README.md" >quotes.cpp
  run "$(block docs/installing.md 4)"
  libraries=$(LD_LIBRARY_PATH="" ldd a.out)
  [[ $libraries == *"libkavquote.so.1 => $HOME/kavquote/lib"* ]] || fail "$libraries"
  for way in find_package add_subdirectory FetchContent; do
    mkdir -p "$way"
    {
      printf '%s\n' 'cmake_minimum_required(VERSION 3.25)' 'project(yours LANGUAGES CXX)' \
        'add_executable(your_program ../quotes.cpp)'
      case $way in
        find_package) block docs/installing.md 2 ;;
        add_subdirectory) block docs/installing.md 3 | grep 'add_subdirectory' ;;
        FetchContent) block docs/installing.md 3 | grep 'FetchContent' ;;
      esac | sed "s#path/to/kavquote\()\)#$root\1#; s#add_subdirectory(\(.*\))#add_subdirectory(\1 kavquote)#"
      printf '%s\n' 'target_link_libraries(your_program PRIVATE kavquote::kavquote)'
    } >"$way/CMakeLists.txt"
    run "cmake -S $way -B $way/build -DCMAKE_PREFIX_PATH=$HOME/kavquote"
  done
  run "cmake --build find_package/build"
}

multicast_feeds_are_watched_captured_and_decoded() {
  begin "kav-feed --help >/dev/null; $(block docs/multicast.md 1 | grep '^kav-feed')"
  wait_for_lines out 5 '239\.255\.10\.'
  : >out
  begin "$(block docs/multicast.md 1 | grep '^kav-watch')"
  wait_for_lines out 3 '[0-9]'
  if command -v tcpdump >/dev/null; then
    begin "$(block docs/multicast.md 3 | grep '^tcpdump')"
    wait_for_lines err 1 'listening on lo'
    sleep 2
    end_last
    : >out
    run "$(block docs/multicast.md 3 | grep '^kav-decode')"
    wait_for_lines out 3 '[0-9]'
  fi
}

the_call_for_multicast_compiles() {
  {
    printf '%s\n' '#include <iostream>'
    block docs/multicast.md 2 | sed '/^#include/!d'
    printf '%s\n' 'void start(KAVQuoteApi* api, KAVQuoteEvent& events) {'
    block docs/multicast.md 2 | sed '/^#include/d'
    printf '%s\n' '}'
  } >start.cpp
  run "g++ -std=c++11 -Wall -Wextra -Werror -fsyntax-only -I $root start.cpp"
}

a_recording_is_replayed_and_drawn() {
  local day lines
  begin "kav-sim --port 9000 --rate 50"
  wait_for_lines out 1 '^listening on'
  lines=$(block docs/recording.md 1 | sed "s#/data/ticks#$room/ticks#g")
  mkdir -- "$room/ticks"
  printf 'secret\n' >&"$keys"
  begin "$(grep -E '^(read|kav-record)' <<<"$lines")"
  sleep 3
  end_last
  day=$(find "$room/ticks" -name 'quotes-*.csv.gz' ! -name '*-odd*' | sed -E 's/.*quotes-([0-9]+)\.csv\.gz/\1/')
  lines=$(sed -E "s/quotes-[0-9]{8}/quotes-$day/g" <<<"$lines")
  : >out
  begin "$(grep '^kav-sim' <<<"$lines")"
  wait_for_lines out 1 '^listening on .*:9100$'
  run "$(grep '^kav-plot' <<<"$lines")"
  [[ $(head -c 4 -- *.png | tail -c 3) == PNG ]] || fail "no picture"
}

# They take minutes to build: CI runs this in the sources, behind the benchmarks.
benchmarks_run_as_the_pages_say() {
  limit=300
  cd -- "$root"
  run "$(block docs/performance.md 2 | sed "s#rates.json#$room/&#; s#quantiles#$room/&#")"
  [[ -s $room/rates.json && -s $room/quantiles ]] || fail "no figures"
  run "$(block docs/python.md 7)"
  tail -n 8 -- "$room/out"
}

# A block more or less than these has to be run by a test first.
every_block_is_in_a_test() {
  local page count known
  known='CONTRIBUTING 1,README 2,architecture 1,examples 1,getting-started 4,installing 4,multicast 3,performance 2'
  known+=',promises 1,python 7,recording 2,reliability 1,wire 11'
  for page in "$root"/*.md "$root"/docs/*.md; do
    count=$(($(grep -c '^```' "$page" || true) / 2))
    ((count == 0)) || printf '%s %s\n' "$(basename -- "$page" .md)" "$count"
  done | LC_ALL=C sort | paste -sd, >out
  [[ $(<out) == "$known" ]] || fail "the blocks are $(<out), those in tests $known"
}

prepare
mkfifo "$room/keys"
exec {keys}<>"$room/keys"
declare -F "$name" >/dev/null || fail "there is no test $name"
"$name"
