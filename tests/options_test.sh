#!/usr/bin/env bash
# options_test.sh ZEBSTAT MANUAL: help, manual pages and completion have the same options.
set -euo pipefail
zebstat=$1
manual=$2
. "$(dirname "$0")/program_test.sh"

zsh=$("$zebstat" completion zsh)
zsh -n <(printf '%s\n' "$zsh") || complain "zsh cannot read its completion"
declare -A helps=() # the names in the help of a page's commands
for command in "" stats ids groups check completion live exporter; do
  page=$manual
  case $command in # programs of their own
    live) page=$(dirname "$manual")/zebstat-live.1 ;;
    exporter) page=$(dirname "$manual")/zebstats-exporter.1 ;;
  esac
  help=$("$zebstat" ${command:+"$command"} --help)
  [ "$(wc -l <<<"$help")" -le 24 ] && ! grep -E '.{81}' <<<"$help" ||
    complain "$command: more than a screen"
  [ -n "$command" ] || continue
  section=$(sed -n "/^    $command)/,/;;/p" <<<"$zsh")
  mapfile -t names < <(sed -nE 's/^ +((-., )?--[^ =[]+).*/\1/p' <<<"$help" | tr -d , | tr ' ' '\n')
  offers "zebstat $command -" "${names[@]}"
  for name in "${names[@]}"; do
    grep -qE "^\.It .*Fl ${name#-}( |$)" "$page" || complain "$page lacks $name"
    helps[$page]+=" ${name#-} "
    [[ $section == *_zebstat_help* ]] || grep -qE -- "'(\*|\([^)]*\))$name(=-)?\[" <<<"$section" ||
      complain "zsh: $command lacks $name"
  done
done
for page in "${!helps[@]}"; do
  while read -r name; do
    [[ " h -help -version ${helps[$page]}" == *" $name "* ]] ||
      complain "no help has -$name of $page"
  done < <(grep -E '^\.It .*Fl|^, Fl' "$page" | grep -oE 'Fl -?[a-zA-Z]+(-[a-z]+)*' | cut -c 4-)
done
for command in stats ids groups; do
  for format in $("$zebstat" $command --help | sed -n 's/.*--format FORMAT *//p' | tr -d ,); do
    offers "zebstat $command --format " "$format"
    grep -qx "\.It Cm $format" "$manual" || complain "$manual lacks the format $format"
    code=0 # 3: not connected
    "$zebstat" $command --port 1 --format "$format" 2>/dev/null || code=$?
    [ "$code" = 3 ] || complain "$command refuses the format $format"
  done
done
