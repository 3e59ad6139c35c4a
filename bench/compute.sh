#!/usr/bin/env bash
# Compute-bound operators (conv, depthwise conv, conv_transpose, gemm,
# matmul): npucpu fast path, literal path and the peers side by side.
# Run through `scripts/bench.sh compute [--json FILE]`; arguments here are
# the optimised build directory, then the options.
#
# Peers: oneDNN (libdnnl-dev) and OpenBLAS (libopenblas-dev), installed here
# when missing and linked only into bench_compute, and PyTorch
# (python3-torch, /usr/bin/python3) for the depthwise and conv_transpose
# shapes. Every peer runs on one thread.
set -euo pipefail
build=$1
shift
json=""
while [ $# -gt 0 ]; do
  case "$1" in
    --json) json=$2; shift 2 ;;
    *) echo "unknown option: $1" >&2; exit 2 ;;
  esac
done
root=$(cd "$(dirname "$0")/.." && pwd)

missing=()
for pkg in libdnnl-dev libopenblas-dev python3-torch; do
  dpkg -s "$pkg" >/dev/null 2>&1 || missing+=("$pkg")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  echo "installing benchmark peers: ${missing[*]}" >&2
  if ! { $sudo apt-get update -qq && DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"; } >/dev/null; then
    echo "could not install ${missing[*]}; those peers are left out" >&2
  fi
  # Reconfigure so that bench_compute finds the peers just installed.
  cmake -S "$root" -B "$build" >/dev/null
fi
cmake --build "$build" --target bench_compute -j 2 >/dev/null

export OMP_NUM_THREADS=1 OPENBLAS_NUM_THREADS=1 MKL_NUM_THREADS=1 DNNL_VERBOSE=0
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
"$build/bench/bench_compute" --json "$tmp/npucpu.json" >"$tmp/npucpu.txt"
torch_json=""
if /usr/bin/python3 -c "import torch" >/dev/null 2>&1; then
  /usr/bin/python3 "$root/bench/compute_torch.py" "$tmp/torch.json" && torch_json="$tmp/torch.json"
fi
/usr/bin/python3 "$root/bench/compute_merge.py" "$tmp/npucpu.json" ${torch_json:+--torch "$torch_json"} \
  ${json:+--json "$json"}
