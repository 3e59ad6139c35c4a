#!/usr/bin/env bash
# Installs what is missing, builds the optimised and the sanitizer trees and
# runs every test in both (Python tests run once, against the optimised
# library).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
. scripts/common.sh
total_start=$(date +%s)

stage "install packages"
install_missing_packages "$root"

stage "build (optimised)"
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release -j "$(jobs)"

stage "test (optimised)"
ctest --test-dir build/release --output-on-failure -j "$(jobs)"

stage "build (ASan + UBSan)"
cmake -S . -B build/sanitize -DCMAKE_BUILD_TYPE=Debug -DNPUCPU_SANITIZE=ON >/dev/null
cmake --build build/sanitize -j "$(jobs)"

stage "test (ASan + UBSan)"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build/sanitize --output-on-failure -j "$(jobs)"

stage_end
echo "all stages: $(( $(date +%s) - total_start )) s"
