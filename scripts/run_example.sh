#!/usr/bin/env bash
# Builds the library and runs the example host program.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
. scripts/common.sh
install_missing_packages "$root" >/dev/null
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release -j "$(jobs)" --target add_example >/dev/null
./build/release/examples/add_example
