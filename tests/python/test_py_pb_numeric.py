"""Numeric arrays through py_pb: numpy arrays, other buffer objects and the veltra.* package types, into a
parameters message, back through a loopback result and out again."""

import array
import ctypes
import gc
import hashlib
import math
import sys

import numpy as np
import pytest

import py_pb
import veltra
from veltra.loopback import loopback
from veltra.wire import messages

from conftest import (COMPLEX_OFFSET, DOUBLE, INT8, INT16, INT32, INT64, LOGICAL, SINGLE, UINT8, UINT16, UINT32, UINT64,
                      rss_kib)
from numpy_layouts import engine_shape, make, sample
from py_pb_peer import decode

DTYPE_KIND = {
    np.dtype(np.float64): DOUBLE,
    np.dtype(np.float32): SINGLE,
    np.dtype(np.int8): INT8,
    np.dtype(np.uint8): UINT8,
    np.dtype(np.int16): INT16,
    np.dtype(np.uint16): UINT16,
    np.dtype(np.int32): INT32,
    np.dtype(np.uint32): UINT32,
    np.dtype(np.int64): INT64,
    np.dtype(np.uint64): UINT64,
    np.dtype(np.bool_): LOGICAL,
    np.dtype(np.complex128): DOUBLE + COMPLEX_OFFSET,
    np.dtype(np.complex64): SINGLE + COMPLEX_OFFSET,
}
DTYPES = list(DTYPE_KIND)


def sent_arrays(params_bytes):
    """The VELTRA_Array messages of a parameters message, decoded by the protobuf peer."""
    params = messages().VELTRA_Params()
    params.ParseFromString(params_bytes)
    return list(params.rhs)


def roundtrip(*values):
    """values -> parameters -> loopback result -> Python; returns (outputs, sent VELTRA_Array messages)."""
    params = py_pb.py_to_serialized_str(tuple(values))
    out = py_pb.serialized_str_to_py(loopback(params))
    assert isinstance(out, list) and len(out) == len(values)
    return out, sent_arrays(params)


SHAPES = [(), (1,), (5,), (0,), (1, 1), (2, 3), (3, 1), (2, 3, 4), (3, 1, 2)]


def assert_matches(out, expected_values):
    """The Python value that came back equals `expected_values` (a numpy array in input order)."""
    n = expected_values.size
    if n == 0:
        # The outputs are a cell, and an empty cell element comes back as an empty list, whatever its kind.
        assert out == [] and type(out) is list
        return
    if n == 1:
        # One element comes back as a Python scalar of the matching kind.
        want = expected_values.reshape(-1)[0].item()
        assert type(out) is type(want) and out == want, (out, want)
        return
    got = np.asarray(out)
    assert got.shape == engine_shape(expected_values.shape)
    assert got.dtype == expected_values.dtype.newbyteorder("=")
    np.testing.assert_array_equal(got, expected_values.reshape(got.shape))


# ---------------------------------------------------------------------------------------------------------
# numpy arrays. py_pb hands every numeric dtype, order and layout to the capsule alike (its copy is tested per
# dtype, order and layout in test_arraypkg_capi.py); what depends on the dtype here is the kind written, the
# payload and the Python value read back, and on the shape the dims and the one-element and empty outputs.


@pytest.mark.parametrize("dtype", DTYPES, ids=str)
def test_numpy_dtypes_roundtrip_with_a_column_major_little_endian_payload(dtype):
    a = sample(dtype, 6).reshape(2, 3)  # with the type's extremes
    one = sample(dtype, 1).reshape(())
    (out, out_one), (sent, sent_one) = roundtrip(a, one)
    assert sent.type == sent_one.type == DTYPE_KIND[dtype]
    assert (tuple(sent.dims), tuple(sent_one.dims)) == ((2, 3), (1, 1))
    wire_dtype = (np.dtype(np.uint8) if dtype == np.bool_ else dtype).newbyteorder("<")
    payload = np.frombuffer(sent.data, dtype=wire_dtype)
    np.testing.assert_array_equal(payload, a.reshape(-1, order="F").astype(wire_dtype))
    assert_matches(out, a)
    assert_matches(out_one, one)


@pytest.mark.parametrize("shape", SHAPES, ids=lambda s: "x".join(map(str, s)) or "0d")
def test_numpy_shapes_roundtrip(shape):
    a, values = make(np.int16, shape, "F", "strided")
    (out,), (sent,) = roundtrip(a)
    assert sent.type == INT16
    assert tuple(sent.dims) == engine_shape(shape)
    assert_matches(out, values)


def test_numpy_special_float_values_survive():
    a = np.array([[np.nan, np.inf], [-np.inf, -0.0]])
    (out,), _ = roundtrip(a)
    got = np.asarray(out)
    assert np.isnan(got[0, 0]) and got[0, 1] == np.inf and got[1, 0] == -np.inf
    assert got[1, 1] == 0.0 and math.copysign(1.0, got[1, 1]) == -1.0


def test_numpy_readonly_and_noncontiguous_views():
    base = np.arange(24, dtype=np.float64).reshape(4, 6)
    base.flags.writeable = False
    views = [base, base.T, base[1:3, ::-2], base[:, 2], np.broadcast_to(np.arange(3.0), (4, 3))]
    outs, sent = roundtrip(*views)
    for view, out, msg in zip(views, outs, sent):
        assert tuple(msg.dims) == engine_shape(view.shape)
        assert_matches(out, view)


# Large buffers are not copied while converting: their elements go once, from the source memory, into the
# message (reordered to column-major on the way). Every layout must give the payload a copy would.
@pytest.mark.parametrize("layout", ["contiguous", "strided", "swapped"])
@pytest.mark.parametrize("order", ["C", "F"])
@pytest.mark.parametrize("dtype", [np.float64, np.int8, np.complex64, np.bool_], ids=str)
def test_large_numpy_arrays_are_written_from_their_own_memory(dtype, order, layout):
    a, values = make(dtype, (70, 33, 9), order, layout)  # 20,790 elements: over the borrowing threshold
    sent = sent_arrays(py_pb.py_to_serialized_str((a, a[:, 1, :])))
    wire_dtype = np.dtype(np.uint8 if dtype == np.bool_ else dtype).newbyteorder("<")
    for msg, v in zip(sent, [values, values[:, 1, :]]):
        assert msg.type == DTYPE_KIND[np.dtype(dtype)] and tuple(msg.dims) == v.shape
        np.testing.assert_array_equal(np.frombuffer(msg.data, wire_dtype), v.reshape(-1, order="F").astype(wire_dtype))


# Digests of messages written before any of the ways large and small values take today existed: how values
# move may change, the bytes may not.
PINNED = {
    "C-ordered": ("dcb129d55f7b8c06", lambda: (np.arange(120_000.0).reshape(300, 400),)),
    "F-ordered int16": ("3d34d30d9b87f9f1", lambda: (np.asfortranarray(np.arange(120_000).reshape(400, 300).astype(np.int16)),)),
    "plain values": ("90d82a0d2c65ec97", lambda: ([i if i % 3 == 0 else i * 0.5 if i % 3 == 1 else f"s{i}" for i in range(30_000)],
                                  {"a": [True, (), {"b": "x" * 300}]})),
}


@pytest.mark.parametrize("case", PINNED)
def test_large_messages_stay_byte_identical(case):
    digest, args = PINNED[case]
    assert hashlib.sha256(py_pb.py_to_serialized_str(args())).hexdigest()[:16] == digest


def test_nothing_returned_shares_memory_with_the_call_that_made_it():
    a = np.arange(120_000.0).reshape(300, 400)  # borrowed while the call writes it
    data = py_pb.py_to_serialized_str((a,))
    written = bytes(data)
    a[:] = -1
    assert data == written
    result = bytearray(loopback(written))  # read in place while the call reads it
    out = np.asarray(py_pb.serialized_str_to_py(result)[0])
    result[:] = bytes(len(result))
    np.testing.assert_array_equal(out, np.arange(120_000.0).reshape(300, 400))


# From 8 MiB on the reordering copy streams whole lines into the message, which may start anywhere: every
# element size, an odd shape, rows running backwards from a start off any line.
@pytest.mark.parametrize("dtype", [np.int8, np.int16, np.float32, np.float64, np.complex128], ids=str)
def test_reordering_copies_of_8_mib_and_more(dtype):
    rows = 1027
    cols = (8 << 20) // (rows * np.dtype(dtype).itemsize) + 5
    base = (np.arange(rows * (cols + 1)) % 251).astype(dtype).reshape(rows, cols + 1)
    a = base[::-1, 1:]
    (sent,) = sent_arrays(py_pb.py_to_serialized_str((a,)))
    assert tuple(sent.dims) == a.shape
    assert sent.data == a.tobytes(order="F")


def test_a_borrowed_buffer_is_released_on_success_and_on_failure():
    ba = bytearray(64 * 1024)
    mv = memoryview(ba).cast("d")
    assert py_pb.py_to_serialized_str((mv,))
    with pytest.raises(TypeError, match="passing 'None'"):
        py_pb.py_to_serialized_str((mv, [None]))  # fails after the buffer was taken
    mv.release()
    ba.extend(bytes(8))  # raises BufferError while any export is held


# ---------------------------------------------------------------------------------------------------------
# other buffer objects: one of each exporter (their formats: test_arraypkg_capi.py)


BUFFERS = [
    ("memoryview-2d", memoryview(np.arange(12.0).reshape(3, 4)), np.arange(12.0).reshape(3, 4)),
    ("memoryview-0d", memoryview(np.array(2.5)), np.array(2.5)),
    ("memoryview-swapped", memoryview(np.array([1, 2, 3], dtype=">i4")), np.array([1, 2, 3], np.int32)),
    ("array.array-Q", array.array("Q", [0, 2**64 - 1]), np.array([0, 2**64 - 1], dtype=np.uint64)),
    ("ctypes-2d-int64", ((ctypes.c_int64 * 2) * 2)((1, 2), (3, 4)), np.array([[1, 2], [3, 4]], np.int64)),
]


@pytest.mark.parametrize("name,obj,expected", BUFFERS, ids=[b[0] for b in BUFFERS])
def test_buffer_objects_roundtrip(name, obj, expected):
    (out,), (sent,) = roundtrip(obj)
    assert sent.type == DTYPE_KIND[expected.dtype.newbyteorder("=")]
    assert tuple(sent.dims) == engine_shape(expected.shape)
    assert_matches(out, expected)


def test_buffer_is_released_on_success_and_on_failure():
    # Success: the exporter can be resized afterwards (a held export would raise BufferError).
    ba = bytearray(16)
    mv = memoryview(ba).cast("d")
    roundtrip(mv)
    mv.release()
    ba.extend(bytes(8))

    # Refused by entry 2 (format 'c'): nothing is held either.
    ba = bytearray(16)
    mv = memoryview(ba).cast("c")
    with pytest.raises(TypeError, match="^unsupported buffer format 'c'"):
        py_pb.py_to_serialized_str((mv,))
    mv.release()
    ba.extend(bytes(8))

    # Acquired, then refused before the copy (8 TiB claimed by a broadcast view): the handle is still given back.
    huge = np.broadcast_to(np.zeros(1), (1 << 40,))
    refs = sys.getrefcount(huge)
    with pytest.raises(ValueError, match="^the arguments need at least 8796093022208 bytes"):
        py_pb.py_to_serialized_str((huge,))
    assert sys.getrefcount(huge) == refs


# ---------------------------------------------------------------------------------------------------------
# formats the capsule cannot carry, and the time kinds


@pytest.mark.parametrize(
    "value,text",
    [
        # Every dtype kind but time and text goes to the capsule, and object arrays of anything but text.
        (np.array([1, "a"], dtype=object), "unsupported buffer format 'O' (Python object)"),
        (memoryview(np.array([1.0, 2.0], dtype=np.float16)), "unsupported buffer format 'e' (16-bit float)"),
    ],
    ids=["numpy-object", "memoryview-float16"],
)
def test_unsupported_formats_raise_the_capsule_type_error(value, text):
    # Entry 2's own TypeError reaches the caller (the formats it refuses: test_arraypkg_capi.py).
    with pytest.raises(TypeError) as info:
        py_pb.py_to_serialized_str((value,))
    assert str(info.value) == text


# ---------------------------------------------------------------------------------------------------------
# the numpy converter's attribute reading, with objects that only claim to be numpy arrays


def _fake_ndarray(**attrs):
    return type("ndarray", (), {"__module__": "numpy", **attrs})()


class _Kind:
    def __init__(self, kind):
        self.kind = kind


class _NoKind:
    pass


def _raising_property(exc):
    def get(self):
        raise exc

    return property(get)


@pytest.mark.parametrize(
    "fake,exc,text",
    [
        (_fake_ndarray(), AttributeError, "unable to retrieve attribute 'dtype'"),
        (_fake_ndarray(dtype=_NoKind()), AttributeError, "unable to retrieve attribute 'kind'"),
        (_fake_ndarray(dtype=_Kind(5)), AttributeError,
         "unable to retrieve attribute 'Unable to retrieve kind from string"),
        (_fake_ndarray(dtype=_Kind("")), AttributeError,
         "unable to retrieve attribute 'Unable to retrieve kind from string"),
        (_fake_ndarray(dtype=_raising_property(RuntimeError("dtype exploded"))), RuntimeError, "dtype exploded"),
        (_fake_ndarray(dtype=_Kind("M")), TypeError, "conversion of Python data type 'numpy.ndarray' to VELTRA not supported"),
        (_fake_ndarray(dtype=_Kind("m")), TypeError, "conversion of Python data type 'numpy.ndarray' to VELTRA not supported"),
        # Kind "f" sends it to the capsule, which finds no buffer: its own error stands.
        (_fake_ndarray(dtype=_Kind("f")), TypeError, "a bytes-like object is required, not 'ndarray'"),
    ],
    ids=["no-dtype", "no-kind", "kind-not-text", "kind-empty", "dtype-raises", "kind-M", "kind-m", "kind-f"],
)
def test_fake_ndarray_attribute_errors(fake, exc, text):
    with pytest.raises(exc) as info:
        py_pb.py_to_serialized_str((fake,))
    assert str(info.value) == text


# ---------------------------------------------------------------------------------------------------------
# veltra.* package objects


VELTRA_TYPES = {"double": DOUBLE, "single": SINGLE, "int8": INT8, "uint8": UINT8, "int16": INT16, "uint16": UINT16,
                "int32": INT32, "uint32": UINT32, "int64": INT64, "uint64": UINT64, "logical": LOGICAL}


@pytest.mark.parametrize("name,complex_", [(n, c) for n in VELTRA_TYPES for c in (False, True)
                                           if not (c and n == "logical")],
                         ids=lambda v: v if isinstance(v, str) else ("complex" if v else "real"))
def test_veltra_arrays_roundtrip_with_a_column_major_payload(name, complex_):
    cls = getattr(veltra, name)
    data = [[1 + 2j, 3], [4j, 5]] if complex_ else [[1, 0, 1], [0, 1, 1]]
    x = cls(data)
    assert x._is_complex == complex_
    (out,), (sent,) = roundtrip(x)
    assert sent.type == VELTRA_TYPES[name] + (COMPLEX_OFFSET if complex_ else 0)
    assert tuple(sent.dims) == x.size
    (_, _, payload) = decode(sent)
    assert payload == np.array(x.tolist()).reshape(-1, order="F").tolist()
    assert type(out) is cls and out._is_complex == complex_ and out.size == x.size
    assert out.tolist() == x.tolist()


def test_veltra_one_element_and_empty():
    (one, empty), sent = roundtrip(veltra.int16([7]), veltra.double(size=(0, 3)))
    assert [m.type for m in sent] == [INT16, DOUBLE]
    assert one == 7 and type(one) is int
    assert empty == []  # an empty output element, whatever its kind
    assert tuple(sent[1].dims) == (0, 3)


PEER_ARRAYS = [  # (ArrayType, wire dtype, package type, numpy dtype of the view)
    (DOUBLE, "<f8", "double", "f8"),
    (INT16, "<i2", "int16", "i2"),
    (UINT64, "<u8", "uint64", "u8"),
    (LOGICAL, "u1", "logical", "?"),
    (SINGLE + COMPLEX_OFFSET, "<c8", "single", "c8"),
]


def test_results_built_by_the_peer_come_back_as_package_objects():
    result = messages().VELTRA_Result()
    for kind, wire, _, _ in PEER_ARRAYS:
        result.lhs.add(type=kind, dims=[3, 2], data=np.arange(6).astype(wire).tobytes())
    outs = py_pb.serialized_str_to_py(result.SerializeToString())
    assert len(outs) == len(PEER_ARRAYS)
    for out, (kind, _, name, view) in zip(outs, PEER_ARRAYS):
        assert type(out) is getattr(veltra, name)
        assert out._is_complex == (kind > UINT64)
        np.testing.assert_array_equal(np.asarray(out), np.arange(6).astype(view).reshape(3, 2, order="F"))


# Objects that claim a veltra.* name without being package objects.
def _fake_veltra(name, **attrs):
    return type(name, (), {"__module__": "veltra", **attrs})()


class _BadBool:
    def __bool__(self):
        raise ZeroDivisionError("no truth here")


@pytest.mark.parametrize(
    "fake,exc,text",
    [
        (_fake_veltra("double"), AttributeError, "unable to retrieve attribute '_is_complex'"),
        (_fake_veltra("double", _is_complex=True), TypeError, "capsule unable to retrieve object contents"),
        (_fake_veltra("int8", _is_complex=_BadBool()), ZeroDivisionError, "no truth here"),
        # logical never reads _is_complex, so the property that would raise is not touched
        (_fake_veltra("logical", _is_complex=_raising_property(KeyError("read"))), TypeError,
         "capsule unable to retrieve object contents"),
    ],
    ids=["double-no-attr", "double-not-package", "bad-truth", "logical-ignores"],
)
def test_fake_veltra_objects(fake, exc, text):
    with pytest.raises(exc) as info:
        py_pb.py_to_serialized_str((fake,))
    assert str(info.value) == text


# ---------------------------------------------------------------------------------------------------------
# reference counts and memory stay flat


def _exercise(inputs, failing):
    for value in inputs:
        roundtrip(value)
    for value, exc in failing:
        try:
            py_pb.py_to_serialized_str((value,))
        except exc:
            pass
        else:
            raise AssertionError(f"{value!r} converted")


def test_numeric_conversions_do_not_leak():
    big = np.arange(50_000, dtype=np.float64).reshape(250, 200)  # 400 kB: a leak of it shows in RSS
    inputs = [
        big,
        big.T[::2],
        np.array(["ab", "\U0001F600", "c", ""] * 1000), np.array([b"x", b"yz"]),
        np.array(["a", None, float("nan")], dtype=object),
        np.arange(12, dtype=">i4").reshape(3, 4),
        np.array(3.5),
        memoryview(np.arange(6.0)),
        array.array("h", [1, 2, 3]),
        veltra.double([[1.0, 2.0], [3.0, 4.0]]),
        veltra.int8([1, 2, 3], is_complex=True),
        veltra.logical([True, False]),
    ]
    failing = [
        (np.zeros(3, dtype=np.float16), TypeError),
        (np.array([1, "x"], dtype=object), TypeError),
        (np.array(["\ud800"]), UnicodeEncodeError),
        (np.array([b"\xff"]), UnicodeDecodeError),
        (memoryview(np.zeros(2, dtype=np.float16)), TypeError),
        (_fake_ndarray(), AttributeError),
        (_fake_ndarray(dtype=_Kind(5)), AttributeError),
        (_fake_veltra("double"), AttributeError),
        (_fake_veltra("double", _is_complex=False), TypeError),
    ]
    watched = inputs + [v for v, _ in failing]
    _exercise(inputs, failing)
    gc.collect()
    refs = [sys.getrefcount(v) for v in watched]
    rss = rss_kib()
    for _ in range(300):
        _exercise(inputs, failing)
    gc.collect()
    assert [sys.getrefcount(v) for v in watched] == refs
    growth = rss_kib() - rss
    # 300 rounds of the 400 kB array alone would leak over 100 MB.
    assert growth < 8 * 1024, f"RSS grew by {growth} KiB"
