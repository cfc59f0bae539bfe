#!/usr/bin/env bash
# abi_test.sh ABI-SCRIPT COMPILER FOLDER: small libraries beside a released one; additions are fine,
# breaks are found and told. FOLDER is emptied first.
set -euo pipefail
readonly script=$1 compiler=$2 folder=$3
rm -rf -- "$folder"
mkdir -p -- "$folder/headers"

fail() {
  printf 'failed: %s\n' "$*" >&2
  exit 1
}

# The header of the released library, as the sed commands change it, and a library that fits it.
build() {  # NAME [SED-COMMAND]
  local name=$1
  sed -e "${2:-}" >"$folder/headers/small.h" <<'HEADER'
struct small_record {
  int first;
  int second;
};
enum small_kind { small_one = 1 };
class KAVSmallObject {
 public:
  virtual ~KAVSmallObject() = default;
  virtual int act(small_record& record) = 0;
};
extern "C" int KAVSmallOne(small_record* record, small_kind kind);
extern "C" int KAVSmallOther(KAVSmallObject* object);
HEADER
  cat >"$folder/small.cpp" <<'SOURCE'
#include "headers/small.h"
extern "C" int KAVSmallOne(small_record* record, small_kind kind) { return record->first + kind; }
#ifndef WITHOUT_OTHER
extern "C" int KAVSmallOther(KAVSmallObject* object) {
  small_record record = {1, 2};
  return object->act(record);
}
#endif
#ifdef WITH_NEW
extern "C" int KAVSmallNew() { return 1; }
#endif
int hidden_behind_no_header() { return 1; }
SOURCE
  # shellcheck disable=SC2086
  "$compiler" -g -femit-class-debug-always -shared -fPIC ${flags:-} -Wl,-soname,libsmall.so.1 \
    "$folder/small.cpp" -o "$folder/$name.so"
  bash "$script" dump "$folder/$name.so" "$folder/headers" "$folder/$name.abi"
}

expect_same() {  # NAME
  bash "$script" compare "$folder/released.abi" "$folder/$1.abi" >"$folder/told" ||
    fail "$1: $(<"$folder/told")"
}

expect_break() {  # NAME TEXT
  local status=0
  bash "$script" compare "$folder/released.abi" "$folder/$1.abi" >"$folder/told" || status=$?
  [[ $status == 1 ]] || fail "$1: status $status; $(<"$folder/told")"
  grep -qF -- "$2" "$folder/told" || fail "$1: '$2' is not told: $(<"$folder/told")"
}

build released
expect_same released
flags=-DWITH_NEW build more_functions
expect_same more_functions
build more_kinds 's/small_one = 1/small_one = 1, small_two = 2/'
expect_same more_kinds

flags=-DWITHOUT_OTHER build fewer_functions
expect_break fewer_functions KAVSmallOther
build larger_record 's/int second;/long second;/'
expect_break larger_record small_record
build other_order 's/int first;/int zeroth; int first;/'
expect_break other_order small_record
build other_slots 's/virtual int act/virtual int before() = 0; virtual int act/'
expect_break other_slots KAVSmallObject

status=0
bash "$script" compare "$folder/released.abi" /dev/null >/dev/null 2>&1 || status=$?
[[ $status == 2 ]] || fail "an unreadable description: status $status"
