"""Merges the npucpu timings of bench_memory with PyTorch timings of the same
workloads (one thread) into one table, and optionally one JSON file.

usage: merge_memory.py NPUCPU_JSON [--json OUT]
"""
import json
import sys
import time

COPY_GBS = 26.0  # one core's DRAM copy bandwidth on the reference machine

# oneDNN figures on the reference machine (NCHW, one thread), used to judge
# the rows whose target is oneDNN when oneDNN itself is not run.
ONEDNN_REFERENCE_MS = {
    "maxpool": 0.200,
    "avgpool": 0.187,
    "softmax [1000,1000]": 0.51,
}


def torch_workloads():
    import torch
    import torch.nn.functional as F

    torch.set_num_threads(1)
    g = torch.Generator().manual_seed(0)

    def r(*shape):
        return torch.rand(*shape, generator=g) * 8 - 4

    x = r(1, 64, 112, 112)
    s = r(1000, 1000)
    s1 = r(1, 1000)
    img = r(1, 3, 224, 224)
    t = r(64, 10000)
    boxes = torch.rand(2000, 4, generator=g) * 1000
    boxes[:, 2:] = boxes[:, :2] + 10 + torch.rand(2000, 2, generator=g) * 90
    scores = torch.rand(80, 2000, generator=g)
    bias = r(64, 1, 1)
    c1, c2 = r(1, 64, 56, 56), r(1, 64, 56, 56)
    table = r(1000, 512)
    idx = torch.randint(0, 1000, (256,), generator=g)
    bub = r(64, 112, 113)
    bub_out = torch.empty(64, 112, 116)
    cf = r(1 << 20) * 2.5e5
    gp = r(1, 512, 14, 14)
    d2s = r(1, 256, 56, 56)
    nz = torch.clamp(r(1000, 1000) - 0.5, min=0)
    dec = torch.randint(-32768, 32767, (20000, 8), generator=g, dtype=torch.int16)
    dscale = torch.tensor([0.125] * 4 + [2.0 ** -15, 1.0, 0.0, 0.0])

    def nms():
        try:
            from torchvision.ops import nms as tv_nms
        except ImportError:
            return None
        def run():
            for c in range(80):
                keep = scores[c] > 0.05
                tv_nms(boxes[keep], scores[c][keep], 0.5)[:100]
        return run

    return {
        "maxpool": lambda: F.max_pool2d(x, 3, 2, 1),
        "avgpool": lambda: F.avg_pool2d(x, 2, 2),
        "global_averagepool": lambda: F.adaptive_avg_pool2d(gp, 1),
        "softmax [1000,1000]": lambda: torch.softmax(s, -1),
        "softmax [1,1000]": lambda: torch.softmax(s1, -1),
        "resize linear": lambda: F.interpolate(img, size=(448, 448), mode="bilinear", align_corners=False),
        "resize nearest": lambda: F.interpolate(img, size=(448, 448), mode="nearest"),
        "resize cubic": lambda: F.interpolate(img, size=(300, 300), mode="bicubic", align_corners=False),
        "topk": lambda: torch.topk(t, 5, dim=1),
        "nms": nms(),
        "transpose": lambda: x.permute(0, 2, 3, 1).contiguous(),
        "add": lambda: x + bias,
        "pad reflect": lambda: F.pad(x, (1, 1, 1, 1), mode="reflect"),
        "slice": lambda: x[:, :, ::2, ::2].contiguous(),
        "concat": lambda: torch.cat((c1, c2), 1),
        "gather": lambda: table.index_select(0, idx),
        "add_bubble": lambda: bub_out[:, :, :113].copy_(bub),
        "remove_bubble": lambda: bub_out[:, :, :113].contiguous(),
        "cast": lambda: cf.to(torch.int32),
        "argmax": lambda: torch.argmax(t, 1, keepdim=True),
        "reducemean": lambda: s.mean(1, keepdim=True),
        "expand": lambda: bias.expand(1, 64, 112, 112).contiguous(),
        "reducemax": lambda: t.amax(1, keepdim=True),
        "reducemin": lambda: s.amin(0, keepdim=True),
        "global_maxpool": lambda: F.adaptive_max_pool2d(gp, 1),
        "depth_to_space": lambda: F.pixel_shuffle(d2s, 2),
        "nonzero": lambda: torch.nonzero(nz).t().contiguous(),
        # The closest torch expression: scale by column, then transpose.
        "detect_output_decoder": lambda: (dec.float() * dscale).t().contiguous(),
    }


def median_ms(fn):
    fn()
    t0 = time.perf_counter()
    fn()
    once = time.perf_counter() - t0
    reps = int(min(200, max(5, 0.2 / max(once, 1e-6))))
    ts = []
    for _ in range(reps):
        a = time.perf_counter()
        fn()
        ts.append((time.perf_counter() - a) * 1e3)
    ts.sort()
    return ts[len(ts) // 2]


def main():
    args = sys.argv[1:]
    out = None
    if "--json" in args:
        i = args.index("--json")
        out = args[i + 1]
        del args[i:i + 2]
    rows = json.load(open(args[0]))["rows"]
    try:
        peers = torch_workloads()
    except ImportError:
        peers = {}
    for row in rows:
        row["peers"] = {}
        for key, fn in peers.items():
            if fn is not None and row["workload"].startswith(key):
                row["peers"]["torch"] = round(median_ms(fn), 4)
                break
    head = "%-40s %9s %10s %9s %8s %8s %6s  %s" % (
        "workload", "fast ms", "literal ms", "torch ms", "GB/s", "x peer", "match", "target")
    print(head)
    print("-" * len(head))
    for row in rows:
        fast = row["fast_ms"]
        gbs = row["bytes"] / (fast * 1e6)
        torch_ms = row["peers"].get("torch")
        target = row["target"]
        if "bandwidth_fraction" in target:
            ok = gbs >= target["bandwidth_fraction"] * COPY_GBS
            tgt = ">= %.0f%% copy bw (%.1f GB/s) %s (%.0f%%)" % (
                target["bandwidth_fraction"] * 100, target["bandwidth_fraction"] * COPY_GBS,
                "met" if ok else "MISSED", 100 * gbs / COPY_GBS)
        else:
            peer_ms = row["peers"].get(target["peer"])
            label = target["peer"]
            if peer_ms is None and target["peer"] == "onednn":
                for key, ref in ONEDNN_REFERENCE_MS.items():
                    if row["workload"].startswith(key):
                        peer_ms, label = ref, "onednn (reference %.3f ms)" % ref
                        break
            if peer_ms is None:
                tgt = ">= %.1fx %s (not run)" % (target["ratio"], target["peer"])
            else:
                ok = peer_ms / fast >= target["ratio"]
                tgt = ">= %.1fx %s %s (%.2fx)" % (target["ratio"], label, "met" if ok else "MISSED",
                                                  peer_ms / fast)
        print("%-40s %9.3f %10.3f %9s %8.2f %8s %6s  %s" % (
            row["workload"], fast, row["literal_ms"],
            "%.3f" % torch_ms if torch_ms is not None else "-", gbs,
            "%.2f" % (torch_ms / fast) if torch_ms is not None else "-",
            "yes" if row["match"] else "NO", tgt))
    if out:
        with open(out, "w") as f:
            json.dump({"rows": rows}, f, indent=1)
            f.write("\n")


if __name__ == "__main__":
    main()
