#!/usr/bin/env bash
# check_hardening_test.sh COMPILER FOLDER: what check_hardening.sh says about small files that are
# built with every protection, with all but one, and with none. FOLDER is emptied first.
set -euo pipefail
compiler=$1 folder=$2
check=$(dirname -- "${BASH_SOURCE[0]}")/check_hardening.sh
rm -rf -- "$folder"
mkdir -p -- "$folder"

fail() {
  printf 'failed: %s\n' "$*" >&2
  exit 1
}

cat >"$folder/small.cpp" <<'SOURCE'
#include <cstring>
extern "C" unsigned long small(const char* text, unsigned long length) {
  char copy[64];
  std::memcpy(copy, text, length);
  return std::strlen(copy);
}
#ifdef WITH_MAIN
int main(int argc, char** argv) { return static_cast<int>(small(argv[0], argc)); }
#endif
#ifdef WITH_TEXT_RELOCATION
asm(".text\n movabs $small, %rax\n");
#endif
#ifdef WITH_WRITABLE_CODE
asm(".section .both, \"awx\"\n nop\n .text\n");
#endif
SOURCE

readonly compile=(-O2 -fstack-protector-strong -fcf-protection=full -U_FORTIFY_SOURCE
  -D_FORTIFY_SOURCE=2)
readonly link=("-Wl,-z,relro,-z,now,-z,noexecstack,-z,separate-code")
readonly as_module=(-shared -fPIC "-Wl,-z,ibt,-z,shstk,-init=no_init,-fini=no_fini")
readonly as_library=("${as_module[@]}" "-Wl,-z,nodelete")
readonly as_program=(-fPIE -pie -DWITH_MAIN)

# Builds with all protections and then FLAGS, the last of which count; sets `missing` to the lines
# that the check says, joined by commas.
judge() {  # library|module|program FLAGS...
  local kind=$1 flags status=0
  shift
  case $kind in
    library) flags=("${as_library[@]}") ;;
    module) flags=("${as_module[@]}") ;;
    program) flags=("${as_program[@]}") ;;
  esac
  "$compiler" "${compile[@]}" "${link[@]}" "${flags[@]}" "$@" "$folder/small.cpp" \
    -o "$folder/small"
  missing=$(bash "$check" "$kind" "$folder/small" | paste -sd,) || status=$?
  if [[ -z $missing ]]; then
    [[ $status == 0 ]] || fail "status $status, but nothing is missing"
  else
    [[ $status == 1 ]] || fail "status $status, but missing: $missing"
  fi
}

expect_missing() {  # NAMES KIND FLAGS...
  local names=$1
  shift
  judge "$@"
  [[ $missing == "$names" ]] || fail "$*: missing is '$missing' instead of '$names'"
}

for kind in library module program; do
  expect_missing "" "$kind"
  expect_missing "stack protector" "$kind" -fno-stack-protector
  expect_missing "checked copies" "$kind" -U_FORTIFY_SOURCE
  expect_missing "read-only relocations" "$kind" -Wl,-z,norelro
  expect_missing "binding at start" "$kind" -Wl,-z,lazy
  expect_missing "no executable stack" "$kind" -Wl,-z,execstack
  expect_missing "no text relocations" "$kind" -DWITH_TEXT_RELOCATION -Wl,-z,notext
  expect_missing "no memory both writable and executable" "$kind" -DWITH_WRITABLE_CODE
  expect_missing "code apart from data" "$kind" -Wl,-z,noseparate-code
done
for kind in library module; do
  expect_missing "marked jump targets" "$kind" -fcf-protection=none
  expect_missing "marked jump targets" "$kind" "-Wl,-init=small"
done
expect_missing "any address" program -fno-pie -no-pie

# What the linker has been told cannot be taken back, so that the rest begins with nothing.
"$compiler" -O2 -shared -fPIC -fno-stack-protector -U_FORTIFY_SOURCE -fcf-protection=none \
  -Wl,-z,norelro,-z,lazy,-z,execstack,-z,noseparate-code "$folder/small.cpp" -o "$folder/bare"
bare=$(bash "$check" library "$folder/bare") && fail "nothing is missing in a file without protection"
expected="stack protector
checked copies
read-only relocations
binding at start
no executable stack
code apart from data
note of marked jump targets
marked jump targets
shadow stack
stays loaded"
[[ $bare == "$expected" ]] || fail "a file without protection: $bare"
