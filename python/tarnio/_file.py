"""TBF files and their stacks in numpy's conventions: shapes and per-axis lists slowest axis
first (the reverse of the library's order), elements as numpy dtypes."""

import collections.abc
import json
import os

import numpy as np

from . import _indexing, _tarnio, _types

_COMPRESSIONS = ("none", "zlib")


def _reversed(values):
    return list(reversed(values))


class Stack:
    """One n-dimensional stack of a file. Reading: read(), numpy indexing, np.asarray().
    Writing a new stack: set its description (name, lengths, ...), then write() whole samples
    front to back; it is committed when the last sample is written."""

    def __init__(self, raw):
        self._raw = raw

    @property
    def shape(self):
        return tuple(_reversed(self._raw.sizes))

    @property
    def dtype(self):
        return _types.dtype_of(self._raw.type)

    @property
    def type_name(self):
        """The library's name of the element type ("uint16", "cplx_single", "rgb32", ...)."""
        return _types.type_name(self._raw.type)

    ndim = property(lambda self: len(self._raw.sizes))
    size = property(lambda self: int(np.prod(self.shape, dtype=np.uint64)))
    nbytes = property(lambda self: self.size * self.dtype.itemsize)
    compression = property(lambda self: _COMPRESSIONS[self._raw.compression])
    level = property(lambda self: self._raw.compression_level)
    flush_block_size = property(lambda self: self._raw.flush_block_size)
    chunk_samples = property(lambda self: self._raw.chunk_samples)
    committed = property(lambda self: self._raw.committed)

    def _text(name):
        return property(lambda self: getattr(self._raw, name),
                        lambda self, value: setattr(self._raw, name, value))

    def _per_axis(name):
        return property(lambda self: _reversed(getattr(self._raw, name)),
                        lambda self, values: setattr(self._raw, name, _reversed(values)))

    name = _text("name")
    description = _text("description")
    lengths = _per_axis("lengths")
    offsets = _per_axis("offsets")
    labels = _per_axis("labels")
    units = _per_axis("units")
    del _text, _per_axis

    @property
    def tags(self):
        """The stack's tags as Python values of their JSON form; a tag may be set to any value
        that JSON can hold until the stack's last sample is written (the tags are stored with
        it)."""
        return Tags(self._raw)

    def __len__(self):
        return self.shape[0] if self.ndim else 0

    def __repr__(self):
        return f"<tarnio.Stack {self.name!r} shape={self.shape} dtype={self.dtype}>"

    def read(self, out=None):
        """The whole stack, read straight into `out` (a C-contiguous array of as many elements,
        of any element type, converted as the library converts) or into a new array."""
        if out is None:
            out = np.empty(self.shape, self.dtype)
        self._raw.read(out, self._code_of(out.dtype))
        return out

    def _code_of(self, dtype):
        """The type code of a buffer of `dtype`: the stack's own type when the dtype is the
        stack's (packed colour reads and writes as uint32)."""
        return self._raw.type if dtype == self.dtype else _types.code_of(dtype)

    def __array__(self, dtype=None):
        data = self.read()
        return data if dtype is None else data.astype(dtype, copy=False)

    def __getitem__(self, key):
        starts, sizes, steps, view = _indexing.parse_key(key, self.shape)
        out = np.empty(sizes, self.dtype)
        self._raw.read_region(_reversed(starts), _reversed(sizes), _reversed(steps), out,
                              self._raw.type)
        return out[view]

    def write(self, samples):
        """Appends whole samples; an array of another dtype is converted by the library, one of
        a dtype it does not know by numpy."""
        samples = np.asarray(samples)
        try:
            code = self._code_of(samples.dtype)
        except TypeError:
            samples, code = samples.astype(self.dtype), self._raw.type
        self._raw.write(np.ascontiguousarray(samples), code)
        if self._raw.samples_written == self.size and not self._raw.committed:
            self._raw.commit()


class _AddOnlyMapping(collections.abc.MutableMapping):
    """Entries by name that can be added or replaced, but not removed."""

    _not_removable = "entries cannot be removed"

    def __init__(self, raw):
        self._raw = raw

    def _entries(self):
        raise NotImplementedError

    def __delitem__(self, key):
        raise TypeError(self._not_removable)

    def __iter__(self):
        return iter(self._entries())

    def __len__(self):
        return len(self._entries())


class Tags(_AddOnlyMapping):
    """A stack's tags by name, each a Python value of its JSON form."""

    _not_removable = "tags cannot be removed"

    def _entries(self):
        return self._raw.tags

    def __getitem__(self, name):
        return json.loads(self._raw.tags[name])

    def __setitem__(self, name, value):
        if self._raw.committed:
            raise ValueError("a stack's tags are set before its last sample is written")
        self._raw.set_tag(name, json.dumps(value, allow_nan=False))


class Metadata(_AddOnlyMapping):
    """The file's metadata entries (text by name); entries are added or replaced while the
    file is writable, and written when it closes."""

    _not_removable = "metadata entries cannot be removed"

    def _entries(self):
        return self._raw.metadata

    def __getitem__(self, key):
        return self._raw.metadata[key]

    def __setitem__(self, key, value):
        self._raw.set_metadata(key, value)


class File:
    """A TBF file: its description, metadata and stacks. Close it (or use `with`) to finish a
    written file; a stack not completely written is dropped then."""

    def __init__(self, path, mode="r", threads=None):
        self._raw = _tarnio.File(os.fspath(path), mode, threads or os.cpu_count() or 1)
        self._stacks = {}

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def close(self):
        self._raw.close()

    @property
    def description(self):
        return self._raw.description

    @description.setter
    def description(self, text):
        self._raw.description = text

    @property
    def metadata(self):
        return Metadata(self._raw)

    @property
    def ome(self):
        """The file's OME metadata in its JSON form ({"OME": [{...}]}) as Python objects: an
        image per described stack, with its pixels and channels. Raises ValueError with the
        library's message when the file's OME-XML does not read."""
        return json.loads(self._raw.ome_json())

    @property
    def stacks(self):
        return tuple(self._stack(i) for i in range(len(self._raw)))

    def _stack(self, index):
        if index not in self._stacks:
            self._stacks[index] = Stack(self._raw.stack(index))
        return self._stacks[index]

    def add_stack(self, dtype, shape, compression="none", level=6, name="", description="",
                  threads=None, flush_block_size=None, chunk_samples=None):
        """A new stack behind the others, of numpy dtype (or type name) `dtype` and `shape`;
        `threads` compress its data (all the file's stacks use the latest count).
        `flush_block_size` (bytes) sets how much plain data a compressed read inflates at
        least; `chunk_samples` writes the stack chunk-wise, in chunks of that many elements
        (0: one index of the slowest axis), each readable as soon as it is complete."""
        if compression not in _COMPRESSIONS:
            raise ValueError(f"compression must be 'none' or 'zlib', not {compression!r}")
        if threads is not None:
            self._raw.set_threads(threads)
        sizes = _reversed([int(n) for n in shape])
        stack = Stack(self._raw.add_stack(_types.code_of(dtype), sizes,
                                          _COMPRESSIONS.index(compression), level,
                                          flush_block_size or 0, chunk_samples))
        stack.name, stack.description = name, description
        if stack.size == 0:
            stack._raw.commit()
        self._stacks[len(self._raw) - 1] = stack
        return stack

    def __repr__(self):
        return f"<tarnio.File {len(self._raw)} stacks>"


def open(path, mode="r", threads=None):
    """Opens a TBF file: "r" reads it, "a" adds stacks behind its last one. `threads` inflate
    compressed data (default: one per core)."""
    if mode not in ("r", "a"):
        raise ValueError(f"mode must be 'r' or 'a', not {mode!r}; create() makes new files")
    return File(path, mode, threads)


def create(path, description="", threads=None):
    """A new TBF file at `path` (replacing one that is there), open for adding stacks."""
    file = File(path, "w", threads)
    file.description = description
    return file
