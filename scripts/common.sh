# shellcheck shell=bash
# Sourced by the scripts of this folder and by .ci/run: prints messages and installs missing
# packages.

say() {
  printf '== %s\n' "$*"
}

# Ends the script with one line that says what went wrong.
fail() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit 1
}

# install_missing PACKAGE...: installs those of the Debian packages that are not installed yet.
install_missing() {
  local missing=() package as_root=() log
  if ! command -v dpkg-query apt-get >/dev/null; then
    say "This is not a Debian system; make sure that it has the contents of these packages: $*"
    return
  fi
  for package in "$@"; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
      missing+=("$package")
  done
  if [ ${#missing[@]} -eq 0 ]; then return; fi
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || fail "run this as root, or install first: ${missing[*]}"
    as_root=(sudo)
  fi
  say "Installing with apt-get (takes a minute or two): ${missing[*]}"
  log=$(mktemp)
  if ! { "${as_root[@]}" apt-get update &&
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
      apt-get install -y --no-install-recommends "${missing[@]}"; } >"$log" 2>&1 </dev/null; then
    tail -n 15 "$log" >&2
    rm -f "$log"
    fail "apt-get could not install ${missing[*]}; its last lines are above"
  fi
  rm -f "$log"
}

# install_without_starting PACKAGE...: the same for servers, but keeps the packages from starting
# their services.
install_without_starting() {
  local policy=/usr/sbin/policy-rc.d package status=0 as_root=()
  for package in "$@"; do
    dpkg-query -W "$package" >/dev/null 2>&1 && continue
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    [ -e "$policy" ] && break
    printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" install -m 755 /dev/stdin "$policy"
    (install_missing "$@") || status=$?
    "${as_root[@]}" rm -f "$policy"
    return "$status"
  done
  install_missing "$@"
}

# The packages that every build needs, and those that the tests need too.
BUILD_PACKAGES=(g++ cmake ninja-build libcli11-dev nlohmann-json3-dev libmicrohttpd-dev
  libncurses-dev)
# shellcheck disable=SC2034 # used by the scripts that source this file
TEST_PACKAGES=("${BUILD_PACKAGES[@]}" binutils libgtest-dev libgmock-dev python3 tmux zsh)
