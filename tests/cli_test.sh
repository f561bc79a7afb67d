#!/usr/bin/env bash
# cli_test.sh ZEBSTAT SIMULATOR: the programs as a person meets them: what they print, how they end.
set -euo pipefail
zebstat=$1
simulator=$2
. "$(dirname "$0")/program_test.sh"
unset NO_COLOR ZEBSTAT_GATEWAY
export TERM=xterm

# ask CODE ARGUMENT...: runs zebstat, wants that exit code, and leaves what it wrote in out and err.
ask() {
  local wanted=$1 code=0
  shift
  asked="zebstat $*"
  timeout 20 "$zebstat" "$@" >"$scratch/out" 2>"$scratch/err" </dev/null || code=$?
  out=$(<"$scratch/out")
  err=$(<"$scratch/err")
  [ "$code" = "$wanted" ] || complain "exit code $code, not $wanted: $err"
}

# ask_on_terminal SETTING ARGUMENT...: the same on a terminal that is set up so.
ask_on_terminal() {
  local setting=$1
  shift
  asked="zebstat $* on a terminal"
  out=$(script -qec "$setting; timeout 20 $(printf '%q ' "$zebstat" "$@")" /dev/null </dev/null |
    tr -d '\r')
}

wants() { # WHAT TEXT PATTERN...: for each pattern one line of the text matches all of it
  local what=$1 text=$2 pattern
  shift 2
  for pattern; do
    grep -qxE -e "$pattern" <<<"$text" || complain "$what has no line '$pattern': $text"
  done
}
shows() { wants output "$out" "$@"; }
says() { wants errors "$err" "$@"; }
lines() { # OUTPUT [ERRORS]: how many there are of each
  local found
  found="$(wc -l <"$scratch/out") and $(wc -l <"$scratch/err")"
  [ "$found" = "$1 and ${2:-0}" ] || complain "$found lines of output and errors, not $*: $out $err"
}
waits_for() { # FILE PATTERN: until a line of the file matches
  await grep -qasE -e "$2" "$1" || complain "nothing in $1 matches '$2' in time: $(<"$1")"
}

ends() { # SIGNAL PROCESS: the signal ends the process with 0, and at once
  local code=0 begin=$SECONDS
  kill -"$1" "$2"
  wait "$2" || code=$?
  [ "$code $((SECONDS - begin < 5))" = "0 1" ] ||
    complain "SIG$1 ended it with $code after $((SECONDS - begin)) s"
}

start --seed 1 --segment 7
at=(--host 127.0.0.1 --port "$port")
here="zebstat: 127\.0\.0\.1:$port"
stamp='[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\.[0-9]{3}Z'

# ---- Tables ----
ask 0 "${at[@]}" groups && lines 7 && shows 'GROUP' 'WORK'
ask 0 ids "${at[@]}" && lines 61 && shows 'STATISTIC' 'LINK_LAST_ERROR'
ask 0 "${at[@]}" ids VM HOST && lines 21 && shows 'GROUP  STATISTIC' 'HOST   HOST_DISK_FREE'
ask 0 "${at[@]}" stats && lines 61 # one line an entry, the long text with its line ends too
shows 'LISTEN_OPEN_LIMIT     100' 'REQ_JOURNAL           t=0 .* ok\\n\.+ end' \
  'HOST_SITE             Århus, hall 2'
ask 0 "${at[@]}" stats --group LINK && lines 11 &&
  shows 'LINK   LINK_TARGET          orders-east:7001'
# A terminal gets lines cut to its width in characters, of which 26 are 27 bytes here.
ask_on_terminal 'stty cols 26' "${at[@]}" stats HOST_SITE REQ_JOURNAL
shows 'HOST_SITE    Århus, hall 2' 'REQ_JOURNAL  t=.{8}\.\.\.' $'\e\\[1mSTATISTIC .*'
ask_on_terminal 'export NO_COLOR=1' "${at[@]}" stats HOST_CPUS && shows 'STATISTIC  VALUE'

# ---- The other formats ----
ask 1 "${at[@]}" stats --format json REQ_RATE HOST_SITE NO_SUCH REQ_JOURNAL
shows "  \"timestamp\": \"$stamp\"," "  \"gateway\": \"127.0.0.1:$port\"," '  "version": 1,' \
  '    \{"id":"REQ_RATE","group":"REQ","value":[0-9]+\.[0-9]{2}\},' \
  '    \{"id":"HOST_SITE","group":"HOST","value":"Århus, hall 2"\},' \
  '    \{"id":"REQ_JOURNAL","group":"REQ","value":"t=0 .* ok\\n.*"\}' \
    '    \{"element":"NO_SUCH","code":-[0-9]+\}'
ask 0 "${at[@]}" ids --format jsonl VM && lines 1
shows '\{"version":1,.*,"ids":\[\{"id":"VM_NAME","group":"VM"\},.*\],"errors":\[\]\}'
ask 0 "${at[@]}" stats --format csv HOST_SITE VM_NAME
shows $'timestamp,group,id,value,gateway\r' \
  "$stamp,HOST,HOST_SITE,\"Århus, hall 2\",127.0.0.1:$port"$'\r'
ask 0 "${at[@]}" stats --format value HOST_SITE HOST_CPUS --output - && lines 2 &&
  shows 'Århus, hall 2' '16'
ask 0 "${at[@]}" stats --format prometheus HOST_SITE HOST_CPUS
shows '# TYPE zebstats_host_cpus untyped' 'zebstats_host_cpus\{.*\} 16' \
  'zebstats_host_site_info\{.*value="Århus, hall 2".*\} 1'

# ---- Filters and files ----
ask 0 "${at[@]}" ids --include '*_PEAK' --include 'VM_*' --exclude 'VM_HEAP*' --exclude 'NO_*'
lines 12 1 && says "zebstat: --exclude 'NO_\\*' matched nothing"
ask 0 "${at[@]}" stats HOST_SITE 'HOST_S*' 'NO_*' '[V]M_?PTIM[E]' && lines 4 1 &&
  says "$here: 'NO_\*' matched nothing"
ask 5 "${at[@]}" groups --include 'host' && lines 1 1 &&
  says "zebstat: --include 'host' matched nothing"

file_is_kept() {
  [ "$(wc -l <"$scratch/kept")" = 2 ] || complain "the file is another one: $(<"$scratch/kept")"
  [ "$(find "$scratch" -name 'kept*' | wc -l)" = 1 ] || complain "a file is left beside"
}
ln -s kept "$scratch/near" && ln -s "$scratch/near" "$scratch/link"
ask 0 "${at[@]}" groups --output "$scratch/link" && chmod 640 "$scratch/kept" # makes it
ask 0 "${at[@]}" stats HOST_CPUS --output "$scratch/link" --watch=0.1 --count 2 --format csv &&
  lines 0 && file_is_kept
[ "$(stat -c %a "$scratch/kept")" = 640 ] && [ -L "$scratch/link" ] ||
  complain "mode or link is lost"
ask 3 --port 1 stats --output "$scratch/kept" && file_is_kept
ln -s loop "$scratch/loop"
for unwritable in "$scratch" /dev/full "$scratch/no/file" "$scratch/loop"; do
  ask 2 "${at[@]}" stats --output "$unwritable"
  lines 0 1 && says "zebstat: --output: cannot write '$unwritable': .*; name a file .*"
done
asked="zebstat --output to a full disk" code=0
(ulimit -f 0 && trap '' XFSZ && "$zebstat" "${at[@]}" stats --output "$scratch/kept" 2>/dev/null) ||
  code=$?
[ "$code" = 2 ] || complain "exit code $code, not 2"
file_is_kept
asked="zebstat --output while nobody reads standard output" begin=${EPOCHREALTIME/./}
"$zebstat" "${at[@]}" groups --output "$scratch/other" --watch=0.3 --count 3 | true
[ $((${EPOCHREALTIME/./} - begin)) -ge 600000 ] || complain "the watch has ended early"

# ---- Several gateways ----
start --seed 2
several=(--gateway "127.0.0.1:${at[3]}" --gateway 127.0.0.1:1 --gateway "localhost:$port")
ask 3 stats HOST_CPUS "${several[@]}" && lines 3 1 &&
  says 'zebstat: 127\.0\.0\.1:1: cannot connect .*'
shows 'GATEWAY +STATISTIC  VALUE' "127\.0\.0\.1:${at[3]} +HOST_CPUS +16" \
  "localhost:$port +HOST_CPUS +16"
ask 1 stats HOST_CPUS NO_SUCH "${several[@]:0:2}" "${several[@]:4}" "${several[@]:4}" \
  --format csv && lines 3 2 # one that is named twice is asked once
mapfile -t many < <(printf -- '--gateway\n127.0.0.1:%d\n' {1..257})
ask 2 groups "${many[@]}" && says 'zebstat: --gateway: 257 .*256.*'
ask 3 stats HOST_CPUS "${several[@]}" --format jsonl && lines 3 1
shows '\{.*"gateway":"127.0.0.1:1",.*"outage":\{"code":-135,"text":".*"\}\}'
ask 3 stats HOST_CPUS "${several[@]}" --watch 0.1 --count 3 && lines 7 1
export ZEBSTAT_GATEWAY="127.0.0.1:${at[3]},[::1]:1"
ask 3 groups --format json && lines 24 1 && shows '\[' '\]' && ask 0 "${at[@]}" groups && lines 7
unset ZEBSTAT_GATEWAY
port=${at[3]}

# ---- Watching ----
ask 0 "${at[@]}" stats VM_UPTIME --watch .1 --count 3 && lines 3 && shows '\{"version":1,.*\}'
ask 0 "${at[@]}" stats VM_UPTIME --watch=0.1 --count 3 --format csv && lines 4
ask_on_terminal 'stty cols 60 rows 24' "${at[@]}" stats VM_NAME VM_UPTIME --watch=1.1 --count 3
shows $'.*STATISTIC  VALUE  CHANGE  PER SECOND.*' $'.*VM_UPTIME +[0-9]+ +[12] +[0-9.]+\e.*'
shows $'.*\e\\[4A\e\\[K127.*' # over the four lines before

start --seed 1
asked="zebstat --watch while the gateway is started again and then silent"
"$zebstat" -p "$port" -t 1 stats VM_UPTIME --watch=0.2 >"$scratch/records" 2>/dev/null &
records=$!
"$zebstat" --port "$port" --timeout 1 stats VM_UPTIME --watch=0.2 --format table \
  >"$scratch/watched" 2>"$scratch/words" &
table=$!
waits_for "$scratch/watched" 'VM_UPTIME +2 '
kill "$gateway"
waits_for "$scratch/words" 'cannot .* \(-1[0-9]{2}\): .*; trying again in 1 s'
waits_for "$scratch/words" 'trying again in 2 s'
listen=127.0.0.1:$port start
waits_for "$scratch/words" 'it answers again'
: >"$scratch/watched"
waits_for "$scratch/watched" 'VM_UPTIME +[1-9] +1 +[0-9]'
! grep -aE -e ' -[0-9.]+$' "$scratch/watched" || complain "a negative rate"
: >"$scratch/words"
kill -STOP "$gateway"
waits_for "$scratch/words" 'no answer within 1 s; trying again in 1 s'
kill -CONT "$gateway"
waits_for "$scratch/words" 'it answers again'
ends INT "$records"
ends INT "$table"
[ "$(grep -c '"outage":{"code":-1' "$scratch/records")" = 2 ] ||
  complain "records: $(<"$scratch/records")"

# ---- check ----
check() { # CODE PATTERN ARGUMENT...
  local wanted=$1 pattern=$2
  shift 2
  ask "$wanted" "${at[@]}" check "$@"
  lines 1 && shows "$pattern"
}
big=123456789012345678901234567890
check 0 'OK: HOST_CPUS is 16 \| HOST_CPUS=16;16;~:20' HOST_CPUS -w 16 --critical '~:20'
check 1 'WARNING: HOST_CPUS is 16, .* \| HOST_CPUS=16;@10:20;30' HOST_CPUS --warning @10:20 -c 30
check 2 'CRITICAL: LISTEN_PORT is 2980, .*CPUS is 16, .*SITE is no .* \| L.*=2980;9;5 H.*=16;9;17' \
  HOST_SITE HOST_CPUS LISTEN_PORT -w 9 -c 17 -c LISTEN_PORT=5
check 1 'WARNING: .* \| HOST_CPUS=16;@10:20;30' HOST_CPUS -w 9 -w @1e1:.2e2 -c 0 -c 3e1
check 2 'CRITICAL: HOST_CPUS is 16, expected is 8 \| HOST_CPUS=16' HOST_CPUS --equals 8
check 2 'CRITICAL: HOST_CPUS is 16, expected is an empty text .*' HOST_CPUS --equals=
check 2 'CRITICAL: HOST_SITE is .*, expected is a match of \^x/y' HOST_SITE --matches '^x|y'
printf '{"statistics": [{"id": "LISTEN_BYTES*", "unit": "bytes"}]}' >"$scratch/units"
check 0 'OK: .* \| LISTEN_BYTES_IN=[0-9]+B HOST_CPUS=16' LISTEN_BYTES_IN HOST_CPUS --metadata \
  "$scratch/units"
rate=(LISTEN_BYTES_IN --rate --state "$scratch/rate" -w 0)
check 0 'OK: LISTEN_BYTES_IN is [0-9]+, its rate is known from the next run on \| .*_per_second=U' \
  "${rate[@]}"
sed -i 's/,"[0-9]*"\]/,"1"]/' "$scratch/rate" # the gateway's values change only once a second
check 1 'WARNING: .* grows by [0-9.]+ per second, .* \| LISTEN_BYTES_IN_per_second=[0-9.]+;0' \
  "${rate[@]}"
sed -i "s/,\"[0-9]*\"\]/,\"$big\"]/" "$scratch/rate"
check 0 "OK: LISTEN_BYTES_IN fell from $big to [0-9]+, so no rate \| .*_per_second=U" "${rate[@]}"
ask 2 --port 1 check HOST_CPUS -v && lines 2 &&
  shows 'CRITICAL: 127\.0\.0\.1:1: .*' 'CRITICAL: 127\.0\.0\.1:1: .*'
for wrong in "HOST_CPUS -w ten" "HOST_CPUS -c 20:10" "HOST_CPUS -w NO=5" "" "A --rate" \
  "A --matches (" "A --equals a -w 1" "A --metadata /" \
  "A --rate --state $scratch/units" "A --trace 1 --trace-file /no/x" 5; do
  # shellcheck disable=SC2086 # split into arguments on purpose
  ask 3 "${at[@]}" check $wrong && lines 1 && shows 'UNKNOWN: .+'
done

# ---- What goes wrong ----
ask 1 "${at[@]}" stats HOST_CPUS NO_SUCH # a refused element does not hide the others
lines 2 1 && shows 'HOST_CPUS  16' && says "$here: cannot get 'NO_SUCH': .* \(its code -[0-9]+\).*"
for wrong in "stats --port 65536" "stats --port" "nonsense" "" "groups VM" "--nonsense groups" \
  "stats VM_NAME --group VM" "stats --format yaml" "stats --watch=soon" "stats --count 2" \
  "stats --timeout 0" "ids --format prometheus" "stats --trace 6" "stats --group 5" \
  "--port 1 live x" "stats --host a:1 --port 2" "stats --host a --gateway b" \
  "stats --host= --port 1" "completion fish"; do
  # shellcheck disable=SC2086 # split into arguments on purpose
  ask 2 $wrong
  lines 0 1 && says 'zebstat: .*; see zebstat .*--help'
done
ask 2 "${at[@]}" stats ""
ZEBSTAT_GATEWAY=bad: ask 0 completion bash
ask 2 "${at[@]}" stats --trace 1 --trace-file "$scratch/no/file" && lines 0 1

offers "zebstat " live
offers "zebstat stats ${at[*]} HOST_C" HOST_CPUS
offers "zebstat ids ${at[*]} L" LINK
# live and exporter are programs of their own, which lie beside zebstat.
mkdir "$scratch/bin" && cp "$zebstat" "$scratch/bin/zebstat"
asked="zebstat live" code=0
err=$("$scratch/bin/zebstat" live --any 2>&1) || code=$?
[ "$code" = 2 ] && says 'zebstat: cannot start zebstat-live: it is not installed; .*' ||
  complain "exit code $code"
ln -s "$(type -P echo)" "$scratch/bin/zebstat-live"
[ "$("$scratch/bin/zebstat" live -p 1 x)" = "-p 1 x" ] || complain "the arguments are lost"

# ---- Why there is no answer ----
ask 3 "${at[@]}" stats "$(printf '%032766d' 0)" && lines 0 1 && says "$here: cannot ask \(-2\): .*"
ask 3 --port "$port" --host no.such.host.invalid groups && lines 0 1 &&
  says '.*: cannot connect \(-132\): .*'
peer() { # ANSWER: starts a server that sends this to each client and hangs up
  rm "$scratch/fifo" && mkfifo "$scratch/fifo"
  python3 -c 'import socket, sys
with socket.create_server(("127.0.0.1", 0)) as server:
    print(server.getsockname()[1], flush=True)
    while True:
        client = server.accept()[0]
        client.recv(1000)
        client.sendall(sys.argv[1].encode().replace(b"\\0", bytes(1)))
        client.close()' "$1" >"$scratch/fifo" &
  IFS= read -r -t 20 peer <"$scratch/fifo" || complain "no peer"
}
peer "" && ask 3 -p "$peer" groups && says '.*: it accepts connections and closes them at once: .*'
peer 'HTTP/1.0\0 400 no' && ask 3 -p "$peer" groups &&
  says ".* not a gateway, it answers 'HTTP/1.0\\\\x00 400 no'; .*"
ask 3 --host 255.255.255.255 groups && says '.*: no route: .*'
ask 3 --port 1 check HOST_CPUS --unreachable unknown && shows 'UNKNOWN: .*'
ask 0 "${at[@]}" groups --trace 2 --trace-file "$scratch/trace" && lines 7
[ -s "$scratch/trace" ] || complain "no trace"
for full in groups --help --version "check" "check HOST_CPUS"; do
  asked="zebstat $full to a full device" code=0
  # shellcheck disable=SC2086 # split into arguments on purpose
  err=$("$zebstat" "${at[@]}" $full 2>&1 >/dev/full) || code=$?
  [ "$code" = 3 ] || complain "exit code $code, not 3"
  says 'zebstat: cannot write to standard output: .*'
done
asked="zebstat to a closed pipe" code=0
timeout 20 "$zebstat" "${at[@]}" stats --watch=0.1 2>"$scratch/err" | head -1 >/dev/null || code=$?
[ "$code" = 0 ] && [ ! -s "$scratch/err" ] || complain "exit code $code: $(<"$scratch/err")"

# ---- Simulated troubles ----
start --mute
ask 4 -p "$port" -t 0.3 groups && lines 0 1 && says '.*: no answer within 0\.3 s: it .* silent.*'
ask 2 -p "$port" -t 0.3 check ID && lines 1 && shows 'CRITICAL: .*: no answer within 0\.3 s.*'
start --mute=query
ask 4 -p "$port" -t 1 groups && says '.*: no answer within 1 s'
start --reset
ask 3 -p "$port" stats && lines 0 1 && says '.*: cannot ask \(-102\): .*'
start --slow 0.6 --no-close-answer
begin=${EPOCHREALTIME/./}
ask 0 -p "$port" -t 2 groups && lines 7
took=$((${EPOCHREALTIME/./} - begin))
[ "$took" -ge 2600000 ] || complain "answer and close took $took us, not 0.6 and 2 s"
until listen=127.0.0.1:$((first = 10000 + RANDOM % 20000)) start --ports 3; do :; done
ask 0 stats HOST_NAME --gateway "127.0.0.1:$first" --gateway "127.0.0.1:$((first + 2))"
shows '.* gateway-1' '.* gateway-3'
asked="a port that is taken" code=0
err=$("$simulator" --listen "127.0.0.1:$first" 2>&1) || code=$?
[ "$code" = 1 ] && says 'zebgatewaysim: .*in use.*--listen.*' || complain "exit code $code"
for wrong in --ports={010,1001} --seed=18446744073709551616 --scale=+5 --segment=-1 --slow=.; do
  asked="zebgatewaysim $wrong" code=0
  err=$(timeout 10 "$simulator" --listen 127.0.0.1:0 "$wrong" 2>&1) || code=$?
  [ "$code" = 2 ] && says "zebgatewaysim: ${wrong%=*}: .*" || complain "exit code $code"
done

asked="silent clients, one that is none, and messages that nobody reads"
mkfifo "$scratch/unread"
exec {unread}<>"$scratch/unread"
messages=$scratch/unread start --segment 7
prlimit --pid "$gateway" --nofile=64
"$zebstat" -p "$port" stats VM_UPTIME --watch=0.2 >"$scratch/records" 2>"$scratch/words" &
waits_for "$scratch/records" VM_UPTIME
(
  exec {_client}<>"/dev/tcp/127.0.0.1/$port"
  printf 'GET / HTTP/1.0\r\n\r\n' >&"$_client"
  [ -z "$(timeout 10 cat <&"$_client" 2>/dev/null)" ] || exit
  for _ in {1..1000}; do exec {_client}<>"/dev/tcp/127.0.0.1/$port"; done
  timeout 10 "$zebstat" -p "$port" groups >/dev/null
) || complain "they shut out another client, or an invalid request is answered"
IFS= read -r -t 10 line <&"$unread" && [[ $line == *"no eyecatcher"* ]] ||
  complain "an invalid request is not reported"
: >"$scratch/records"
waits_for "$scratch/records" VM_UPTIME
[ ! -s "$scratch/words" ] || complain "they end an older session: $(<"$scratch/words")"

# An answer in a million pieces holds up neither another client nor the end.
start --segment 1 --scale 1000
"$zebstat" -p "$port" stats >/dev/null 2>&1 &
for _ in {1..10}; do ask 0 -p "$port" -t 2 groups; done
ends TERM "$gateway"

# Nothing that moves the cursor, turns the direction of writing or is not seen is printed raw.
start --odd-names
ask_on_terminal 'stty cols 60 rows 24' -p "$port" stats HOST_CPUS 'ODD_LONG*'
shows 'ODD_LONG_L{18}\.\.\.  v+\.\.\.' 'HOST_CPUS {23}16'
ask 0 -p "$port" check ODD_TINY ODD_BIG &&
  shows '.*\| ODD_TINY=-0\.0000001250 ODD_BIG=18446744073709551616'
ask 0 -p "$port" stats 'ODD_GLOB_[a-z]*?' && lines 2
ask 2 -p "$port" check ODD_RAW_NUL --matches '^before$'
offers "zebstat stats -p $port ODD_SH" 'ODD_SHELL_\$\(id\)' # and executes nothing
for format in table json csv value prometheus; do
  ask 0 -p "$port" stats --format "$format" && shows '.*\\x1B.*|.*\\u001B.*'
  ! sed 's/\r$//' "$scratch/out" | LC_ALL=C.UTF-8 grep -P \
    '[\x00-\x1F\x7F-\x{9F}\x{61C}\x{200B}-\x{200F}\x{202A}-\x{202E}\x{2060}-\x{2069}\x{FEFF}]' ||
    complain "raw characters"
done

asked="zebstat --watch whose reader has stopped"
start --scale 40
mkfifo "$scratch/stopped" && exec {stopped}<>"$scratch/stopped"
"$zebstat" --port "$port" stats --watch=9 --format csv >&"$stopped" &
IFS= read -r -t 10 line <&"$stopped" && ends TERM $!

# Both signals end the simulator cleanly, and then nobody listens there.
for signal in INT TERM; do
  start --scale 40
  ask 0 --port "$port" stats && lines 2401  # more than one query can return
  ends "$signal" "$gateway"
  ask 3 --port "$port" groups && lines 0 1 &&
    says "zebstat: 127\.0\.0\.1:$port: cannot connect \(-135\): .*"
done

