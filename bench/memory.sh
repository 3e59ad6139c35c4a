#!/usr/bin/env bash
# Memory-bound operators: npucpu fast path, literal path and PyTorch (one
# thread) side by side, with the bitwise fast-versus-literal match.
# Called by scripts/bench.sh memory [--json FILE] with the build directory.
set -euo pipefail
build=$1
shift
json=
while [ $# -gt 0 ]; do
  case $1 in
    --json) json=$2; shift 2 ;;
    *) echo "unknown argument: $1" >&2; exit 2 ;;
  esac
done
here=$(cd "$(dirname "$0")" && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
"$build/bench/bench_memory" --json "$tmp/npucpu.json" >/dev/null
args=("$tmp/npucpu.json")
[ -n "$json" ] && args+=(--json "$json")
/usr/bin/python3 "$here/merge_memory.py" "${args[@]}"
