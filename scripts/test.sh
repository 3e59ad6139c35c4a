#!/usr/bin/env bash
# Installs what is missing, builds the optimised and the sanitizer trees and
# runs every test in both (Python tests run once, against the optimised
# library); then the leak run, the thread test under ThreadSanitizer and the
# deterministic fuzz runs of every operator family (clang, ASan + UBSan).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
. scripts/common.sh
total_start=$(date +%s)
# Executions per fuzzer in the deterministic CI runs (docs/reliability.md).
fuzz_runs=${NPUCPU_FUZZ_RUNS:-200000}

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

stage "leak run (LeakSanitizer)"
# Every operator's entry points on valid inputs, many rounds; LeakSanitizer
# reports anything left allocated at exit.
NPUCPU_LEAK_ROUNDS=200 ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
  UBSAN_OPTIONS=print_stacktrace=1 build/sanitize/tests/test_leak_run

stage "build (ThreadSanitizer)"
cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNPUCPU_TSAN=ON \
  -DNPUCPU_BUILD_BENCH=OFF >/dev/null
cmake --build build/tsan -j "$(jobs)" --target test_threads

stage "thread run (ThreadSanitizer)"
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 build/tsan/tests/test_threads

stage "build (fuzzers, clang + ASan + UBSan)"
cmake -S fuzz -B build/fuzz -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build build/fuzz -j "$(jobs)"
# The committed seed corpus is exactly what make_seeds writes.
rm -rf build/fuzz/seeds
build/fuzz/make_seeds build/fuzz/seeds
diff -r build/fuzz/seeds fuzz/corpus

stage "fuzz (deterministic, -seed=1 -runs=$fuzz_runs per family)"
# Each family from the committed corpus; new inputs go to a scratch directory,
# never into the corpus. Two families at a time.
fuzz_family() {
  local family=$1 scratch=build/fuzz/scratch/$1 log=build/fuzz/logs/$1.log
  rm -rf "$scratch"; mkdir -p "$scratch" build/fuzz/logs
  local start; start=$(date +%s)
  if ASAN_OPTIONS=quarantine_size_mb=64:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
     "build/fuzz/fuzz_$family" -seed=1 -runs="$fuzz_runs" -rss_limit_mb=3072 \
       -artifact_prefix="build/fuzz/logs/$family-" "$scratch" "fuzz/corpus/$family" \
       >"$log" 2>&1; then
    echo "fuzz $family: $(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -1), $(( $(date +%s) - start )) s"
  else
    echo "fuzz $family FAILED (log $log):"; grep -v '^\[E\] \[custom\]' "$log" | tail -60
    return 1
  fi
}
fuzz_pids=()
for family in binary elementwise reduce detect conv pool shape; do
  fuzz_family "$family" & fuzz_pids+=($!)
  if [ ${#fuzz_pids[@]} -ge "$(jobs)" ]; then
    wait "${fuzz_pids[0]}" || fuzz_failed=1
    fuzz_pids=("${fuzz_pids[@]:1}")
  fi
done
for pid in "${fuzz_pids[@]}"; do wait "$pid" || fuzz_failed=1; done
[ -z "${fuzz_failed:-}" ]

stage_end
echo "all stages: $(( $(date +%s) - total_start )) s"
