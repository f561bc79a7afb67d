#!/usr/bin/env bash
# check_layers.sh ROOT: no module of the library includes a header of a row above its own in the
# table of layers.
set -euo pipefail
cd "$1"
rows=$(awk -F'|' '/^\| `source\/stapi_zeb_/ { on = 1; next } on && /^$/ { exit }
                  on { print NR, $2 }' docs/architecture.md)
row_of() { awk -v name="\`$1\`" 'index($0, name) { print $1 }' <<<"$rows"; }
failures=0
while IFS=: read -r file include; do
  from=$(basename "${file%.*}") && from=$(row_of "${from#stapi_zeb_}")
  to=${include#*stapi_zeb_} && to=$(row_of "${to%.h\"}")
  [ "${from:-0}" -gt 0 ] && [ "${from:-0}" -le "${to:-0}" ] && continue
  echo "$file: $include goes upward, or is not in the table" >&2
  failures=$((failures + 1))
done < <(grep -H '^#include "stapi_zeb_' source/stapi_zeb_*)
exit $((failures > 0))
