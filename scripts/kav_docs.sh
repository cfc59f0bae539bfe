# shellcheck shell=bash
# shellcheck disable=SC2154  # what is not set here is set by kav
# The site of the documentation for ./kav, which reads this file.

readonly docs_build=$root/build/docs

project_version() { sed -nE 's/^project\(kavquote VERSION ([0-9.]+) .*/\1/p' "$root/CMakeLists.txt"; }

# The pages link to examples as they lie in the sources.
make_site() {
  rm -rf -- "$docs_build"
  mkdir -p -- "$docs_build"
  KAV_VERSION=$(project_version) quietly "$docs_build/doxygen.log" doxygen docs/site/Doxyfile ||
    die "$status_failed" "doxygen failed; the reason is above"
  cp -R -- examples "$docs_build/examples"
}

cmd_docs() {
  (($# == 0)) || die "$status_usage" "docs takes no arguments"
  need "${docs_packages[@]}" "${python_packages[@]}"
  cd -- "$root" || exit
  say "making the site of the documentation"
  make_site
  if [[ -s $docs_build/warnings ]]; then
    cat -- "$docs_build/warnings" >&2
    die "$status_failed" "doxygen warns; see above"
  fi
  python3 scripts/check_site.py "$docs_build/html" ||
    die "$status_failed" "links of the site lead nowhere; see above"
  say "the site begins with ${docs_build#"$root/"}/html/index.html"
}
