#!/usr/bin/env bash
# use_test.sh WAY FOLDER SOURCE PREFIX SIMULATOR COMPILER [FLAGS]: a project of a user's takes the library
# in the given WAY (find_package, pkg_config: what is installed in PREFIX; sources: the repository SOURCE,
# by add_subdirectory and by FetchContent) and gets quotes from SIMULATOR. FOLDER is emptied first.
set -euo pipefail
readonly way=$1 folder=$2 source=$3 prefix=$4 simulator=$5 compiler=$6 flags=${7:-}
here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
readonly here
# shellcheck source-path=SCRIPTDIR source=../support/print_quotes.sh
source "$here/../support/print_quotes.sh"
rm -rf -- "$folder"
mkdir -p -- "$folder"

# The library is installed elsewhere and then moved, as when a prefix is copied to another machine.
move_prefix() {
  cp -a -- "$prefix" "$folder/moved"
  ! grep -rIlF -- "$prefix" "$folder/moved" || fail "the files above know where they were installed"
}

use_with_cmake() {  # WAY CMAKE-ARGUMENTS...
  local used_as=$1
  shift
  cmake -S "$here/user" -B "$folder/build" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" \
    -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_BUILD_TYPE=Debug -DKAVQUOTE_FROM="$used_as" \
    -DKAVQUOTE_EXAMPLE="$source/examples/shortest_client.cpp" "$@"
  expect_flags_of_user stranger
  expect_flags_of_user both_spellings
  expect_only_users_sources
  cmake --build "$folder/build"
  expect_only_users_files
  "$folder/build/both_spellings"
  expect_quotes "$simulator" "$folder" "$folder/build/shortest_client"
}

words_of() { tr ' ' '\n' | sed '/^$/d' | sort; }

# What a source of the user's is compiled with, beyond where headers and output lie.
flags_of() {  # NAME
  sed -nE "s#^ *\"command\": \"[^ ]+ (.*) -o [^ ]+/$1\.cpp\.o .*#\1#p" "$folder/build/compile_commands.json" |
    sed -E 's/-(I|isystem ?)[^ ]+//g' | words_of
}

expect_flags_of_user() {  # NAME
  local wanted
  wanted=$(words_of <<<"$flags -g -std=c++11 -fvisibility=hidden -Wall -Wextra -Werror")
  [[ $(flags_of "$1") == "$wanted" ]] || fail "$1 is compiled with" "$(flags_of "$1")" "instead of" "$wanted"
}

# Neither programs and tests of the library come along, nor its installation.
expect_only_users_sources() {
  local files
  files=$(sed -nE 's/^ *"file": "(.*)"/\1/p' "$folder/build/compile_commands.json" |
    grep -vE "^$source/(api|client|feeds|sock|tools)/|^$here/user/|/shortest_client\.cpp$" || true)
  [[ -z $files ]] || fail "compiled with the user's programs: $files"
}

expect_only_users_files() {
  local files
  cmake --install "$folder/build" --prefix "$folder/installed" >/dev/null
  files=$(cd "$folder/installed" && find . -type f)
  [[ $files == ./bin/shortest_client ]] || fail "installed with the user's program: $files"
}

# Both build the library in the same folder, so that it is compiled once.
use_sources() {
  use_with_cmake add_subdirectory -DKAVQUOTE_SOURCE="$source"
  use_with_cmake fetch_content -DKAVQUOTE_SOURCE="$source"
}

use_find_package() {
  move_prefix
  use_with_cmake find_package -DCMAKE_PREFIX_PATH="$folder/moved"
}

use_pkg_config() {
  local library_flags program
  move_prefix
  PKG_CONFIG_PATH=$(dirname -- "$(find "$folder/moved" -name kavquote.pc)")
  export PKG_CONFIG_PATH
  [[ $(pkg-config --modversion kavquote) == "$(project_version)" ]] ||
    fail "pkg-config tells version $(pkg-config --modversion kavquote)"
  read -ra library_flags <<<"$(pkg-config --cflags --libs kavquote) $flags"
  for program in "$source/examples/shortest_client.cpp" "$here/user/both_spellings.cpp"; do
    "$compiler" -std=c++11 -Wall -Wextra -Werror "$program" \
      -o "$folder/$(basename -- "$program" .cpp)" "${library_flags[@]}" \
      -Wl,-rpath,"$(pkg-config --variable=libdir kavquote)"
  done
  "$folder/both_spellings"
  expect_quotes "$simulator" "$folder" "$folder/shortest_client"
}

project_version() { sed -nE 's/^project\(kavquote VERSION ([0-9.]+) .*/\1/p' "$source/CMakeLists.txt"; }

use_"$way"
