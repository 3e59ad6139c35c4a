"""Loading libnpucpu.so and declaring its C interface for ctypes.

The records mirror api/npucpu.h field for field; every routine the binding
calls gets its argtypes and restype here, so a wrong call fails in Python
instead of corrupting the stack.
"""
import ctypes
import os
from pathlib import Path

from .elfsyms import operators_in

MAX_DIMS = 16
ATTR_NAME_LEN = 64

# Status codes of the public header.
NPU_OK = 0x00000000
NPU_ERR_INVALID_ARG = 0xA0808003
NPU_ERR_SHAPE = 0xA0808008
NPU_ERR_INPUT_NUM = 0xA0808027
NPU_ERR_INPUT = 0xA0808028
NPU_ERR_UNSUPPORTED = 0xA080802C
NPU_FAIL = 0xFFFFFFFF

STATUS_NAMES = {
    NPU_OK: "NPU_OK",
    NPU_ERR_INVALID_ARG: "NPU_ERR_INVALID_ARG",
    NPU_ERR_SHAPE: "NPU_ERR_SHAPE",
    NPU_ERR_INPUT_NUM: "NPU_ERR_INPUT_NUM",
    NPU_ERR_INPUT: "NPU_ERR_INPUT",
    NPU_ERR_UNSUPPORTED: "NPU_ERR_UNSUPPORTED",
    NPU_FAIL: "NPU_FAIL",
}


def status_name(code):
    """Symbolic name of a status code, or its hex spelling when it has none."""
    return STATUS_NAMES.get(code, "0x%08x" % code)


# ---- Records ------------------------------------------------------------------


class TensorShape(ctypes.Structure):
    _fields_ = [("dims", ctypes.c_uint32 * MAX_DIMS), ("dim_num", ctypes.c_uint8)]

    @classmethod
    def of(cls, dims):
        """Shape record from a sequence of at most 16 non-negative dims."""
        dims = tuple(int(d) for d in dims)
        if len(dims) > MAX_DIMS:
            raise ValueError("a shape has at most %d dims, got %d" % (MAX_DIMS, len(dims)))
        for d in dims:
            if not 0 <= d <= 0xFFFFFFFF:
                raise ValueError("dim %d does not fit in 32 bits" % d)
        shape = cls()
        shape.dim_num = len(dims)
        for k, d in enumerate(dims):
            shape.dims[k] = d
        return shape

    def to_tuple(self):
        return tuple(self.dims[k] for k in range(min(self.dim_num, MAX_DIMS)))


class NpuString(ctypes.Structure):
    _fields_ = [
        ("data", ctypes.c_char_p),
        ("length", ctypes.c_uint64),
        ("external", ctypes.c_uint64),
    ]


class TensorDesc(ctypes.Structure):
    _fields_ = [
        ("dtype", ctypes.c_uint32),
        ("shape", TensorShape),
        ("format", ctypes.c_uint32),
        ("first_batch_buf", ctypes.c_void_p),
        ("buf", ctypes.c_void_p),
        ("buf_len", ctypes.c_uint64),
        ("wstride", ctypes.c_uint32),
        ("batch_mode", ctypes.c_uint32),
        ("wstride_fixed", ctypes.c_uint32),
        ("name", NpuString),
    ]


class AttrRecord(ctypes.Structure):
    _fields_ = [
        ("name", ctypes.c_char * ATTR_NAME_LEN),
        ("dtype", ctypes.c_uint32),
        ("data", ctypes.c_void_p),
        ("data_len", ctypes.c_uint64),
    ]


class OperatorContext(ctypes.Structure):
    _fields_ = [
        ("inputs", ctypes.POINTER(TensorDesc)),
        ("outputs", ctypes.POINTER(TensorDesc)),
        ("attrs", ctypes.POINTER(AttrRecord)),
        ("input_num", ctypes.c_uint32),
        ("output_num", ctypes.c_uint32),
        ("attr_num", ctypes.c_uint32),
    ]


Handle = ctypes.POINTER(OperatorContext)
AttrPtr = ctypes.POINTER(AttrRecord)

# ---- Prototypes -----------------------------------------------------------------

_u32, _u64, _i64, _vp = ctypes.c_uint32, ctypes.c_uint64, ctypes.c_int64, ctypes.c_void_p
_P = ctypes.POINTER
_shape_p = _P(TensorShape)
_h = Handle

# name -> (restype, argtypes), without the qv_kel_custom_ prefix for the API.
_API = {
    "create_handle": (_u32, [_P(Handle)]),
    "destory_handle": (_u32, [_P(Handle)]),
    "set_inputs_num": (_u32, [_h, _u32]),
    "set_outputs_num": (_u32, [_h, _u32]),
    "set_attrs_num": (_u32, [_h, _u32]),
    "set_input_by_index": (_u32, [_h, _u32, _u32, _u32, _shape_p, _vp, _u64, _u32]),
    "set_output_by_index": (_u32, [_h, _u32, _u32, _u32, _shape_p, _vp, _u64]),
    "set_attr_by_index": (_u32, [_h, _u32, ctypes.c_char_p, _u32, _u32, _vp, _u64]),
    "get_input_num": (_u32, [_h, _P(_u32)]),
    "get_output_num": (_u32, [_h, _P(_u32)]),
    "get_input_shape_by_index": (_u32, [_h, _u32, _shape_p]),
    "get_output_shape_by_index": (_u32, [_h, _u32, _shape_p]),
    "get_input_dtype_by_index": (_u32, [_h, _u32, _P(_u32)]),
    "get_output_dtype_by_index": (_u32, [_h, _u32, _P(_u32)]),
    "get_input_format_by_index": (_u32, [_h, _u32, _P(_u32)]),
    "get_output_format_by_index": (_u32, [_h, _u32, _P(_u32)]),
    "get_input_buf_by_index": (_vp, [_h, _u32]),
    "get_output_buf_by_index": (_vp, [_h, _u32]),
    "get_input_buf_len_by_index": (_u32, [_h, _u32, _P(_u64)]),
    "get_output_buf_len_by_index": (_u32, [_h, _u32, _P(_u64)]),
    "set_input_buf_by_index": (_u32, [_h, _u32, _vp, _u64]),
    "set_output_buf_by_index": (_u32, [_h, _u32, _vp, _u64]),
    "set_input_first_batch_buf_by_index": (_u32, [_h, _u32, _vp, _u64]),
    "set_output_first_batch_buf_by_index": (_u32, [_h, _u32, _vp, _u64]),
    "get_input_batch_buf_by_index": (_vp, [_h, _u32, _u32]),
    "get_output_batch_buf_by_index": (_vp, [_h, _u32, _u32]),
    "set_input_wstride_by_index": (_u32, [_h, _u32, _u32]),
    "get_input_wstride_by_index": (_u32, [_h, _u32, _P(_u32)]),
    "set_output_wstride_by_index": (_u32, [_h, _u32, _u32]),
    "get_output_wstride_by_index": (_u32, [_h, _u32, _P(_u32)]),
    "set_output_shape_by_index": (_u32, [_h, _u32, _shape_p]),
    "set_output_dtype_by_index": (_u32, [_h, _u32, _u32]),
    "set_output_format_by_index": (_u32, [_h, _u32, _u32]),
    "set_output_name_by_index": (_u32, [_h, _u32, ctypes.c_char_p]),
    "get_output_name_by_index": (_u32, [_h, _u32, ctypes.c_char_p, _u32]),
    "get_attr_by_name": (AttrPtr, [_h, ctypes.c_char_p]),
    "get_attr_dtype": (_u32, [AttrPtr, _P(_u32)]),
    "get_attr_float": (_u32, [AttrPtr, _P(ctypes.c_float)]),
    "get_attr_floats_size": (_u32, [AttrPtr, _P(_u64)]),
    "get_attr_floats_by_index": (_u32, [AttrPtr, _u64, _P(ctypes.c_float)]),
    "get_attr_int": (_u32, [AttrPtr, _P(_i64)]),
    "get_attr_ints_size": (_u32, [AttrPtr, _P(_u64)]),
    "get_attr_ints_by_index": (_u32, [AttrPtr, _u64, _P(_i64)]),
    "get_attr_string": (_u32, [AttrPtr, ctypes.c_char_p, _u64]),
}

_OTHER = {
    "set_log_level": (None, [_u32]),
    "get_log_level": (_u32, []),
    "get_dtype_size": (_u32, [_u32]),
}

ENTRY_STAGES = ("infershape", "check_supported", "compute")


class LibraryNotFound(OSError):
    pass


class UnknownOperator(LookupError):
    def __init__(self, op, path):
        super().__init__("operator '%s' is not exported by %s" % (op, path))
        self.op = op


def repo_root():
    # python/npucpu/_lib.py -> the repository root two levels above python/.
    return Path(__file__).resolve().parents[2]


def candidate_paths():
    """Where the library is looked for when no path is given, in order."""
    paths = []
    env = os.environ.get("NPUCPU_LIBRARY")
    if env:
        paths.append(Path(env))
    root = repo_root()
    paths += [
        root / "build" / "release" / "libnpucpu.so",
        root / "build" / "libnpucpu.so",
        Path("/usr/local/lib/libnpucpu.so"),
        Path("/usr/lib/libnpucpu.so"),
    ]
    return paths


def find_library(path=None):
    """Path of libnpucpu.so: the explicit argument, else NPUCPU_LIBRARY, else
    the build tree, else the installed location."""
    if path is not None:
        p = Path(path)
        if not p.is_file():
            raise LibraryNotFound("library not found: %s" % p)
        return p.resolve()
    env = os.environ.get("NPUCPU_LIBRARY")
    if env and not Path(env).is_file():
        raise LibraryNotFound("NPUCPU_LIBRARY names no file: %s" % env)
    for p in candidate_paths():
        if p.is_file():
            return p.resolve()
    raise LibraryNotFound(
        "libnpucpu.so not found (looked in: %s); build it or set NPUCPU_LIBRARY"
        % ", ".join(str(p) for p in candidate_paths()))


class Library:
    """One loaded libnpucpu.so with typed prototypes.

    `api.<name>` is the routine qv_kel_custom_<name>; `entry(op, stage)` is
    the operator entry point <op>_<stage>.
    """

    def __init__(self, path=None):
        self.path = find_library(path)
        self.cdll = ctypes.CDLL(str(self.path))
        self.api = type("Api", (), {})()
        for name, (res, args) in _API.items():
            fn = getattr(self.cdll, "qv_kel_custom_" + name)
            fn.restype, fn.argtypes = res, args
            setattr(self.api, name, fn)
        for name, (res, args) in _OTHER.items():
            fn = getattr(self.cdll, name)
            fn.restype, fn.argtypes = res, args
            setattr(self, name, fn)
        self._entries = {}

    def has_operator(self, op):
        return all(hasattr(self.cdll, "%s_%s" % (op, s)) for s in ENTRY_STAGES)

    def entry(self, op, stage):
        """The exported routine <op>_<stage> taking the handle."""
        if stage not in ENTRY_STAGES:
            raise ValueError("unknown stage %r" % stage)
        key = (op, stage)
        fn = self._entries.get(key)
        if fn is None:
            if not isinstance(op, str) or not op.isidentifier():
                raise UnknownOperator(op, self.path)
            try:
                fn = getattr(self.cdll, "%s_%s" % (op, stage))
            except AttributeError:
                raise UnknownOperator(op, self.path) from None
            fn.restype, fn.argtypes = _u32, [Handle]
            self._entries[key] = fn
        return fn

    def operators(self):
        """Operators exported by the library, from its dynamic symbol table."""
        return operators_in(self.path)


_loaded = {}


def load(path=None):
    """The Library for `path` (see find_library), loaded once per file."""
    p = find_library(path)
    lib = _loaded.get(p)
    if lib is None:
        lib = _loaded[p] = Library(p)
    return lib
