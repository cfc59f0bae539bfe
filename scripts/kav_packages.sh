# shellcheck shell=bash
# shellcheck disable=SC2154  # what is not set here is set by kav
# The Debian packages for ./kav, which reads this file: built, checked, and tried in a fresh Debian.

readonly packages_build=$root/build/packages

PATH=$PATH:/usr/sbin:/sbin  # Debian has debootstrap there

as_root() {
  if ((EUID == 0)); then "$@"; else sudo "$@"; fi
}

# Their changelogs have the day of the last commit, so that the same sources give the same packages.
build_packages_for_debian() {
  local day
  day=$(git -C "$root" log -1 --format=%ct 2>/dev/null) || day=$(date +%s)
  export SOURCE_DATE_EPOCH=$day
  say "building the packages"
  configure packages
  quietly "$packages_build/build.log" cmake --build "$packages_build" --parallel "$(nproc)" ||
    die "$status_failed" "the build of the preset packages failed; the reason is above"
  rm -rf -- "$packages_build/debs"
  (cd -- "$packages_build" && quietly "$packages_build/cpack.log" cpack -G DEB) ||
    die "$status_failed" "cpack failed; the reason is above"
}

# Errors fail; warnings are shown.
check_packages() {
  say "lintian over the packages"
  lintian --allow-root --fail-on error "$packages_build"/debs/*.deb ||
    die "$status_failed" "lintian found errors (E:); see above"
}

# Whatever is mounted there goes with the namespace, where the system lets us have one.
try_packages() {
  local alone=()
  say "trying the packages in a fresh Debian, made by debootstrap"
  if as_root unshare --mount true 2>/dev/null; then alone=(unshare --mount --); fi
  as_root "${alone[@]}" bash "$root/packaging/try_packages.sh" "$packages_build/debs" \
    "$packages_build/fresh" "$root" "${KAV_MIRROR:-}" ||
    die "$status_failed" "the packages do not work; see above"
}

cmd_packages() {
  (($# == 0)) || die "$status_usage" "packages takes no arguments"
  need "${build_packages[@]}" "${debian_packages[@]}" "${binding_packages[@]}"
  build_packages_for_debian
  check_packages
  try_packages
  say "the packages are in ${packages_build#"$root/"}/debs"
}
