"""gemm, matmul and the 4-D transposition of detect_output_decoder against
PyTorch.

Compared where both define the same result:
- gemm: Y = A' B' + C with A', B' optionally transposed and C broadcast to
  Y. The library ignores `alpha` and `beta` (always 1), so they are not set.
  Its product is a chain of fused multiply-adds in k order plus the bias; any
  order of the K products and the bias is within gamma(K + 1) * A of the
  exact value, A = sum |a * b| + |c|, gamma(k) = k u / (1 - k u),
  u = 2^-24: checked against a double-precision result within that and
  against PyTorch's float result within twice that. Small integers make every
  partial sum exact, so those results must be identical;
- matmul: the library truncates every operand toward zero to a 32-bit integer
  and computes in wrapping 32-bit arithmetic, then converts the sum to float.
  PyTorch computes the truncated operands in 64-bit integers here; reduced
  modulo 2^32 that is the same sum, so the results are compared bit for bit.
  Batch dims are not broadcast by the library (an operand of rank above 2
  must carry the full batch count, a rank <= 2 operand is shared by every
  batch), so only shapes torch.matmul broadcasts the same way are used;
  two vectors give shape [1] where PyTorch gives a scalar;
- detect_output_decoder: its table, decoded by exact power-of-two scales,
  leaves through a transposition of the last two axes, which is permute
  (0, 1, 3, 2). The table's two leading dims are 1: only one plane of
  rows x cols elements is decoded.
"""
import numpy as np
import pytest
import torch

import npucpu

torch.set_num_threads(1)

F32 = np.float32
U = float(np.finfo(F32).eps) / 2


def _gamma(k):
    return k * U / (1 - k * U)


def _t(a):
    return torch.from_numpy(np.array(a, order="C"))


# ---- gemm -----------------------------------------------------------------------------------

GEMM_CASES = [  # M, K, N, transA, transB (None: absent), bias shape (None: no bias)
    (2, 3, 4, None, None, None),
    (1, 1, 1, 0, 0, (1,)),
    (5, 7, 3, 1, None, (3,)),
    (4, 6, 5, None, 1, (4, 1)),
    (3, 8, 6, 1, 1, (3, 6)),
    (6, 2, 7, 0, 1, (1, 7)),
    (1, 33, 9, 1, 0, (1, 1)),
    (17, 64, 19, 0, 0, (19,)),
    (9, 5, 1, 1, 1, (9, 1)),
    (8, 130, 8, None, None, None),
]


def _gemm_inputs(rng, m, k, n, trans_a, trans_b, bias, integers):
    def draw(shape):
        if integers:
            return np.array(rng.integers(-8, 9, size=shape), dtype=F32)
        return np.array(rng.standard_normal(shape), dtype=F32)
    a = draw((k, m) if trans_a else (m, k))
    b = draw((n, k) if trans_b else (k, n))
    c = None if bias is None else draw(bias)
    attrs = {}
    if trans_a is not None:
        attrs["transA"] = trans_a
    if trans_b is not None:
        attrs["transB"] = trans_b
    return a, b, c, attrs


@pytest.mark.parametrize("m,k,n,trans_a,trans_b,bias", GEMM_CASES)
def test_gemm_matches_matmul_plus_bias(lib, m, k, n, trans_a, trans_b, bias):
    rng = np.random.default_rng(401)
    for integers in (False, True):
        a, b, c, attrs = _gemm_inputs(rng, m, k, n, trans_a, trans_b, bias, integers)
        got = npucpu.run("gemm", [a, b] + ([] if c is None else [c]), attrs).outputs[0]

        def ref(ta, tb, tc):
            y = (ta.T if trans_a else ta) @ (tb.T if trans_b else tb)
            return y if tc is None else y + tc

        tc = None if c is None else _t(c)
        want = ref(_t(a), _t(b), tc).numpy()
        what = "gemm %dx%dx%d %s" % (m, k, n, "integers" if integers else "reals")
        assert got.shape == want.shape == (m, n), what
        if integers:   # every partial sum is a small integer: exact on both sides
            assert got.tobytes() == want.tobytes(), what
            continue
        d = lambda v: None if v is None else v.double()  # noqa: E731
        want64 = ref(d(_t(a)), d(_t(b)), d(tc)).numpy()
        abs_sum = ref(d(_t(a)).abs(), d(_t(b)).abs(), None if tc is None else d(tc).abs())
        bound = _gamma(k + 1) * abs_sum.numpy()
        err64 = np.abs(got - want64)
        err32 = np.abs(got.astype(np.float64) - want)
        assert (err64 <= bound).all(), "%s: worst %g over the bound" % (what, (err64 / bound).max())
        assert (err32 <= 2 * bound).all(), "%s: worst %g over twice the bound" % (
            what, (err32 / bound).max())


# ---- matmul ---------------------------------------------------------------------------------

MATMUL_SHAPES = [  # A shape, B shape
    ((2, 3), (3, 4)),
    ((1, 1), (1, 1)),
    ((3,), (3, 4)),
    ((2, 3), (3,)),
    ((5,), (5,)),
    ((5, 2, 3), (3, 4)),
    ((2, 3), (5, 3, 4)),
    ((3,), (2, 3, 4)),
    ((4, 2, 3), (3,)),
    ((2, 3, 4, 5), (2, 3, 5, 2)),
    ((7, 16), (16, 9)),
]

MATMUL_VALUES = {  # name: (low, high, fractional)
    "small": (-100, 100, False),
    "wrapping": (-(1 << 20), 1 << 20, False),    # products near 2^40 wrap in 32 bits
    "fractional": (-50, 50, True),               # truncated toward zero first
}


@pytest.mark.parametrize("a_shape,b_shape", MATMUL_SHAPES)
def test_matmul_matches_integer_matmul(lib, a_shape, b_shape):
    rng = np.random.default_rng(409)
    for name, (low, high, fractional) in MATMUL_VALUES.items():
        def draw(shape):
            v = rng.integers(low, high, size=shape, endpoint=True).astype(np.float64)
            if fractional:
                v += rng.uniform(-0.99, 0.99, size=shape)
            return np.array(v, dtype=F32)
        a, b = draw(a_shape), draw(b_shape)
        got = npucpu.run("matmul", [a, b]).outputs[0]
        ta = torch.trunc(_t(a)).to(torch.int64)
        tb = torch.trunc(_t(b)).to(torch.int64)
        exact = torch.matmul(ta, tb).numpy()
        want = (exact & 0xFFFFFFFF).astype(np.uint32).view(np.int32).astype(F32)
        if want.ndim == 0:
            want = want.reshape(1)
        what = "matmul %s x %s, %s values" % (a_shape, b_shape, name)
        assert got.shape == want.shape, "%s: %s vs %s" % (what, got.shape, want.shape)
        assert got.tobytes() == want.tobytes(), what


# ---- the transposition inside detect_output_decoder -----------------------------------------

@pytest.mark.parametrize("rows,cols", [(1, 6), (3, 4), (5, 6), (7, 9), (16, 7), (2, 1)])
def test_decoder_table_leaves_transposed(lib, rows, cols):
    rng = np.random.default_rng(419)
    table = rng.integers(-32768, 32767, size=(1, 1, rows, cols), endpoint=True).astype(np.int16)
    count = np.array([(1 << 24) + 2 * rows + 1], dtype=np.uint32)   # rounds to float
    r = npucpu.run("detect_output_decoder", [count, table], outputs=2)
    # Columns 0-3 are x 2^-3, column 4 x 2^-15, column 5 unscaled, the rest
    # 0: every product is exact in float.
    scale = torch.tensor([0.125] * 4 + [2.0 ** -15, 1.0] + [0.0] * max(cols - 6, 0))[:cols]
    decoded = torch.where(scale != 0, _t(table).float() * scale, torch.zeros(()))
    want = decoded.permute(0, 1, 3, 2).contiguous().numpy()
    assert r.outputs[1].shape == want.shape
    assert r.outputs[1].tobytes() == want.tobytes()
    assert r.outputs[0].tolist() == [torch.tensor(int(count[0])).float().item()]
