"""Our wire layer against an independent peer: the Python protobuf runtime, with classes generated at test
time from envelope/proto/*.proto. The peer decodes the parameters our C++ writes and writes results our C++
reader accepts; the C++ side is the test tool tests/cpp/tools/wire_peer.cpp.
"""

import importlib
import json
import os
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

ROOT = Path(__file__).resolve().parents[2]
PROTO_DIR = ROOT / "envelope" / "proto"
# scripts/test.sh builds the C++ tests (and this tool) in build/cpp before it runs pytest.
PEER = Path(os.environ.get("VELTRA_WIRE_PEER", ROOT / "build" / "cpp" / "wire_peer"))

from conftest import (CELL, CHAR, DOUBLE, ENUM, HANDLE, LOGICAL, SINGLE, SPARSE_DOUBLE, SPARSE_LOGICAL, STRING, STRUCT,
                      VALUE_OBJECT)

# Kind number -> numpy dtype of one real part, and whether the kind is complex.
REAL_DTYPES = {
    LOGICAL: np.bool_, CHAR: np.uint16, DOUBLE: np.float64, SINGLE: np.float32, 6: np.int8, 7: np.uint8,
    8: np.int16, 9: np.uint16, 10: np.int32, 11: np.uint32, 12: np.int64, 13: np.uint64,
}
for _t in range(14, 24):
    REAL_DTYPES[_t] = REAL_DTYPES[_t - 10]
RAW_KINDS = [t for t in range(1, 24) if t != STRING]


@pytest.fixture(scope="module")
def pb(tmp_path_factory):
    protoc = pytest.importorskip("grpc_tools.protoc")
    out = tmp_path_factory.mktemp("pb2")
    protos = sorted(str(p) for p in PROTO_DIR.glob("*.proto"))
    assert protoc.main(["protoc", f"-I{PROTO_DIR}", f"--python_out={out}", *protos]) == 0
    sys.path.insert(0, str(out))
    try:
        array_pb2 = importlib.import_module("veltra_array_pb2")
        common_pb2 = importlib.import_module("veltra_common_pb2")
    finally:
        sys.path.remove(str(out))

    class Messages:
        Array = array_pb2.VELTRA_Array
        ValueObject = array_pb2.VELTRA_ValueObject
        Property = array_pb2.VELTRA_Property
        Handle = array_pb2.VELTRA_Handle
        Params = common_pb2.VELTRA_Params
        Result = common_pb2.VELTRA_Result

    return Messages


@pytest.fixture(scope="module")
def peer():
    if not PEER.is_file():
        if "VELTRA_WIRE_PEER" in os.environ:
            pytest.fail(f"VELTRA_WIRE_PEER names {PEER}, which does not exist")
        pytest.skip(f"the C++ peer tool {PEER} is not built (configure build/cpp with -DVELTRA_BUILD_TESTS=ON, "
                    "as scripts/test.sh does, or point VELTRA_WIRE_PEER at it)")
    return PEER


def params_from_cpp(peer, case, nargout=2):
    return subprocess.run([str(peer), "params", case, str(nargout)], check=True, capture_output=True).stdout


def read_in_cpp(peer, result_bytes):
    out = subprocess.run([str(peer), "read"], input=result_bytes, check=True, capture_output=True).stdout
    return json.loads(out)


# ---- the rules wire_peer.cpp builds its arguments by ------------------------------------------------------

def real_values(dtype, n):
    v = np.arange(1, n + 1, dtype=np.float64)
    if np.issubdtype(dtype, np.floating):
        v += 0.25
    if np.issubdtype(dtype, np.signedinteger) or np.issubdtype(dtype, np.floating):
        v[1::2] *= -1
    return v.astype(dtype)


def expected_numeric(kind, shape):
    """(real, imag or None) in column-major element order."""
    n = int(np.prod(shape))
    if kind == LOGICAL:
        return np.arange(n) % 2 == 1, None
    if kind == CHAR:
        return (ord("a") + np.arange(n)).astype(np.uint16), None
    dtype = REAL_DTYPES[kind]
    real = real_values(dtype, n)
    return real, ((real.astype(np.float64) * 2).astype(dtype) if kind >= 14 else None)


def split_payload(kind, data):
    """The payload as (real, imag or None) numpy vectors; complex parts are interleaved per element."""
    dtype = REAL_DTYPES[kind]
    if kind == LOGICAL:
        raw = np.frombuffer(data, dtype=np.uint8)
        assert set(raw.tolist()) <= {0, 1}
        return raw.astype(bool), None
    v = np.frombuffer(data, dtype=np.dtype(dtype).newbyteorder("<"))
    return (v[0::2], v[1::2]) if kind >= 14 else (v, None)


def utf16(hex_or_bytes):
    b = bytes.fromhex(hex_or_bytes) if isinstance(hex_or_bytes, str) else hex_or_bytes
    return b.decode("utf-16-le")


# ---- (a) the peer decodes the parameters we write ---------------------------------------------------------

@pytest.mark.parametrize("case", ["numeric", "shapes", "text", "containers", "objects", "sparse", "empty"])
def test_params_parse_and_reserialize_identically(pb, peer, case):
    data = params_from_cpp(peer, case)
    msg = pb.Params.FromString(data)
    assert msg.nargout == 2
    # Same fields, same order, same omissions: the Python runtime writes back exactly our bytes.
    assert msg.SerializeToString(deterministic=True) == data


@pytest.mark.parametrize("nargout", [0, 1, -1, 2**31 - 1, -(2**31)])
def test_params_without_arguments_hold_nargout_alone(pb, peer, nargout):
    msg = pb.Params.FromString(params_from_cpp(peer, "empty", nargout))
    assert msg.nargout == nargout
    assert len(msg.rhs) == 0
    assert msg.ListFields() == ([] if nargout == 0 else [(pb.Params.DESCRIPTOR.fields_by_name["nargout"], nargout)])


def test_params_numeric_payloads_are_raw_column_major(pb, peer):
    msg = pb.Params.FromString(params_from_cpp(peer, "numeric"))
    assert [a.type for a in msg.rhs] == RAW_KINDS
    for a in msg.rhs:
        assert list(a.dims) == [2, 3]
        assert len(a.data) == 6 * np.dtype(REAL_DTYPES[a.type]).itemsize * (2 if a.type >= 14 else 1)
        real, imag = split_payload(a.type, a.data)
        want_real, want_imag = expected_numeric(a.type, (2, 3))
        np.testing.assert_array_equal(real, want_real, err_msg=f"kind {a.type}")
        if want_imag is not None:
            np.testing.assert_array_equal(imag, want_imag, err_msg=f"kind {a.type}")
        assert not a.elements and not a.string_lengths


def test_params_shapes_keep_dims_and_fortran_order(pb, peer):
    rhs = pb.Params.FromString(params_from_cpp(peer, "shapes")).rhs
    assert [list(a.dims) for a in rhs] == [[2, 3, 4], [1, 0], [0, 0], [0, 3], [1, 1], [2, 1, 1, 2]]
    assert [a.type for a in rhs] == [DOUBLE, DOUBLE, DOUBLE, 6, 9, SINGLE]
    cube = np.frombuffer(rhs[0].data, dtype="<f8").reshape((2, 3, 4), order="F")
    want = real_values(np.float64, 24).reshape((2, 3, 4), order="F")
    np.testing.assert_array_equal(cube, want)
    assert [len(a.data) for a in rhs[1:4]] == [0, 0, 0]


def test_params_text_is_utf16_with_missing_strings_distinct(pb, peer):
    char, empty, strings = pb.Params.FromString(params_from_cpp(peer, "text")).rhs
    assert (char.type, list(char.dims), utf16(char.data)) == (CHAR, [1, 7], "h\u00e9llo \u20ac")
    assert (empty.type, list(empty.dims), empty.data) == (CHAR, [1, 0], b"")
    assert strings.type == STRING and list(strings.dims) == [2, 2]
    assert list(strings.string_lengths) == [1, -1, 0, 4]  # in UTF-16 code units; -1 is missing
    assert utf16(strings.string_units) == "a" + "" + "\u00fc\u20ac\U0001D11E"


def test_params_containers_nest(pb, peer):
    cell, struct = pb.Params.FromString(params_from_cpp(peer, "containers")).rhs
    assert cell.type == CELL and list(cell.dims) == [2, 1] and len(cell.elements) == 2
    scalar, inner = cell.elements
    assert np.frombuffer(scalar.data, "<f8").tolist() == [1.5]
    assert inner.type == CELL and list(inner.dims) == [1, 2]
    assert utf16(inner.elements[0].data) == "x"
    assert inner.elements[1].ByteSize() == 0  # an unwritten element is the empty message
    assert struct.type == STRUCT and list(struct.dims) == [1, 2]
    assert list(struct.field_names) == ["name", "value"]
    # element-major: (element 0, name), (element 0, value), (element 1, name), (element 1, value)
    assert len(struct.elements) == 4
    assert utf16(struct.elements[0].data) == "a"
    assert struct.elements[1].type == 10 and np.frombuffer(struct.elements[1].data, "<i4").tolist() == [7]
    # fields never written hold the engine's empty value, a 0-by-0 double
    assert [(e.type, list(e.dims), e.data) for e in struct.elements[2:]] == [(DOUBLE, [0, 0], b"")] * 2


def test_params_objects_handles_enums(pb, peer):
    dt, table, handles, enum = pb.Params.FromString(params_from_cpp(peer, "objects")).rhs
    assert (dt.type, dt.class_name, list(dt.first_properties), list(dt.second_properties)) == \
        (VALUE_OBJECT, "datetime", ["data"], ["tz"])
    assert len(dt.objects) == 1 and not dt.objects[0].HasField("class_name")
    props = {p.name: p.value for p in dt.objects[0].properties}
    assert list(props) == ["data", "tz"]
    assert np.frombuffer(props["data"].data, "<f8").tolist() == [1.25, -2.25]
    assert utf16(props["tz"].data) == "UTC"
    assert (table.class_name, list(table.external_dims), table.not_uniform) == ("table", [5, 3], True)
    assert not dt.not_uniform and not dt.external_dims
    assert [(h.class_name, h.id) for h in handles.handles] == [("Figure", 1), ("Axes", 2**64 - 1)]
    assert (enum.type, enum.class_name, list(enum.enum_names)) == (ENUM, "Color", ["Red", "Blue"])


def test_params_sparse(pb, peer):
    d, l, c = pb.Params.FromString(params_from_cpp(peer, "sparse")).rhs
    assert (d.type, list(d.dims), list(d.sparse_rows), list(d.sparse_cols)) == (SPARSE_DOUBLE, [4, 5], [0, 3, 2], [0, 1, 4])
    assert np.frombuffer(d.data, "<f8").tolist() == [1.5, -2.0, 3.0]
    assert (l.type, l.data, list(l.sparse_rows)) == (SPARSE_LOGICAL, b"\x01\x01", [1, 0])
    assert np.frombuffer(c.data, "<c16").tolist() == [1 + 2j, -3 + 0.5j]


# ---- (b) the peer writes results our reader accepts -------------------------------------------------------

def from_numpy(pb, kind, a):
    a = np.asarray(a)
    dims = list(a.shape) if a.ndim >= 2 else [1, a.size]
    return pb.Array(type=kind, dims=dims, data=a.tobytes(order="F"))


def raw_of(dumped):
    return bytes.fromhex(dumped["data"])


# Every kind in one shape, and every shape in one kind: the reader takes the dims whatever the kind.
@pytest.mark.parametrize("kind, dtype, shape", [
    (kind, dtype, (2, 3)) for kind, dtype in [(DOUBLE, "<f8"), (SINGLE, "<f4"), (6, "i1"), (7, "u1"), (8, "<i2"),
                                              (9, "<u2"), (10, "<i4"), (11, "<u4"), (12, "<i8"), (13, "<u8"),
                                              (14, "<c16"), (15, "<c8")]
] + [(15, "<c8", shape) for shape in [(3, 1, 2), (1, 0), (0, 0), (1, 1)]])
def test_result_numeric_outputs(pb, peer, kind, dtype, shape):
    a = (np.arange(int(np.prod(shape))) * 3 + 1).astype(dtype).reshape(shape, order="C")
    if a.dtype.kind == "c":
        a = a - 2j * a
    result = pb.Result(lhs=[from_numpy(pb, kind, a)])
    out = read_in_cpp(peer, result.SerializeToString())
    assert out["type"] == CELL and out["dims"] == [1, 1]
    got = out["elements"][0]
    assert (got["type"], got["dims"]) == (kind, list(shape))
    np.testing.assert_array_equal(
        np.frombuffer(raw_of(got), dtype).reshape(shape, order="F"), a)


def test_result_logical_bytes_are_normalised(pb, peer):
    out = read_in_cpp(peer, pb.Result(lhs=[pb.Array(type=LOGICAL, dims=[2, 2], data=b"\x00\x07\xff\x01")]).SerializeToString())
    assert raw_of(out["elements"][0]) == b"\x00\x01\x01\x01"


def test_result_text_and_strings(pb, peer):
    text = "d\u00e9j\u00e0 \U0001F600"
    units = text.encode("utf-16-le")
    strings = pb.Array(type=STRING, dims=[1, 3], string_units="ab\u00e9".encode("utf-16-le"), string_lengths=[2, -1, 1])
    out = read_in_cpp(peer, pb.Result(lhs=[pb.Array(type=CHAR, dims=[1, len(units) // 2], data=units), strings])
                      .SerializeToString())
    char, s = out["elements"]
    assert utf16(char["data"]) == text
    assert s["type"] == STRING and [None if x is None else utf16(x) for x in s["strings"]] == ["ab", None, "\u00e9"]


def test_result_nested_containers(pb, peer):
    leaf = pb.Array(type=DOUBLE, dims=[1, 1], data=np.float64(2.5).tobytes())
    inner = pb.Array(type=CELL, dims=[1, 2], elements=[leaf, pb.Array()])
    struct = pb.Array(type=STRUCT, dims=[2, 1], field_names=["b", "a"],
                      elements=[inner, leaf, pb.Array(type=CELL, dims=[0, 0]), pb.Array(type=CHAR, dims=[1, 0])])
    out = read_in_cpp(peer, pb.Result(lhs=[pb.Array(type=CELL, dims=[1, 1], elements=[struct])]).SerializeToString())
    s = out["elements"][0]["elements"][0]
    assert (s["type"], s["dims"], s["fields"]) == (STRUCT, [2, 1], ["b", "a"])
    first = s["elements"][0]
    assert first["type"] == CELL and first["elements"][1] == {"type": 0, "null": True}
    assert np.frombuffer(raw_of(first["elements"][0]), "<f8").tolist() == [2.5]
    assert s["elements"][3] == {"type": CHAR, "dims": [1, 0], "data": ""}


def test_result_value_objects_handles_enums_sparse(pb, peer):
    prop = pb.Property(name="data", value=pb.Array(type=DOUBLE, dims=[1, 1], data=np.float64(7).tobytes()))
    obj = pb.Array(type=VALUE_OBJECT, dims=[1, 2], class_name="duration", first_properties=["data"],
                   objects=[pb.ValueObject(properties=[prop]),
                            pb.ValueObject(class_name="other", first_properties=["p"])],
                   external_dims=[4, 2], not_uniform=True)
    handles = pb.Array(type=HANDLE, dims=[1, 1], handles=[pb.Handle(class_name="Figure", id=9)])
    enum = pb.Array(type=ENUM, dims=[1, 1], class_name="Color", enum_names=["Red"])
    sparse = pb.Array(type=SPARSE_DOUBLE, dims=[3, 3], sparse_rows=[2], sparse_cols=[1], data=np.float64(4).tobytes())
    o, h, e, sp = read_in_cpp(peer, pb.Result(lhs=[obj, handles, enum, sparse]).SerializeToString())["elements"]
    assert (o["class"], o["first"], o["external_dims"], o["uniform"]) == ("duration", ["data"], [4, 2], False)
    assert o["objects"][0]["class"] == "duration" and o["objects"][0]["properties"][0][0] == "data"
    assert (o["objects"][1]["class"], o["objects"][1]["first"]) == ("other", ["p"])
    assert h["handles"] == [["Figure", 9]]
    assert (e["class"], e["names"]) == ("Color", ["Red"])
    assert (sp["rows"], sp["cols"], np.frombuffer(raw_of(sp), "<f8").tolist()) == ([2], [1], [4.0])


def test_result_zero_outputs_is_an_empty_row_cell(pb, peer):
    assert read_in_cpp(peer, pb.Result().SerializeToString()) == {"type": CELL, "dims": [1, 0], "elements": []}


def error_fields(out):
    assert (out["type"], out["dims"], out["fields"]) == (STRUCT, [1, 1], ["message", "identifier", "stack_as_str"])
    return dict(zip(out["fields"], out["elements"]))


@pytest.mark.parametrize("with_outputs", [False, True])
def test_result_error_with_stack(pb, peer, with_outputs):
    result = pb.Result()
    if with_outputs:  # outputs next to an error are ignored
        result.lhs.add(type=DOUBLE, dims=[1, 1], data=np.float64(1).tobytes())
    result.error.message = "Undefined function 'f' for input arguments of type 'double'."
    result.error.identifier = "VELTRA:UndefinedFunction"
    result.error.stack.add(file="a", name="f", line=3)
    result.error.stack.add(file="b", name="g", line=7)
    f = error_fields(read_in_cpp(peer, result.SerializeToString()))
    assert f["message"]["type"] == CHAR
    assert utf16(f["message"]["data"]) == "Undefined function 'f' for input arguments of type 'double'."
    assert f["identifier"]["type"] == STRING and f["identifier"]["dims"] == [1, 1]
    assert [utf16(x) for x in f["identifier"]["strings"]] == ["VELTRA:UndefinedFunction"]
    assert utf16(f["stack_as_str"]["data"]) == ("Error in => file: a, function name: f, at line: 3\n"
                                                "Error in => file: b, function name: g, at line: 7\n")


def test_result_error_without_identifier_or_frames(pb, peer):
    result = pb.Result()
    result.error.message = "caf\u00e9"
    f = error_fields(read_in_cpp(peer, result.SerializeToString()))
    assert utf16(f["message"]["data"]) == "caf\u00e9"
    assert f["identifier"] == {"type": DOUBLE, "dims": [0, 0], "data": ""}  # the field as the struct made it
    assert f["stack_as_str"] == {"type": CHAR, "dims": [1, 0], "data": ""}


def test_result_empty_error_still_is_an_error(pb, peer):
    result = pb.Result()
    result.error.SetInParent()
    result.error.identifier = ""
    f = error_fields(read_in_cpp(peer, result.SerializeToString()))
    assert f["message"]["dims"] == [1, 0]
    assert f["identifier"]["strings"] == [""]  # present but empty: a string, not the empty array


@pytest.mark.parametrize("array, text", [
    (dict(type=24, dims=[1000000, 1000000], elements=[{}]),
     "a CELL array of 1000000-by-1000000 needs 1000000000000 elements, the message holds 1"),
    (dict(type=99), "Unknown DataType field in veltra::data::Array."),
    (dict(type=3, dims=[1, 1], string_units=b"abc", string_lengths=[1]), "odd number of bytes (3)"),
    (dict(type=4, dims=[2, 2], data=b"\0" * 24), "needs 32 bytes of data, the message holds 24"),
    (dict(type=4, dims=[2**32, 2**32, 2]), "more elements than 64 bits can count"),
    (dict(type=25, dims=[1, 2], field_names=["a"], elements=[{}]), "needs 2 field values, the message holds 1"),
])
def test_result_hostile_arrays_are_refused_with_their_text(pb, peer, array, text):
    out = read_in_cpp(peer, pb.Result(lhs=[pb.Array(**array)]).SerializeToString())
    assert text in out["exception"]
