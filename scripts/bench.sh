#!/usr/bin/env bash
# The one benchmark command: scripts/bench.sh MODE [--json FILE]
# Builds the optimised tree and runs bench/MODE.sh (which prints one table of
# fast path, literal path and peers side by side).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
. scripts/common.sh
mode=${1:-}
if [ -z "$mode" ] || [ ! -f "bench/$mode.sh" ]; then
  echo "usage: scripts/bench.sh MODE [--json FILE]   (MODE: $(ls bench/*.sh 2>/dev/null | xargs -n1 basename 2>/dev/null | sed 's/\.sh$//' | tr '\n' ' '))" >&2
  exit 2
fi
shift
install_missing_packages "$root" >/dev/null
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release -j "$(jobs)" >/dev/null
exec bash "bench/$mode.sh" "$root/build/release" "$@"
