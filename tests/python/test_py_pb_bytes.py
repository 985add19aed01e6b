"""bytes and bytearray to 1-by-N uint8 rows. There is no way back to bytes: uint8 results are numbers."""

import numpy as np
import pytest

import py_pb
import veltramultidimarrayforpython as vpkg
from conftest import CELL, UINT8
from py_pb_peer import roundtrip, sent


@pytest.mark.parametrize("make", [bytes, bytearray])
@pytest.mark.parametrize(
    "data",
    [b"", b"\x00", b"\xff", b"ab", bytes(range(256)), b"\x80\x00\xfe" * 1000],
)
def test_bytes_are_1_by_n_uint8(make, data):
    assert sent(make(data)) == [(UINT8, (1, len(data)), list(data))]


def test_bytearray_of_zeros():
    assert sent(bytearray(3)) == [(UINT8, (1, 3), [0, 0, 0])]


def test_bytes_never_become_text_even_in_containers():
    assert sent([b"ab"], {"k": bytearray(b"c")}) == [
        (CELL, (1, 1), [(UINT8, (1, 2), [97, 98])]),
        (25, (1, 1), [{"k": (UINT8, (1, 1), [99])}]),
    ]


def test_bytearray_changed_afterwards_does_not_change_the_message():
    b = bytearray(b"\x01\x02")
    params = py_pb.py_to_serialized_str((b,))
    b[0] = 9
    b.extend(b"\x03")  # no buffer export is left behind either
    assert py_pb.py_to_serialized_str((bytearray(b"\x01\x02"),)) == params


def test_round_trip_gives_uint8_numbers():
    one, many, empty_in_list = roundtrip(b"\xff", b"\x00\xff\x10", [b""])
    assert type(one) is int and one == 255  # a one-element uint8 array is a scalar
    assert type(many) is vpkg.uint8 and np.asarray(many).tolist() == [[0, 255, 16]]
    assert empty_in_list == [[]]
