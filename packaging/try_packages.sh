#!/usr/bin/env bash
# try_packages.sh DEBS FOLDER SOURCE [MIRROR]: makes a fresh Debian in FOLDER, installs the packages of
# the folder DEBS there, compiles the example of the installed packages in both ways, lets it and the
# Python package print quotes of kav-sim, and removes the packages: then all files are as before. Where
# there is no fresh Debian to be had, the packages are only unpacked in FOLDER, and tried from there with
# what this machine has. FOLDER is deleted in the end. Needs root. Exit status: 0 all went well, else 1.
set -euo pipefail
readonly debs=$1 fresh=$2 source=$3 mirror=${4:-}

say() { printf '%s\n' "packages: $*" >&2; }

fail() {
  say "failed: $*"
  exit 1
}

# Shows what a command says only when it fails.
quietly() {
  "$@" >"$fresh.log" 2>&1 </dev/null && return
  tail -n 30 -- "$fresh.log" >&2
  return 1
}

clean_up() { rm -rf --one-file-system -- "$fresh" "$fresh.log"; }

# ---- In a fresh Debian.

fresh_debian() {
  say "installing Debian 12, a compiler and Python in $fresh"
  quietly debootstrap --variant=minbase \
    --include=g++,cmake,make,pkg-config,python3,python3-numpy bookworm "$fresh" ${mirror:+"$mirror"} &&
    quietly chroot "$fresh" true
}

use_fresh_debian() {
  top=""
  inside() {
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
      chroot "$fresh" "$@"
  }
  install_packages() {
    mkdir -- "$fresh/try"
    cp -- "$debs"/*.deb "$fresh/try/"
    quietly inside sh -c 'apt-get update && apt-get install -y --no-install-recommends /try/*.deb' ||
      fail "apt-get cannot install the packages"
    rm -rf -- "$fresh/try"
  }
  remove_packages() { quietly inside apt-get purge -y --autoremove "$@"; }
}

# ---- Without one.

use_unpacked_packages() {
  libraries=usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
  top=$fresh
  clean_up
  mkdir -p -- "$fresh"/var/lib/dpkg/{info,updates}
  : >"$fresh/var/lib/dpkg/status"
  readonly dpkg=(dpkg "--root=$fresh" --force-depends --force-script-chrootless)
  inside() {
    env -i PATH="$fresh/usr/bin:/usr/sbin:/usr/bin:/sbin:/bin" LC_ALL=C.UTF-8 \
      LD_LIBRARY_PATH="$fresh/$libraries" PYTHONPATH="$fresh/usr/lib/python3/dist-packages" \
      PYTHONDONTWRITEBYTECODE=1 CMAKE_PREFIX_PATH="$fresh/usr" PKG_CONFIG_SYSROOT_DIR="$fresh" \
      PKG_CONFIG_PATH="$fresh/$libraries/pkgconfig" "$@"
  }
  install_packages() {
    quietly "${dpkg[@]}" --unpack "$debs"/*.deb || fail "dpkg cannot unpack the packages"
  }
  remove_packages() { quietly "${dpkg[@]}" --purge "$@"; }
}

# ---- In both.

# All but where apt and dpkg keep their books: paths, kinds and owners, and the sizes of files, but for
# that of the loader's cache, which is made anew.
list_files() {
  find "$fresh" -xdev \( -path "$fresh/var/lib/apt" -o -path "$fresh/var/lib/dpkg" \
    -o -path "$fresh/var/cache" -o -path "$fresh/var/log" -o -path "$fresh/etc/ld.so.cache" \) -prune \
    -o -type f -printf '%P %y %U:%G %m %s\n' -o -printf '%P %y %U:%G %m %l\n' | sort
}

package_names() {
  local deb
  for deb in "$debs"/*.deb; do dpkg-deb --field "$deb" Package; done
}

compile_examples() {
  say "compiling an example with pkg-config, and with find_package of CMake"
  mkdir -- "$fresh/try"
  cp -a -- "$source/tests/packaging/user" "$source/tests/support/print_quotes.sh" "$fresh/try/"
  # shellcheck disable=SC2016  # the inner shell's own
  quietly inside sh -euxc 'cd "$1/try"
    example=$1/usr/share/doc/libkavquote-dev/examples/shortest_client.cpp
    g++ -std=c++11 -Wall -Wextra -Werror $example -o by_pkg_config $(pkg-config --cflags --libs kavquote)
    cmake -S user -B built -DKAVQUOTE_FROM=find_package -DKAVQUOTE_EXAMPLE=$example
    cmake --build built
    built/both_spellings' sh "$top" || fail "the example does not compile"
}

print_quotes() {
  local room=$top/try program
  for program in "$room/by_pkg_config" "$room/built/shortest_client" "python3 $room/user/quotes.py"; do
    say "quotes of kav-sim, printed by $program:"
    inside bash -euc "source '$room/print_quotes.sh'; expect_quotes kav-sim '$room' $program" </dev/null ||
      fail "$program got no quotes"
  done
  rm -rf -- "$fresh/try"
}

# Each program runs, and has its manual page and completion.
try_programs() {
  local program
  for program in "$fresh"/usr/bin/kav-*; do
    program=${program##*/}
    inside "$program" --version || fail "$program does not run"
    [[ -s $fresh/usr/share/man/man1/$program.1.gz ]] || fail "$program has no manual page"
    [[ -s $fresh/usr/share/bash-completion/completions/$program ]] || fail "$program has no completion"
  done
}

expect_no_traces() {  # FILES-BEFORE FILES-NOW
  local difference
  difference=$(diff <(printf '%s\n' "$1") <(printf '%s\n' "$2") || true)
  [[ -z $difference ]] || fail "files are not as before (< before, > now): $difference"
  say "no file is left behind: $(wc -l <<<"$2") are as before"
}

trap clean_up EXIT
clean_up
if fresh_debian; then
  use_fresh_debian
else
  say "there is no fresh Debian, see above: the packages are unpacked and tried with this machine's tools"
  use_unpacked_packages
fi
mapfile -t names < <(package_names)
before=$(list_files)
say "installing: ${names[*]}"
install_packages
[[ $(list_files) != "$before" ]] || fail "nothing was installed"
try_programs
compile_examples
print_quotes
say "removing them"
remove_packages "${names[@]}" || fail "the packages cannot be removed"
expect_no_traces "$before" "$(list_files)"
