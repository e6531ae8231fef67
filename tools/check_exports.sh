#!/usr/bin/env bash
# check_exports.sh LIB HEADER PREFIX NODE: the dynamic symbol table of LIB
# defines exactly the functions that HEADER declares with VEKR_API, all matching
# ^(PREFIX), each under the default symbol version NODE, plus the version node
# itself and nothing else.
set -euo pipefail
lib=$1 header=$2 prefix=$3 node=$4
declared=$(grep -v '^#' "$header" | grep -oE 'VEKR_API[^(]*\b[A-Za-z_][A-Za-z0-9_]*\(' | grep -oE '[A-Za-z_][A-Za-z0-9_]*\($' | tr -d '(' | sort -u)
table=$(nm -D --defined-only "$lib" | awk '{print $2, $3}')
# The version node is an absolute symbol (type A) without a version suffix.
nodes=$(echo "$table" | awk '$1 == "A" {print $2}' | sort -u)
functions=$(echo "$table" | awk '$1 != "A" {print $2}' | sort -u)
exported=$(echo "$functions" | sed 's/@.*//' | grep -v '^$' | sort -u)
status=0
if [ "$nodes" != "$node" ]; then
  echo "version nodes: expected exactly $node, found: $(echo $nodes)"; status=1
fi
unversioned=$(echo "$functions" | grep -v "@@$node\$" || true)
if [ -n "$unversioned" ]; then echo "exports not under the default version $node:"; echo "$unversioned"; status=1; fi
if [ "$declared" != "$exported" ]; then
  echo "declared but not exported:"; comm -23 <(echo "$declared") <(echo "$exported")
  echo "exported but not declared:"; comm -13 <(echo "$declared") <(echo "$exported")
  status=1
fi
bad=$(echo "$exported" | grep -vE "^($prefix)" || true)
if [ -n "$bad" ]; then echo "exported names without the prefix $prefix:"; echo "$bad"; status=1; fi
n=$(echo "$exported" | grep -c . || true)
[ $status -eq 0 ] && echo "$lib: $n exports under $node, all declared in $(basename "$header")"
exit $status
