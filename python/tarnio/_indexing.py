"""numpy basic indexing of a stack: a key becomes the region to read and the view of it the
caller sees."""

import operator


def parse_key(key, shape):
    """Splits a basic index into (starts, sizes, steps, view) in numpy axis order.

    The region read is the smallest that holds the selection, with positive steps; `view`
    (integers, slices, None) applied to it drops the integer-indexed axes, reverses those
    of negative steps and inserts new axes, giving what numpy's own indexing gives."""
    key = key if isinstance(key, tuple) else (key,)
    ellipses = sum(1 for k in key if k is Ellipsis)
    if ellipses > 1:
        raise IndexError("an index can only have a single ellipsis ('...')")
    indexed = sum(1 for k in key if k is not None and k is not Ellipsis)
    if indexed > len(shape):
        raise IndexError(f"too many indices for stack: stack is {len(shape)}-dimensional, "
                         f"but {indexed} were indexed")
    whole = [slice(None)] * (len(shape) - indexed)
    expanded = []
    for k in key:
        expanded.extend(whole if k is Ellipsis else [k])
    if not ellipses:
        expanded.extend(whole)

    starts, sizes, steps, view = [], [], [], []
    axis = 0
    for k in expanded:
        if k is None:
            view.append(None)
            continue
        n = shape[axis]
        if isinstance(k, slice):
            start, stop, step = k.indices(n)
            count = len(range(start, stop, step))
            first = (start + (count - 1) * step if step < 0 else start) if count else 0
            starts.append(first)
            sizes.append(count)
            steps.append(abs(step))
            view.append(slice(None, None, -1) if step < 0 else slice(None))
        else:
            if isinstance(k, bool):
                raise IndexError("boolean indices are not supported; read() the stack first")
            try:
                i = operator.index(k)
            except TypeError:
                raise IndexError("only integers, slices (`:`), ellipsis (`...`) and None are "
                                 "valid indices of a stack") from None
            if not -n <= i < n:
                raise IndexError(f"index {i} is out of bounds for axis {axis} with size {n}")
            starts.append(i % n)
            sizes.append(1)
            steps.append(1)
            view.append(0)
        axis += 1
    return starts, sizes, steps, tuple(view)
