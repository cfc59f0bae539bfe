# shellcheck shell=bash
# shellcheck disable=SC2154  # what is not set here is set by kav
# The checks of the project for ./kav, which reads this file: layout, clang-tidy, cppcheck, shell
# scripts, what the tests reach, what programs built with the released library need.

# ---- layout, clang-tidy, scripts ----

# Prints the project's files that match the patterns, NUL-terminated, those not yet added included.
project_files() {
  local file
  git -C "$root" ls-files -z --cached --others --exclude-standard -- "$@" |
    while IFS= read -r -d '' file; do
      [[ ! -f $root/$file ]] || printf '%s\0' "$file"
    done
}

cmd_format() {
  local how=(-i)
  case ${1:-} in
    "") ;;
    --check) how=(--dry-run --Werror) ;;
    *) die "$status_usage" "format takes --check or nothing, not '$1'" ;;
  esac
  need "${git_packages[@]}" "${format_packages[@]}"
  cd -- "$root" || exit
  project_files '*.h' '*.cpp' | xargs -0 -r clang-format --style=file "${how[@]}" ||
    die "$status_failed" "some sources are not laid out; ./kav format mends them"
}

# The commit that changes are counted from; nothing when the history does not tell.
base_commit() {
  local main base head
  if [[ -n ${KAV_BASE:-} ]]; then
    git -C "$root" rev-parse --verify --quiet "$KAV_BASE^{commit}" ||
      die "$status_usage" "KAV_BASE: there is no commit '$KAV_BASE'"
    return
  fi
  head=$(git -C "$root" rev-parse HEAD)
  for main in origin/main main; do
    base=$(git -C "$root" merge-base HEAD "$main" 2>/dev/null) || continue
    if [[ $base != "$head" ]]; then
      printf '%s\n' "$base"
      return
    fi
  done
  git -C "$root" rev-parse --verify --quiet 'HEAD~1^{commit}' || true
}

# Prints the sources that changed since BASE, and those that include a header that did.
changed_sources() {  # BASE
  local file
  {
    git -C "$root" diff --name-only --diff-filter=d "$1" -- '*.h' '*.cpp'
    git -C "$root" ls-files --others --exclude-standard -- '*.h' '*.cpp'
  } | while IFS= read -r file; do
    case $file in
      *.cpp) printf '%s\n' "$file" ;;
      *.h) git -C "$root" grep -lF --untracked "#include \"$file\"" -- '*.cpp' || true ;;
    esac
  done | sort -u
}

# Keeps the sources that the build knows: only for these it is known how they are compiled.
only_compiled() {
  local file
  while IFS= read -r file; do
    ! grep -qF "\"file\": \"$root/$file\"" "$root/build/tidy/compile_commands.json" ||
      printf '%s\n' "$file"
  done
}

# The sources of the library first.
library_first() {
  local sources
  sources=$(cat)
  [[ -n $sources ]] || return 0
  grep -E '^(api|client|feeds|sock|tools)/' <<<"$sources" || true
  grep -vE '^(api|client|feeds|sock|tools)/' <<<"$sources" || true
}

# What the time is not enough for goes into build/tidy/left_out.
tidy_until() {  # DEADLINE; the sources, NUL-terminated, from standard input
  # shellcheck disable=SC2016  # the inner shell's own
  xargs -0 -r -n 1 -P "$(nproc)" sh -c '
    if [ "$(date +%s)" -lt "$1" ]; then
      clang-tidy --quiet -p "$2" "$3"
    else
      printf "%s\n" "$3" >>"$2/left_out"
    fi' sh "$1" "$root/build/tidy"
}

cmd_tidy() {
  local base="" all="" minutes=1000000 sources left_out
  while (($# > 0)); do
    case $1 in
      --all) all=yes ;;
      --minutes)
        [[ ${2:-} =~ ^[1-9][0-9]{0,5}$ ]] || die "$status_usage" "--minutes takes a number from 1 on"
        minutes=$2
        shift
        ;;
      *) die "$status_usage" "tidy takes --all and --minutes, not '$1'" ;;
    esac
    shift
  done
  need "${git_packages[@]}" "${build_packages[@]}" "${test_packages[@]}" "${tidy_packages[@]}" \
    "${bench_packages[@]}" "${binding_packages[@]}"
  configure_for_checks tidy
  [[ -n $all ]] || base=$(base_commit)
  if [[ -n $base ]]; then
    mapfile -t sources < <(changed_sources "$base" | only_compiled | library_first)
  else
    mapfile -t sources < <(project_files '*.cpp' | tr '\0' '\n' | only_compiled | library_first)
  fi
  say "clang-tidy over ${#sources[@]} sources${base:+ that differ from ${base:0:12}}"
  ((${#sources[@]} > 0)) || return 0
  cd -- "$root" || exit
  : >build/tidy/left_out
  printf '%s\0' "${sources[@]}" | tidy_until "$(($(date +%s) + minutes * 60))" ||
    die "$status_failed" "clang-tidy found something; it is above"
  mapfile -t left_out <build/tidy/left_out
  ((${#left_out[@]} == 0)) ||
    say "after $minutes minutes nobody looked at these ${#left_out[@]}: ${left_out[*]}"
}

cmd_scripts() {
  (($# == 0)) || die "$status_usage" "scripts takes no arguments"
  need "${git_packages[@]}" "${script_packages[@]}"
  cd -- "$root" || exit
  project_files kav .ci/run '*.sh' | xargs -0 shellcheck -x ||
    die "$status_failed" "shellcheck found something; it is above"
}

# ---- cppcheck ----

# Configures without building: each source by itself, and no precompiled headers, which only g++ reads.
configure_for_checks() {  # FOLDER-BELOW-BUILD CMAKE-ARGUMENTS
  local folder=$root/build/$1
  shift
  quietly "$folder/configure.log" cmake -S "$root" --preset dev -B "$folder" \
    -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON -DCMAKE_UNITY_BUILD=OFF -DKAVQUOTE_BUILD_BENCH=ON "$@" ||
    die "$status_failed" "cannot configure for the check; the reason is above"
}

# Left out, each with its reason, where it is not suppressed beside the code.
readonly lint_suppressions=(
  missingIncludeSystem    # the system's headers are not what is checked
  unmatchedSuppression    # inline ones are for the one configuration that needs them
  '*:/usr/include/*'      # nor are those of the packages
  cppcheckError           # cppcheck 2.10 stumbles over literals such as 200ms; that file goes unread
  'objectIndex:tests/client/dispatch_test.cpp'       # bytes are copied over a whole record,
  'uninitvar:tests/client/dispatch_test.cpp'         # which fills it
  'arrayIndexOutOfBounds:tests/feeds/feed_bytes.h'   # the loop ends at the text's NUL
  'selfAssignment:tests/sock/socket_param_test.cpp'  # is what is tested
  'memsetClassFloat:tests/apps/*'                    # records are compared as the bytes that travel
  'stlIfStrFind:tests/*'                             # speed does not matter in tests
  'useInitializationList:tests/*'                    # nor here
)

cmd_lint() {
  (($# == 0)) || die "$status_usage" "lint takes no arguments"
  need "${build_packages[@]}" "${test_packages[@]}" "${bench_packages[@]}" "${lint_packages[@]}" \
    "${binding_packages[@]}"
  configure_for_checks tidy
  mkdir -p -- "$root/build/lint"
  say "cppcheck over all sources that are compiled"
  cd -- "$root" || exit
  cppcheck --project=build/tidy/compile_commands.json --cppcheck-build-dir=build/lint \
    --library=googletest --enable=warning,performance,portability --std=c++20 --inline-suppr --error-exitcode=1 \
    --quiet -j "$(nproc)" "${lint_suppressions[@]/#/--suppress=}" ||
    die "$status_failed" "cppcheck found something; it is above"
}

# ---- what the tests reach ----

readonly coverage_lines=97 coverage_branches=85
readonly coverage_build=$root/build/coverage
readonly coverage_folders=(api client feeds sock tools)

# Only the tests of the library's folders, and those in which it is refused what it asks for. Left
# out: tests/api, whose programs are compiled against an installed library, and the replay of whole
# multicast feeds and the measured faults, which take long and go where the others go.
build_for_coverage() {
  local folder targets=()
  for folder in client faults feeds sock tools; do targets+=("tests/$folder/all"); done
  configure coverage
  say "building the tests of the library"
  quietly "$coverage_build/build.log" cmake --build "$coverage_build" --parallel "$(nproc)" \
    --target "${targets[@]}" ||
    die "$status_failed" "the build failed; the reason is above"
  find "$coverage_build" -name '*.gcda' -delete
}

run_tests_for_coverage() {
  local folder
  say "running them"
  for folder in tools feeds sock client faults; do
    ctest --test-dir "$coverage_build/tests/$folder" --parallel 8 --output-on-failure --quiet \
      --output-log "$coverage_build/$folder.log" --exclude-regex '^(multicast_feed_|faults_)' || {
      tail -n 40 -- "$coverage_build/$folder.log" >&2
      die "$status_failed" "tests of $folder failed; see above"
    }
  done
}

# Branches that only an exception of the standard library would take are not counted, nor are those
# that the compiler makes where the source has none.
report_coverage() {
  local filters=() folder
  for folder in "${coverage_folders[@]}"; do filters+=(--filter "$folder/"); done
  rm -rf -- "$coverage_build/html"
  mkdir -p -- "$coverage_build/html"
  cd -- "$root" || exit
  gcovr --root . "$coverage_build" "${filters[@]}" -j "$(nproc)" \
    --exclude-throw-branches --exclude-unreachable-branches --print-summary \
    --html-details "$coverage_build/html/index.html" --txt - \
    --fail-under-line "$coverage_lines" --fail-under-branch "$coverage_branches" ||
    die "$status_failed" "less than $coverage_lines % of the lines or $coverage_branches % of the branches; see above"
}

cmd_coverage() {
  (($# == 0)) || die "$status_usage" "coverage takes no arguments"
  need "${build_packages[@]}" "${test_packages[@]}" "${coverage_packages[@]}"
  build_for_coverage
  run_tests_for_coverage
  report_coverage
  say "the pages begin at $coverage_build/html/index.html"
}

# ---- what programs built with the released library need ----

readonly abi_released=$root/cmake/abi/libkavquote.so.1.abi.gz
readonly abi_build=$root/build/abi

build_for_abi() {
  say "building the library as users run it, with debug information"
  quietly "$abi_build/configure.log" cmake -S "$root" --preset release -B "$abi_build" \
    -DCMAKE_CXX_FLAGS="-g -femit-class-debug-always" -DKAVQUOTE_BUILD_APPS=OFF -DKAVQUOTE_BUILD_TESTS=OFF \
    -DKAVQUOTE_BUILD_EXAMPLES=OFF ||
    die "$status_failed" "cannot configure the library; the reason is above"
  quietly "$abi_build/build.log" cmake --build "$abi_build" --parallel "$(nproc)" --target kavquote ||
    die "$status_failed" "the build of the library failed; the reason is above"
}

cmd_abi() {
  local update=""
  case ${1:-} in
    "") ;;
    --update) update=yes ;;
    *) die "$status_usage" "abi takes --update or nothing, not '$1'" ;;
  esac
  need "${build_packages[@]}" "${abi_packages[@]}"
  build_for_abi
  bash "$root/scripts/abi.sh" dump "$abi_build/libkavquote.so.1" "$root/api" "$abi_build/new.abi" ||
    die "$status_failed" "abidw cannot read the library; see above"
  if [[ -n $update ]]; then
    gzip -9n <"$abi_build/new.abi" >"$abi_released"
    say "from now on compared with today's library: ${abi_released#"$root/"}"
    return
  fi
  gzip -dc -- "$abi_released" >"$abi_build/released.abi"
  bash "$root/scripts/abi.sh" compare "$abi_build/released.abi" "$abi_build/new.abi" ||
    die "$status_failed" "programs built with the released library would not work with this one; see above"
  say "programs built with the released library work with this one"
}
