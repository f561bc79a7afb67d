# What the tests of programs share: they source this file after they have set their arguments. It
# makes a folder for files, ends the simulated gateways with the test, and fails the test if there
# was a complaint.
# shellcheck shell=bash disable=SC2154 # simulator and zebstat are set by the tests
scratch=$(mktemp -d)
failures=0

clean_up() {
  local status=$?
  # shellcheck disable=SC2046 # a word for each
  kill -KILL $(jobs -p) ${server:+"$server"} 2>/dev/null || true
  wait 2>/dev/null
  rm -rf --one-file-system "$scratch"
  exit $((status || failures))
}
trap clean_up EXIT

complain() {
  printf '%s: %s: %s\n' "${0##*/}" "${asked:-}" "$*" >&2
  failures=$((failures + 1))
}

# start OPTION...: starts a simulator, at the address in listen if that is set, and sets gateway to
# its process and port to the port of its first gateway. Its messages go to the file in messages, if
# that is set. Fails if it does not start.
start() {
  rm -f "$scratch/fifo"
  mkfifo "$scratch/fifo"
  "$simulator" --listen "${listen:-127.0.0.1:0}" "$@" \
    >"$scratch/fifo" 2>>"${messages:-$scratch/simulators}" &
  gateway=$!
  IFS= read -r -t 20 port <"$scratch/fifo" || return
  port=${port##*:}
}

# await COMMAND...: until it succeeds. Fails if it does not in time.
await() {
  local tries=300
  until "$@"; do
    ((tries-- > 0)) || return 1
    sleep 0.05
  done
}

# offers LINE WORD...: bash completes the line with each of the words.
offers() {
  local word COMP_LINE=$1 COMP_POINT=${#1} COMPREPLY=()
  if ! declare -F _zebstat >/dev/null; then
    PATH=$(dirname "$zebstat"):$PATH # the completion executes it
    eval "$("$zebstat" completion bash)"
  fi
  _zebstat || true
  for word in "${@:2}"; do
    [[ " ${COMPREPLY[*]} " == *" $word "* ]] || complain "bash: '$1' lacks $word"
  done
}
