"""Stacks as Dask arrays, and Dask arrays into stacks.

A Dask array of a stack holds in its graph only the file's path and the stack's index: each
task opens the file and reads its chunk, so the graph pickles small and runs on a cluster of
processes that see the same file system."""

import concurrent.futures
import math
import os

import numpy as np

from . import _file

# Chunk bytes of a plain stack, which can be read at any place at the same cost.
_PLAIN_CHUNK_BYTES = 64 << 20
# Chunks of a stack stored in pieces hold whole pieces, as many as fit into this: tasks much
# smaller cost more in scheduling and transfers than they save.
_PIECES_CHUNK_BYTES = 32 << 20


class _StackSource:
    """What a task needs to read part of a stack: path, index, and what Dask asks first."""

    def __init__(self, path, index, shape, dtype):
        self.path, self.index = path, index
        self.shape, self.dtype, self.ndim = shape, dtype, len(shape)

    def __getitem__(self, key):
        # One thread per task: Dask runs the tasks side by side.
        with _file.open(self.path, threads=1) as f:
            return f.stacks[self.index][key]


def natural_chunks(shape, itemsize, unit_bytes):
    """Chunks of about `unit_bytes` that follow the stack's layout: whole indices of the
    slowest axis whose one index fits, the faster axes whole."""
    if 0 in shape:
        return tuple(shape)
    for axis, n in enumerate(shape):
        sub_bytes = itemsize * math.prod(shape[axis + 1:])
        if sub_bytes <= unit_bytes or axis == len(shape) - 1:
            take = max(1, min(n, unit_bytes // max(sub_bytes, 1)))
            return (1,) * axis + (take,) + tuple(shape[axis + 1:])
    return tuple(shape)


def _chunk_bytes(stack):
    """Bytes of a chunk: whole flush blocks or chunk frames of the stack, or any for plain."""
    if stack.chunk_samples:
        piece = stack.chunk_samples * stack.dtype.itemsize
    elif stack.compression != "none":
        piece = stack.flush_block_size
    else:
        return _PLAIN_CHUNK_BYTES
    return piece * max(1, _PIECES_CHUNK_BYTES // piece)


def to_dask(path, stack=0, chunks=None):
    """Stack `stack` of the file at `path` as a Dask array; by default its chunks follow the
    stack's planes, flush blocks or chunk frames."""
    import dask.array as da
    from dask.base import tokenize

    path = os.path.abspath(os.fspath(path))
    with _file.open(path, threads=1) as f:
        source = f.stacks[stack]
        shape, dtype, unit = source.shape, source.dtype, _chunk_bytes(source)
    if chunks is None:
        chunks = natural_chunks(shape, dtype.itemsize, unit)
    name = "tarnio-" + tokenize(path, os.stat(path).st_mtime_ns, stack, chunks)
    return da.from_array(_StackSource(path, stack, shape, dtype), chunks=chunks, name=name,
                         asarray=False, fancy=False, meta=np.empty((0,) * len(shape), dtype))


def store(array, path, mode="w", compression="none", level=6, name="", description="",
          threads=None):
    """Writes the Dask array `array` into a new stack of the file at `path` (created with
    mode "w", extended with "a") and returns the stack's index. Blocks along the slowest
    axis are computed in order, the next while the library writes (and compresses, on
    `threads`) the one before."""
    whole_rows = array.rechunk({axis: -1 for axis in range(1, array.ndim)})
    opened = (_file.create(path, description, threads) if mode == "w"
              else _file.open(path, mode, threads))
    with opened as f:
        stack = f.add_stack(array.dtype, array.shape, compression=compression, level=level,
                            name=name)
        blocks = [whole_rows.blocks[i] for i in range(whole_rows.numblocks[0])] \
            if array.ndim else [whole_rows]
        with concurrent.futures.ThreadPoolExecutor(1) as pool:
            pending = pool.submit(blocks[0].compute) if blocks and array.size else None
            for i in range(len(blocks) if pending else 0):
                block = pending.result()
                if i + 1 < len(blocks):
                    pending = pool.submit(blocks[i + 1].compute)
                stack.write(block)
        return len(f.stacks) - 1
