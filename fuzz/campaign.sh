#!/usr/bin/env bash
# Time-based fuzz campaign over every operator family, two fuzzers at a time:
#   fuzz/campaign.sh [wall-seconds, default 3600] [out-dir, default build/fuzz/campaign]
# Each family gets wall-seconds * 2 / 7 seconds (3600: two hours of fuzzing
# in total). New inputs go to <out-dir>/<family>/ (merge the useful ones into
# fuzz/corpus by hand), crash, timeout (over 60 s) and slow (over 10 s) inputs
# to <out-dir>/<family>-*; the summary prints executions and coverage per
# family and fails on any of them. Builds the fuzz tree first.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
total=${1:-3600}
out=${2:-build/fuzz/campaign}
families=(binary elementwise reduce detect conv pool shape)
per=$(( total * 2 / ${#families[@]} ))

cmake -S fuzz -B build/fuzz -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build build/fuzz -j 2
mkdir -p "$out"

run() {
  local f=$1
  mkdir -p "$out/$f"
  ASAN_OPTIONS=quarantine_size_mb=64:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    "build/fuzz/fuzz_$f" -max_total_time="$per" -timeout=60 -rss_limit_mb=3072 -print_final_stats=1 \
      -artifact_prefix="$out/$f-" "$out/$f" "fuzz/corpus/$f" >"$out/$f.log" 2>&1
}

pids=(); failed=()
for f in "${families[@]}"; do
  run "$f" & pids+=("$!:$f")
  if [ ${#pids[@]} -ge 2 ]; then
    wait "${pids[0]%%:*}" || failed+=("${pids[0]#*:}")
    pids=("${pids[@]:1}")
  fi
done
for p in "${pids[@]}"; do wait "${p%%:*}" || failed+=("${p#*:}"); done

echo "family       executions  coverage  features  corpus  seconds"
for f in "${families[@]}"; do
  execs=$(grep -E '^stat::number_of_executed_units' "$out/$f.log" | tail -1 | awk '{print $2}')
  last=$(grep -E '^#[0-9]+' "$out/$f.log" | tail -1)
  cov=$(sed -nE 's/.*cov: ([0-9]+).*/\1/p' <<<"$last")
  ft=$(sed -nE 's/.*ft: ([0-9]+).*/\1/p' <<<"$last")
  corp=$(sed -nE 's/.*corp: ([0-9]+).*/\1/p' <<<"$last")
  printf '%-12s %10s  %8s  %8s  %6s  %7s\n' "$f" "${execs:-?}" "${cov:-?}" "${ft:-?}" \
    "${corp:-?}" "$per"
done
for f in "${families[@]}"; do
  if compgen -G "$out/$f-slow-unit-*" >/dev/null; then failed+=("$f (slow inputs)"); fi
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "failures: ${failed[*]} (see $out/<family>.log and $out/<family>-*)"
  exit 1
fi
