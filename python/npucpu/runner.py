"""High-level host: run one operator on numpy arrays the way a runtime does.

describe inputs and attributes -> <op>_infershape -> <op>_check_supported ->
allocate outputs from the inferred shape, data type and width stride ->
<op>_compute -> outputs as numpy arrays.
"""
import math
import numbers
import time

import numpy as np

from . import _lib
from .context import Context
from .dtypes import code_of, dtype_of

ATTR_TYPES = {"int": 0, "ints": 1, "float": 2, "floats": 3, "str": 4, "string": 4}
_INT64 = (-(1 << 63), (1 << 63) - 1)


class OpError(RuntimeError):
    """A stage of an operator answered with a failure.

    `stage` is 'infershape', 'check_supported' or 'compute'; `code` the
    returned value; `name` its symbolic name. check_supported fails with
    code 0 and the name 'not supported'.
    """

    def __init__(self, stage, code, name=None, op=None):
        self.stage, self.code, self.op = stage, code, op
        self.name = name if name is not None else _lib.status_name(code)
        routine = "%s_%s" % (op, stage) if op else stage
        if stage == "check_supported":
            text = "%s answered %d (%s)" % (routine, code, self.name)
        else:
            text = "%s returned 0x%08x (%s)" % (routine, code, self.name)
        super().__init__(text)


# ---- attributes ---------------------------------------------------------------------


class Attr:
    """An attribute value with an explicit type ('int', 'ints', 'float',
    'floats', 'str'), e.g. Attr(2, "ints") gives the one-element list [2].
    `data_len` overrides the byte length handed to the library."""

    def __init__(self, value, type=None, data_len=None):
        if type is not None and type not in ATTR_TYPES:
            raise ValueError("unknown attribute type %r (use one of %s)"
                             % (type, ", ".join(ATTR_TYPES)))
        self.value, self.type, self.data_len = value, type, data_len

    def __repr__(self):
        return "Attr(%r, %r)" % (self.value, self.type)


def _is_int(v):
    return isinstance(v, (numbers.Integral, np.bool_))


def _is_real(v):
    return isinstance(v, numbers.Real) or isinstance(v, np.floating)


def _scalar(value):
    # A 0-d array is a scalar, not a one-element list.
    return value[()] if isinstance(value, np.ndarray) and value.ndim == 0 else value


def infer_attr_type(value):
    """The attribute type a Python value maps to."""
    value = _scalar(value)
    if isinstance(value, Attr):
        return value.type or infer_attr_type(value.value)
    if isinstance(value, (str, bytes, bytearray)):
        return "str"
    if _is_int(value):
        return "int"
    if _is_real(value):
        return "float"
    if isinstance(value, np.ndarray):
        if value.dtype.kind in "iub":
            return "ints"
        if value.dtype.kind == "f":
            return "floats"
        raise TypeError("attribute arrays must hold ints or floats, not %s" % value.dtype)
    try:
        items = list(value)
    except TypeError:
        raise TypeError("cannot pass a %s as an attribute" % type(value).__name__) from None
    if all(_is_int(v) for v in items):
        return "ints"
    if all(_is_real(v) for v in items):
        return "floats"
    raise TypeError("attribute lists must hold only ints or only numbers: %r" % (value,))


def _as_int64(v):
    if _is_int(v):
        v = int(v)
    elif _is_real(v) and float(v).is_integer():
        v = int(v)
    else:
        raise ValueError("%r is not an integer" % (v,))
    if not _INT64[0] <= v <= _INT64[1]:
        raise ValueError("%d does not fit in 64 bits" % v)
    return v


def _as_float(v):
    if not _is_real(v):
        raise ValueError("%r is not a number" % (v,))
    with np.errstate(over="ignore"):
        return np.float32(v)


def encode_attr(value):
    """(type code, value buffer as a numpy array, data_len) for an attribute."""
    forced = value if isinstance(value, Attr) else None
    kind = infer_attr_type(value)
    value = _scalar(forced.value if forced is not None else value)
    if kind == "int":
        if not _is_int(value) and not _is_real(value):
            value = list(value)
            if len(value) != 1:
                raise ValueError("an int attribute holds one value, got %r" % (value,))
            value = value[0]
        buf = np.array([_as_int64(value)], dtype=np.int64)
        n = buf.nbytes
    elif kind == "float":
        if not _is_real(value):
            value = list(value)
            if len(value) != 1:
                raise ValueError("a float attribute holds one value, got %r" % (value,))
            value = value[0]
        buf = np.array([_as_float(value)], dtype=np.float32)
        n = buf.nbytes
    elif kind in ("ints", "floats"):
        items = [value] if _is_real(value) else list(np.asarray(value).ravel()) \
            if isinstance(value, np.ndarray) else list(value)
        conv = _as_int64 if kind == "ints" else _as_float
        vals = [conv(v) for v in items]
        n = len(vals) * (8 if kind == "ints" else 4)
        # An empty list still gets a valid pointer, with data_len 0.
        buf = np.array(vals or [0], dtype=np.int64 if kind == "ints" else np.float32)
    else:
        if isinstance(value, str):
            raw = value.encode("utf-8")
        elif isinstance(value, (bytes, bytearray)):
            raw = bytes(value)
        else:
            raise ValueError("a str attribute needs text, got %r" % (value,))
        n = len(raw)
        buf = np.frombuffer(raw + b"\0", dtype=np.uint8).copy()
    if forced is not None and forced.data_len is not None:
        n = forced.data_len
    return ATTR_TYPES[kind], buf, n


# ---- inputs and outputs -------------------------------------------------------------------


class Input:
    """An input as a host describes it.

    data: array-like, or None for a null buffer.
    shape, dtype: the description (default: the array's own; for None a
        rank-0 float32).
    wstride: bytes from one innermost row to the next; the rows are copied
        into a buffer laid out with that stride (gap bytes = pad_byte) and the
        stride is set with qv_kel_custom_set_input_wstride_by_index.
    buf_len: byte length handed over (default: the buffer's size).
    code: data type code to declare instead of the dtype's own (any value,
        for hosts that pass codes numpy has no type for).
    """

    def __init__(self, data=None, *, shape=None, dtype=None, format=0, wstride=None,
                 buf_len=None, batch_mode=0, pad_byte=0, code=None):
        self.format, self.wstride, self.batch_mode = format, wstride, batch_mode
        if isinstance(dtype, (int, np.integer)) and not isinstance(dtype, bool):
            dtype = dtype_of(dtype)
        if data is None:
            self.buffer = None
            self.shape = tuple(shape) if shape is not None else ()
            self.code = code_of(dtype if dtype is not None else np.float32)
            if code is not None:
                self.code = int(code)
            self.buf_len = buf_len if buf_len is not None else 0
            return
        arr = np.asarray(data)
        if dtype is not None:
            arr = arr.astype(dtype)
        # A C-ordered native-endian copy; unlike ascontiguousarray this keeps
        # a 0-d array at rank 0.
        arr = np.array(arr, dtype=arr.dtype.newbyteorder("="), order="C", copy=True)
        self.code = code_of(arr.dtype) if code is None else int(code)
        self.shape = tuple(shape) if shape is not None else arr.shape
        if wstride is not None:
            arr = pack_rows(arr, wstride, pad_byte)
        self.buffer = arr
        self.buf_len = buf_len if buf_len is not None else arr.nbytes


def _rows_and_row_bytes(shape, itemsize):
    if len(shape) == 0:
        return 1, itemsize
    return math.prod(shape[:-1]), shape[-1] * itemsize


def pack_rows(arr, wstride, pad_byte=0):
    """Bytes of `arr` with its innermost rows `wstride` bytes apart."""
    rows, row = _rows_and_row_bytes(arr.shape, arr.itemsize)
    if wstride < row:
        raise ValueError("wstride %d is shorter than a row of %d bytes" % (wstride, row))
    out = np.full(strided_nbytes(rows, row, wstride), pad_byte, dtype=np.uint8)
    src = arr.reshape(rows, -1).view(np.uint8) if row else None
    for r in range(rows if row else 0):
        out[r * wstride:r * wstride + row] = src[r]
    return out


def strided_nbytes(rows, row_bytes, wstride):
    """Bytes of `rows` rows of `row_bytes` placed `wstride` bytes apart."""
    return (rows - 1) * wstride + row_bytes if rows > 0 else 0


def output_nbytes(shape, itemsize, wstride):
    """Buffer size for an output: dense, or (rows - 1) * wstride + row bytes
    when the reported width stride differs from the row size (never less
    than the dense size, so an operator that writes densely stays inside)."""
    rows, row = _rows_and_row_bytes(shape, itemsize)
    dense = rows * row
    if wstride and wstride != row:
        return max(dense, strided_nbytes(rows, row, wstride))
    return dense


def unpack_output(buffer, shape, dtype, wstride):
    """The logical array held by an output buffer (a copy)."""
    dtype = np.dtype(dtype)
    rows, row = _rows_and_row_bytes(shape, dtype.itemsize)
    if len(shape) >= 2 and wstride > row and rows > 0 and row > 0:
        view = np.ndarray((rows, shape[-1]), dtype=dtype, buffer=buffer,
                          strides=(wstride, dtype.itemsize))
        return view.reshape(shape).copy()
    return buffer[:rows * row].view(dtype).reshape(shape).copy()


class Result:
    """What run() returns: outputs, statuses per stage, the support answer."""

    def __init__(self, op):
        self.op = op
        self.outputs = []
        self.buffers = []      # raw output bytes, gaps of strided rows included
        self.wstrides = []
        self.formats = []
        self.statuses = {}     # 'infershape' / 'compute' -> status code
        self.supported = None  # check_supported's answer as a bool
        self.times = {}        # stage -> seconds

    def __repr__(self):
        return "Result(op=%r, statuses=%r, supported=%r, outputs=%r)" % (
            self.op, self.statuses, self.supported,
            [(o.shape, str(o.dtype)) for o in self.outputs])


def _as_input(item):
    return item if isinstance(item, Input) else Input(item)


def describe(ctx, inputs, attrs=None, outputs=1):
    """Set counts, inputs and attributes on a fresh context; returns the
    Input descriptions (their buffers must outlive the call)."""
    descs = [_as_input(x) for x in inputs]
    attrs = dict(attrs or {})
    for name in attrs:
        if len(str(name).encode("utf-8")) >= _lib.ATTR_NAME_LEN:
            raise ValueError("attribute name %r is longer than %d bytes"
                             % (name, _lib.ATTR_NAME_LEN - 1))
    ctx.set_inputs_num(len(descs))
    ctx.set_outputs_num(outputs)
    ctx.set_attrs_num(len(attrs))
    for i, desc in enumerate(descs):
        ctx.set_input_by_index(i, desc.code, desc.format, desc.shape, desc.buffer,
                               desc.buf_len, desc.batch_mode)
        if desc.wstride is not None:
            ctx.set_input_wstride_by_index(i, desc.wstride)
    for k, (name, value) in enumerate(attrs.items()):
        code, buf, n = encode_attr(value)
        ctx.set_attr_by_index(k, name, code, buf, n)
    return descs


def run(op, inputs, attrs=None, outputs=1, raw=False, *, force=False, library=None,
        out_fill=0):
    """Run operator `op` on `inputs` (arrays, None for a null buffer, or Input).

    attrs: {name: value}; int -> int, float -> float, str/bytes -> string,
    ints -> ints, floats -> floats, Attr(value, type) to force a type.
    A failing stage raises OpError unless raw=True, which returns the Result
    with the statuses reached (compute is never called after a failed
    infershape). An unsupported configuration stops before compute unless
    force=True. Output buffers are filled with the byte `out_fill` first.
    """
    lib = library if isinstance(library, _lib.Library) else _lib.load(library)
    for stage in _lib.ENTRY_STAGES:
        lib.entry(op, stage)
    result = Result(op)
    with Context(lib) as ctx:
        describe(ctx, inputs, attrs, outputs)

        t = time.perf_counter()
        status = ctx.infershape(op)
        result.times["infershape"] = time.perf_counter() - t
        result.statuses["infershape"] = status
        if status != _lib.NPU_OK:
            if raw:
                return result
            raise OpError("infershape", status, op=op)

        t = time.perf_counter()
        result.supported = bool(ctx.check_supported(op))
        result.times["check_supported"] = time.perf_counter() - t
        if not result.supported and not force:
            if raw:
                return result
            raise OpError("check_supported", 0, "not supported", op=op)

        layouts = []
        for i in range(outputs):
            _, shape = ctx.get_output_shape_by_index(i)
            _, code = ctx.get_output_dtype_by_index(i)
            _, fmt = ctx.get_output_format_by_index(i)
            _, wstride = ctx.get_output_wstride_by_index(i)
            dtype = dtype_of(code)
            buf = np.full(output_nbytes(shape, dtype.itemsize, wstride), out_fill, dtype=np.uint8)
            ctx.set_output_buf_by_index(i, buf, buf.nbytes)
            layouts.append((buf, shape, dtype, wstride))
            result.wstrides.append(wstride)
            result.formats.append(fmt)

        t = time.perf_counter()
        status = ctx.compute(op)
        result.times["compute"] = time.perf_counter() - t
        result.statuses["compute"] = status
        for buf, shape, dtype, wstride in layouts:
            result.buffers.append(buf)
            result.outputs.append(unpack_output(buf, shape, dtype, wstride))
        if status != _lib.NPU_OK and not raw:
            raise OpError("compute", status, op=op)
    return result
