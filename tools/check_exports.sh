#!/usr/bin/env bash
# check_exports.sh LIB HEADER PREFIX: the dynamic symbol table of LIB defines
# exactly the functions that HEADER declares with VEKR_API, all matching ^(PREFIX).
set -euo pipefail
lib=$1 header=$2 prefix=$3
declared=$(grep -v '^#' "$header" | grep -oE 'VEKR_API[^(]*\b[A-Za-z_][A-Za-z0-9_]*\(' | grep -oE '[A-Za-z_][A-Za-z0-9_]*\($' | tr -d '(' | sort -u)
exported=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' | grep -v '^$' | sort -u)
status=0
if [ "$declared" != "$exported" ]; then
  echo "declared but not exported:"; comm -23 <(echo "$declared") <(echo "$exported")
  echo "exported but not declared:"; comm -13 <(echo "$declared") <(echo "$exported")
  status=1
fi
bad=$(echo "$exported" | grep -vE "^($prefix)" || true)
if [ -n "$bad" ]; then echo "exported names without the prefix $prefix:"; echo "$bad"; status=1; fi
n=$(echo "$exported" | grep -c . || true)
[ $status -eq 0 ] && echo "$lib: $n exports, all declared in $(basename "$header")"
exit $status
