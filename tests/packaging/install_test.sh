#!/usr/bin/env bash
# install_test.sh BUILD PREFIX LIBDIR VERSION PROGRAMS...: installs the components of BUILD into PREFIX,
# which is emptied first. Everything is there, and works after PREFIX has been moved.
set -euo pipefail
readonly build=$1 prefix=$2 libdir=$3 version=$4
shift 4

fail() {
  printf 'failed: %s\n' "$*" >&2
  exit 1
}

rm -rf -- "$prefix"
for component in library development tools; do
  cmake --install "$build" --prefix "$prefix" --component "$component" >/dev/null
done

expected=(include/kavquote/api/kav_multicast.h include/kavquote/api/kav_quote_api.h
  "$libdir"/cmake/kavquote/kavquote{Config,ConfigVersion,Targets}.cmake
  "$libdir/libkavquote.so" "$libdir/libkavquote.so.${version%%.*}" "$libdir/libkavquote.so.$version"
  "$libdir/pkgconfig/kavquote.pc")
for program in "$@"; do
  expected+=("bin/$program" "share/man/man1/$program.1.gz" "share/bash-completion/completions/$program")
done
# A file for each kind of build has its name in lower case.
found=$(cd "$prefix" && find . ! -type d ! -name 'kavquoteTargets-*.cmake' | sed 's#^\./##' | sort)
[[ $found == "$(printf '%s\n' "${expected[@]}" | sort)" ]] ||
  fail "not the files that should be there: $(diff <(printf '%s\n' "${expected[@]}" | sort) <(echo "$found"))"

moved=$prefix.moved
rm -rf -- "$moved"
cp -a -- "$prefix" "$moved"
for program in "$@"; do
  [[ $("$moved/bin/$program" --version) == "$program $version" ]] || fail "$program does not run there"
  loaded=$(ldd "$moved/bin/$program" | sed -nE 's/.*libkavquote[^ ]* => ([^ ]+) .*/\1/p')
  [[ -z $loaded || $(readlink -f -- "$loaded") == "$(readlink -f -- "$moved")"/* ]] ||
    fail "$program takes its library from $loaded"
done
rm -rf -- "$moved"
