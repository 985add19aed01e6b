"""Numbers and truth values: one Python value to a 1-by-1 array, element 0 of a one-element array back."""

import math
import struct as pystruct

import numpy as np
import pytest

import py_pb
from conftest import COMPLEX_DOUBLE, DOUBLE, INT64, LOGICAL, SINGLE
from py_pb_peer import numeric, read_one, roundtrip, sent, struct

INT_KINDS = {  # kind: (dtype, smallest, largest)
    6: (np.int8, -2**7, 2**7 - 1),
    7: (np.uint8, 0, 2**8 - 1),
    8: (np.int16, -2**15, 2**15 - 1),
    9: (np.uint16, 0, 2**16 - 1),
    10: (np.int32, -2**31, 2**31 - 1),
    11: (np.uint32, 0, 2**32 - 1),
    12: (np.int64, -2**63, 2**63 - 1),
    13: (np.uint64, 0, 2**64 - 1),
}


# ---------------------------------------------------------------------------------------------------------
# Python to array


@pytest.mark.parametrize("value", [0.0, -0.0, 1.5, -1e300, 5e-324, math.inf, -math.inf])
def test_float_is_a_1_by_1_double(value):
    params = py_pb.py_to_serialized_str((value,))
    [(kind, dims, [got])] = sent(value)
    assert (kind, dims) == (DOUBLE, (1, 1))
    assert pystruct.pack("<d", got) == pystruct.pack("<d", value)  # keeps the sign of zero
    assert pystruct.pack("<d", value) in params


def test_nan_keeps_its_bits():
    nan = pystruct.unpack("<d", bytes.fromhex("010000000000f87f"))[0]
    assert bytes.fromhex("010000000000f87f") in py_pb.py_to_serialized_str((nan,))
    [back] = roundtrip(nan)
    assert math.isnan(back)


@pytest.mark.parametrize("value", [0, 1, -1, 2**31, 2**63 - 1, -2**63])
def test_int_is_a_1_by_1_int64(value):
    assert sent(value) == [(INT64, (1, 1), [value])]
    [back] = roundtrip(value)
    assert type(back) is int and back == value


@pytest.mark.parametrize("value", [2**63, -2**63 - 1, 2**64, -2**200])
@pytest.mark.parametrize("wrap", [lambda v: v, lambda v: [0, v], lambda v: {"x": {"y": v}}])
def test_int_beyond_64_bits_raises_overflow_never_minus_one(value, wrap):
    with pytest.raises(OverflowError) as e:
        py_pb.py_to_serialized_str((wrap(value),))
    assert str(e.value) == "int too big to convert"


@pytest.mark.parametrize("value", [True, False])
def test_bool_is_a_1_by_1_logical(value):
    assert sent(value) == [(LOGICAL, (1, 1), [value])]
    [back] = roundtrip(value)
    assert back is value


@pytest.mark.parametrize("value", [1 + 2j, -0.5j, complex(math.inf, -1), 0j])
def test_complex_is_a_1_by_1_complex_double(value):
    assert sent(value) == [(COMPLEX_DOUBLE, (1, 1), [value])]
    [back] = roundtrip(value)
    assert type(back) is complex and back == value


def test_several_scalars_in_one_call_keep_order_and_kind():
    assert sent(1, 2.0, True, 3j) == [
        (INT64, (1, 1), [1]), (DOUBLE, (1, 1), [2.0]), (LOGICAL, (1, 1), [True]), (COMPLEX_DOUBLE, (1, 1), [3j])]


# ---------------------------------------------------------------------------------------------------------
# array to Python


@pytest.mark.parametrize("kind", sorted(INT_KINDS))
@pytest.mark.parametrize("end", ["smallest", "largest"])
def test_integer_scalars_of_every_kind_at_their_extremes(kind, end):
    dtype, lo, hi = INT_KINDS[kind]
    value = lo if end == "smallest" else hi
    back = read_one(numeric(kind, [value], (1, 1)))
    assert type(back) is int and back == value


def test_uint64_largest_is_not_minus_one():
    assert read_one(numeric(13, [2**64 - 1])) == 18446744073709551615


def test_single_scalar_is_a_float_of_its_single_value():
    back = read_one(numeric(SINGLE, [0.1]))
    assert type(back) is float and back == float(np.float32(0.1))


@pytest.mark.parametrize("kind", [DOUBLE, SINGLE])
def test_floating_specials(kind):
    assert read_one(numeric(kind, [-math.inf])) == -math.inf
    assert math.isnan(read_one(numeric(kind, [math.nan])))


@pytest.mark.parametrize("kind", range(14, 24))
def test_complex_scalars_of_every_kind_are_python_complex(kind):
    back = read_one(numeric(kind, [complex(3, 4)]))
    assert type(back) is complex and back == 3 + 4j


def test_complex_int8_with_negative_imaginary_part():
    assert read_one(numeric(16, [complex(3, -4)])) == 3 - 4j


def test_complex_uint64_parts_keep_their_unsigned_value():
    assert read_one(numeric(23, [complex(2**63, 1)])) == complex(2.0**63, 1)


@pytest.mark.parametrize("value", [True, False])
def test_logical_scalar_is_a_bool(value):
    assert read_one(numeric(LOGICAL, [value])) is value


@pytest.mark.parametrize("dims", [(1, 1), (1, 1, 1)])
def test_one_element_of_any_shape_is_a_scalar(dims):
    assert read_one(numeric(DOUBLE, [7.0], dims)) == 7.0


def test_scalars_in_struct_fields():
    out = read_one(struct(["a", "b"], [[numeric(INT64, [-5]), numeric(LOGICAL, [False])]]))
    assert out == {"a": -5, "b": False} and type(out["a"]) is int and out["b"] is False
