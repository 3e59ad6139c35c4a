#!/usr/bin/python3
"""Merges bench_compute's JSON with the PyTorch timings, prints the one
table of the compute benchmark and, with --json FILE, writes the rows:
{"rows": [{"workload", "fast_ms", "literal_ms", "peers": {...}, "match",
"target": {"peer", "ratio"}}]}."""
import argparse
import json

ap = argparse.ArgumentParser()
ap.add_argument("npucpu")
ap.add_argument("--torch")
ap.add_argument("--json")
args = ap.parse_args()

with open(args.npucpu) as f:
    data = json.load(f)
torch_ms = {}
if args.torch:
    with open(args.torch) as f:
        torch_ms = json.load(f)

rows = []
for r in data["rows"]:
    peers = dict(r["peers"])
    if r["workload"] in torch_ms:
        peers["torch"] = round(torch_ms[r["workload"]], 4)
    rows.append({
        "workload": r["workload"],
        "fast_ms": r["fast_ms"],
        "literal_ms": r["literal_ms"],
        "peers": peers,
        "match": r["match"],
        "target": r["target"],
        "gflop": r["gflop"],
    })

print(f"npucpu fast path: {data.get('isa', '?')}; one thread; medians; ratio = peer time / fast time")
head = f"{'workload':<36} {'fast ms':>9} {'GFLOP/s':>8} {'literal ms':>11} {'x lit':>6} {'match':>6}  peers: ms (ratio)   target"
print(head)
print("-" * len(head))
for r in rows:
    gfs = r["gflop"] / r["fast_ms"] * 1e3
    peer_txt = "  ".join(f"{k} {v:.3f} ({v / r['fast_ms']:.2f})" for k, v in sorted(r["peers"].items()))
    t = r["target"]
    if t["peer"] == "literal":
        reached = r["literal_ms"] / r["fast_ms"] >= t["ratio"]
    elif t["peer"] in r["peers"]:
        reached = r["peers"][t["peer"]] / r["fast_ms"] >= t["ratio"]
    else:
        reached = None
    mark = {True: "met", False: "NOT met", None: "peer absent"}[reached]
    print(f"{r['workload']:<36} {r['fast_ms']:>9.3f} {gfs:>8.1f} {r['literal_ms']:>11.1f} "
          f"{r['literal_ms'] / r['fast_ms']:>6.0f} {'yes' if r['match'] else 'NO':>6}  {peer_txt}   "
          f"{t['peer']} x{t['ratio']:g}: {mark}")

if args.json:
    out = {"rows": [{k: v for k, v in r.items() if k != "gflop"} for r in rows]}
    with open(args.json, "w") as f:
        json.dump(out, f, indent=1)
        f.write("\n")
