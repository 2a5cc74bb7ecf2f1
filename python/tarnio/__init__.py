"""TBF files of microscopy data as numpy arrays, and as Dask arrays for clusters.

    import numpy as np, tarnio
    with tarnio.create("cells.tbf") as f:
        stack = f.add_stack(np.uint16, (64, 2048, 2048), compression="zlib", name="cells")
        for plane in planes:             # front to back, slowest axis first
            stack.write(plane)
    with tarnio.open("cells.tbf") as f:
        plane = f.stacks[0][10]          # reads only plane 10
"""

from ._tarnio import Error

Error.__module__ = __name__
from ._file import File, Stack, create, open
from ._types import RGB
from ._dask import store, to_dask

__all__ = ["Error", "File", "Stack", "RGB", "create", "open", "store", "to_dask"]
