"""The capsule of veltramultidimarrayforpython and the buffer export of its arrays.

The capsule is driven through the module's private hooks: _capi_roundtrip runs entry 2 (buffer handle),
entry 1 (the reordering copy) and entry 3, then entry 0 (wrap) -- or, for a typed array, entries 1 and 0 --
the way py_pb uses them when a value goes into a message and an array comes back.
"""

import array
import ctypes
import math

import numpy as np
import pytest

import veltramultidimarrayforpython as vpkg
from conftest import (CELL, CHAR, COMPLEX_DOUBLE, COMPLEX_OFFSET, COMPLEX_SINGLE, DOUBLE, INT8, INT16, INT32, INT64,
                      LOGICAL, SINGLE, SPARSE_DOUBLE, STRUCT, UINT8, UINT16, UINT32, UINT64)
from numpy_layouts import engine_shape, make

DTYPES = {  # numpy dtype -> (ArrayType, package type)
    np.dtype(np.float64): (DOUBLE, vpkg.double),
    np.dtype(np.float32): (SINGLE, vpkg.single),
    np.dtype(np.int8): (INT8, vpkg.int8),
    np.dtype(np.uint8): (UINT8, vpkg.uint8),
    np.dtype(np.int16): (INT16, vpkg.int16),
    np.dtype(np.uint16): (UINT16, vpkg.uint16),
    np.dtype(np.int32): (INT32, vpkg.int32),
    np.dtype(np.uint32): (UINT32, vpkg.uint32),
    np.dtype(np.int64): (INT64, vpkg.int64),
    np.dtype(np.uint64): (UINT64, vpkg.uint64),
    np.dtype(np.bool_): (LOGICAL, vpkg.logical),
    np.dtype(np.complex128): (COMPLEX_DOUBLE, vpkg.double),
    np.dtype(np.complex64): (COMPLEX_SINGLE, vpkg.single),
}

SHAPES = [(), (1,), (5,), (0,), (1, 1), (2, 3), (3, 1), (0, 3), (2, 3, 4), (3, 1, 2)]


# ---------------------------------------------------------------------------------------------------------
# Through the capsule and back, element by element: every dtype in every order and layout in one shape (C order
# takes the tiled transposing copy, F order the straight runs), and every shape in one dtype. The copy depends
# on the element size, the byte swap and the path, never on the shape and the dtype together.


def _matrix():
    for dtype, shapes in [(d, [(2, 3, 4)]) for d in DTYPES] + [(np.dtype(np.complex64), SHAPES)]:
        for shape in shapes:
            for order in "CF":
                for layout in ["contiguous", "strided", "swapped"]:
                    if not (layout == "swapped" and dtype.itemsize == 1):  # one-byte elements have no byte order
                        yield pytest.param(dtype, shape, order, layout,
                                           id=f"{dtype}-{'x'.join(map(str, shape)) or '0d'}-{order}-{layout}")


MATRIX = list(_matrix())


@pytest.mark.parametrize("dtype,shape,order,layout", MATRIX)
def test_buffer_roundtrip_through_the_capsule(dtype, shape, order, layout):
    a, values = make(dtype, shape, order, layout)
    kind, cls = DTYPES[dtype]
    assert vpkg._capi_acquire(a) == kind
    assert vpkg._capi_is_buffer(a)

    x = vpkg._capi_roundtrip(a)
    assert type(x) is cls
    assert x._is_complex == (dtype.kind == "c")
    assert x.size == engine_shape(shape)
    got = np.asarray(x)
    assert got.shape == x.size and got.dtype == dtype and got.flags.f_contiguous
    np.testing.assert_array_equal(got, values.reshape(x.size))
    # Element by element against numpy's own reading of the source, in column-major order.
    flat = values.reshape(-1, order="F").tolist()
    assert np.asarray(x).reshape(-1, order="F").tolist() == flat
    if flat:
        assert x[(0,) * len(x.size)] == flat[0]


@pytest.mark.parametrize("dtype", [np.dtype(np.complex64), np.dtype(np.bool_)], ids=str)
def test_package_roundtrip_shares_storage(dtype):
    a, values = make(dtype, (2, 3), "C", "contiguous")
    x = getattr(vpkg, DTYPES[dtype][1].__name__)(a)
    y = vpkg._capi_roundtrip(x)  # entry 1 hands out x's own storage, entry 0 wraps it
    assert type(y) is type(x) and y._is_complex == x._is_complex and y == x
    assert vpkg._holds(x) == 2
    y[0, 0] = y[1, 2]  # copy-on-write: the write detaches y
    assert vpkg._holds(x) == 1
    np.testing.assert_array_equal(np.asarray(x), values)


@pytest.mark.parametrize(
    "source,kind,expected",
    [
        (vpkg.int16([[1, -2], [3, 4]]), DOUBLE, [[1.0, -2.0], [3.0, 4.0]]),
        (vpkg.double([[1.0, 2.0]]), INT8, [[1, 2]]),
        (vpkg.double([[1.0, 0.0]]), LOGICAL, [[True, False]]),
        (vpkg.int8([[1, 2]]), COMPLEX_DOUBLE, [[1 + 0j, 2 + 0j]]),
        (vpkg.double([[1 + 2j]]), COMPLEX_SINGLE, [[1 + 2j]]),
        (vpkg.double([[1, 2], [3, 4]])[:, 1], INT32, [[2, 4]]),
        (np.arange(3, dtype=np.int64), UINT8, [[0, 1, 2]]),
    ],
    ids=["int16-double", "double-int8", "double-logical", "int8-complex", "complex-single", "view-int32",
         "buffer-uint8"],
)
def test_entry_1_converts_to_the_requested_type(source, kind, expected):
    y = vpkg._capi_roundtrip(source, kind)
    assert y.tolist() == expected
    assert y._is_complex == (kind >= COMPLEX_DOUBLE)


@pytest.mark.parametrize(
    "source,kind,exc,text",
    [
        (vpkg.double([[1.5]]), INT8, ValueError, "value 1.5 at index (0, 0) is not a whole number and cannot be stored in int8"),
        (vpkg.int16([[1, 300]]), UINT8, ValueError, "value 300 at index (0, 1) is out of range for uint8"),
        (vpkg.double([[1j]]), DOUBLE, TypeError, "value 1j at index (0, 0) is complex and cannot be stored in a real double array"),
        (np.array([1.0, float("nan")]), INT64, ValueError,
         "value nan at index (1,) is not a whole number and cannot be stored in int64"),
        (vpkg.double([[1.0]]), CELL, TypeError, "array type 24 is not a numeric or logical type"),
    ],
    ids=["not-whole", "range", "complex", "nan", "cell"],
)
def test_entry_1_conversion_errors(source, kind, exc, text):
    with pytest.raises(exc) as info:
        vpkg._capi_roundtrip(source, kind)
    assert str(info.value) == text


EXPORTS = {"double": ("d", DOUBLE), "single": ("f", SINGLE), "int8": ("b", INT8), "uint8": ("B", UINT8),
           "int16": ("h", INT16), "uint16": ("H", UINT16), "int32": ("i", INT32), "uint32": ("I", UINT32),
           "int64": ("q", INT64), "uint64": ("Q", UINT64), "logical": ("?", LOGICAL)}  # buffer format, kind
REAL_AND_COMPLEX = [(n, c) for n in EXPORTS for c in (False, True) if not (c and n == "logical")]


def _ids(v):
    return v if isinstance(v, str) else ("complex" if v else "real")


@pytest.mark.parametrize("name,complex_", REAL_AND_COMPLEX, ids=_ids)
def test_entry_0_wraps_every_numeric_kind(name, complex_):
    x = vpkg._capi_wrap_new(EXPORTS[name][1] + (COMPLEX_OFFSET if complex_ else 0), (2, 3))
    assert type(x) is getattr(vpkg, name) and x._is_complex == complex_ and x.size == (2, 3)
    assert vpkg._holds(x) == 1  # the wrapper adopted the one hold it was given
    assert not any(np.asarray(x).tobytes())


@pytest.mark.parametrize("kind,name", [(CHAR, "CHAR"), (CELL, "CELL"), (STRUCT, "STRUCT"), (SPARSE_DOUBLE, "SPARSE_30"),
                                       (3, "VELTRA_STRING")])
def test_entry_0_refuses_other_kinds(kind, name):
    with pytest.raises(TypeError) as info:
        vpkg._capi_wrap_new(kind, (1, 2))
    assert str(info.value) == f"an array of type {name} ({kind}) cannot be held by a typed array"


@pytest.mark.parametrize(
    "obj,kind",
    [
        (b"abc", UINT8),
        (bytearray(3), UINT8),
        (array.array("b", [1]), INT8),
        (array.array("H", [1]), UINT16),
        (array.array("i", [1]), INT32),
        (array.array("l", [1]), INT64 if ctypes.sizeof(ctypes.c_long) == 8 else INT32),
        (array.array("Q", [1]), UINT64),
        (array.array("f", [1]), SINGLE),
        (array.array("d", [1]), DOUBLE),
        (memoryview(np.zeros(2, ">u4")), UINT32),
        (memoryview(bytes(8)).cast("?"), LOGICAL),
        (memoryview(bytes(16)).cast("n"), INT64 if ctypes.sizeof(ctypes.c_size_t) == 8 else INT32),
        ((ctypes.c_int16 * 3)(1, -2, 3), INT16),
        (np.array([(1, 300), (-2, 4)], [("real", ">i4"), ("imag", ">i4")]), INT32 + COMPLEX_OFFSET),
    ],
    ids=["bytes", "bytearray", "b", "H", "i", "l", "Q", "f", "d", "big-endian-u4", "?", "n", "ctypes",
         "swapped-complex-int32"],
)
def test_entry_2_reports_the_kind_of_other_buffers(obj, kind):
    # The package's own types: test_export_formats_and_zero_copy.
    assert vpkg._capi_acquire(obj) == kind
    x = vpkg._capi_roundtrip(obj)
    if isinstance(obj, np.ndarray):  # complex integers as numpy spells them: a (real, imag) record
        want = [complex(int(r), int(i)) for r, i in zip(obj["real"], obj["imag"])]
    else:
        want = np.asarray(memoryview(obj)).tolist()
    assert x.tolist() == [want]


@pytest.mark.parametrize(
    "obj,text",
    [
        (np.zeros(2, np.float16), "unsupported buffer format 'e' (16-bit float)"),
        (np.zeros(2, object), "unsupported buffer format 'O' (Python object)"),
        (np.zeros(2, "U3"), "unsupported buffer format '3w' (text)"),
        (np.zeros(2, "S3"), "unsupported buffer format '3s' (bytes)"),
        (np.zeros(2, np.longdouble), "unsupported buffer format 'g' (long double)"),
        (np.zeros(2, np.clongdouble), "unsupported buffer format 'Zg' (complex long double)"),
        (np.zeros(2, [("a", "<i4"), ("b", "<f8")]), "unsupported buffer format '{}' (structured)"),
        (np.zeros(2, [("real", "<i4"), ("imag", "<i2")]), "unsupported buffer format '{}' (structured)"),
        (np.zeros(2, [("real", "<f4"), ("imag", "<f4")]), "unsupported buffer format '{}' (structured)"),
        # numpy's own refusal, as a TypeError naming the object
        (np.zeros(2, "M8[s]"), "cannot read an object of type numpy.ndarray as a buffer: cannot include dtype 'M' in a buffer"),
        (memoryview(bytes(8)).cast("c"), "unsupported buffer format 'c' (bytes)"),
        (memoryview(bytes(8)).cast("P"), "unsupported buffer format 'P' (pointer)"),
        (1.5, "a bytes-like object is required, not 'float'"),
    ],
    ids=["float16", "object", "unicode", "bytes", "longdouble", "clongdouble", "structured", "mixed-complex",
         "float-pair", "datetime", "char", "pointer", "not-a-buffer"],
)
def test_entry_2_refuses_formats_with_a_type_error_naming_them(obj, text):
    assert vpkg._capi_is_buffer(obj) == (not isinstance(obj, float))
    if "{}" in text:  # numpy's spelling of a structured format
        text = text.format(memoryview(obj).format)
    with pytest.raises(TypeError) as info:
        vpkg._capi_acquire(obj)
    assert str(info.value) == text


def test_entry_2_refuses_indirect_buffers():
    testbuffer = pytest.importorskip("_testbuffer")
    indirect = testbuffer.ndarray(list(range(6)), shape=[2, 3], format="i", flags=testbuffer.ND_PIL)
    with pytest.raises(TypeError) as info:  # asked for no suboffsets, the exporter refuses
        vpkg._capi_acquire(indirect)
    assert str(info.value) == ("cannot read an object of type ndarray as a buffer: "
                               "ndarray cannot be represented without suboffsets")


@pytest.mark.parametrize("obj,name", [([1.0], "list"), (np.zeros(2), "numpy.ndarray"), (memoryview(b"a"), "memoryview")])
def test_entry_1_takes_only_typed_arrays_and_buffer_handles(obj, name):
    with pytest.raises(TypeError) as info:
        vpkg._capi_get(obj, DOUBLE)
    assert str(info.value) == f"an object of type {name} is neither a typed array nor a buffer handle"


def test_buffer_handles_cannot_be_made_from_python():
    with pytest.raises(TypeError):
        vpkg._BufferHandle()


# ---------------------------------------------------------------------------------------------------------
# Buffer export of package arrays


@pytest.mark.parametrize("name,complex_", REAL_AND_COMPLEX, ids=_ids)
def test_export_formats_and_zero_copy(name, complex_):
    x = getattr(vpkg, name)([[0, 1, 1], [1, 0, 1]], is_complex=complex_)
    m = memoryview(x)
    assert m.shape == (2, 3) and m.f_contiguous and not m.readonly
    code, kind = EXPORTS[name]
    if complex_:
        assert m.format == ("Z" + code if code in "df" else "T{%s:real:%s:imag:}" % (code, code))
    else:
        assert m.format == code
    a, b = np.asarray(x), np.asarray(x)
    assert a.shape == x.size and a.flags.f_contiguous and not a.flags.owndata
    assert np.shares_memory(a, b)
    assert vpkg._capi_acquire(x) == kind + (COMPLEX_OFFSET if complex_ else 0)


def test_views_export_strided_buffers():
    x = vpkg.int32(np.arange(12).reshape(3, 4))
    col = x[:, 1]
    a = np.asarray(col)
    assert a.tolist() == [1, 5, 9] and np.shares_memory(a, np.asarray(x))
    rev = np.asarray(x[::-1, ::2])
    np.testing.assert_array_equal(rev, np.arange(12).reshape(3, 4)[::-1, ::2])
    with pytest.raises(BufferError, match="^the array is not contiguous$"):
        array.array("i").frombytes(x[:, ::2])  # a plain byte request needs contiguous data
    assert bytes(x[:, 1]) == np.array([1, 5, 9], dtype=np.int32).tobytes()


def test_contiguity_requests():
    x = vpkg.double([[1, 2, 3], [4, 5, 6]])
    assert bytes(x) == np.array([[1, 2, 3], [4, 5, 6]], dtype=float).tobytes()  # bytes() reads in C order
    raw = array.array("d")
    raw.frombytes(x)  # a plain byte request: the column-major bytes as they are
    assert raw.tolist() == [1, 4, 2, 5, 3, 6]
    assert memoryview(vpkg.double([1, 2, 3])).cast("B").nbytes == 24  # 1-by-N is C-contiguous as well
    assert np.asarray(vpkg.double(size=(0, 3))).shape == (0, 3)


def test_export_detaches_shared_storage_and_pins_it():
    x = vpkg.double([[1, 2], [3, 4]])
    y = vpkg.double(x)  # shares x's storage
    assert vpkg._holds(x) == 2
    a = np.asarray(x)  # export: x takes storage of its own first
    assert vpkg._holds(x) == 1 and vpkg._holds(y) == 1
    a[0, 0] = 100
    assert y[0][0] == 1.0 and x[0][0] == 100.0
    # While exported, nothing shares the storage: copies are real copies, entry 1 copies too.
    z = vpkg.double(x)
    w = vpkg._capi_roundtrip(x)
    assert vpkg._holds(x) == 1 and vpkg._holds(z) == 1 and vpkg._holds(w) == 1
    a[1, 1] = -4
    assert z[1][1] == 4.0 and w[1][1] == 4.0
    x[1, 0] = 30  # writes, also through a view and to a region, land where the export looks
    x[0][1] = 20
    x[1, 1:] = [-40]
    assert a.tolist() == [[100, 20], [30, -40]]
    del a
    v = vpkg.double(x)  # sharing again once the export ended
    assert vpkg._holds(x) == 2 and v == x


def test_export_of_a_view_pins_its_owner():
    x = vpkg.double([[1, 2], [3, 4]])
    y = vpkg.double(x)
    col = np.asarray(x[:, 1])
    assert vpkg._holds(x) == 1
    x[0, 1] = 20
    assert col.tolist() == [20, 4] and y[0][1] == 2.0


def test_capsule_results_are_not_tied_to_the_source():
    a = np.arange(6.0).reshape(2, 3)
    x = vpkg._capi_roundtrip(a)
    a[0, 0] = 99
    assert x[0][0] == 0.0
    del a
    assert x.tolist() == [[0, 1, 2], [3, 4, 5]]


def test_large_dimensions_are_refused_before_allocating():
    big = np.lib.stride_tricks.as_strided(np.zeros(1, np.uint8), shape=(1 << 31, 1 << 31), strides=(0, 0))
    with pytest.raises(MemoryError):
        vpkg._capi_roundtrip(big)
    with pytest.raises(MemoryError):
        vpkg.uint8(big)


def test_broadcast_sources_are_copied_element_by_element():
    row = np.broadcast_to(np.arange(4.0), (3, 4))
    x = vpkg._capi_roundtrip(row)
    assert x.tolist() == [[0, 1, 2, 3]] * 3


def test_logical_buffers_normalise_bytes():
    raw = np.frombuffer(bytes([0, 1, 2, 255]), dtype=np.bool_)
    x = vpkg._capi_roundtrip(raw)
    assert x.tolist() == [[False, True, True, True]]
    assert np.asarray(x).view(np.uint8).tolist() == [[0, 1, 1, 1]]


# ---------------------------------------------------------------------------------------------------------
# The reordering copy beyond small shapes: tile edges, every element size, odd stride patterns


# One dtype for each element size, component size and byte order the copy has a path for.
@pytest.mark.parametrize("dtype", ["i1", "?", "<i2", ">i2", "<f4", ">f4", ">f8", "<c8", ">c8", "<c16", ">c16",
                                   np.dtype([("real", ">i2"), ("imag", ">i2")])], ids=str)
@pytest.mark.parametrize(
    "make_view",
    [
        lambda a: a,  # C order: the transposing path
        lambda a: a.T,  # Fortran order: straight runs
        lambda a: a[::-1, ::3],
        lambda a: a[5:, 1::2].T[::-1],
        lambda a: a.reshape(a.shape[0], -1, 5)[:, ::2].transpose(2, 0, 1),
        lambda a: np.moveaxis(a.reshape(a.shape[0], -1, 5), 0, 1),
    ],
    ids=["C", "F", "reversed-stepped", "transposed-slice", "3d-permuted", "3d-moved"],
)
def test_reordering_copy_across_tile_edges(dtype, make_view):
    base = (np.arange(67 * 130) * 7919 % 2003).reshape(67, 130)
    source = np.empty(base.shape, dtype)
    if source.dtype.names:  # complex integers as numpy spells them: a (real, imag) record
        source["real"], source["imag"] = base, -base
    else:
        source[...] = base + 1j * (base - 1000) if source.dtype.kind == "c" else base  # real and imag apart
    a = make_view(source)
    x = vpkg._capi_roundtrip(a)
    assert x.size == a.shape
    got = np.asarray(x)
    want = a.astype(np.dtype(dtype).newbyteorder("="))
    assert got.dtype == want.dtype
    np.testing.assert_array_equal(got, want)


try:
    from hypothesis import given, settings, strategies as st
    from hypothesis.extra import numpy as hnp
except ImportError:  # pragma: no cover
    given = None


if given is not None:

    @st.composite
    def strided_arrays(draw):
        dtype = draw(st.sampled_from(list(DTYPES)))
        if dtype.itemsize > 1 and draw(st.booleans()):
            dtype = dtype.newbyteorder()
        shape = draw(hnp.array_shapes(min_dims=0, max_dims=4, min_side=0, max_side=6))
        order = draw(st.sampled_from("CF"))
        a = np.array(draw(hnp.arrays(dtype.newbyteorder("="), shape)), dtype=dtype, order=order)
        key = tuple(draw(st.slices(n)) for n in shape)
        return a[key] if shape else a

    @settings(max_examples=300, deadline=None)
    @given(strided_arrays())
    def test_any_strided_array_roundtrips(a):
        x = vpkg._capi_roundtrip(a)
        assert x.size == engine_shape(a.shape)
        np.testing.assert_array_equal(np.asarray(x), a.reshape(x.size))

    @settings(max_examples=300, deadline=None)
    @given(st.data())
    def test_indexing_agrees_with_numpy(data):
        shape = data.draw(hnp.array_shapes(min_dims=2, max_dims=4, min_side=0, max_side=5))
        values = np.arange(math.prod(shape), dtype=np.int32).reshape(shape)
        x = vpkg.int32(values)
        key = data.draw(hnp.basic_indices(shape, min_dims=0, allow_newaxis=False, allow_ellipsis=False))
        got, want = x[key], values[key]
        if isinstance(got, int):
            assert np.ndim(want) == 0 and got == want
        else:
            assert got.size == want.shape
            np.testing.assert_array_equal(np.asarray(got), want)
            assert got.tolist() == want.tolist()
            # Writing through the view lands where numpy's view of the same region points.
            fresh = vpkg.int32(values)
            fresh[key] = -1
            expect = values.copy()
            expect[key] = -1
            np.testing.assert_array_equal(np.asarray(fresh), expect)
