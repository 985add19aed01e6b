"""numpy inputs for the dtype x order x shape x layout matrices: sample values with each type's extremes, and
arrays of those values laid out contiguous, strided or byte-swapped."""

import math

import numpy as np


def engine_shape(shape):
    """Dimensions the engine gives a numpy shape: 0-d is 1-by-1, 1-d of n is 1-by-n, N-d is kept."""
    return (1, 1) if len(shape) == 0 else (1, shape[0]) if len(shape) == 1 else tuple(shape)


def sample(dtype, n):
    """n values of dtype that differ from element to element and include the type's extremes."""
    dtype = np.dtype(dtype)
    i = np.arange(n)
    if dtype == np.bool_:
        return (i % 3) == 1
    if dtype.kind == "c":
        return ((i * 1.5 - 7) + 1j * (3 - i * 0.25)).astype(dtype)
    if dtype.kind == "f":
        v = (i * 1.5 - 7).astype(dtype)
        if n >= 3:
            v[1], v[2] = np.finfo(dtype).max, np.finfo(dtype).tiny
        return v
    info = np.iinfo(dtype)
    v = ((i * 37) % 101 + (int(info.min) // 2 if info.min else 0)).astype(dtype)
    if n >= 2:
        v[0], v[-1] = info.min, info.max
    return v


def make(dtype, shape, order, layout):
    """A numpy array of `shape` with the given memory order and layout, and its values in plain form."""
    dtype = np.dtype(dtype)
    values = sample(dtype, math.prod(shape)).reshape(shape)
    if layout == "strided" and shape:
        # Every other element along each axis of a bigger array, with the first axis running backwards.
        big = np.zeros(tuple(2 * s + 1 for s in shape), dtype=dtype, order=order)
        view = big[(slice(None, 0, -2),) + tuple(slice(1, None, 2) for _ in shape[1:])]
        view = view[tuple(slice(0, s) for s in shape)]
        view[...] = values
        a = view
    elif layout == "swapped":
        a = np.array(values, dtype=dtype.newbyteorder(), order=order)
    else:
        a = np.array(values, order=order)
    assert a.shape == tuple(shape)
    np.testing.assert_array_equal(a, values)
    return a, values
