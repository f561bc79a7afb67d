#!/usr/bin/env bash
# check_exports.sh LIBRARY NAMES [fortified]: compares the names that the built shared library
# defines with the list, and its versions and properties with what they must be. Every difference
# gets a line.
set -euo pipefail
export LC_ALL=C
library=$1 names=$2
header=$(dirname "$0")/../include/zebstats.h
. "$(dirname "$0")/program_test.sh"

# expect PROPERTY WANTED FOUND
expect() {
  [ "$2" = "$3" ] || complain "$1 is '$3', not '$2'"
}

# The names that the public header declares have a public version, all others the private one.
while read -r name; do
  version=ZEBSTATS_PRIVATE
  ! grep -qE "^ZEB_API .*\b$name\(" "$header" || version=ZEBSTATS_1.0
  case $name in getAPICodeText | getAPITimeout | setAPITimeout) version=ZEBSTATS_1.2 ;; esac
  printf '%s@@%s\n' "$name" "$version"
done <"$names" | sort | diff - <(nm -D --defined-only --with-symbol-versions "$library" |
  # Absolute symbols are the version nodes themselves.
  awk '$2 != "A" { print $3 }' | sort) >&2 || complain "its names (>) are not the listed ones (<)"

dynamic=$(readelf -dW "$library")
listed() {
  sed -n "s/.*($1).*\[\(.*\)\]/\1/p" <<<"$dynamic" | paste -sd' '
}
# On some hosts the stack protector's guard is in the dynamic loader, which every process has.
expect "NEEDED" "libc.so.6" "$(listed NEEDED | sed 's/ ld-linux-[a-z0-9-]*\.so\.1//')"
expect "SONAME" "libzebstats.so.1" "$(listed SONAME)"
expect "RPATH" "" "$(listed RPATH)$(listed RUNPATH)"
grep -qE 'BIND_NOW|FLAGS_1.*NOW' <<<"$dynamic" || complain "is not linked with BIND_NOW"
! grep -q TEXTREL <<<"$dynamic" || complain "has text relocations"
expect "its protected segments" "RELRO STACK:RW" \
  "$(readelf -lW "$library" | awk '$1 == "GNU_RELRO" { r = "RELRO" }
    $1 == "GNU_STACK" { s = $7 } END { print r, "STACK:" s }')"

undefined=$(nm -D --undefined-only "$library")
grep -q __stack_chk_fail <<<"$undefined" || complain "has no stack protector"
# Only optimised builds are fortified.
[ -z "${3:-}" ] || grep -qE '__(vfprintf|snprintf|memcpy)_chk' <<<"$undefined" ||
  complain "is not fortified"
