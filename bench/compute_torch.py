#!/usr/bin/python3
"""PyTorch peer of the compute benchmark: the depthwise and conv_transpose
shapes (and the three standard convolutions, for reference), one thread,
NCHW, warm-up then medians of the thread's CPU time. Writes {"workload": ms, ...} to argv[1]."""
import json
import statistics
import sys
import time

import torch

torch.set_num_threads(1)
torch.set_grad_enabled(False)


def median_ms(fn, budget=0.6, max_reps=40):
    # Thread CPU time, as bench_compute measures (one thread each).
    fn()
    t0 = time.thread_time()
    fn()
    first = time.thread_time() - t0
    reps = max(3, min(max_reps, int(budget / max(first, 1e-6))))
    times = []
    for _ in range(reps):
        s = time.thread_time()
        fn()
        times.append((time.thread_time() - s) * 1e3)
    return statistics.median(times)


def conv(n, c, h, w, m, k, s, p, groups=1):
    x = torch.rand(n, c, h, w)
    wt = torch.rand(m, c // groups, k, k)
    b = torch.rand(m)
    return median_ms(lambda: torch.nn.functional.conv2d(x, wt, b, stride=s, padding=p, groups=groups))


def conv_transpose(n, c, h, w, m, k, s, p):
    x = torch.rand(n, c, h, w)
    wt = torch.rand(c, m, k, k)
    b = torch.rand(m)
    return median_ms(lambda: torch.nn.functional.conv_transpose2d(x, wt, b, stride=s, padding=p))


results = {
    "conv 3x3 C64 56x56 M64": conv(1, 64, 56, 56, 64, 3, 1, 1),
    "conv 7x7 s2 C3 224x224 M64": conv(1, 3, 224, 224, 64, 7, 2, 3),
    "conv 1x1 C256 14x14 M256": conv(1, 256, 14, 14, 256, 1, 1, 0),
    "depthwise 3x3 C128 56x56": conv(1, 128, 56, 56, 128, 3, 1, 1, groups=128),
    "conv_transpose 4x4 s2 C64 56x56 M32": conv_transpose(1, 64, 56, 56, 32, 4, 2, 1),
}
with open(sys.argv[1], "w") as f:
    json.dump(results, f)
