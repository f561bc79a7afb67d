#!/usr/bin/env bash
# check_trace_points.sh DIRECTORY: each trace point number is written once in the sources of the library, because a
# number in a trace file has to lead to one message. Every other one gets a line.
set -euo pipefail
export LC_ALL=C
cd "$1"
shared=' 1029 1034 3002 ' # two messages each, which those who read traces know by these numbers
constants='kRetiredConnections|kFullBlock' # that count something else, as "a|b"
blocks='1(0[0-9]{2}|1[0-3][0-9]|14[0-2])|20([0-3][0-9]|4[0-4])|30(0[0-9]|1[0-8])|31(0[0-9]|1[0-4])|32[0-9]{2}|4[01][0-9]{2}|50[0-9]{2}|9999'
failures=0

complain() {
  printf '%s\n' "$*" >&2
  failures=$((failures + 1))
}

# "FILE:LINE:NUMBER" of each number that can be one, outside of texts and comments. A factor is none.
points=$(for file in *.cpp *.h; do
  sed -E 's/"([^"\\]|\\.)*"/""/g; s|//.*||; '"s/\\b($constants) = [0-9]+//" "$file" |
    grep -noP "(?<![\w.'])(?<![*/%] )(?<![*/%])($blocks)(?![\w.'])(?! ?[*/%])" | sed "s/^/$file:/" || true
done)
[ "$(wc -l <<<"$points")" -gt 300 ] || complain "only $(wc -l <<<"$points") trace points found"

while read -r count number; do
  allowed=1
  [[ $shared != *" $number "* ]] || allowed=2
  [ "$count" -le "$allowed" ] ||
    complain "$number is written $count times: $(grep ":$number\$" <<<"$points" | cut -d: -f1,2 | paste -sd" ")"
done < <(cut -d: -f3 <<<"$points" | sort | uniq -c)

# One literal number for whatever function the message names.
named=$(cat *.cpp *.h | tr '\n' ' ' |
  grep -oP '\b(TRACE_\w+\(|ZEB_TRACE\([^"]*"[A-Z*]+", )\s*\d{4},\s*"(API|stapi_zeb_\w+)\.%s' || true)
while read -r line; do
  [ -z "$line" ] || complain "one number for the messages of several functions: $line"
done <<<"$named"

[ "$failures" -eq 0 ] || exit 1
printf '%s trace points, all different\n' "$(wc -l <<<"$points")"
