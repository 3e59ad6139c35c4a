"""pow, prelu, ceil/floor/relu/sqrt, cast, sum/mean and expand against PyTorch.

Every one of these produces each output element from its operands with a
single correctly rounded step (or an exact one), so where the library and
PyTorch agree on the shapes the results must be identical bit for bit
(NaN compared by position only, its payload is the processor's).

Where they do not agree, the case is left out of the comparison:
- sum/mean start their output shape from input 0 with its dims
  left-aligned, so only inputs listed highest rank first (or a rank-0
  input 0) are compared;
- expand takes the target shape as given, PyTorch merges it with the input's
  dims; only shapes PyTorch can expand to are compared;
- prelu passes a negative zero through unchanged where PyTorch multiplies it
  by the slope, so the inputs hold no zeros;
- cast is compared only inside the target's range (outside it the library
  saturates or keeps low bits, PyTorch's result is undefined).
"""
import functools

import numpy as np
import pytest
import torch

import npucpu

torch.set_num_threads(1)

F32 = np.float32
SPECIALS = np.array([np.inf, -np.inf, np.nan, 0.0, -0.0, 1e-40, -1e-45, 0.5, -0.5, 1.5, -2.5,
                     8388607.5, -8388609.0, 3.4e38, -3.4e38], dtype=F32)


def _assert_same_bits(got, want, what):
    want = np.asarray(want)
    assert got.shape == want.shape, "%s: shape %s vs %s" % (what, got.shape, want.shape)
    assert got.dtype == want.dtype, "%s: %s vs %s" % (what, got.dtype, want.dtype)
    if got.dtype.kind == "f":
        nan_got, nan_want = np.isnan(got), np.isnan(want)
        assert np.array_equal(nan_got, nan_want), what
        got, want = got[~nan_got], want[~nan_want]
        got = got.view(np.uint32 if got.itemsize == 4 else np.uint64)
        want = want.view(got.dtype)
    bad = np.flatnonzero(got != want)
    assert bad.size == 0, "%s: %d differences, first at %d: %r vs %r" % (
        what, bad.size, bad[0], got[bad[0]], want[bad[0]]) if bad.size else what


def _t(a):
    return torch.from_numpy(np.array(a, order="C"))  # keeps rank 0, unlike ascontiguousarray


# ---- pow ------------------------------------------------------------------------------------

# Shapes PyTorch broadcasts; pow copies every leading dim of the longer shape,
# so rank differences of any size are in the compared set, rank 0 included.
POW_SHAPES = [((2, 3, 4), (4,)), ((4,), (2, 3, 4)), ((3, 1), (1, 5)), ((), (2, 3)),
              ((2, 2), ()), ((2, 1, 3, 1), (4,)), ((6,), (6,))]


def _pow_operands(rng, sa, sb):
    # Positive bases with real exponents, negative bases with integral and
    # non-integral exponents (NaN), and the specials at random positions.
    a = np.array(rng.uniform(0.01, 20.0, size=sa), dtype=F32)
    b = np.array(rng.uniform(-6.0, 6.0, size=sb), dtype=F32)
    if a.ndim:
        neg = rng.random(sa) < 0.3
        a[neg] = -a[neg]
        mask = rng.random(sa) < 0.1
        a[mask] = rng.choice(SPECIALS, size=int(mask.sum()))
    if b.ndim:
        whole = rng.random(sb) < 0.4
        b[whole] = np.round(b[whole])
        mask = rng.random(sb) < 0.1
        b[mask] = rng.choice(SPECIALS, size=int(mask.sum()))
    return a, b


def test_pow_matches_double_precision_torch(lib):
    # The library raises in double precision and narrows to float; PyTorch's
    # double pow narrowed the same way is the reference. (PyTorch's float pow
    # rounds differently, so it is not.) Both double powers are within an ulp
    # of double, which survives the narrowing only for a double that lies
    # within that ulp of a float rounding boundary (about 2**-29 of cases):
    # none of these fixed operands does.
    rng = np.random.default_rng(41)
    for sa, sb in POW_SHAPES:
        a, b = _pow_operands(rng, sa, sb)
        got = npucpu.run("pow", [a, b]).outputs[0]
        want = torch.pow(_t(a).double(), _t(b).double()).float().numpy()
        _assert_same_bits(got, want, "pow %s %s" % (sa, sb))


def test_pow_documented_values(lib):
    got = npucpu.run("pow", [np.array([-8, 0, 2, -2], F32),
                             np.array([1 / 3, 0, 0.5, 3], F32)]).outputs[0]
    want = torch.pow(torch.tensor([-8, 0, 2, -2.0]).double(),
                     torch.tensor([1 / 3, 0, 0.5, 3], dtype=torch.float32).double()).float()
    _assert_same_bits(got, want.numpy(), "pow values")
    assert np.isnan(got[0]) and got[1] == 1


# ---- prelu ----------------------------------------------------------------------------------

@pytest.mark.parametrize("shape,slope_shape", [
    ((1, 3, 2, 2), (3, 1, 1)),   # one slope per channel
    ((2, 4, 5), (4, 1)),
    ((2, 3, 4), (2, 3, 4)),      # same shape: element by element
    ((5, 3), (3,)),
])
def test_prelu_matches_torch(lib, shape, slope_shape):
    rng = np.random.default_rng(43)
    x = np.array(rng.standard_normal(shape) * 4, dtype=F32)
    x[x == 0] = 1.0   # the library keeps -0.0, PyTorch gives slope * -0.0
    w = np.array(rng.uniform(-2, 2, size=slope_shape), dtype=F32)
    got = npucpu.run("prelu", [x, w]).outputs[0]
    want = torch.where(_t(x) < 0, _t(x) * torch.broadcast_to(_t(w), shape), _t(x))
    _assert_same_bits(got, want.numpy(), "prelu %s %s" % (shape, slope_shape))
    if len(slope_shape) == 3 and slope_shape[1:] == (1, 1) and len(shape) == 4:
        # PyTorch's own prelu takes the per-channel slopes as a vector.
        tw = torch.nn.functional.prelu(_t(x), _t(w.ravel()))
        _assert_same_bits(got, tw.numpy(), "F.prelu")


# ---- the unary four -------------------------------------------------------------------------

UNARY = {"ceil": torch.ceil, "floor": torch.floor, "relu": torch.relu, "sqrt": torch.sqrt}


@pytest.mark.parametrize("op", UNARY)
def test_unary_matches_torch_bit_for_bit(lib, op):
    # Signed zeros, NaN, infinities, subnormals and halves included: both
    # round or take the root in single precision, relu keeps -0.0 and NaN.
    rng = np.random.default_rng(47)
    x = np.array(rng.standard_normal(300) * 10.0 ** rng.integers(-3, 8, size=300), dtype=F32)
    x = np.concatenate([x, SPECIALS, -SPECIALS]).reshape(6, -1)
    got = npucpu.run(op, [x]).outputs[0]
    _assert_same_bits(got, UNARY[op](_t(x)).numpy(), op)


# ---- cast -----------------------------------------------------------------------------------

# "to" value -> (torch dtype of the result, the range compared). PyTorch 1.13
# has no unsigned 16/32/64-bit types: those go through int64, which holds
# every value of their compared range exactly.
CAST_TARGETS = {
    2: (np.uint8, torch.uint8, 0, 255),
    3: (np.int8, torch.int8, -128, 127),
    4: (np.uint16, torch.int64, 0, 65535),
    5: (np.int16, torch.int16, -32768, 32767),
    6: (np.int32, torch.int32, -2.0 ** 31, 2.0 ** 31 - 128),
    7: (np.int64, torch.int64, -2.0 ** 63, 2.0 ** 63 - 2 ** 39),
    12: (np.uint32, torch.int64, 0, 2.0 ** 32 - 256),
    13: (np.uint64, torch.int64, 0, 2.0 ** 63 - 2 ** 39),
}


def _in_range_floats(rng, lo, hi, n=200):
    """Floats strictly inside (lo - 1, hi + 1) after truncation: the bounds,
    values just inside them, fractions, signed zeros and a uniform spread."""
    span = [lo, hi, np.nextafter(F32(hi), F32(0)), np.nextafter(F32(lo), F32(0)),
            lo + 0.75 if lo else 0.75, hi - 0.75 if hi < 2 ** 24 else hi, 0.0, -0.0, 0.999,
            -0.999 if lo < 0 else 0.5, 1e-40]
    width = min(hi - lo, 2.0 ** 20)
    centre = max(lo, min(hi, 0.0))
    body = centre + (rng.random(n) - (0.5 if lo < 0 else 0.0)) * width
    big = rng.uniform(lo, hi, size=n // 4)
    x = np.concatenate([np.array(span, dtype=np.float64), body, big]).astype(F32)
    return x[(x >= F32(lo)) & (x <= F32(hi))]


@pytest.mark.parametrize("to", CAST_TARGETS)
def test_float_to_integer_inside_range_truncates_like_torch(lib, to):
    np_type, torch_type, lo, hi = CAST_TARGETS[to]
    x = _in_range_floats(np.random.default_rng(53 + to), lo, hi)
    got = npucpu.run("cast", [x], {"to": to}).outputs[0]
    want = _t(x).to(torch_type).numpy().astype(np_type)
    _assert_same_bits(got, want, "cast to %d" % to)


def test_cast_to_float_types_matches_torch(lib):
    rng = np.random.default_rng(59)
    x = np.concatenate([np.array(rng.standard_normal(50) * 1e5, dtype=F32), SPECIALS])
    _assert_same_bits(npucpu.run("cast", [x], {"to": 11}).outputs[0],
                      _t(x).double().numpy(), "float -> double")
    i = np.concatenate([rng.integers(-2 ** 31, 2 ** 31, size=50),
                        [2 ** 31 - 1, -2 ** 31, 16777217, -16777217, 0]]).astype(np.int32)
    _assert_same_bits(npucpu.run("cast", [i], {"to": 1}).outputs[0],
                      _t(i).float().numpy(), "int32 -> float")
    _assert_same_bits(npucpu.run("cast", [i], {"to": 7}).outputs[0],
                      _t(i).long().numpy(), "int32 -> int64")


# ---- sum, mean, expand ----------------------------------------------------------------------

# Input 0 has the highest rank, or rank 0 (its dims then all become 1, which
# is what PyTorch broadcasts a scalar to), in every case.
VARIADIC_SHAPES = [
    [(2, 3)],
    [(), (2, 3)],
    [(2, 3), (), (2, 3)],
    [(), ()],
    [(2, 3), (3,)],
    [(2, 1), (1, 4)],
    [(2, 3, 4), (3, 1), (4,), (1, 1, 1)],
    [(3, 1, 5), (1, 4, 1), (5,)],
    [(4,), (4,), (4,)],
]


@pytest.mark.parametrize("op", ["sum", "mean"])
def test_sum_and_mean_match_torch_in_input_order(lib, op):
    rng = np.random.default_rng(61)
    for shapes in VARIADIC_SHAPES:
        xs = [np.array(rng.standard_normal(s) * 10.0 ** rng.integers(-2, 4, size=s), dtype=F32)
              for s in shapes]
        got = npucpu.run(op, xs).outputs[0]
        out_shape = np.broadcast_shapes(*shapes)
        # Float additions in input order onto a zeroed output, then (mean)
        # one float division by the input count.
        want = functools.reduce(torch.add, [_t(x) for x in xs], torch.zeros(out_shape))
        if op == "mean":
            want = want / torch.tensor(float(len(xs)), dtype=torch.float32)
        _assert_same_bits(got, want.numpy(), "%s %s" % (op, shapes))


@pytest.mark.parametrize("shape,target", [
    ((3, 1), (2, 3, 4)), ((1,), (5,)), ((2, 1, 3), (2, 4, 3)), ((4,), (3, 2, 4)),
    ((1, 1), (1, 1)), ((), (2, 3)),
])
def test_expand_matches_torch(lib, shape, target):
    x = (np.arange(np.prod(shape, dtype=np.int64)) - 1.5).astype(F32).reshape(shape)
    got = npucpu.run("expand", [x, np.array(target, dtype=np.int64)]).outputs[0]
    _assert_same_bits(got, _t(x).expand(target).contiguous().numpy(), "expand")


# ---- the bubble pair on strides other than one 16-byte row ---------------------------------

@pytest.mark.parametrize("dtype,shape,wstride", [
    (F32, (3, 5), 32),        # 20-byte rows round up to 32
    (np.uint8, (2, 3, 17), 32),
    (np.int32, (7,), 28),     # a rank-1 tensor is one row: no gap in the buffer
])
def test_bubble_strides_round_trip(lib, dtype, shape, wstride):
    a = (np.arange(np.prod(shape)) * 7 + 3).astype(dtype).reshape(shape)
    r = npucpu.run("add_bubble", [a], out_fill=0xCD)
    row = shape[-1] * a.itemsize
    if len(shape) >= 2:
        assert r.wstrides == [wstride]
        gaps = r.buffers[0][:(np.prod(shape[:-1]) - 1) * wstride].reshape(-1, wstride)[:, row:]
        assert (gaps == 0xCD).all()
    np.testing.assert_array_equal(r.outputs[0], a)
    back = npucpu.run("remove_bubble", [npucpu.Input(a, wstride=wstride if len(shape) >= 2
                                                     else row, pad_byte=0x5A)])
    np.testing.assert_array_equal(back.outputs[0], a)
