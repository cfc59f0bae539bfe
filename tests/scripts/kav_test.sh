#!/usr/bin/env bash
# kav_test.sh KAV FOLDER TEST: runs one of the functions below. FOLDER is emptied first and is all
# that the test writes to.
set -euo pipefail
readonly kav=$1 folder=$2 test=$3
rm -rf -- "$folder"
mkdir -p -- "$folder"

fail() {
  printf 'failed: %s\n' "$*" >&2
  exit 1
}

# Runs a command; sets `status`, and `out` and `err` to what it wrote.
run() {
  status=0
  "$@" >"$folder/out" 2>"$folder/err" </dev/null || status=$?
  out=$(<"$folder/out")
  err=$(<"$folder/err")
}

# Tells CTest that this machine cannot run the test.
skip() {
  printf 'skipped: %s\n' "$*" >&2
  exit 77
}

expect_status() { [[ $status == "$1" ]] || fail "status $status instead of $1: $err"; }
expect_one_line() { [[ -n $1 && $1 != *$'\n'* ]] || fail "not one line: '$1'"; }
expect_text() { [[ $1 == *"$2"* ]] || fail "'$2' is not in: $1"; }

commands_of_script() {
  sed -nE 's/^cmd_([a-z]+)\(\).*/\1/p' "$kav" "${kav%/*}"/scripts/kav_*.sh | sort
}
commands_of_help() {
  "$kav" help | sed -n '/^Commands:/,/^$/p' | sed -nE 's/^  ([a-z]+)( .*)?$/\1/p' | sort
}

help_lists_every_command_and_no_other() {
  local in_script in_help
  in_script=$(commands_of_script)
  in_help=$(commands_of_help | grep -vx help)
  (($(wc -l <<<"$in_script") > 5)) || fail "commands of the script not found: $in_script"
  [[ $in_script == "$in_help" ]] || fail "script: $in_script; help: $in_help"
}

an_unknown_command_exits_2_with_one_line() {
  run "$kav" nonsense
  expect_status 2
  expect_one_line "$err"
  expect_text "$err" nonsense
  [[ -z $out ]] || fail "standard output is not empty: $out"
}

wrong_arguments_exit_2_with_one_line() {
  local line arguments
  for line in "demo --seconds" "demo --seconds 0" "demo --seconds two" "demo --seconds=" \
    "demo --nonsense" "demo /nowhere/ticks.csv" "demo $kav $kav" "build nonsense" \
    "build dev asan" "bench nonsense" "bench --quick --write-docs" "sanitize nonsense" \
    "format nonsense" "tidy nonsense" "tidy --minutes" "tidy --minutes 0" "scripts nonsense" \
    "lint nonsense" "coverage nonsense" "abi nonsense" "packages nonsense" "setup nonsense" "clean nonsense" "fuzz nonsense" "fuzz all 0" "fuzz 5 5" \
    "fuzz all 5 5" "chaos nonsense" "chaos --lives" "chaos --seed x" "chaos --preset x" \
    "faults nonsense" "soak nonsense" "soak 0" "soak 1 1"; do
    read -ra arguments <<<"$line"
    run "$kav" "${arguments[@]}"
    [[ $status == 2 ]] || fail "kav $line: status $status"
    expect_one_line "$err"
  done
}

the_script_works_from_any_folder_and_through_a_link() {
  local expected
  expected=$("$kav" help)
  ln -s -- "$kav" "$folder/link"
  cd /
  [[ $("$folder/link" help) == "$expected" ]] || fail "another help through a link"
  run "$folder/link" build nonsense
  expect_status 2
}

# ---- installing, with an apt-get of our own ----

# Makes $folder/bin: the machine's commands, but for those that the project needs and for apt-get.
# A g++ that accepts everything makes all headers seem to be there.
make_bare_machine() {
  mkdir -- "$folder/bin"
  ln -s -f -t "$folder/bin" -- /bin/* /usr/bin/*
  rm -f -- "$folder"/bin/{ninja,clang++,clang-format,clang-tidy,shellcheck,git,cmake,g++,tcpdump,gnuplot,python3,cppcheck,gcovr,abidiff,readelf,pkg-config,dpkg-shlibdeps,file,lintian,debootstrap,apt-get,sudo}
  make_command g++
  make_command cmake
  make_command git
  make_command tcpdump
  make_command gnuplot
  make_command python3
  make_command cppcheck
  make_command gcovr
  make_command abidiff
  make_command readelf
  make_command pkg-config
  make_command dpkg-shlibdeps
  make_command file
  make_command lintian
  make_command debootstrap
  # Without root the script asks for sudo.
  # shellcheck disable=SC2016
  make_command sudo '[[ $1 != -n ]] || shift; exec "$@"'
}

# What is there may be a link to the machine's own command, which must not be written through.
make_command() {  # NAME [BODY]
  rm -f -- "$folder/bin/$1"
  printf '#!/bin/bash\n%s\n' "${2:-cat >/dev/null}" >"$folder/bin/$1"
  chmod +x "$folder/bin/$1"
}

# An apt-get that writes down how it is called and "installs" every package by its command.
make_apt_get() {  # [TEXT to run first]
  make_command apt-get "echo \"\$*\" >>'$folder/apt.log'
    ${1:-}
    [[ \$* == *' install '* ]] || exit 0
    for command in ninja clang++ clang-format clang-tidy shellcheck; do
      ln -s -f /bin/true '$folder/bin/'\$command
    done"
}

run_setup() { run env PATH="$folder/bin" "$kav" setup; }

what_is_missing_is_named_and_installed() {
  make_bare_machine
  make_apt_get
  run_setup
  expect_status 0
  expect_text "$err" "installing ninja-build: "
  expect_text "$(<"$folder/apt.log")" \
    "install -y --no-install-recommends ninja-build clang-format clang clang-tidy shellcheck"
  [[ $(<"$folder/apt.log") != *update* ]] || fail "the lists were fetched without need"
}

package_lists_are_fetched_only_when_an_installation_fails() {
  make_bare_machine
  # shellcheck disable=SC2016
  make_apt_get "[[ \$* != *' update'* ]] || { touch '$folder/updated'; exit 0; }
    [[ -e '$folder/updated' ]] || exit 100"
  run_setup
  expect_status 0
  [[ $(grep -oE ' (update|install) ?' "$folder/apt.log" | tr -d ' \n') == installupdateinstall ]] ||
    fail "calls: $(<"$folder/apt.log")"
}

nothing_is_installed_when_nothing_is_missing() {
  local command
  make_bare_machine
  make_apt_get
  for command in ninja clang++ clang-format clang-tidy shellcheck; do make_command "$command"; done
  run_setup
  expect_status 0
  [[ ! -e $folder/apt.log && -z $err ]] || fail "it said: $err"
}

without_apt_get_one_line_tells_what_to_install() {
  make_bare_machine
  run_setup
  expect_status 3
  expect_one_line "$err"
  expect_text "$err" "apt-get install ninja-build clang-format clang clang-tidy shellcheck"
}

# ---- clang-tidy, with one of our own in a project of three sources ----

# $folder/project: the script, a library source, a test and one that is not compiled, in one commit.
make_checked_project() {
  local source
  make_bare_machine
  for source in ninja clang++ clang-format shellcheck; do make_command "$source"; done
  ln -s -f -- "$(command -v git)" "$folder/bin/git"
  make_command nproc 'echo 1'  # one source after the other
  make_command clang-tidy "printf '%s\n' \"\${!#}\" >>'$folder/looked_at'"
  mkdir -p -- "$folder/project/build/tidy" "$folder/project/tests" "$folder/project/tools"
  cp -R -- "$kav" "${kav%/*}/scripts" "$folder/project"
  cd -- "$folder/project"
  printf '/build/\n' >.gitignore
  for source in tests/first.cpp tools/second.cpp tests/left_out.cpp; do printf '\n' >"$source"; done
  printf '{"file": "%s"}\n' "$PWD/tests/first.cpp" "$PWD/tools/second.cpp" \
    >build/tidy/compile_commands.json
  git init -q -b main
  commit_all
}

commit_all() {
  git add -A
  git -c user.name=test -c user.email=test@localhost commit -q -m change
}

run_tidy() { run env -u KAV_BASE PATH="$folder/bin" ./kav tidy "$@"; }

tidy_looks_at_the_sources_that_changed_those_of_the_library_first() {
  make_checked_project
  printf '// changed\n' | tee tests/first.cpp tests/left_out.cpp >tools/second.cpp
  commit_all
  run_tidy
  expect_status 0
  expect_text "$err" "over 2 sources"
  [[ $(<"$folder/looked_at") == $'tools/second.cpp\ntests/first.cpp' ]] ||
    fail "clang-tidy looked at: $(<"$folder/looked_at")"
}

tidy_is_content_when_no_source_changed() {
  make_checked_project
  printf 'a page\n' >README.md
  commit_all
  run_tidy --minutes 3
  expect_status 0
  expect_text "$err" "over 0 sources"
  [[ ! -e $folder/looked_at ]] || fail "clang-tidy looked at: '$(<"$folder/looked_at")'"
}

tidy_fails_when_clang_tidy_finds_something() {
  make_checked_project
  make_command clang-tidy 'exit 1'
  printf '// changed\n' >tests/first.cpp
  commit_all
  run_tidy
  expect_status 1
  expect_text "$err" "clang-tidy found something"
}

# ---- the demo ----

# The processes that have our TMPDIR: the demo's own, whatever else runs on the machine.
demo_processes() {
  local environment
  for environment in /proc/[0-9]*/environ; do
    if grep -sqzxF "TMPDIR=$folder/tmp" "$environment"; then
      basename -- "$(dirname -- "$environment")"
    fi
  done
}

# A test that fails leaves no process behind either.
end_demo_processes() {
  local processes
  mapfile -t processes < <(demo_processes)
  ((${#processes[@]} == 0)) || kill -KILL "${processes[@]}" 2>/dev/null || true
}

wait_until() {  # SECONDS COMMAND...
  local deadline=$((SECONDS + $1))
  shift
  until "$@"; do
    ((SECONDS < deadline)) || return 1
    sleep 0.1
  done
}

demo_has_ended() { ! kill -0 "$demo_pid" 2>/dev/null; }
no_demo_process() { [[ -z $(demo_processes) ]]; }
has_lines() { (($(wc -l <"$folder/out") >= $1)); }

expect_nothing_left() {
  wait_until 10 no_demo_process || fail "still running: $(demo_processes)"
  [[ -z $(ls -A -- "$folder/tmp") ]] || fail "files left: $(ls -A -- "$folder/tmp")"
}

run_demo() {  # ARGUMENTS: in a folder of its own, its output into a pipe
  mkdir -- "$folder/tmp"
  cd -- "$folder"
  # shellcheck disable=SC2016
  run env TMPDIR="$folder/tmp" bash -c 'set -o pipefail; "$@" | cat' - "$kav" demo "$@"
}

# Starts the demo in the background, and waits for its first quotes; sets demo_pid.
start_demo() {
  mkdir -- "$folder/tmp"
  : >"$folder/out"
  TMPDIR="$folder/tmp" "$kav" demo >"$folder/out" 2>"$folder/err" </dev/null &
  demo_pid=$!
  wait_until 600 has_lines 3 || fail "no quotes: $(<"$folder/err")"
}

the_demo_shows_quotes() {
  run_demo --seconds 3
  expect_status 0
  has_lines 3 || fail "too few lines: $out; $err"
  [[ $out != *$'\e'* ]] || fail "not plain: $out"
  [[ $out =~ [0-9]{2}:[0-9]{2}:[0-9]{2} ]] || fail "no times: $out"
  expect_nothing_left
}

the_demo_replays_a_tick_file() {
  local row
  {
    printf 'TradingDay,InstrumentID,ExchangeID,LastPrice,PreSettlementPrice,PreClosePrice,'
    printf 'PreOpenInterest,OpenPrice,HighestPrice,LowestPrice,Volume,Turnover,OpenInterest,'
    printf 'UpperLimitPrice,LowerLimitPrice,UpdateTime,UpdateMillisec'
    printf ',BidPrice%d,BidVolume%d,AskPrice%d,AskVolume%d' 1 1 1 1 2 2 2 2 3 3 3 3 4 4 4 4 5 5 5 5
    printf '\n'
    for row in 1 2 3; do
      printf '20250901,ZZ2509,SHFE,4711.5,1,1,1,1,1,1,%d,1,1,9,1,09:00:0%d,0,4711,1,4712,1' \
        "$row" "$row"
      printf ',%.0s' {1..16}
      printf '\n'
    done
  } >"$folder/ticks.csv"
  run_demo ticks.csv --seconds 5
  expect_status 0
  expect_text "$out" ZZ2509
  expect_text "$out" 4711.5
  expect_nothing_left
}

# Lines of the viewer whose symbol and exchange match, as the feeds deliver them.
expect_quotes_of() {  # SYMBOL-PATTERN EXCHANGE
  grep -qE "^[0-9:.]+ +$1 +$2 " "$folder/out" || fail "no quote of $1 $2: $out; $err"
}

expect_quotes_of_all_feeds() {
  local feed
  expect_quotes_of 'rb[0-9]+' CFFEX  # SHFE
  expect_quotes_of 'sc[0-9]+' CFFEX  # INE
  expect_quotes_of 'IF[0-9]+' CFFEX
  expect_quotes_of 'TA[0-9]+' CZCE
  expect_quotes_of 'si[0-9]+' GFEX
  expect_quotes_of 'rb[0-9]+' SHFE  # lumen
  for feed in SHFE INE CFFEX CZCE GFEX LUMEN; do
    [[ $err =~ :$feed@127.0.0.1:\ [1-9][0-9]*\ datagrams ]] || fail "no sum of $feed: $err"
  done
}

the_demo_shows_the_quotes_of_all_multicast_feeds() {
  run_demo --multicast --seconds 5
  expect_status 0
  expect_quotes_of_all_feeds
  expect_nothing_left
}

without_a_route_for_multicast_the_demo_gets_a_network_of_its_own() {
  ((EUID == 0)) || skip "not root"
  unshare --net true 2>/dev/null || skip "no network namespace can be made here"
  mkdir -- "$folder/tmp"
  # shellcheck disable=SC2016
  run env TMPDIR="$folder/tmp" unshare --net \
    bash -c 'set -o pipefail; "$1" demo --multicast --seconds 5 | cat' - "$kav"
  expect_status 0
  expect_text "$err" "in a network namespace of its own"
  expect_quotes_of_all_feeds
  expect_nothing_left
}

the_demo_ends_well_when_it_is_interrupted() {
  start_demo
  kill -TERM "$demo_pid"
  status=0
  wait "$demo_pid" || status=$?
  [[ $status == 0 ]] || fail "status $status: $(<"$folder/err")"
  expect_nothing_left
}

has_text() { grep -qF -- "$1" "$folder/out"; }

has_screen_or_end() { has_text $'\e[?1049h' || demo_has_ended; }

the_demo_is_a_table_in_a_terminal_and_ctrl_c_ends_it_well() {
  local keys
  mkdir -- "$folder/tmp"
  mkfifo -- "$folder/keys"
  exec {keys}<>"$folder/keys"
  : >"$folder/out"
  # Background jobs ignore SIGINT from birth, people's shells do not. `script` starts the user's
  # shell, which must not stay between the keys and the demo: some shells end at once at Ctrl-C.
  env --default-signal=INT TERM=xterm TMPDIR="$folder/tmp" \
    script -q -e -c "exec '$kav' demo" /dev/null <"$folder/keys" >"$folder/out" 2>"$folder/err" &
  demo_pid=$!
  wait_until 600 has_screen_or_end || fail "no screen: $(<"$folder/out")"
  has_text $'\e[?1049h' || fail "no screen: $(<"$folder/out") $(<"$folder/err")"
  wait_until 30 has_text SHFE || fail "no quotes: $(<"$folder/out")"
  printf '\003' >&"$keys"
  wait_until 30 demo_has_ended || fail "Ctrl-C did not end it"
  status=0
  wait "$demo_pid" || status=$?
  [[ $status == 0 ]] || fail "status $status: $(<"$folder/out")"
  has_text $'\e[?1049l' || fail "the screen was not given back"
  expect_nothing_left
}

the_demo_leaves_nothing_behind_when_it_is_killed() {
  start_demo
  kill -KILL "$demo_pid"
  wait "$demo_pid" 2>/dev/null || true
  wait_until 10 no_demo_process || fail "still running: $(demo_processes)"
}

the_demo_ends_when_nobody_reads_it() {
  mkdir -- "$folder/tmp"
  # shellcheck disable=SC2016
  run env TMPDIR="$folder/tmp" bash -c '"$1" demo | head -n 2' - "$kav"
  has_lines 2 || fail "too few lines: $out; $err"
  expect_nothing_left
}

trap end_demo_processes EXIT
"$test"
