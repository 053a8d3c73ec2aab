#!/usr/bin/env bash
# Fails when a file of the daemon includes a header of a higher (or
# sibling) room, or when files include each other in a cycle (a .cc and its
# .h count as one module). Room order, lowest first: base, bounded, log,
# settings and scsi, inventory, heartbeat, collect, core.
set -euo pipefail
cd "$(dirname "$0")/../../src"
declare -A rank=([base]=0 [bounded]=1 [log]=2 [settings]=3 [scsi]=3 [inventory]=4
                 [heartbeat]=5 [collect]=6 [core]=7)
bad=0
edges=$(mktemp)
trap 'rm -f "$edges"' EXIT
while IFS=: read -r file target; do
  from=${file%/*} to=${target%/*}
  if [[ -z ${rank[$from]:-} || -z ${rank[$to]:-} ]] ||
     [[ $from != "$to" && ${rank[$to]} -ge ${rank[$from]} ]]; then
    echo "layering: $file includes $target" >&2
    bad=1
  fi
  [[ ${file%.*} != "${target%.*}" ]] && echo "${file%.*} ${target%.*}" >>"$edges"
done < <(grep -rHo --include='*.cc' --include='*.h' '^#include "[a-z_]*/[a-z_]*\.h"' . |
         sed 's|^\./||; s|:#include "|:|; s|"$||')
tsort "$edges" >/dev/null || { echo "layering: include cycle (above)" >&2; bad=1; }
exit "$bad"
