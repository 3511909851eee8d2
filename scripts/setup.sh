#!/usr/bin/env bash
# Installs what the build needs and fetches the encrypting SQLite. Does nothing, and needs
# neither root nor a network, when everything is there.
#   scripts/setup.sh              to build and run
#   scripts/setup.sh --tests      to build and run the tests too
#   scripts/setup.sh --campaign   to run scripts/campaign.sh too
#   scripts/setup.sh --docs       to build the site of scripts/docs.sh
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly root

readonly build_packages=(g++ cmake make pkg-config ca-certificates libjsoncpp-dev libssl-dev
  libcurl4-openssl-dev libspdlog-dev zlib1g-dev libedit-dev libarchive-dev)
readonly test_packages=(libgtest-dev libbenchmark-dev libreaderwriterqueue-dev libsqlite3-dev
  python3 python3-jsonschema python3-yaml python3-protobuf clang binutils dpkg-dev file
  abigail-tools findutils squid tinyproxy nginx-light coturn openssl python3-pexpect
  libleveldb-dev libboost-dev)
# The fuzzer's runtime belongs to its version of clang.
readonly campaign_packages=(clang libclang-rt-14-dev clang-tidy cppcheck gnuplot-nox)
readonly docs_packages=(doxygen graphviz python3)

# The page-encrypting SQLite amalgamation, as this npm package carries it.
readonly sqlite_package=better-sqlite3-multiple-ciphers@12.11.1
readonly sqlite_sha512=a46ef6fb7564522a67998c782f042aa0e5cd1b6089d479660eb96faa0afbc501e0b04f9ccf9ac064489a2479d42931da19f1a27e0800fc2d12bfda99954adfa3
readonly sqlite_dir=$root/build-deps/sqlite3mc
readonly sqlite_stamp="$sqlite_package sha512:$sqlite_sha512"

say() { echo "setup: $*" >&2; }
fail() {
  say "$*"
  exit 1
}

is_installed() {
  [[ $(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

# Runs a command as root; tells what to install by hand where that cannot be.
as_root() {
  if [[ $EUID -eq 0 ]]; then
    "$@"
  elif command -v sudo >/dev/null && sudo -n true 2>/dev/null; then
    sudo -n "$@"
  else
    fail "not root; install by hand: apt-get install --no-install-recommends ${missing[*]}"
  fi
}

install_packages() {
  if ! command -v dpkg-query >/dev/null; then
    say "not a Debian system, so nothing is checked; needed here: $*"
    return
  fi
  missing=()
  local package
  for package in "$@"; do
    is_installed "$package" || missing+=("$package")
  done
  [[ ${#missing[@]} -gt 0 ]] || return 0
  say "installing ${missing[*]}"
  if [[ -z ${lists_updated:-} ]]; then
    as_root apt-get update -qq >&2
    lists_updated=yes
  fi
  as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
}

# A Node that did not come from Debian brings its own npm.
install_node() {
  if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
    install_packages nodejs npm
  fi
}

have_sqlite() {
  [[ -f $sqlite_dir/sqlite3.c && -f $sqlite_dir/sqlite3.h && -f $sqlite_dir/VERSION ]] &&
    [[ $(<"$sqlite_dir/VERSION") == "$sqlite_stamp" ]]
}

fetch_sqlite() {
  have_sqlite && return
  command -v npm >/dev/null || install_packages npm
  mkdir -p "$root/build-deps"
  # Beside its final place, so that the last step is a rename.
  work=$(mktemp -d "$root/build-deps/.fetch.XXXXXX")
  trap 'rm -rf "$work"' EXIT

  say "fetching $sqlite_package"
  local tarball
  (cd "$work" && npm pack --silent "$sqlite_package" >/dev/null) ||
    fail "npm could not fetch $sqlite_package; is the package registry in reach?"
  tarball=$(echo "$work"/*.tgz)
  echo "$sqlite_sha512  $tarball" | sha512sum --check --status ||
    fail "$sqlite_package has not the checksum pinned in scripts/setup.sh; it is not used"

  # -m: fresh times, so that a build notices a changed pin.
  mkdir "$work/new"
  tar -xmzf "$tarball" -C "$work/new" --no-same-owner --strip-components=3 \
    package/deps/sqlite3/sqlite3.c package/deps/sqlite3/sqlite3.h
  tar -xmzf "$tarball" -C "$work/new" --no-same-owner --strip-components=1 package/LICENSE
  echo "$sqlite_stamp" >"$work/new/VERSION"
  chmod 755 "$work/new"
  rm -rf "$sqlite_dir"
  # Fails when another setup was faster, which is as good.
  mv -T "$work/new" "$sqlite_dir" 2>/dev/null || have_sqlite ||
    fail "cannot write $sqlite_dir"
  say "unpacked into build-deps/sqlite3mc"
}

case "$#:${1:-}" in
  0:) install_packages "${build_packages[@]}" ;;
  1:--tests)
    install_packages "${build_packages[@]}" "${test_packages[@]}"
    install_node
    ;;
  1:--campaign)
    install_packages "${build_packages[@]}" "${test_packages[@]}" "${campaign_packages[@]}"
    install_node
    ;;
  1:--docs)
    install_packages "${docs_packages[@]}"
    exit
    ;;
  *)
    echo "usage: scripts/setup.sh [--tests | --campaign | --docs]" >&2
    exit 2
    ;;
esac
fetch_sqlite
