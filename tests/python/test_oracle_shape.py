"""concat, gather, pad, range, slice and transpose against PyTorch.

All of these move elements without arithmetic (range aside), so the results
must be identical bit for bit. Compared where both define the same result:
- concat: inputs that agree on every dim but the axis (torch.cat's rule);
- gather: index_select takes a one-dimensional index list of non-negative
  entries, so multi-dimensional indices are flattened and the result
  reshaped, and negative indices are taken modulo the axis length for
  PyTorch; an index list of shape [1] counts as a scalar for the library
  (the axis disappears) where index_select keeps a dim of 1;
- pad: PyTorch's reflect and replicate pad only the trailing 1-3 dims of a
  3-5-dimensional input and reflect only by less than the dim (one
  reflection), so those cases have zero pads elsewhere; constant pads every
  dim, negative amounts (crops) included;
- range: the library adds delta to a running float value where arange
  computes start + i * delta, so exactness is compared on deltas whose
  multiples are exact, the rest within the running sum's rounding; and the
  library takes the length from a float limit - start where arange uses
  double (0.1 to 60 by 0.1 gives 600 values here, 599 there), so only
  limits whose lengths agree are used;
- slice: non-empty results only (an empty one is the library's rank-0
  output), and the start is inside the axis when no steps are given (the
  library clamps the start only when steps are given). PyTorch slicing has no
  negative steps: those are gathered at Python's range(dim)[start:end:step].
"""
import math

import numpy as np
import pytest
import torch
import torch.nn.functional as F

import npucpu

torch.set_num_threads(1)

F32 = np.float32
EPS = float(np.finfo(F32).eps) / 2


def _t(a):
    return torch.from_numpy(np.array(a, order="C"))  # keeps rank 0, unlike ascontiguousarray


def _values(rng, shape, dtype=F32):
    if np.dtype(dtype).kind == "f":
        return np.array(rng.standard_normal(shape) * 100, dtype=dtype)
    info = np.iinfo(dtype)
    return rng.integers(info.min, info.max, size=shape, endpoint=True).astype(dtype)


def _same(got, want, what):
    want = np.asarray(want)
    assert got.shape == want.shape, "%s: %s vs %s" % (what, got.shape, want.shape)
    assert got.dtype == want.dtype, what
    assert got.tobytes() == want.tobytes(), what


# ---- concat ---------------------------------------------------------------------------------

CONCAT_CASES = [  # shapes, axis (None: default -1)
    ([(3,), (5,)], None), ([(4,), (1,), (2,)], 0), ([(2, 3), (2, 3)], 0), ([(2, 3), (2, 3)], None),
    ([(2, 3), (2, 1), (2, 4)], 1), ([(2, 3, 4), (1, 3, 4), (3, 3, 4)], 0),
    ([(2, 3, 4), (2, 5, 4)], -2), ([(2, 3, 2, 2), (2, 3, 2, 1)], 3), ([(4, 2, 3)], 1),
]


@pytest.mark.parametrize("shapes,axis", CONCAT_CASES)
def test_concat_matches_cat(lib, shapes, axis):
    rng = np.random.default_rng(101)
    xs = [_values(rng, s) for s in shapes]
    got = npucpu.run("concat", xs, {} if axis is None else {"axis": axis}).outputs[0]
    want = torch.cat([_t(x) for x in xs], dim=-1 if axis is None else axis)
    _same(got, want.numpy(), "concat %s" % (shapes,))


# ---- gather ---------------------------------------------------------------------------------

GATHER_CASES = [  # data shape, indices, axis (None: default 0)
    ((5, 4), [3, 0, 3, -1], None), ((3, 4), [2, 1], 1), ((3, 4), [[0, 3], [-4, 2]], -1),
    ((2, 3, 4), [[2, 0, 1]], 1), ((2, 3, 4), [1, 0, 1, 1, 0], 0), ((6,), [5, -6, 2], 0),
    ((2, 3, 4, 2), [[3], [0]], 2),
]


@pytest.mark.parametrize("itype", [np.int32, np.int64])
def test_gather_matches_index_select(lib, itype):
    rng = np.random.default_rng(103)
    for shape, indices, axis in GATHER_CASES:
        x = _values(rng, shape)
        idx = np.array(indices, dtype=itype)
        a = 0 if axis is None else axis % len(shape)
        got = npucpu.run("gather", [x, idx], {} if axis is None else {"axis": axis}).outputs[0]
        flat = torch.from_numpy(idx.ravel().astype(np.int64) % shape[a])
        want = torch.index_select(_t(x), a, flat).reshape(shape[:a] + idx.shape + shape[a + 1:])
        _same(got, want.numpy(), "gather %s %s" % (shape, indices))


def test_gather_single_index_drops_the_axis(lib):
    x = _values(np.random.default_rng(107), (3, 4))
    got = npucpu.run("gather", [x, np.array([2], np.int64)], {"axis": 1}).outputs[0]
    _same(got, torch.index_select(_t(x), 1, torch.tensor([2])).squeeze(1).numpy(), "scalar")


# ---- pad ------------------------------------------------------------------------------------

def _torch_pads(begins, ends):
    """(begin, end) per axis in axis order -> F.pad's order, last axis first."""
    out = []
    for b, e in zip(reversed(begins), reversed(ends)):
        out += [b, e]
    return out


PAD_CASES = [  # mode, shape, begins, ends
    ("constant", (5,), [2], [3]),
    ("constant", (3, 4), [1, 0], [2, 3]),
    ("constant", (3, 4, 5), [0, -1, 2], [1, 2, -3]),     # crops on some sides
    ("constant", (2, 3, 2, 3), [1, 1, 0, 2], [0, 1, 1, 0]),
    ("reflect", (2, 3, 5), [0, 0, 4], [0, 0, 3]),
    ("reflect", (2, 2, 4, 5), [0, 0, 3, 1], [0, 0, 2, 4]),
    ("reflect", (1, 2, 3, 3, 4), [0, 0, 2, 1, 3], [0, 0, 1, 2, 0]),
    ("edge", (2, 3, 5), [0, 0, 4], [0, 0, 7]),
    ("edge", (2, 2, 3, 2), [0, 0, 3, 0], [0, 0, 1, 5]),
    ("edge", (1, 1, 2, 2, 3), [0, 0, 1, 2, 3], [0, 0, 2, 0, 1]),
]
TORCH_MODE = {"constant": "constant", "reflect": "reflect", "edge": "replicate"}


@pytest.mark.parametrize("mode,shape,begins,ends", PAD_CASES)
def test_pad_matches_torch(lib, mode, shape, begins, ends):
    rng = np.random.default_rng(109)
    pads = np.array(begins + ends, dtype=np.int64)
    types = (F32, np.int32, np.int8, np.uint8) if mode == "constant" else (F32,)
    for dtype in types:
        x = _values(rng, shape, dtype)
        inputs, value = [x, pads], 0
        if mode == "constant" and dtype is not np.int32:   # int32: no value, zero bytes
            value = _values(rng, (1,), dtype)
            inputs.append(value)
            value = value[0].item()
        got = npucpu.run("pad", inputs, {"mode": mode}).outputs[0]
        tx = _t(x)
        if mode == "constant":
            want = F.pad(tx, _torch_pads(begins, ends), mode="constant", value=value)
        else:  # PyTorch pads only the trailing dims here, the others have zero pads
            k = len(shape) - 2
            want = F.pad(tx, _torch_pads(begins[2:], ends[2:]), mode=TORCH_MODE[mode])
            assert not any(begins[:2] + ends[:2]) and k >= 1
        _same(got, want.numpy(), "pad %s %s %s" % (mode, shape, dtype.__name__))


# ---- range ----------------------------------------------------------------------------------

def _run_range(start, limit, delta, dtype):
    """The prefix of the 65535-element output the library wrote: two runs on
    buffers filled with 0x00 and 0xFF bytes agree exactly there."""
    one = lambda v: np.array([v], dtype=dtype)  # noqa: E731
    outs = []
    for fill in (0x00, 0xFF):
        r = npucpu.run("range", [one(start), one(limit), one(delta)], out_fill=fill,
                       force=dtype is np.int32)
        assert r.outputs[0].shape == (65535,)
        outs.append(r.buffers[0].view(np.uint32))
    differ = np.flatnonzero(outs[0] != outs[1])
    n = differ[0] if differ.size else len(outs[0])
    assert (outs[0][n:] == 0).all() and (outs[1][n:] == 0xFFFFFFFF).all()
    return outs[0][:n].view(dtype)


@pytest.mark.parametrize("start,limit,delta", [
    (0, 10, 1), (-3.5, 4, 0.25), (5, 1, -2), (2.5, -7.75, -0.5), (1, 1, 1), (0, 1000, 0.125),
    (-100, 100, 3.0),
])
def test_range_matches_arange_exactly_on_exact_steps(lib, start, limit, delta):
    got = _run_range(start, limit, delta, F32)
    want = torch.arange(start, limit, delta, dtype=torch.float32).numpy()
    _same(got, want, "arange(%r, %r, %r)" % (start, limit, delta))


@pytest.mark.parametrize("start,limit,delta", [(0, 1, 0.3), (-2, 5, 0.7), (10, -3, -0.45),
                                               (0.1, 29.95, 0.1)])
def test_range_running_sum_stays_near_arange(lib, start, limit, delta):
    # Same length; the i-th value of the running float sum is off by at most
    # i roundings of a value below max|v| (plus arange's one rounding).
    s, d = F32(start), F32(delta)
    got = _run_range(start, limit, delta, F32)
    want = torch.arange(float(s), float(F32(limit)), float(d), dtype=torch.float32).numpy()
    assert got.shape == want.shape
    top = max(abs(float(s)), abs(float(want[-1])), abs(float(got[-1])))
    i = np.arange(len(want))
    assert (np.abs(got.astype(np.float64) - want) <= (i + 1) * EPS * 2 * top).all()


@pytest.mark.parametrize("start,limit,delta", [(0, 7, 1), (-20, 31, 4), (9, -10, -3),
                                               (100000, 100050, 7)])
def test_integer_range_matches_arange(lib, start, limit, delta):
    got = _run_range(start, limit, delta, np.int32)
    _same(got, torch.arange(start, limit, delta, dtype=torch.int32).numpy(), "int range")


# ---- slice ----------------------------------------------------------------------------------

SLICE_CASES = [  # shape, starts, ends, axes, steps (None: input absent)
    ((10,), [-3], [10], None, None),
    ((6, 5), [1, 0], [5, 4], None, None),
    ((6, 5), [2], [-1], [-1], None),
    ((10,), [1], [100], [0], [2]),
    ((10,), [9], [-100], [0], [-1]),
    ((10,), [-1], [0], [0], [-3]),
    ((5,), [4], [-6], [0], [-1]),
    ((4, 6, 5), [0, 5, -1], [4, -100, 0], [0, 1, 2], [3, -2, -1]),
    ((4, 6, 5), [1, 1], [100, 5], [2, 0], [2, 2]),
    ((3, 4, 5, 6), [-4, 10], [-1, 0], [-1, 2], [1, -2]),
]


def _python_positions(dim, start, end, step):
    return list(range(dim))[slice(start, end, step)]


@pytest.mark.parametrize("shape,starts,ends,axes,steps", SLICE_CASES)
def test_slice_matches_torch(lib, shape, starts, ends, axes, steps):
    x = _values(np.random.default_rng(113), shape)
    i64 = lambda v: np.array(v, dtype=np.int64)  # noqa: E731
    inputs = [x, i64(starts), i64(ends)]
    if axes is not None:
        inputs.append(i64(axes))
    if steps is not None:
        inputs.append(i64(steps))
    got = npucpu.run("slice", inputs).outputs[0]
    axes_ = axes if axes is not None else list(range(len(starts)))
    steps_ = steps if steps is not None else [1] * len(starts)
    want = _t(x)
    for a, s, e, p in zip(axes_, starts, ends, steps_):
        a %= len(shape)
        if p > 0:
            index = [slice(None)] * len(shape)
            index[a] = slice(s, e, p)
            want = want[tuple(index)]
        else:
            pos = _python_positions(shape[a], s, e, p)
            want = torch.index_select(want, a, torch.tensor(pos, dtype=torch.int64))
        assert want.shape[a] > 0   # empty results are out of the compared set
    _same(got, want.contiguous().numpy(), "slice")


# ---- transpose ------------------------------------------------------------------------------

@pytest.mark.parametrize("shape,perm", [
    ((7,), None), ((3, 4), None), ((2, 3, 4), None), ((2, 3, 4), [0, 2, 1]),
    ((2, 3, 4), [1, 2, 0]), ((2, 3, 4, 5), [3, 1, 0, 2]), ((2, 1, 3, 1, 2), [4, 2, 0, 3, 1]),
    ((1, 2, 3), [0, 1, 2]),
])
def test_transpose_matches_permute(lib, shape, perm):
    x = _values(np.random.default_rng(127), shape)
    got = npucpu.run("transpose", [x], {} if perm is None else {"perm": perm}).outputs[0]
    order = list(range(len(shape)))[::-1] if perm is None else perm
    _same(got, _t(x).permute(*order).contiguous().numpy(), "transpose %s %s" % (shape, perm))
