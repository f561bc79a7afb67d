#!/usr/bin/env bash
# cli_test.sh ZEBSTAT SIMULATOR: the programs as a person meets them: what they print and how they end.
set -euo pipefail
zebstat=$1
simulator=$2
scratch=$(mktemp -d)
simulators=()
failures=0

clean_up() {
  for pid in "${simulators[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait
  rm -rf "$scratch"
}
trap clean_up EXIT

complain() {
  printf 'cli_test: %s\n' "$*" >&2
  failures=$((failures + 1))
}

# start NAME OPTION...: starts a simulator and sets port.
start() {
  local name=$1 line
  shift
  mkfifo "$scratch/$name"
  "$simulator" --listen 127.0.0.1:0 "$@" >"$scratch/$name" &
  simulators+=($!)
  IFS= read -r -t 20 line <"$scratch/$name"
  port=${line#listening on 127.0.0.1:}
}

# ask CODE ARGUMENT...: runs zebstat, wants that exit code, and leaves what it wrote in out and err.
ask() {
  local wanted=$1 code=0
  shift
  asked="zebstat $*"
  "$zebstat" "$@" >"$scratch/out" 2>"$scratch/err" </dev/null || code=$?
  out=$(<"$scratch/out")
  err=$(<"$scratch/err")
  [ "$code" = "$wanted" ] || complain "$asked: exit code $code, not $wanted: $err"
}

wants() { # WHAT TEXT PATTERN: one line of the text matches all of the pattern
  grep -qxE -e "$3" <<<"$2" || complain "$asked: $1 has no line '$3': $2"
}

wants_lines() { # WHAT TEXT COUNT
  local count=0
  [ -z "$2" ] || count=$(wc -l <<<"$2")
  [ "$count" = "$3" ] || complain "$asked: $1 has $count lines, not $3: $2"
}

start plain --seed 1 --segment 7
at=(--host 127.0.0.1 --port "$port")

ask 0 "${at[@]}" groups
wants output "$out" 'GROUP'
wants output "$out" 'WORK'
wants_lines output "$out" 7
ask 0 ids "${at[@]}"
wants output "$out" 'LINK_LAST_ERROR'
wants_lines output "$out" 61
ask 0 "${at[@]}" ids VM HOST
wants output "$out" 'GROUP  STATISTIC'
wants output "$out" 'VM     VM_UPTIME'
wants output "$out" 'HOST   HOST_DISK_FREE'
wants_lines output "$out" 21

# One line an entry, the long text with its line ends too.
ask 0 "${at[@]}" stats
wants output "$out" 'LISTEN_OPEN_LIMIT     100'
wants output "$out" 'REQ_JOURNAL           t=0 .* ok\\n\.+ end'
wants output "$out" 'HOST_SITE             Århus, hall 2'
wants_lines output "$out" 61
wants_lines errors "$err" 0
ask 0 "${at[@]}" stats HOST_CPUS VM_NAME
wants output "$out" 'HOST_CPUS  16'
wants_lines output "$out" 3
ask 0 "${at[@]}" stats --group LINK
wants output "$out" 'LINK   LINK_TARGET          orders-east:7001'
wants_lines output "$out" 11

# A terminal gets lines cut to its width, which is counted in characters: 26 of them are 27 bytes here.
asked="zebstat on a terminal"
out=$(script -qec "stty cols 26; '$zebstat' --port $port stats HOST_SITE REQ_JOURNAL" /dev/null </dev/null | tr -d '\r')
wants output "$out" 'HOST_SITE    Århus, hall 2'
wants output "$out" 'REQ_JOURNAL  t=.{8}\.\.\.'

# A refused element does not hide the others.
ask 1 "${at[@]}" stats HOST_CPUS NO_SUCH
wants output "$out" 'HOST_CPUS  16'
wants errors "$err" "zebstat: 127\.0\.0\.1:$port: cannot get 'NO_SUCH': the gateway refused it \(its code -[0-9]+\).*"
wants_lines errors "$err" 1
ask 1 "${at[@]}" ids NO_SUCH
wants_lines output "$out" 1

for wrong in "stats --port abc" "stats --port 65536" "stats --port" "nonsense" "" "groups VM" "--nonsense groups" \
  "stats VM_NAME --group VM"; do
  # shellcheck disable=SC2086 # split into arguments on purpose
  ask 2 $wrong
  wants_lines output "$out" 0
  wants errors "$err" 'zebstat: .*; see zebstat --help'
  wants_lines errors "$err" 1
done
ask 2 stats ""
ask 0 --help
wants output "$out" 'Examples:'
wants_lines errors "$err" 0

ask 3 "${at[@]}" stats "$(printf '%032766d' 0)"
wants errors "$err" "zebstat: 127\.0\.0\.1:$port: cannot get the statistics: .* \(-2\)"
ask 3 --port "$port" --host no.such.host.invalid groups
wants errors "$err" "zebstat: no\.such\.host\.invalid:$port: cannot connect: .* \(-132\)"
code=0
"$zebstat" "${at[@]}" groups >/dev/full 2>"$scratch/err" || code=$?
[ "$code" = 3 ] || complain "writing to a full device: exit code $code, not 3"
grep -q 'cannot write to standard output' "$scratch/err" || complain "writing to a full device: no such line"

# Both signals end the simulator cleanly, and then nobody listens there.
for signal in INT TERM; do
  start "big$signal" --scale 40
  ask 3 --port "$port" stats
  wants_lines output "$out" 0
  wants errors "$err" "zebstat: 127\.0\.0\.1:$port: cannot read the answer: .* \(-119\)"
  kill -"$signal" "${simulators[-1]}"
  code=0
  wait "${simulators[-1]}" || code=$?
  unset 'simulators[-1]'
  [ "$code" = 0 ] || complain "SIG$signal ended the simulator with $code"
  ask 3 --port "$port" groups
  wants errors "$err" "zebstat: 127\.0\.0\.1:$port: cannot connect: .* \(-135\)"
  wants_lines errors "$err" 1
done

[ "$failures" -eq 0 ] || exit 1
