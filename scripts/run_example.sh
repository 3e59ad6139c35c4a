#!/usr/bin/env bash
# The main job: builds the library and runs the host demo, which loads
# libnpucpu.so with dlopen and runs a small detector on embedded data (per
# node: operator, shapes, status, time; then the result). Arguments go to
# the demo, e.g. --pipeline FILE --input NAME=FILE.npy --save DIR, with paths
# relative to the directory the script is called from.
set -euo pipefail
caller=$(pwd)
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
. scripts/common.sh
install_missing_packages "$root" >/dev/null
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release -j "$(jobs)" --target host_demo >/dev/null
cd "$caller"
exec "$root/build/release/examples/host_demo" "$@"
