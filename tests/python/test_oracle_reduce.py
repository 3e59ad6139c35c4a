"""argmax/argmin, reducemax/reducemin/reducemean, softmax, topk and nonzero
against PyTorch.

Compared where both define the same result:
- arg-max/min: no NaN (PyTorch takes a NaN as the extreme, the library skips
  it); ties resolve to the first index in both, and select_last_index is the
  first index of the reversed slice. A reduced rank-1 input gives the library
  shape [1] where PyTorch gives a scalar.
- reductions: single axes and ascending axis lists (reducemin and reducemean
  compute later passes from the unreduced dims, which lines up with the
  true reduction only when the axes ascend); no NaN (PyTorch propagates it,
  the library keeps the running value). Reducing every axis without keepdims
  gives the library shape [1] where PyTorch gives a scalar.
- softmax: every slice has a positive maximum (the library starts its
  maximum at the smallest normal float, so an all-negative slice is not
  shifted by its maximum).
- topk: sorted output; indices only where the values are distinct (the
  order of equal values is the sort's own), K within the axis.
- nonzero: the library packs the c coordinates dimension-major from the
  start of its [r, N] buffer, PyTorch returns them as a [c, r] matrix.

Max, min, arg-max/min, top-k values and non-zero coordinates are exact;
means and softmax carry tolerances derived below.
"""
import numpy as np
import pytest
import torch

import npucpu

torch.set_num_threads(1)

F32 = np.float32
EPS = float(np.finfo(F32).eps) / 2   # unit roundoff of float32, 2**-24


def _t(a):
    return torch.from_numpy(np.array(a, order="C"))  # keeps rank 0, unlike ascontiguousarray


# ---- argmax / argmin ------------------------------------------------------------------------

ARG_CASES = [  # shape, axis, keepdims
    ((7,), 0, 0), ((7,), -1, 1), ((3, 5), 0, 0), ((3, 5), 1, 1), ((2, 3, 4), -1, 0),
    ((2, 3, 4), 1, 1), ((4, 1, 6), 0, 2), ((2, 3, 2, 5), 2, 0),
]


def _arg_reference(fn, x, axis, keepdims, last):
    t = _t(x)
    if last:  # the last extreme is the first one of the reversed slice
        n = x.shape[axis]
        r = (n - 1) - fn(t.flip(axis), dim=axis, keepdim=keepdims == 1)
    else:
        r = fn(t, dim=axis, keepdim=keepdims == 1)
    r = r.numpy().astype(np.int32)
    return r.reshape(1) if r.ndim == 0 else r


@pytest.mark.parametrize("op,fn", [("argmax", torch.argmax), ("argmin", torch.argmin)])
def test_arg_extremes_match_torch(lib, op, fn):
    rng = np.random.default_rng(71)
    for shape, axis, keepdims in ARG_CASES:
        for dtype, force in ((F32, False), (np.int32, True)):
            # Few distinct values, so most slices hold ties.
            x = rng.integers(-3, 4, size=shape).astype(dtype)
            if dtype is F32:
                x[rng.random(shape) < 0.3] = F32(0.25)
            for last in (0, 1):
                r = npucpu.run(op, [x], {"axis": axis, "keepdims": keepdims,
                                         "select_last_index": last}, force=force)
                want = _arg_reference(fn, x, axis, keepdims, last)
                assert r.outputs[0].shape == want.shape, (op, shape, axis, keepdims)
                np.testing.assert_array_equal(r.outputs[0], want,
                                              err_msg=str((op, shape, axis, keepdims, last)))


# ---- reducemax / reducemin / reducemean -----------------------------------------------------

REDUCE_CASES = [  # shape, axes (None: attribute absent), keepdims
    ((5, 6), [0], 0), ((5, 6), [-1], 1), ((3, 4, 5), [1], 0), ((3, 4, 5), [0, 2], 1),
    ((3, 4, 5), [1, 2], 0), ((3, 4, 5), [0, 1, 2], 1), ((2, 3, 4, 5), [0, 3], 0),
    ((2, 3, 4, 5), [-3, -1], 1), ((2, 3, 4), None, 1), ((4, 3), None, 0), ((40,), [0], 1),
]


def _reduce_reference(torch_fn, x, axes, keepdims):
    dims = tuple(range(x.ndim)) if axes is None else tuple(axes)
    r = torch_fn(_t(x), dim=dims, keepdim=keepdims == 1).numpy()
    return r.reshape(1) if r.ndim == 0 else r


def _run_reduce(op, x, axes, keepdims):
    attrs = {"keepdims": keepdims}
    if axes is not None:
        attrs["axes"] = npucpu.Attr(axes, "ints")
    return npucpu.run(op, [x], attrs).outputs[0]


@pytest.mark.parametrize("op,fn", [("reducemax", torch.amax), ("reducemin", torch.amin)])
def test_reduce_extremes_match_torch_exactly(lib, op, fn):
    rng = np.random.default_rng(73)
    for shape, axes, keepdims in REDUCE_CASES:
        x = np.array(rng.standard_normal(shape) * 100, dtype=F32)
        x[rng.random(shape) < 0.1] = -0.0
        got = _run_reduce(op, x, axes, keepdims)
        want = _reduce_reference(fn, x, axes, keepdims)
        assert got.shape == want.shape, (op, shape, axes, keepdims)
        np.testing.assert_array_equal(got, want, err_msg=str((op, shape, axes)))


def test_reducemean_matches_torch_within_summation_error(lib):
    # The library sums each axis in index order in float and divides per
    # pass; PyTorch sums in its own order. A float sum of n terms errs by at
    # most (n - 1) u sum|x|, and each of the p passes adds one division's
    # u |result|, so the gap is below (n + p) u mean|x| per output (n = the
    # number of elements reduced into it), plus PyTorch's own (smaller) error.
    rng = np.random.default_rng(79)
    for shape, axes, keepdims in REDUCE_CASES:
        x = np.array(rng.standard_normal(shape) * 10 + 3, dtype=F32)
        got = _run_reduce("reducemean", x, axes, keepdims)
        want = _reduce_reference(torch.mean, x, axes, keepdims)
        assert got.shape == want.shape, (shape, axes, keepdims)
        dims = tuple(range(x.ndim)) if axes is None else tuple(a % x.ndim for a in axes)
        n = int(np.prod([shape[d] for d in dims]))
        mean_abs = _reduce_reference(torch.mean, np.abs(x), axes, keepdims)
        bound = 2 * (n + len(dims)) * EPS * mean_abs
        assert (np.abs(got.astype(np.float64) - want) <= bound).all(), (shape, axes)


# ---- softmax --------------------------------------------------------------------------------

SOFTMAX_CASES = [((6,), None), ((4, 5), None), ((4, 5), 1), ((3, 4, 8), -1), ((3, 4, 8), 1),
                 ((2, 3, 4, 5), 2), ((2, 64), -1)]


@pytest.mark.parametrize("shape,axis", SOFTMAX_CASES)
def test_softmax_matches_torch_for_positive_maxima(lib, shape, axis):
    rng = np.random.default_rng(83)
    x = np.array(rng.uniform(-20, 30, size=shape), dtype=F32)
    dim = 0 if axis is None else axis  # the library's default axis is 0
    # Give every slice a positive maximum.
    idx = [slice(None)] * len(shape)
    idx[dim] = 0
    x[tuple(idx)] = np.abs(x[tuple(idx)]) + F32(0.5)
    got = npucpu.run("softmax", [x], {} if axis is None else {"axis": axis}).outputs[0]
    want = torch.softmax(_t(x), dim=dim).numpy()
    # Each output is e_k / S: e_k is a correctly rounded exponential (PyTorch's
    # is within an ulp or so), S a float sum of n terms (relative error up to
    # (n - 1) u in either order), the quotient one more rounding: the two
    # results differ by less than (2n + 4) u relatively.
    n = shape[dim]
    np.testing.assert_allclose(got, want, rtol=(2 * n + 4) * EPS, atol=0)
    np.testing.assert_allclose(got.sum(axis=dim, dtype=np.float64), 1.0, rtol=0,
                               atol=(2 * n + 4) * EPS)


# ---- topk -----------------------------------------------------------------------------------

TOPK_CASES = [  # shape, axis (None: default -1), k
    ((10,), None, 3), ((10,), None, 10), ((4, 9), 1, 1), ((4, 9), 0, 2), ((3, 5, 6), -1, 4),
    ((3, 5, 6), 1, 5), ((2, 7, 3), 1, 6),
]


@pytest.mark.parametrize("largest", [1, 0])
def test_topk_sorted_matches_torch(lib, largest):
    rng = np.random.default_rng(89 + largest)
    for shape, axis, k in TOPK_CASES:
        dim = -1 if axis is None else axis
        attrs = {"largest": largest, "sorted": 1}
        if axis is not None:
            attrs["axis"] = axis
        kk = np.array([k], dtype=np.int64)
        # Distinct values: values and indices are both determined.
        x = np.array(rng.permutation(np.prod(shape)).reshape(shape) * 0.37 - 9, dtype=F32)
        r = npucpu.run("topk", [x, kk], attrs, outputs=2)
        tv, ti = torch.topk(_t(x), k, dim=dim, largest=bool(largest), sorted=True)
        np.testing.assert_array_equal(r.outputs[0], tv.numpy(), err_msg=str((shape, axis, k)))
        np.testing.assert_array_equal(r.outputs[1], ti.numpy().astype(np.int32))
        # Many ties (floats and int32): only the values are determined.
        for dtype in (F32, np.int32):
            x = rng.integers(-3, 3, size=shape).astype(dtype)
            r = npucpu.run("topk", [x, kk], attrs, outputs=2)
            tv, _ = torch.topk(_t(x), k, dim=dim, largest=bool(largest), sorted=True)
            np.testing.assert_array_equal(r.outputs[0], tv.numpy(), err_msg=str((shape, dtype)))
            # Whatever index is reported holds the reported value.
            picked = np.take_along_axis(x, r.outputs[1].astype(np.int64), axis=dim)
            np.testing.assert_array_equal(picked, r.outputs[0])


# ---- nonzero --------------------------------------------------------------------------------

@pytest.mark.parametrize("shape", [(12,), (3, 4), (2, 3, 4), (2, 1, 3, 2)])
def test_nonzero_coordinates_match_torch(lib, shape):
    rng = np.random.default_rng(97)
    x = np.array(rng.choice([0.0, -0.0, 1.5, -2.0, np.nan, np.inf, 1e-45], size=shape,
                            p=[0.3, 0.2, 0.1, 0.1, 0.1, 0.1, 0.1]), dtype=F32)
    for data in (x, np.nan_to_num(x, posinf=7).astype(np.int32)):
        r = npucpu.run("nonzero", [data], out_fill=0xEE, force=data.dtype != F32)
        want = torch.nonzero(_t(data)).numpy()          # [c, r], row-major order of finds
        c, rank = want.shape
        assert r.outputs[0].shape == (len(shape), data.size)
        flat = r.outputs[0].ravel()
        np.testing.assert_array_equal(flat[:rank * c], want.T.ravel())
        assert (r.buffers[0][rank * c * 8:] == 0xEE).all()   # the rest is left alone
