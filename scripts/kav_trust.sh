# shellcheck shell=bash
# Commands of kav that try to break the library: fuzzers, random lives, faults and long runs.
# The names that kav defines before; its statuses are numbers.
# shellcheck disable=SC2154,SC2086

# ---- fuzzers ----

readonly fuzz_build=$root/build/fuzz fuzz_sources=$root/tests/fuzz

build_fuzzers() {
  need "${build_packages[@]}" "${clang_packages[@]}" "${fuzz_packages[@]}"
  [[ -f $fuzz_build/build.ninja ]] || say "building the fuzzers, about a minute the first time"
  configure fuzz
  quietly "$fuzz_build/build.log" cmake --build "$fuzz_build" --parallel "$(nproc)" \
    --target tests/fuzz/all || die $status_failed "the build of the fuzzers failed; see above"
}

fuzz_targets() { find "$fuzz_sources/corpus" -mindepth 1 -maxdepth 1 -type d -printf '%f\n' | sort; }

# Lets one fuzzer search; what it finds anew goes to build/fuzz/corpus, what breaks to findings.
run_fuzzer() {  # TARGET SECONDS
  local target=$1 seconds=$2 log=$fuzz_build/$1.log status=0
  mkdir -p -- "$fuzz_build/corpus/$target" "$fuzz_build/findings"
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
    "$fuzz_build/tests/fuzz/kav-fuzz-$target" "$fuzz_build/corpus/$target" \
    "$fuzz_sources/corpus/$target" -dict="$fuzz_sources/dictionaries/$target.dict" \
    -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$fuzz_build/findings/$target-" >"$log" 2>&1 </dev/null || status=$?
  if ((status == 0)); then
    say "$target: $(sed -nE 's/^stat::number_of_executed_units: *//p' "$log") executions, nothing found"
    return 0
  fi
  tail -n 60 -- "$log" >&2
  say "$target found something; the input is in $fuzz_build/findings, and is run again by" \
    "$fuzz_build/tests/fuzz/kav-fuzz-$target FILE"
  return 1
}

# As many at a time as there are processors.
run_fuzzers() {  # SECONDS TARGET...
  local seconds=$1 target running=0 failed=0
  shift
  for target in "$@"; do
    if ((running == $(nproc))); then
      wait -n || failed=1
      running=$((running - 1))
    fi
    run_fuzzer "$target" "$seconds" &
    running=$((running + 1))
  done
  for (( ; running > 0; --running)); do wait -n || failed=1; done
  return $failed
}

# Takes into the repository what reaches code that nothing there has reached.
keep_corpus() {  # TARGET
  local target=$1
  quietly "$fuzz_build/$target-merge.log" "$fuzz_build/tests/fuzz/kav-fuzz-$target" -merge=1 \
    "$fuzz_sources/corpus/$target" "$fuzz_build/corpus/$target" ||
    die $status_failed "$target: the inputs could not be merged; the reason is above"
  say "$target: $(find "$fuzz_sources/corpus/$target" -type f | wc -l) inputs in the corpus"
}

cmd_fuzz() {
  local keep="" target targets=() known seconds=20
  mapfile -t known < <(fuzz_targets)
  if [[ ${1:-} == --keep ]]; then
    keep=yes
    shift
  fi
  (($# <= 2)) || die $status_usage "fuzz takes a target and a number of seconds at most"
  if (($# > 0)) && [[ $1 =~ ^[1-9][0-9]*$ ]]; then
    (($# == 1)) || die $status_usage "fuzz takes the target before the seconds"
    seconds=$1
  elif (($# > 0)); then
    [[ " all ${known[*]} " == *" $1 "* ]] ||
      die $status_usage "unknown target '$1'; there are: all ${known[*]}"
    [[ $1 == all ]] || targets=("$1")
    seconds=${2:-$seconds}
    [[ $seconds =~ ^[1-9][0-9]*$ ]] || die $status_usage "fuzz needs a number of seconds above 0"
  fi
  ((${#targets[@]} > 0)) || targets=("${known[@]}")
  build_fuzzers
  say "fuzzing ${#targets[@]} targets, $seconds s each, $(nproc) at a time"
  run_fuzzers "$seconds" "${targets[@]}" || die $status_failed "a fuzzer found something; see above"
  [[ -z $keep ]] || for target in "${targets[@]}"; do keep_corpus "$target"; done
}

# ---- random lives, faults, long runs ----

build_target() {  # PRESET TARGET
  need_for_build "$1"
  configure "$1"
  say "building $2 (preset $1)"
  quietly "$root/build/$1/build-$2.log" cmake --build "$root/build/$1" --parallel "$(nproc)" \
    --target "$2" || die $status_failed "the build of $2 failed; the reason is above"
}

cmd_chaos() {
  local preset=release arguments=() lives="" seed=""
  while (($# > 0)); do
    case $1 in
      --preset)
        is_preset "${2:-}" || die $status_usage "--preset needs one of: ${presets[*]}"
        preset=$2
        shift
        ;;
      --lives | --seed)
        [[ ${2:-} =~ ^[0-9]+$ ]] || die $status_usage "$1 needs a number"
        if [[ $1 == --lives ]]; then lives=$2; else seed=$2; fi
        shift
        ;;
      --parallel | --life)
        [[ ${2:-} =~ ^[0-9]+$ ]] || die $status_usage "$1 needs a number"
        arguments+=("$1" "$2")
        shift
        ;;
      --script | --verbose) arguments+=("$1") ;;
      *) die $status_usage "chaos does not know '$1'; ./kav help shows how to use it" ;;
    esac
    shift
  done
  build_target "$preset" kav-chaos
  in_preset "$preset" "$root/build/$preset/tests/chaos/kav-chaos" --lives "${lives:-300}" \
    --seed "${seed:-$(od -An -N4 -tu4 /dev/urandom | tr -d ' ')}" "${arguments[@]}" ||
    die $status_failed "the random lives broke something; it is above, with the way to repeat it"
}

current_commit() {
  git -C "$root" describe --always --dirty --abbrev=12 2>/dev/null || printf 'unknown\n'
}

cmd_faults() {
  local report=() results=$root/build/release/faults
  case ${1:-} in
    "") ;;
    --write-docs) report=(--write-docs "$root/docs/reliability.md") ;;
    *) die $status_usage "faults takes --write-docs or nothing, not '$1'" ;;
  esac
  need "${python_packages[@]}" "${git_packages[@]}"
  build_target release kav-faults
  mkdir -p -- "$results"
  "$root/build/release/tests/faults/kav-faults" --json "$results/faults.json" ||
    die $status_failed "a fault had other consequences than it should; see above"
  python3 "$root/scripts/fault_report.py" "$results/faults.json" --commit "$(current_commit)" \
    "${report[@]}" || die $status_failed "the report failed; see above"
}

cmd_soak() {
  local minutes=5 plot=$root/build/release/soak/soak.svg results=$root/build/release/soak
  if [[ ${1:-} == --write-docs ]]; then
    plot=$root/docs/reliability/soak.svg
    shift
  fi
  (($# <= 1)) || die $status_usage "soak takes a number of minutes"
  minutes=${1:-$minutes}
  [[ $minutes =~ ^[0-9]+(\.[0-9]+)?$ && $minutes =~ [1-9] ]] ||
    die $status_usage "soak needs a number of minutes above 0"
  need "${gnuplot_packages[@]}"
  build_target release kav-soak
  mkdir -p -- "$results" "$(dirname -- "$plot")"
  "$root/build/release/tests/soak/kav-soak" --minutes "$minutes" --samples "$results/samples.csv" ||
    die $status_failed "the long run failed; the reason is above"
  LC_ALL=C.UTF-8 gnuplot -e "samples='$results/samples.csv'; out='$plot'" \
    "$root/scripts/soak_plot.gp" || die $status_failed "the plot failed; gnuplot says above why"
  say "the plot is $plot"
}
