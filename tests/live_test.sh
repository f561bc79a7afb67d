#!/usr/bin/env bash
# live_test.sh LIVE SIMULATOR: the live view as a person meets it, on a terminal that tmux draws.
set -euo pipefail
live=$1
simulator=$2
. "$(dirname "$0")/program_test.sh"
export LC_ALL=C.UTF-8 TMUX_TMPDIR=$scratch
unset TMUX

# shows PATTERN: whether a line of the screen matches.
shows() { tmux capture-pane -p -t live | grep -qE -e "$1"; }
hides() { ! shows "$1"; }
sees() { # WHAT PATTERN
  await shows "$2" || { complain "not seen: $1 ($2)" && tmux capture-pane -p -t live >&2 &&
    exit 1; }
}
press() { tmux send-keys -t live "$@"; }

start
first=127.0.0.1:$port
start
second=127.0.0.1:$port
tmux -f /dev/null new-session -d -s live -x 110 -y 24 \
  "'$live' --gateway $first --gateway $second --interval .2 --critical LISTEN_PORT=1; echo ended \$?
   cat"
server=$(tmux display-message -p '#{pid}')
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
kill -KILL "$gateway"
wait "$gateway" 2>/dev/null || true
sees "its number" '^2 gateways, 1 down '
sees "an outage" "^no answer since [0-9:]+ \([0-9]+ s\): $second: "
listen=$second start
await hides '^no answer' || complain "the outage does not end"
press h
sees "the keys" 'Page Up, Page Down'
press h q
sees "the end" '^ended 0'
tmux respawn-pane -k -t live "'$live' NO_SUCH HOST_CPUS 'X*' --host $first"
sees "what the gateway lacks" "^$first does not have X\*, NO_SUCH"
for term in dumb ''; do
  tmux respawn-pane -k -t live "TERM=$term '$live'; echo TERM=$term ended \$?; cat"
  sees "that no cursor can be moved" "^TERM=$term ended 2"
done
refuses() { # MESSAGE ARGUMENT...
  local code=0 message
  message=$("$live" "${@:2}" 2>&1 </dev/null) || code=$?
  [ "$code" = 2 ] && [[ $message == *"$1"* ]] || complain "${*:2}: exit code $code: $message"
}
refuses "needs a terminal"
for wrong in "-H a:1 -p 2" "-p 65536" "5" "--timeout 0" "--interval .05" "--gateway a -p 1"; do
  # shellcheck disable=SC2086 # split into arguments on purpose
  refuses "; see zebstat live --help" $wrong
done
ZEBSTAT_GATEWAY=gw,a:b refuses "ZEBSTAT_GATEWAY in the environment: 'a:b' is not"
