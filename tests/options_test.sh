#!/usr/bin/env bash
# options_test.sh ZEBSTAT MANUAL: help, manual pages and completion have the same options and formats.
set -euo pipefail
zebstat=$1
manual=$2
failures=0
complain() {
  printf 'options_test: %s\n' "$*" >&2
  failures=$((failures + 1))
}

PATH=$(dirname "$zebstat"):$PATH  # the completion executes it
eval "$("$zebstat" completion bash)"
offers() { # LINE WORD...: bash completes the line with each of the words
  local word COMP_LINE=$1 COMP_POINT=${#1} COMPREPLY=()
  _zebstat || true
  for word in "${@:2}"; do
    [[ " ${COMPREPLY[*]} " == *" $word "* ]] || complain "bash: '$1' lacks $word"
  done
}
zsh=$("$zebstat" completion zsh)
zsh -n <(printf '%s\n' "$zsh") || complain "zsh cannot read its completion"
helps=" h -help -version "
for command in "" stats ids groups check live completion; do
  page=$manual
  [ "$command" != live ] || page=$(dirname "$manual")/zebstat-live.1
  help=$("$zebstat" ${command:+"$command"} --help)
  [ "$(wc -l <<<"$help")" -le 24 ] && ! grep -E '.{81}' <<<"$help" || complain "$command: more than a screen"
  [ "$(tail -3 <<<"$help" | head -1)" = Examples: ] || complain "$command: the help does not end in two examples"
  [ -n "$command" ] || continue
  mapfile -t names < <(sed -nE 's/^ +((-., )?--[^ =[]+).*/\1/p' <<<"$help" | tr -d , | tr ' ' '\n')
  offers "zebstat $command -" "${names[@]}" --help
  for name in "${names[@]}"; do
    helps+=" ${name#-} "
    grep -qE "^\.It .*Fl ${name#-}( |$)" "$page" || complain "$page lacks $name"
    sed -n "/^    $command)/,/;;/p" <<<"$zsh" | grep -qE -- "'(\*|\([^)]*\))$name(=-)?\[" ||
      complain "zsh: $command lacks $name"
  done
done
while read -r name; do
  [[ $helps == *" $name "* ]] || complain "no help has -$name of the manual page"
done < <(grep '^\.It.*Fl' "$manual" | grep -oE 'Fl -?[a-zA-Z]+(-[a-z]+)*' | cut -c 4-)
for format in $("$zebstat" stats --help | sed -n 's/.*--format FORMAT *//p' | tr -d ,); do
  offers "zebstat stats --format " "$format"
  grep -qx "\.It Cm $format" "$manual" || complain "$manual lacks the format $format"
done

# The exporter has a table of its own.
manual=$(dirname "$manual")/zebstats-exporter.1
help=$("$zebstat" exporter --help)
[ "$(wc -l <<<"$help")" -le 24 ] && ! grep -E '.{81}' <<<"$help" || complain "exporter: more than a screen"
mapfile -t names < <(sed -nE 's/^ +((-., )?--[^ =[]+).*/\1/p' <<<"$help" | tr -d , | tr ' ' '\n')
offers "zebstat exporter -" "${names[@]}"
for name in "${names[@]}"; do
  grep -qE "^\.It .*Fl ${name#-}( |$)" "$manual" || complain "$manual lacks $name"
done

[ "$failures" -eq 0 ] || exit 1
