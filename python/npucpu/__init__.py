"""ctypes binding of libnpucpu.so.

    import numpy as np, npucpu
    r = npucpu.run("add", [np.ones((2, 3), np.float32), np.arange(3, dtype=np.float32)])
    r.outputs[0], r.statuses, r.supported

`Context` is the low-level host (one method per context API routine);
`run` is what a runtime does for one operator call.
"""
from ._lib import (NPU_ERR_INPUT, NPU_ERR_INPUT_NUM, NPU_ERR_INVALID_ARG, NPU_ERR_SHAPE,
                   NPU_ERR_UNSUPPORTED, NPU_FAIL, NPU_OK, AttrRecord, Library,
                   LibraryNotFound, NpuString, OperatorContext, TensorDesc, TensorShape,
                   UnknownOperator, find_library, load, status_name)
from .context import Context
from .dtypes import DtypeError, code_of, dtype_of
from .runner import Attr, Input, OpError, Result, describe, encode_attr, run
from .version import VersionUnknown, version


def operators(library=None):
    """Names of the operators the library exports, from its symbol table."""
    lib = library if isinstance(library, Library) else load(library)
    return lib.operators()


__all__ = [
    "Attr", "AttrRecord", "Context", "DtypeError", "Input", "Library", "LibraryNotFound",
    "NpuString", "OpError", "OperatorContext", "Result", "TensorDesc", "TensorShape",
    "UnknownOperator", "code_of", "describe", "dtype_of", "encode_attr", "find_library",
    "load", "operators", "run", "status_name", "version", "VersionUnknown", "NPU_OK", "NPU_ERR_INVALID_ARG",
    "NPU_ERR_SHAPE", "NPU_ERR_INPUT_NUM", "NPU_ERR_INPUT", "NPU_ERR_UNSUPPORTED", "NPU_FAIL",
]
