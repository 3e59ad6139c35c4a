"""resize against torch.nn.functional.interpolate.

Compared where both map output pixels to the same source coordinates:
- nearest: asymmetric mapping with floor rounding is PyTorch's "nearest"
  (floor(dst * in / out)); the library divides by out / in instead of
  multiplying by in / out, which is the same number only when the ratio is
  a power of two, so only such ratios are used;
- bilinear: half_pixel is align_corners=False (a negative source coordinate
  reads the first pixel with full weight in both), align_corners is
  align_corners=True;
- bicubic: PyTorch's fixed coefficient is -0.75, while the library defaults
  cubic_coeff_a to 0.0, so the attribute is always given; both repeat the
  edge pixels for neighbours outside the image.
PyTorch's downscales are plain sampling too (no antialiasing by default).

The linear and cubic results are weighted sums computed in another order and
from coordinates rounded differently (the library divides by out / in in
double, PyTorch multiplies by in / out in float), so they carry tolerances:
a source coordinate below n is off by at most about n u, which moves each
weight by as much; bilinear weights are at most 1 in each direction (their
derivative too), cubic ones at most about 2.5 in slope and 1.5 in absolute
sum per direction, and the products and sums add a few u of the largest
pixel magnitude.
"""
import numpy as np
import pytest
import torch
import torch.nn.functional as F

import npucpu

torch.set_num_threads(1)

F32 = np.float32
EPS = float(np.finfo(F32).eps) / 2

COORD = {False: "half_pixel", True: "align_corners"}


def _t(a):
    return torch.from_numpy(np.array(a, order="C"))  # keeps rank 0, unlike ascontiguousarray


def _run_resize(x, out_hw, attrs, by_scales=False):
    """Resize the two innermost axes of x to out_hw, giving the output extents
    as sizes (int64) or as scales (float32, exact for the ratios used)."""
    out_shape = x.shape[:-2] + tuple(out_hw) if x.ndim >= 2 else tuple(out_hw[-1:])
    if by_scales:
        scales = np.array([o / i for o, i in zip(out_shape, x.shape)], dtype=F32)
        inputs = [x, None, scales]
    else:
        inputs = [x, None, None, np.array(out_shape, dtype=np.int64)]
    r = npucpu.run("resize", inputs, attrs)
    assert r.outputs[0].shape == out_shape
    return r.outputs[0]


def _as_nchw(x):
    t = _t(x)
    while t.dim() < 4:
        t = t.unsqueeze(0)
    return t


# ---- nearest --------------------------------------------------------------------------------

NEAREST_CASES = [  # input shape, output (h, w), by scales
    ((1, 2, 4, 4), (8, 8), False), ((2, 3, 8, 16), (4, 4), True), ((1, 1, 4, 8), (16, 2), False),
    ((3, 4, 2), (8, 1), True), ((4, 8), (4, 32), False), ((1, 1, 1, 2), (4, 8), False),
]


@pytest.mark.parametrize("shape,out_hw,by_scales", NEAREST_CASES)
def test_nearest_asymmetric_floor_matches_torch(lib, shape, out_hw, by_scales):
    x = np.array(np.random.default_rng(149).standard_normal(shape), dtype=F32)
    attrs = {"mode": "nearest", "coordinate_transformation_mode": "asymmetric",
             "nearest_mode": "floor"}
    got = _run_resize(x, out_hw, attrs, by_scales)
    want = F.interpolate(_as_nchw(x), size=tuple(out_hw), mode="nearest")
    assert got.tobytes() == want.contiguous().numpy().tobytes()


# ---- bilinear and bicubic -------------------------------------------------------------------

SAMPLED_CASES = [  # input shape, output (h, w)
    ((1, 2, 5, 7), (11, 16)),   # upscales by odd ratios
    ((2, 1, 9, 12), (4, 5)),    # downscales
    ((1, 1, 6, 6), (13, 3)),    # one axis up, the other down
    ((3, 7, 4), (9, 9)),        # rank 3: channels, height, width
    ((8, 5), (3, 12)),          # rank 2: one plane
]


def _tolerance(x, out_hw, cubic):
    n = max(x.shape[-2:])
    slope, width = (3.0, 2.0) if cubic else (1.0, 1.0)
    return (2 * slope * width * (n + 1) + 16 * width) * EPS * float(np.abs(x).max())


@pytest.mark.parametrize("align_corners", [False, True])
@pytest.mark.parametrize("shape,out_hw", SAMPLED_CASES)
def test_bilinear_matches_torch(lib, shape, out_hw, align_corners):
    x = np.array(np.random.default_rng(151).uniform(-10, 10, size=shape), dtype=F32)
    attrs = {"mode": "linear", "coordinate_transformation_mode": COORD[align_corners]}
    got = _run_resize(x, out_hw, attrs)
    want = F.interpolate(_as_nchw(x), size=tuple(out_hw), mode="bilinear",
                         align_corners=align_corners).reshape(got.shape).numpy()
    np.testing.assert_allclose(got, want, rtol=0, atol=_tolerance(x, out_hw, False))


@pytest.mark.parametrize("align_corners", [False, True])
@pytest.mark.parametrize("shape,out_hw", SAMPLED_CASES)
def test_bicubic_matches_torch(lib, shape, out_hw, align_corners):
    x = np.array(np.random.default_rng(157).uniform(-10, 10, size=shape), dtype=F32)
    attrs = {"mode": "cubic", "coordinate_transformation_mode": COORD[align_corners],
             "cubic_coeff_a": -0.75}
    got = _run_resize(x, out_hw, attrs)
    want = F.interpolate(_as_nchw(x), size=tuple(out_hw), mode="bicubic",
                         align_corners=align_corners).reshape(got.shape).numpy()
    np.testing.assert_allclose(got, want, rtol=0, atol=_tolerance(x, out_hw, True))


def test_linear_on_a_rank1_input_matches_torch(lib):
    # A one-dimensional input is the width of a one-row plane.
    x = np.array(np.random.default_rng(163).uniform(-10, 10, size=9), dtype=F32)
    for size, align_corners in ((20, False), (4, False), (20, True), (4, True)):
        attrs = {"mode": "linear", "coordinate_transformation_mode": COORD[align_corners]}
        got = _run_resize(x, (1, size), attrs)
        want = F.interpolate(_t(x)[None, None], size=size, mode="linear",
                             align_corners=align_corners).reshape(-1).numpy()
        np.testing.assert_allclose(got, want, rtol=0, atol=_tolerance(x[None], None, False))
