#!/usr/bin/env bash
# Compares the dynamic symbols a library defines with the export list.
set -euo pipefail
lib=$1
list=$2
expected=$(grep -v -E '^\s*(#|$)' "$list" | sed 's/[[:space:]]//g' | sort)
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' | grep -v '^$' | sort)
if [ "$expected" != "$actual" ]; then
  echo "exported symbols differ from $list:"
  diff <(echo "$expected") <(echo "$actual") || true
  exit 1
fi
echo "exports match: $(echo "$actual" | wc -l) symbols"
