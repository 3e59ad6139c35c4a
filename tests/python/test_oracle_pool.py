"""global_averagepool, global_maxpool, lrn and depth_to_space against PyTorch.

Compared where both define the same result:
- global pooling against adaptive pooling to 1 x ... x 1 on positive inputs:
  the library's maximum starts at the smallest normal float, so a channel
  with no positive element does not give its own maximum;
- lrn against local_response_norm for odd sizes only: for an even size the
  library rounds both ends of the channel window outward (size + 1
  channels), PyTorch takes size channels;
- depth_to_space's CRD order is pixel_shuffle; its DCR order is the reshape,
  permute and reshape that defines it, done with PyTorch.
"""
import numpy as np
import pytest
import torch
import torch.nn.functional as F

import npucpu

torch.set_num_threads(1)

F32 = np.float32
EPS = float(np.finfo(F32).eps) / 2

ADAPTIVE = {3: (F.adaptive_avg_pool1d, F.adaptive_max_pool1d),
            4: (F.adaptive_avg_pool2d, F.adaptive_max_pool2d),
            5: (F.adaptive_avg_pool3d, F.adaptive_max_pool3d)}


def _t(a):
    return torch.from_numpy(np.array(a, order="C"))  # keeps rank 0, unlike ascontiguousarray


def _same(got, want, what):
    assert got.shape == want.shape, "%s: %s vs %s" % (what, got.shape, want.shape)
    assert got.tobytes() == want.tobytes(), what


# ---- global pooling -------------------------------------------------------------------------

GLOBAL_SHAPES = [(2, 3, 7), (1, 3, 2, 2), (2, 4, 5, 6), (1, 2, 16, 16), (2, 2, 3, 4, 5)]


@pytest.mark.parametrize("shape", GLOBAL_SHAPES)
def test_global_pooling_matches_adaptive_pooling(lib, shape):
    rng = np.random.default_rng(131)
    x = np.array(rng.uniform(0.01, 50, size=shape), dtype=F32)
    avg_fn, max_fn = ADAPTIVE[len(shape)]
    ones = (1,) * (len(shape) - 2)

    got = npucpu.run("global_maxpool", [x]).outputs[0]
    _same(got, max_fn(_t(x), ones).numpy(), "global_maxpool %s" % (shape,))

    # The library adds the S spatial values in order in float and divides
    # once; PyTorch adds in its own order. Each float sum of S positive terms
    # is within (S - 1) u of the exact sum, the division adds u: the two
    # means differ by less than 2 (S + 1) u relatively.
    got = npucpu.run("global_averagepool", [x]).outputs[0]
    want = avg_fn(_t(x), ones).numpy()
    assert got.shape == want.shape
    s = int(np.prod(shape[2:]))
    np.testing.assert_allclose(got, want, rtol=2 * (s + 1) * EPS, atol=0)


# ---- lrn ------------------------------------------------------------------------------------

LRN_CASES = [  # shape, size, alpha, beta, bias (None: attribute absent, default used)
    ((2, 5, 3, 3), 1, 0.5, 0.75, 1.0),
    ((2, 5, 3, 3), 3, None, None, None),
    ((1, 7, 4, 2), 5, 0.3, 0.6, 2.0),
    ((2, 6, 5), 3, 1.0, 1.0, 0.5),
    ((1, 9, 2, 2, 2), 7, 0.2, 0.75, 1.0),
    ((1, 4, 3, 3), 9, 0.9, 0.4, 1.0),     # the window covers every channel
]


@pytest.mark.parametrize("shape,size,alpha,beta,bias", LRN_CASES)
def test_lrn_matches_local_response_norm_for_odd_sizes(lib, shape, size, alpha, beta, bias):
    rng = np.random.default_rng(137)
    x = np.array(rng.standard_normal(shape) * 3, dtype=F32)
    attrs = {"size": size}
    for name, value in (("alpha", alpha), ("beta", beta), ("bias", bias)):
        if value is not None:
            attrs[name] = float(value)
    got = npucpu.run("lrn", [x], attrs).outputs[0]
    a = 0.0001 if alpha is None else alpha
    b = 0.75 if beta is None else beta
    k = 1.0 if bias is None else bias
    want = F.local_response_norm(_t(x), size, alpha=a, beta=b, k=k).numpy()
    # Both denominators bias + alpha * (sum of <= size squares) / size carry a
    # relative error below (size + 3) u (nonnegative terms, any order, three
    # further roundings); the power scales it by beta, the quotient and
    # PyTorch's float power add about one u each.
    rtol = (2 * (size + 3) * b + 4) * EPS
    np.testing.assert_allclose(got, want, rtol=rtol, atol=0)


# ---- depth_to_space -------------------------------------------------------------------------

@pytest.mark.parametrize("shape,b", [((1, 4, 1, 1), 2), ((2, 8, 3, 2), 2), ((1, 18, 2, 3), 3),
                                     ((2, 32, 2, 2), 4)])
def test_depth_to_space_matches_torch(lib, shape, b):
    x = np.array(np.random.default_rng(139).standard_normal(shape), dtype=F32)
    n, c, h, w = shape
    got = npucpu.run("depth_to_space", [x], {"blocksize": b, "mode": "CRD"}).outputs[0]
    _same(got, F.pixel_shuffle(_t(x), b).numpy(), "CRD %s" % (shape,))
    dcr = _t(x).reshape(n, b, b, c // (b * b), h, w).permute(0, 3, 4, 1, 5, 2)
    want = dcr.reshape(n, c // (b * b), h * b, w * b).contiguous().numpy()
    for attrs in ({"blocksize": b, "mode": "DCR"}, {"blocksize": b}):
        _same(npucpu.run("depth_to_space", [x], attrs).outputs[0], want, "DCR %s" % (shape,))
