#!/usr/bin/env bash
# check_exports.sh LIBRARY NAMES: the built shared library against the list of names that it may define and the
# properties that it must have. Every difference gets a line.
set -euo pipefail
export LC_ALL=C
library=$1
names=$2
failures=0

complain() {
  printf '%s: %s\n' "${library##*/}" "$*" >&2
  failures=$((failures + 1))
}

# expect PROPERTY WANTED FOUND
expect() {
  [ "$2" = "$3" ] || complain "$1 is '$3', not '$2'"
}

dynamic=$(readelf -dW "$library")
segments=$(readelf -lW "$library")
# Absolute symbols of a name like ZEBSTATS_1.0 are the version nodes themselves.
symbols=$(nm -D --defined-only --with-symbol-versions "$library" |
  awk '$2 == "A" && $3 ~ /^ZEBSTATS_/ { next } { print $3 }' | sort)
defined=$(cut -d@ -f1 <<<"$symbols" | sort)

for name in $(comm -13 "$names" <(printf '%s\n' "$defined")); do complain "defines $name, which is not in the list"; done
for name in $(comm -23 "$names" <(printf '%s\n' "$defined")); do complain "does not define $name"; done

# What the public header declares carries a public version, all else the private one.
header=$(dirname "$0")/../include/zebstats.h
while read -r name version; do
  wanted=ZEBSTATS_PRIVATE
  ! grep -qE "^ZEB_API .*\b$name\(" "$header" || wanted=ZEBSTATS_1.0
  case $name in getAPICodeText | getAPITimeout | setAPITimeout) wanted=ZEBSTATS_1.2 ;; esac
  expect "the version of $name" "@@$wanted" "$version"
done < <(awk -F@ '{ print $1, substr($0, length($1) + 1) }' <<<"$symbols")

listed() {
  sed -n "s/.*($1).*\[\(.*\)\]/\1/p" <<<"$dynamic" | paste -sd' '
}
# On some hosts the stack protector's guard is in the dynamic loader, which every process has.
expect "NEEDED" "libc.so.6" "$(listed NEEDED | sed 's/ ld-linux-[a-z0-9-]*\.so\.1//')"
expect "SONAME" "libzebstats.so.1" "$(listed SONAME)"
expect "RPATH" "" "$(listed RPATH)$(listed RUNPATH)"
grep -q 'GNU_RELRO' <<<"$segments" || complain "has no RELRO segment"
grep -qE 'BIND_NOW|FLAGS_1.*NOW' <<<"$dynamic" || complain "is not linked with BIND_NOW"
expect "the stack's protection" "RW" "$(awk '$1 == "GNU_STACK" { print $7 }' <<<"$segments")"
! grep -q TEXTREL <<<"$dynamic" || complain "has text relocations"

undefined=$(nm -D --undefined-only "$library")
grep -q __stack_chk_fail <<<"$undefined" || complain "has no stack protector"
# Only optimised builds are fortified.
[ -z "${3:-}" ] || grep -qE '__(vfprintf|snprintf|memcpy)_chk' <<<"$undefined" || complain "is not fortified"

[ "$failures" -eq 0 ] || exit 1
printf '%s names, all as listed\n' "$(wc -l <"$names")"
