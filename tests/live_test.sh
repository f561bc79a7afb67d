#!/usr/bin/env bash
# live_test.sh LIVE SIMULATOR: the live view as a person meets it, on a terminal that tmux draws.
set -euo pipefail
live=$1
simulator=$2
scratch=$(mktemp -d)
export LC_ALL=C.UTF-8 TMUX_TMPDIR=$scratch
unset TMUX
started=()

clean_up() {
  tmux kill-server 2>/dev/null || true
  for pid in "${started[@]}"; do kill -KILL "$pid" 2>/dev/null || true; done
  wait 2>/dev/null
  rm -rf --one-file-system "$scratch"
}
trap clean_up EXIT

complain() {
  printf 'live_test: %s\n' "$*" >&2
  tmux capture-pane -p -t live >&2 || true
  exit 1
}

# start ADDRESS: starts a simulator there and sets address.
start() {
  rm -f "$scratch/fifo"
  mkfifo "$scratch/fifo"
  "$simulator" --listen "$1" >"$scratch/fifo" &
  started+=($!)
  IFS= read -r -t 20 address <"$scratch/fifo"
  address=${address#listening on }
}

# sees WHAT PATTERN: waits until a line of the screen matches.
sees() {
  local tries=100
  while ((tries-- > 0)); do
    if tmux capture-pane -p -t live | grep -qE -e "$2"; then return; fi
    sleep 0.1
  done
  complain "not seen: $1 ($2)"
}
press() { tmux send-keys -t live "$@"; }

start 127.0.0.1:0
first=$address
start 127.0.0.1:0
second=$address
tmux -f /dev/null new-session -d -s live -x 110 -y 24 \
  "'$live' --gateway $first --gateway $second --interval 0.2 --critical 'LISTEN_PORT=1'; echo ended \$?; cat"
sees "statistics of both gateways" '^2 gateways  every 0.2 s  120 of 120 by name'
press / listen_p
sees "the filter" '^2 gateways .* 2 of 120 by name'
sees "an alarm" "^!! +$first +LISTEN_PORT +2980 "
press Enter r
sees "another order" ' 2 of 120 by rate'
press Escape
sees "all again" ' 120 of 120 by rate'
press n End
sees "the last statistic" ' WORK_WAIT_TIMEOUTS '
tmux resize-window -t live -x 80 -y 24
sees "graphs on an ordinary terminal" 'WORK_BUSY .*[▁▂▃▄▅▆▇█]$'
tmux resize-window -t live -x 60 -y 12
sees "a smaller window" '^2 gateways .* 120 of 120 by name'
press Home
sees "the first statistic" 'HOST_CPUS'
kill -KILL "${started[1]}"
wait "${started[1]}" 2>/dev/null || true
sees "its number" '^2 gateways, 1 down '
sees "an outage" "^no answer since [0-9:]+ \([0-9]+ s\): $second: "
start "$second"
tries=100
while tmux capture-pane -p -t live | grep -q '^no answer'; do
  ((tries-- > 0)) || complain "the outage does not end"
  sleep 0.1
done
press h
sees "the keys" 'Page Up, Page Down'
press h q
sees "the end" '^ended 0'
tmux respawn-pane -k -t live "'$live' NO_SUCH HOST_CPUS 'X*' --host $first"
sees "what the gateway lacks" "^$first does not have X\*, NO_SUCH"
code=0
message=$("$live" 2>&1 </dev/null) || code=$?
[ "$code" = 2 ] && [[ $message == *"needs a terminal"* ]] || complain "exit code $code: $message"
for wrong in "-H a:1 -p 2" "-p 65536" "--timeout 0" "--interval .05" "--gateway a:b" "--gateway a -p 1"; do
  code=0
  # shellcheck disable=SC2086 # split into arguments on purpose
  message=$("$live" $wrong 2>&1) || code=$?
  [ "$code" = 2 ] && [[ $message == *"; see zebstat live --help" ]] || complain "$wrong: exit code $code: $message"
done
message=$(ZEBSTAT_GATEWAY=gw,a:b "$live" 2>&1) || true
[[ $message == *"ZEBSTAT_GATEWAY in the environment: 'a:b' is not"* ]] || complain "the environment: $message"
