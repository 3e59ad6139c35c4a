"""averagepool and maxpool against PyTorch's avg_pool2d and max_pool2d.

Compared where both define the same result:
- `auto_pad` "NOTSET" with explicit pads and no ceil mode. The library's
  compute ignores `auto_pad`, `ceil_mode` and `dilations` (only shape
  inference honours them) and writes its windows densely from the start of
  the output, so those settings would disagree with PyTorch by design;
- positive inputs and pads below the kernel, so that every window holds data:
  the library's maximum starts at the smallest normal float and pads with
  +0.0, where PyTorch pads with -inf; on positive data both give the window's
  own maximum;
- PyTorch pads symmetrically by at most half the kernel. Other pads are
  applied with F.pad (zeros) and pooled without padding; average pooling that
  leaves the padding out of the count is then the window sum
  (divisor_override=1) over the number of data elements in the window.
"""
import numpy as np
import pytest
import torch
import torch.nn.functional as F

import npucpu

torch.set_num_threads(1)

F32 = np.float32
EPS = float(np.finfo(F32).eps) / 2

CASES = [  # shape, kernel (h, w), strides (None: absent), pads (top, left, bottom, right)
    ((1, 1, 5, 5), (2, 2), None, None),
    ((2, 3, 8, 7), (3, 3), (1, 1), (1, 1, 1, 1)),
    ((1, 4, 9, 10), (3, 2), (2, 2), (1, 0, 1, 1)),
    ((2, 2, 7, 7), (3, 3), (2, 3), (2, 1, 0, 2)),
    ((1, 3, 6, 11), (1, 4), (1, 3), (0, 2, 0, 1)),
    ((1, 2, 6, 6), (6, 6), (1, 1), (0, 0, 0, 0)),       # the whole plane
    ((2, 2, 10, 9), (5, 3), (3, 2), (2, 1, 2, 1)),
    ((1, 5, 4, 4), (1, 1), (2, 2), (0, 0, 0, 0)),
    ((1, 1, 12, 13), (4, 5), (4, 3), (3, 4, 2, 1)),     # pads just below the kernel
]


def _positive(shape, seed):
    """Distinct positive values, so the first of equal maxima never matters."""
    n = int(np.prod(shape))
    perm = np.random.default_rng(seed).permutation(n)
    return np.array((perm + 1) * 0.37, dtype=F32).reshape(shape)


def _attrs(kernel, strides, pads, **extra):
    attrs = {"kernel_shape": list(kernel), "auto_pad": "NOTSET"}
    if strides is not None:
        attrs["strides"] = list(strides)
    if pads is not None:
        attrs["pads"] = list(pads)
    attrs.update(extra)
    return attrs


def _native_padding(kernel, pads):
    """PyTorch's own padding (h, w) when it can express the pads, else None."""
    top, left, bottom, right = pads
    if top == bottom and left == right and 2 * top <= kernel[0] and 2 * left <= kernel[1]:
        return (top, left)
    return None


@pytest.mark.parametrize("shape,kernel,strides,pads", CASES)
@pytest.mark.parametrize("include", [None, 0, 1])   # None: count_include_pad absent
def test_averagepool_matches_avg_pool2d(lib, shape, kernel, strides, pads, include):
    x = _positive(shape, 307)
    extra = {} if include is None else {"count_include_pad": include}
    got = npucpu.run("averagepool", [x], _attrs(kernel, strides, pads, **extra)).outputs[0]
    s = strides or (1, 1)
    p = pads or (0, 0, 0, 0)
    native = _native_padding(kernel, p)
    tx = torch.from_numpy(x)
    if native is not None:
        want = F.avg_pool2d(tx, kernel, s, native, count_include_pad=bool(include))
    else:
        padded = F.pad(tx, (p[1], p[3], p[0], p[2]))
        if include:
            want = F.avg_pool2d(padded, kernel, s)
        else:
            ones = F.pad(torch.ones_like(tx), (p[1], p[3], p[0], p[2]))
            want = (F.avg_pool2d(padded, kernel, s, divisor_override=1)
                    / F.avg_pool2d(ones, kernel, s, divisor_override=1))
    want = want.numpy()
    assert got.shape == want.shape
    # Both sum at most S = kh * kw positive terms, each in its own order, so
    # each sum is within (S - 1) u of the exact one relatively, and one
    # division adds u: the two means differ by less than 2 (S + 1) u.
    rtol = 2 * (kernel[0] * kernel[1] + 1) * EPS
    np.testing.assert_allclose(got, want, rtol=rtol, atol=0)


@pytest.mark.parametrize("shape,kernel,strides,pads", CASES)
def test_maxpool_matches_max_pool2d(lib, shape, kernel, strides, pads):
    x = _positive(shape, 311)
    r = npucpu.run("maxpool", [x], _attrs(kernel, strides, pads), outputs=2)
    s = strides or (1, 1)
    top, left, bottom, right = pads or (0, 0, 0, 0)
    tx = torch.from_numpy(x)
    padded = F.pad(tx, (left, right, top, bottom))
    want, where = F.max_pool2d(padded, kernel, s, return_indices=True)
    native = _native_padding(kernel, (top, left, bottom, right))
    if native is not None:   # PyTorch's own padding picks the same maxima
        assert torch.equal(F.max_pool2d(tx, kernel, s, native), want)
    got, pos = r.outputs
    assert got.shape == tuple(want.shape) and pos.shape == got.shape
    assert got.tobytes() == want.numpy().tobytes()
    # The library's position is a flat index into the whole padded tensor,
    # PyTorch's an index into one padded plane.
    n, c, hp, wp = padded.shape
    plane = (np.arange(n * c, dtype=np.int64) * hp * wp).reshape(n, c, 1, 1)
    assert (pos.astype(np.int64) == where.numpy() + plane).all()
