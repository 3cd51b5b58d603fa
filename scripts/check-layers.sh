#!/usr/bin/env bash
# Checks that includes run one way between the floors (see the README's Development section).
# Each floor lists what its files may include; anything else is reported and the script fails.
set -euo pipefail
cd "$(dirname "$0")/.."

declare -A may=(
  [base]="base"
  [http]="base http"
  [store]="base store"
  [rill]="base"
  [rill/transport]="base rill rill/transport"
  [rill/providers]="base rill rill/transport rill/providers"
  [rill/chunks]="base rill rill/chunks"
  [rill/ops]="base rill rill/transport rill/providers rill/chunks rill/ops"
  [handler]="base http store handler"
  [api]="base http store handler api"
  [builds]="base http store handler builds"
  [sso]="base http store handler rill sso"
  [storage]="base http store handler rill storage"
  [backup]="base http store handler rill backup"
  [app]="base http store handler rill api builds sso storage backup app"
  [tools/rill]="base rill tools/rill"
)

floor_of() {  # src/rill/ops/pull.cpp -> rill/ops; src/api/users.cpp -> api; tools/rill/x -> tools/rill
  local p=${1#src/}
  case $p in
    rill/*/*) echo "${p%/*}" ;;
    rill/*) echo "rill" ;;
    tools/*) echo "tools/rill" ;;
    *) echo "${p%%/*}" ;;
  esac
}

bad=0
while IFS= read -r file; do
  floor=$(floor_of "$file")
  allowed=" ${may[$floor]:-} "
  while IFS= read -r inc; do
    target=${inc%/*}
    [[ $target == rill/* || $target == rill ]] || target=${target%%/*}
    [[ $floor == tools/rill && $target != */* && -e tools/rill/$inc ]] && continue
    [[ $allowed == *" $target "* || ( $target == rill/* && $allowed == *" rill "* ) ]] && continue
    echo "$file includes \"$inc\" ($floor may not use $target)"
    bad=1
  done < <(grep -oE '^#include "[^"]+"' "$file" | sed 's/#include "//;s/"$//')
done < <(find src tools -name '*.h' -o -name '*.cpp' | sort)
exit $bad
