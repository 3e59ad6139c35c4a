"""add, sub, mul and div against PyTorch.

Where both agree on the shapes (broadcast-compatible inputs) the results
must be identical bit for bit: each output element is one IEEE single
operation on the same two operands, specials included (NaN compared by
position only, its payload is the processor's).

Where they do not agree the library's own rule is checked instead:
- mismatched dims (neither equal nor 1): PyTorch refuses; this library takes
  the larger dim and the smaller input's elements wrap around (its
  broadcast walk, modelled below);
- a zero-size dim against a dim of 1: PyTorch broadcasts to 0, this library
  takes the larger dim, 1;
- ranks that differ by 2 or more: the library completes the leading dims
  from the longer shape, which is what PyTorch does, so those cases are in
  the compared set.
"""
import math

import numpy as np
import pytest
import torch

import npucpu

torch.set_num_threads(1)

OPS = {
    "add": (torch.add, np.add),
    "sub": (torch.sub, np.subtract),
    "mul": (torch.mul, np.multiply),
    "div": (torch.div, np.divide),
}
SPECIALS = np.array([np.inf, -np.inf, np.nan, 0.0, -0.0, 1e-40, -1e-45, 3.4e38, -3.4e38, 1.0,
                     -1.0], dtype=np.float32)


def _values(rng, shape):
    x = np.array(rng.standard_normal(shape) * 10.0 ** rng.integers(-3, 4, size=shape),
                 dtype=np.float32)  # np.array keeps a 0-d result an array
    mask = rng.random(shape) < 0.08
    x[mask] = rng.choice(SPECIALS, size=int(mask.sum()))
    return x


def _compatible_shapes(rng):
    """Two broadcast-compatible shapes, ranks 0..5 (the longer 1..5), the shorter maybe
    2+ dims shorter."""
    rank = int(rng.integers(1, 6))
    full = [int(d) for d in rng.integers(1, 6, size=rank)]
    if math.prod(full) > 3000:
        full = [min(d, 3) for d in full]
    kept = 0 if rng.random() < 0.15 else int(rng.integers(1, rank + 1))
    short = full[rank - kept:]
    short = [1 if rng.random() < 0.3 else d for d in short]
    full = [1 if rng.random() < 0.15 else d for d in full]
    return (tuple(full), tuple(short)) if rng.random() < 0.5 else (tuple(short), tuple(full))


FIXED_SHAPES = [
    ((2, 3), (3,)), ((4, 1), (1, 5)), ((), (2, 2)), ((3,), ()), ((), ()),
    ((5, 1, 4), (3, 1)), ((2, 3, 4, 5), (5,)), ((7,), (2, 1, 3, 7)), ((1,), (6, 1, 1)),
    ((2, 1, 1, 1, 2), (1, 3, 1, 2, 1)), ((17,), (17,)), ((1, 1, 1), (1,)),
]


def _assert_same_bits(got, want, what):
    assert got.shape == want.shape, what
    assert got.dtype == want.dtype == np.float32, what
    nan_got, nan_want = np.isnan(got), np.isnan(want)
    assert np.array_equal(nan_got, nan_want), what
    g = got[~nan_got].view(np.uint32)
    w = want[~nan_want].view(np.uint32)
    bad = np.flatnonzero(g != w)
    assert bad.size == 0, "%s: first difference at %d: %08x vs %08x" % (
        what, bad[0], g[bad[0]], w[bad[0]]) if bad.size else what


def _check_against_torch(op, a, b):
    got = npucpu.run(op, [a, b]).outputs[0]
    want = OPS[op][0](torch.from_numpy(a), torch.from_numpy(b)).numpy()
    _assert_same_bits(got, want, "%s %s %s" % (op, a.shape, b.shape))


@pytest.mark.parametrize("op", OPS)
def test_fixed_shapes_match_torch(lib, op):
    rng = np.random.default_rng(1234)
    for sa, sb in FIXED_SHAPES:
        _check_against_torch(op, _values(rng, sa), _values(rng, sb))


@pytest.mark.parametrize("op", OPS)
def test_random_broadcast_shapes_match_torch(lib, op):
    rng = np.random.default_rng({"add": 11, "sub": 12, "mul": 13, "div": 14}[op])
    for _ in range(60):
        sa, sb = _compatible_shapes(rng)
        _check_against_torch(op, _values(rng, sa), _values(rng, sb))


# ---- where the library's shape rule differs from PyTorch's ---------------------------------

def _library_shape(sa, sb):
    """The family's output shape: overlapping dims aligned at the last one take
    the larger value (signed compare); the remaining dims come from the longer
    shape."""
    longer = list(sa if len(sa) >= len(sb) else sb)
    out = longer[:]
    for k in range(1, min(len(sa), len(sb)) + 1):
        x, y = np.int32(np.uint32(sa[-k])), np.int32(np.uint32(sb[-k]))
        out[-k] = sb[-k] if y > x else sa[-k]
    return tuple(out)


def _library_broadcast(x, out_shape):
    """The library's broadcast walk: right-aligned dims, per-axis indices
    taken modulo the input dim and refreshed outwards only while an axis
    wraps."""
    R, flat = len(out_shape), x.ravel()
    if R == 0:
        return flat[:1].copy()
    a = [1] * (R - x.ndim) + list(x.shape)
    os_ = [math.prod(out_shape[k + 1:]) for k in range(R)]
    is_ = [math.prod(a[k + 1:]) for k in range(R)]
    idx = [0] * R
    out = np.empty(math.prod(out_shape), dtype=np.float32)
    for i in range(out.size):
        for k in range(R - 1, -1, -1):
            if a[k] == 1:
                idx[k] = 0
                continue
            new = (i // os_[k]) % a[k]
            old, idx[k] = idx[k], new
            if old < new:
                break
        out[i] = flat[sum(idx[k] * is_[k] for k in range(R))]
    return out.reshape(out_shape)


MISMATCHED = [((2, 3), (2, 4)), ((3,), (4,)), ((5,), (3,)), ((2, 3), (4,)), ((2, 4), (3, 1)),
              ((3, 2, 5), (2, 3)), ((6,), (4, 4))]


@pytest.mark.parametrize("op", OPS)
@pytest.mark.parametrize("sa,sb", MISMATCHED)
def test_mismatched_dims_wrap_where_torch_refuses(lib, op, sa, sb):
    rng = np.random.default_rng(99)
    a, b = _values(rng, sa), _values(rng, sb)
    with pytest.raises(RuntimeError):
        OPS[op][0](torch.from_numpy(a), torch.from_numpy(b))
    out_shape = _library_shape(sa, sb)
    got = npucpu.run(op, [a, b]).outputs[0]
    with np.errstate(all="ignore"):
        want = OPS[op][1](_library_broadcast(a, out_shape), _library_broadcast(b, out_shape))
    _assert_same_bits(got, want, "%s %s %s" % (op, sa, sb))


def test_documented_wrap_example(lib):
    # (2, 3) + (2, 4): the flat output index walks input 0's rows modulo 3.
    a = np.arange(6, dtype=np.float32).reshape(2, 3)
    got = npucpu.run("add", [a, np.zeros((2, 4), np.float32)]).outputs[0]
    np.testing.assert_array_equal(got, [[0, 1, 2, 0], [1, 2, 3, 4]])


def test_zero_size_dim_takes_the_larger_dim(lib):
    a, b = np.zeros((0,), np.float32), np.ones((1,), np.float32)
    assert torch.add(torch.from_numpy(a), torch.from_numpy(b)).shape == (0,)
    assert npucpu.run("add", [a, b]).outputs[0].shape == (1,)
