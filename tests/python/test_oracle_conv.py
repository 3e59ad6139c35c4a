"""conv and conv_transpose against PyTorch's conv2d and conv_transpose2d.

Compared where both define the same result:
- square filters with `kernel_shape` given and `auto_pad` "NOTSET" with
  explicit pads. The library's shape inference takes the kernel from
  `kernel_shape` alone (1 x 1 when absent) while its compute uses the
  filter's real size, so without it the two disagree; conv_transpose infers
  the kernel from the filter with its axes crossed and crosses the two
  output_padding values when sizing the output, which only agrees for
  square filters and equal output padding on both axes;
- conv pads may be asymmetric: PyTorch's conv2d pads symmetrically, so the
  input is zero-padded with F.pad first and convolved without padding;
- conv_transpose: pads crop the full output (PyTorch's `padding` crops the
  same amount from both ends, so the full output is computed with
  padding 0 and cropped here). The library convolves the stride-spread input
  padded by (k - 1) * dilation - pad, which must not go negative: a negative
  begin pad on the width axis would drop columns from the end of each row
  rather than the start. Its shape inference also requires
  output_padding < stride / dilation (integer division), stricter than
  PyTorch's output_padding < max(stride, dilation), so dilation <= stride.
- The ONNX SAME modes are not compared: compute applies `pads` only.

Each output is a dot product of n = (C / group) * kH * kW products (the
zeros of dilation, spreading and padding add exactly) plus the bias. Any
summation order gives a result within gamma(n + 1) * A of the exact value,
where A = sum |x * w| + |b| and gamma(k) = k u / (1 - k u), u = 2^-24 (the
library's fused multiply-adds only improve on that). So the library is
checked against a double-precision reference within gamma(n + 1) * A and
against PyTorch's float result within twice that.
"""
import numpy as np
import pytest
import torch
import torch.nn.functional as F

import npucpu

torch.set_num_threads(1)

F32 = np.float32
U = float(np.finfo(F32).eps) / 2


def _gamma(k):
    return k * U / (1 - k * U)


def _t(a):
    return torch.from_numpy(np.array(a, order="C"))


def _check(got, want32, want64, abs_sum, n, what):
    assert got.shape == tuple(want32.shape), "%s: %s vs %s" % (what, got.shape, want32.shape)
    assert got.dtype == F32
    bound = _gamma(n + 1) * abs_sum + 1e-30
    err64 = np.abs(got.astype(np.float64) - want64)
    err32 = np.abs(got.astype(np.float64) - want32.astype(np.float64))
    for err, want, scale, name in ((err64, want64, 1, "double"), (err32, want32, 2, "torch")):
        if not (err <= scale * bound).all():
            worst = np.unravel_index(np.argmax(err - scale * bound), got.shape)
            raise AssertionError("%s: %r vs %s %r at %s" % (what, got[worst], name, want[worst],
                                                            worst))


def _attrs(k, group, strides, dilations, pads, **extra):
    """Attributes of a case; None leaves one absent (its default applies)."""
    attrs = {"kernel_shape": [k, k], "auto_pad": "NOTSET"}
    for name, value in (("group", group), ("strides", strides), ("dilations", dilations),
                        ("pads", pads)):
        if value is not None:
            attrs[name] = list(value) if name != "group" else value
    attrs.update(extra)
    return attrs


def _data(seed, x_shape, w_shape, bias, m):
    rng = np.random.default_rng(seed)
    x = np.array(rng.standard_normal(x_shape), dtype=F32)
    w = np.array(rng.standard_normal(w_shape), dtype=F32)
    b = np.array(rng.standard_normal(m) * 4, dtype=F32) if bias else None
    return x, w, b


# ---- conv -----------------------------------------------------------------------------------

CONV_CASES = [  # x shape, M, k, group, strides, dilations, pads (top, left, bottom, right), bias
    ((1, 1, 5, 5), 1, 3, None, None, None, None, False),          # every attribute defaulted
    ((1, 3, 8, 7), 4, 3, 1, (1, 1), (1, 1), (1, 1, 1, 1), True),
    ((2, 4, 9, 10), 6, 3, 2, (2, 1), (1, 2), (1, 2, 0, 1), True),
    ((2, 3, 6, 6), 5, 1, 1, (1, 1), (1, 1), (0, 0, 0, 0), True),   # 1 x 1 filters
    ((1, 2, 7, 9), 3, 1, 1, (2, 3), (1, 1), (2, 0, 1, 3), False),   # pads beyond the kernel
    ((1, 4, 6, 6), 4, 3, 4, (1, 1), (1, 1), (1, 1, 1, 1), True),    # depthwise
    ((2, 3, 7, 8), 6, 3, 3, (2, 2), (2, 2), (2, 2, 2, 2), True),    # depthwise, multiplier 2
    ((1, 6, 11, 12), 6, 3, 3, (3, 2), (2, 3), (0, 3, 1, 0), False),
    ((1, 2, 5, 5), 3, 5, 1, (1, 1), (1, 1), (0, 0, 0, 0), True),    # filter as large as the input
    ((1, 2, 4, 4), 2, 4, 2, (3, 3), (1, 1), (2, 1, 1, 2), False),   # stride beyond the plane
    ((3, 8, 6, 5), 4, 2, 4, (1, 2), (3, 1), (1, 0, 2, 1), True),    # even filter, dilated
    ((1, 16, 12, 12), 8, 3, 1, (1, 1), (1, 1), (1, 1, 1, 1), True),  # longer dot products
]


@pytest.mark.parametrize("shape,m,k,group,strides,dilations,pads,bias", CONV_CASES)
def test_conv_matches_conv2d(lib, shape, m, k, group, strides, dilations, pads, bias):
    g = group or 1
    x, w, b = _data(211, shape, (m, shape[1] // g, k, k), bias, m)
    s = strides or (1, 1)
    d = dilations or (1, 1)
    top, left, bottom, right = pads or (0, 0, 0, 0)
    inputs = [x, w] + ([b] if bias else [])
    got = npucpu.run("conv", inputs, _attrs(k, group, strides, dilations, pads)).outputs[0]

    def conv(xt, wt, bt):
        return F.conv2d(F.pad(xt, (left, right, top, bottom)), wt, bt, stride=s, dilation=d,
                        groups=g)

    tb = None if b is None else _t(b)
    want32 = conv(_t(x), _t(w), tb).numpy()
    want64 = conv(_t(x).double(), _t(w).double(), None if b is None else tb.double()).numpy()
    abs_sum = conv(_t(x).double().abs(), _t(w).double().abs(),
                   None if b is None else tb.double().abs()).numpy()
    _check(got, want32, want64, abs_sum, shape[1] // g * k * k, "conv %s" % (shape,))


# ---- conv_transpose -------------------------------------------------------------------------

CONV_T_CASES = [  # x shape, M, k, group, strides, dilations, pads, output_padding, bias
    ((1, 1, 3, 3), 1, 3, None, None, None, None, None, False),    # every attribute defaulted
    ((1, 2, 4, 5), 3, 3, 1, (2, 2), (1, 1), (0, 0, 0, 0), (1, 1), True),
    ((2, 4, 3, 4), 6, 3, 2, (2, 2), (1, 1), (1, 0, 2, 1), (1, 1), True),
    ((1, 3, 5, 4), 2, 2, 1, (1, 1), (1, 1), (1, 0, 0, 1), None, True),   # even filter
    ((2, 3, 4, 4), 3, 3, 3, (3, 2), (1, 1), (2, 1, 1, 2), (1, 1), True),  # depthwise
    ((1, 4, 3, 5), 8, 3, 4, (2, 3), (2, 2), (3, 4, 1, 2), (0, 0), False),  # depthwise, dilated
    ((1, 2, 5, 5), 4, 1, 2, (2, 2), (1, 1), (0, 0, 0, 0), (1, 1), True),   # 1 x 1 filters
    ((2, 6, 4, 3), 4, 3, 2, (4, 3), (2, 1), (4, 1, 5, 3), (1, 1), True),  # pads at their limits
    ((1, 5, 3, 3), 2, 4, 1, (3, 3), (3, 3), (9, 0, 4, 9), None, False),  # dilation = stride
    ((1, 8, 6, 6), 4, 3, 1, (1, 1), (1, 1), (1, 1, 1, 1), None, True),   # longer dot products
]


@pytest.mark.parametrize("shape,m,k,group,strides,dilations,pads,out_pad,bias", CONV_T_CASES)
def test_conv_transpose_matches_conv_transpose2d(lib, shape, m, k, group, strides, dilations,
                                                 pads, out_pad, bias):
    g = group or 1
    c = shape[1]
    x, w, b = _data(223, shape, (c, m // g, k, k), bias, m)
    s = strides or (1, 1)
    d = dilations or (1, 1)
    op = out_pad or (0, 0)
    top, left, bottom, right = pads or (0, 0, 0, 0)
    for stride, dil, o in zip(s, d, op):   # the compared set (see the module comment)
        assert dil <= stride and o < stride // dil
    assert top <= (k - 1) * d[0] and bottom <= (k - 1) * d[0] + op[0]
    assert left <= (k - 1) * d[1] and right <= (k - 1) * d[1] + op[1]
    extra = {} if out_pad is None else {"output_padding": list(out_pad)}
    inputs = [x, w] + ([b] if bias else [])
    got = npucpu.run("conv_transpose", inputs,
                     _attrs(k, group, strides, dilations, pads, **extra)).outputs[0]

    def conv_t(xt, wt, bt):
        full = F.conv_transpose2d(xt, wt, bt, stride=s, output_padding=op, groups=g,
                                  dilation=d)
        return full[:, :, top:full.shape[2] - bottom, left:full.shape[3] - right]

    tb = None if b is None else _t(b)
    want32 = conv_t(_t(x), _t(w), tb).numpy()
    want64 = conv_t(_t(x).double(), _t(w).double(), None if b is None else tb.double()).numpy()
    abs_sum = conv_t(_t(x).double().abs(), _t(w).double().abs(),
                     None if b is None else tb.double().abs()).numpy()
    _check(got, want32, want64, abs_sum, c // g * k * k, "conv_transpose %s" % (shape,))
