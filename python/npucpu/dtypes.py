"""numpy dtype <-> the library's data type codes."""
import numpy as np

CODE_TO_DTYPE = {
    0: np.dtype(np.float32),
    1: np.dtype(np.float64),
    2: np.dtype(np.int8),
    3: np.dtype(np.int16),
    4: np.dtype(np.int32),
    5: np.dtype(np.int64),
    6: np.dtype(np.uint8),
    7: np.dtype(np.uint16),
    8: np.dtype(np.uint32),
    9: np.dtype(np.uint64),
    10: np.dtype(np.float16),
    11: np.dtype(np.complex128),
    12: np.dtype(np.complex64),
    19: np.dtype(np.bool_),
}
DTYPE_TO_CODE = {dt: code for code, dt in CODE_TO_DTYPE.items()}


class DtypeError(TypeError):
    pass


def code_of(dtype):
    """Data type code of a numpy dtype (byte order is ignored: the library
    reads native order, and inputs are converted to it)."""
    dt = np.dtype(dtype)
    code = DTYPE_TO_CODE.get(dt.newbyteorder("="))
    if code is None:
        raise DtypeError("numpy dtype %s has no data type code in npucpu (supported: %s)"
                         % (dt, ", ".join(str(d) for d in DTYPE_TO_CODE)))
    return code


def dtype_of(code):
    """numpy dtype of a data type code."""
    dt = CODE_TO_DTYPE.get(int(code))
    if dt is None:
        raise DtypeError("data type code %d has no numpy equivalent (known codes: %s)"
                         % (code, ", ".join(str(c) for c in sorted(CODE_TO_DTYPE))))
    return dt
