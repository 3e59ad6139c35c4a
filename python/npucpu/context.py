"""Low-level host: one method per routine of the context API.

`Context` owns one OperatorContext handle. Its methods call the matching
`qv_kel_custom_*` routine once and return what the routine returns: the
status for setters, `(status, value)` for getters with an out parameter, an
address (int or None) for pointer getters. Nothing is checked on the Python
side beyond what ctypes needs, so tests can play unusual hosts: null buffers
(None), odd buffer lengths, missing attributes, batch buffers, strides.
Buffers passed in are kept alive as long as the context refers to them.
"""
import ctypes

import numpy as np

from . import _lib
from .dtypes import code_of

_u32, _u64, _i64 = ctypes.c_uint32, ctypes.c_uint64, ctypes.c_int64


def _address(buf):
    """(address or None, object to keep alive, natural byte length)."""
    if buf is None:
        return None, None, 0
    if isinstance(buf, np.ndarray):
        if not buf.flags.c_contiguous:
            raise ValueError("buffer arrays must be C-contiguous")
        return buf.ctypes.data, buf, buf.nbytes
    if isinstance(buf, bytes):
        # Read-only data (attribute values, inputs): the library must not write it.
        ptr = ctypes.c_char_p(buf)
        return ctypes.cast(ptr, ctypes.c_void_p).value, (buf, ptr), len(buf)
    if isinstance(buf, bytearray):
        arr = (ctypes.c_char * len(buf)).from_buffer(buf) if buf else None
        return (ctypes.addressof(arr) if arr is not None else None), buf, len(buf)
    if isinstance(buf, ctypes.Array):
        return ctypes.addressof(buf), buf, ctypes.sizeof(buf)
    if isinstance(buf, int):
        return buf or None, None, 0
    if isinstance(buf, ctypes.c_void_p):
        return buf.value, buf, 0
    raise TypeError("unsupported buffer type %s (use a numpy array, bytes, bytearray, "
                    "ctypes array, address or None)" % type(buf).__name__)


def _code(dtype):
    """A data type code: ints pass through unchanged (odd codes included),
    anything else is taken as a numpy dtype."""
    if isinstance(dtype, (int, np.integer)) and not isinstance(dtype, bool):
        return int(dtype)
    return code_of(dtype)


def _shape_arg(shape):
    if shape is None:
        return None
    if isinstance(shape, _lib.TensorShape):
        return ctypes.byref(shape)
    return ctypes.byref(_lib.TensorShape.of(shape))


def _name_arg(name):
    if name is None or isinstance(name, bytes):
        return name
    return str(name).encode("utf-8")


class Context:
    def __init__(self, library=None):
        self.lib = library if isinstance(library, _lib.Library) else _lib.load(library)
        self._api = self.lib.api
        self.handle = _lib.Handle()
        self._keep = {}
        self.create_status = self._api.create_handle(ctypes.byref(self.handle))

    # ---- lifecycle -------------------------------------------------------------

    def destory_handle(self):
        """qv_kel_custom_destory_handle; the handle becomes null."""
        status = self._api.destory_handle(ctypes.byref(self.handle))
        self._keep.clear()
        return status

    close = destory_handle

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        try:
            if self.handle:
                self.close()
        except Exception:
            pass

    @property
    def record(self):
        """The OperatorContext record itself (read its fields directly), or None."""
        return self.handle.contents if self.handle else None

    def set_inputs_num(self, num):
        return self._api.set_inputs_num(self.handle, num)

    def set_outputs_num(self, num):
        return self._api.set_outputs_num(self.handle, num)

    def set_attrs_num(self, num):
        return self._api.set_attrs_num(self.handle, num)

    def set_input_by_index(self, index, dtype, format, shape, buf, buf_len=None, batch_mode=0):
        addr, keep, natural = _address(buf)
        status = self._api.set_input_by_index(self.handle, index, _code(dtype), format,
                                              _shape_arg(shape), addr,
                                              natural if buf_len is None else buf_len, batch_mode)
        self._keep[("input", index)] = keep
        return status

    def set_output_by_index(self, index, dtype, format, shape, buf, buf_len=None):
        addr, keep, natural = _address(buf)
        status = self._api.set_output_by_index(self.handle, index, _code(dtype), format,
                                               _shape_arg(shape), addr,
                                               natural if buf_len is None else buf_len)
        self._keep[("output", index)] = keep
        return status

    def set_attr_by_index(self, index, name, dtype, data, data_len=None, reserved=0):
        addr, keep, natural = _address(data)
        status = self._api.set_attr_by_index(self.handle, index, _name_arg(name), reserved,
                                             dtype, addr, natural if data_len is None else data_len)
        self._keep[("attr", index)] = keep
        return status

    # ---- tensor accessors --------------------------------------------------------

    def _out(self, fn, ctype, *args):
        value = ctype()
        status = fn(self.handle, *args, ctypes.byref(value))
        return status, value.value

    def get_input_num(self):
        return self._out(self._api.get_input_num, _u32)

    def get_output_num(self):
        return self._out(self._api.get_output_num, _u32)

    def _shape(self, fn, index):
        shape = _lib.TensorShape()
        status = fn(self.handle, index, ctypes.byref(shape))
        return status, shape.to_tuple()

    def get_input_shape_by_index(self, index):
        return self._shape(self._api.get_input_shape_by_index, index)

    def get_output_shape_by_index(self, index):
        return self._shape(self._api.get_output_shape_by_index, index)

    def get_input_dtype_by_index(self, index):
        return self._out(self._api.get_input_dtype_by_index, _u32, index)

    def get_output_dtype_by_index(self, index):
        return self._out(self._api.get_output_dtype_by_index, _u32, index)

    def get_input_format_by_index(self, index):
        return self._out(self._api.get_input_format_by_index, _u32, index)

    def get_output_format_by_index(self, index):
        return self._out(self._api.get_output_format_by_index, _u32, index)

    def get_input_buf_by_index(self, index):
        return self._api.get_input_buf_by_index(self.handle, index)

    def get_output_buf_by_index(self, index):
        return self._api.get_output_buf_by_index(self.handle, index)

    def get_input_buf_len_by_index(self, index):
        return self._out(self._api.get_input_buf_len_by_index, _u64, index)

    def get_output_buf_len_by_index(self, index):
        return self._out(self._api.get_output_buf_len_by_index, _u64, index)

    def _set_buf(self, fn, key, index, buf, buf_len):
        addr, keep, natural = _address(buf)
        status = fn(self.handle, index, addr, natural if buf_len is None else buf_len)
        self._keep[key + (index,)] = keep
        return status

    def set_input_buf_by_index(self, index, buf, buf_len=None):
        return self._set_buf(self._api.set_input_buf_by_index, ("input-buf",), index, buf, buf_len)

    def set_output_buf_by_index(self, index, buf, buf_len=None):
        return self._set_buf(self._api.set_output_buf_by_index, ("output-buf",), index, buf,
                             buf_len)

    def set_input_first_batch_buf_by_index(self, index, buf, buf_len=None):
        return self._set_buf(self._api.set_input_first_batch_buf_by_index, ("input-batch",),
                             index, buf, buf_len)

    def set_output_first_batch_buf_by_index(self, index, buf, buf_len=None):
        return self._set_buf(self._api.set_output_first_batch_buf_by_index, ("output-batch",),
                             index, buf, buf_len)

    def get_input_batch_buf_by_index(self, index, batch):
        return self._api.get_input_batch_buf_by_index(self.handle, index, batch)

    def get_output_batch_buf_by_index(self, index, batch):
        return self._api.get_output_batch_buf_by_index(self.handle, index, batch)

    def set_input_wstride_by_index(self, index, wstride):
        return self._api.set_input_wstride_by_index(self.handle, index, wstride)

    def get_input_wstride_by_index(self, index):
        return self._out(self._api.get_input_wstride_by_index, _u32, index)

    def set_output_wstride_by_index(self, index, wstride):
        return self._api.set_output_wstride_by_index(self.handle, index, wstride)

    def get_output_wstride_by_index(self, index):
        return self._out(self._api.get_output_wstride_by_index, _u32, index)

    def set_output_shape_by_index(self, index, shape):
        return self._api.set_output_shape_by_index(self.handle, index, _shape_arg(shape))

    def set_output_dtype_by_index(self, index, dtype):
        return self._api.set_output_dtype_by_index(self.handle, index, _code(dtype))

    def set_output_format_by_index(self, index, format):
        return self._api.set_output_format_by_index(self.handle, index, format)

    def set_output_name_by_index(self, index, name):
        return self._api.set_output_name_by_index(self.handle, index, _name_arg(name))

    def get_output_name_by_index(self, index, dst_len=64):
        dst = ctypes.create_string_buffer(dst_len + 1)
        status = self._api.get_output_name_by_index(self.handle, index, dst, dst_len)
        return status, dst.value.decode("utf-8", "replace")

    # ---- attribute lookup ----------------------------------------------------------

    def get_attr_by_name(self, name):
        """The record pointer (falsy when the lookup found nothing)."""
        return self._api.get_attr_by_name(self.handle, _name_arg(name))

    def _attr_out(self, fn, ctype, attr, *args):
        value = ctype()
        status = fn(attr, *args, ctypes.byref(value))
        return status, value.value

    def get_attr_dtype(self, attr):
        return self._attr_out(self._api.get_attr_dtype, _u32, attr)

    def get_attr_float(self, attr):
        return self._attr_out(self._api.get_attr_float, ctypes.c_float, attr)

    def get_attr_floats_size(self, attr):
        return self._attr_out(self._api.get_attr_floats_size, _u64, attr)

    def get_attr_floats_by_index(self, attr, index):
        return self._attr_out(self._api.get_attr_floats_by_index, ctypes.c_float, attr, index)

    def get_attr_int(self, attr):
        return self._attr_out(self._api.get_attr_int, _i64, attr)

    def get_attr_ints_size(self, attr):
        return self._attr_out(self._api.get_attr_ints_size, _u64, attr)

    def get_attr_ints_by_index(self, attr, index):
        return self._attr_out(self._api.get_attr_ints_by_index, _i64, attr, index)

    def get_attr_string(self, attr, dst_len=256):
        dst = ctypes.create_string_buffer(dst_len + 1)
        status = self._api.get_attr_string(attr, dst, dst_len)
        return status, dst.value

    # ---- operator entry points -----------------------------------------------------

    def infershape(self, op):
        return self.lib.entry(op, "infershape")(self.handle)

    def check_supported(self, op):
        return self.lib.entry(op, "check_supported")(self.handle)

    def compute(self, op):
        return self.lib.entry(op, "compute")(self.handle)
