"""Reference counts and memory stay flat over loops of everything the typed array package does: construction
(and its failures), indexing, assignment, buffer export and the capsule entries."""

import gc
import sys
import tracemalloc

import numpy as np
import pytest

import veltramultidimarrayforpython as vpkg
from conftest import rss_kib

BIG = np.arange(50_000, dtype=np.float64).reshape(250, 200)  # 400 kB: leaking it shows in RSS at once


def expect(exc, fn, *args, **kwargs):
    try:
        fn(*args, **kwargs)
    except exc:
        return
    raise AssertionError(f"{fn.__name__}{args} did not raise {exc.__name__}")


class Number:
    def __float__(self):
        return 2.5


def exercise(inputs):
    big, rows, text, ragged, numbers, x, buffers = inputs
    # Construction, and its failures.
    vpkg.double(big)
    vpkg.single(big.T[::3])
    vpkg.int16(rows)
    vpkg.double(rows, size=(3, 2))
    vpkg.double(numbers)
    vpkg.int8(x)
    vpkg.double(x, is_complex=True)
    vpkg.logical(size=(4, 4))
    expect(ValueError, vpkg.double, ragged)
    expect(TypeError, vpkg.double, text)
    expect(ValueError, vpkg.int8, [[1, 1000]])
    expect(ValueError, vpkg.double, rows, size=(5, 5))
    expect(TypeError, vpkg.double, {1})
    # Indexing, views, assignment, reshape.
    y = vpkg.double(x)
    y[0][1] = 5
    y[:, 0] = [7, 8]
    y[1] = numbers[:3]
    for row in y:
        row.tolist()
    y[1, ::-1].tolist()
    y[-1, -1]
    expect(IndexError, y.__getitem__, 9)
    expect(TypeError, y.__getitem__, "a")
    expect(ValueError, y.__setitem__, 0, [1, 2])
    y.reshape(3, 2)
    expect(ValueError, y.reshape, 4, 4)
    repr(y), y == x, y != x, y.size, len(y), y._is_complex
    # Buffer export.
    a = np.asarray(y)
    np.asarray(y[:, 1])
    memoryview(x).tolist()
    bytes(y)
    y.reshape(6, 1)
    del a
    # The capsule, every entry, with failures.
    for b in buffers:
        vpkg._capi_roundtrip(b)
        vpkg._capi_acquire(b)
    vpkg._capi_roundtrip(x)
    vpkg._capi_roundtrip(x, 4)
    vpkg._capi_get(x, 14)
    vpkg._capi_wrap_new(13, (2, 2))
    expect(TypeError, vpkg._capi_wrap_new, 24, (2, 2))
    expect(TypeError, vpkg._capi_acquire, np.zeros(2, np.float16))
    expect(TypeError, vpkg._capi_acquire, np.zeros(2, "M8[s]"))
    expect(TypeError, vpkg._capi_get, text, 4)
    expect(ValueError, vpkg._capi_roundtrip, vpkg.double([[1.5]]), 6)
    vpkg._capi_is_buffer(x), vpkg._capi_is_buffer(text)


def test_reference_counts_and_memory_stay_flat():
    inputs = (
        BIG,
        [[1, 2, 3], [4, 5, 6]],
        "not numbers",
        [[1, 2], [3]],
        [1, 2.5, True, Number(), np.float32(3), 4j],
        vpkg.double([[1, 2, 3], [4, 5, 6]]),
        [BIG[::2, ::-3], np.arange(12, dtype=">i4").reshape(3, 4), memoryview(b"abcdef"), np.array(True),
         np.arange(6, dtype=np.complex64), vpkg.int16([[1, 2]], is_complex=True)],
    )
    watched = [BIG, *inputs[1:5], inputs[5], *inputs[6], vpkg.double, np.float64]

    exercise(inputs)
    gc.collect()
    refs = [sys.getrefcount(v) for v in watched]
    tracemalloc.start()
    rss = rss_kib()
    before = tracemalloc.take_snapshot()
    for _ in range(200):
        exercise(inputs)
    gc.collect()
    after = tracemalloc.take_snapshot()
    growth_kib = rss_kib() - rss
    tracemalloc.stop()

    assert [sys.getrefcount(v) for v in watched] == refs
    python_growth = sum(s.size_diff for s in after.compare_to(before, "filename"))
    assert python_growth < 64 * 1024, f"Python allocations grew by {python_growth} bytes"
    # 200 rounds of the 400 kB array alone would leak more than 80 MB.
    assert growth_kib < 8 * 1024, f"RSS grew by {growth_kib} KiB"


def test_views_release_their_owner():
    x = vpkg.double([[1, 2], [3, 4]])
    before = sys.getrefcount(x)
    views = [x[0], x[:, 1], x[::-1][0]]
    assert sys.getrefcount(x) == before + len(views)
    del views
    assert sys.getrefcount(x) == before


@pytest.mark.parametrize("make", [lambda: np.asarray(vpkg.double([[1.0, 2.0]])),
                                  lambda: memoryview(vpkg.int8([[1, 2]])[0])],
                         ids=["numpy", "memoryview-of-view"])
def test_exported_buffers_keep_their_array_alive(make):
    view = make()
    gc.collect()
    assert np.asarray(view).tolist() in ([[1.0, 2.0]], [1, 2])
