"""Element types of TBF stacks as numpy dtypes, and back."""

import numpy as np

from . import _tarnio

# The stack's colour triple, one byte per channel.
RGB = np.dtype([("red", "u1"), ("green", "u1"), ("blue", "u1")])

_DTYPES = {
    "uint8": np.dtype("u1"),
    "int8": np.dtype("i1"),
    "uint16": np.dtype("<u2"),
    "int16": np.dtype("<i2"),
    "uint32": np.dtype("<u4"),
    "int32": np.dtype("<i4"),
    "uint64": np.dtype("<u8"),
    "int64": np.dtype("<i8"),
    "single": np.dtype("<f4"),
    "double": np.dtype("<f8"),
    "cplx_single": np.dtype("<c8"),
    "cplx_double": np.dtype("<c16"),
    "logical": np.dtype("?"),
    "rgb": RGB,
    # Packed colour (red in the low byte) has no dtype of its own; it reads as uint32.
    "rgb32": np.dtype("<u4"),
}
_CODES = _tarnio.element_types()
_NAMES = {code: name for name, code in _CODES.items()}
# dtype -> code; uint32 stands for uint32, not for packed colour.
_BY_DTYPE = {dtype: _CODES[name] for name, dtype in _DTYPES.items() if name != "rgb32"}


def dtype_of(code):
    """The numpy dtype of the library's type code `code`."""
    return _DTYPES[_NAMES[code]]


def type_name(code):
    return _NAMES[code]


def code_of(dtype):
    """The library's type code for a numpy dtype or a type name ("uint16", "rgb32").

    Raises TypeError for a type no stack stores."""
    if isinstance(dtype, str) and dtype in _CODES:
        return _CODES[dtype]
    dtype = np.dtype(dtype)
    code = _BY_DTYPE.get(dtype)
    if code is None:
        raise TypeError(f"no stack element type for dtype {dtype}")
    return code
