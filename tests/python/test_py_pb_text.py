"""Text: str to char arrays (always UTF-16 code units), char and string arrays back to str."""

import numpy as np
import pandas as pd
import pytest

import py_pb
from conftest import CHAR, STRING
from py_pb_peer import cell, char, read_one, roundtrip, sent, strings, struct

CHAR_SHAPE = "char arrays returned from VELTRA must be 1-by-N or M-by-1"
STRING_SHAPE = "string arrays returned from VELTRA must be 1-by-N or M-by-1 "  # with its trailing blank


# ---------------------------------------------------------------------------------------------------------
# str to array


@pytest.mark.parametrize(
    "text, units",
    [
        ("", 0),
        ("a", 1),
        ("hello", 5),
        ("\u00e9\u4e2d", 2),
        ("a\U0001F600", 3),  # a surrogate pair is two code units
        ("\U0001F600\U0001F600", 4),
        ("\x00nul\x00", 5),
        ("\ufeffbom", 4),  # a leading U+FEFF is text, not a byte-order mark, on the way in
    ],
)
def test_str_arguments_are_1_by_n_char_arrays(text, units):
    [(kind, dims, got)] = sent(text)
    assert (kind, dims) == (CHAR, (1, units))
    assert got == text


def test_surrogate_pair_code_units():
    params = py_pb.py_to_serialized_str(("a\U0001F600",))
    assert "a\U0001F600".encode("utf-16-le") == b"a\x00\x3d\xd8\x00\xde"
    assert b"a\x00\x3d\xd8\x00\xde" in params


@pytest.mark.parametrize("text", ["\ud800", "a\udfffb", "\udc00\ud800"])
@pytest.mark.parametrize("wrap", [lambda v: v, lambda v: [v], lambda v: {"k": v}])
def test_lone_surrogates_cannot_be_sent(text, wrap):
    with pytest.raises(UnicodeEncodeError) as e:
        py_pb.py_to_serialized_str((wrap(text),))
    assert e.value.encoding == "utf-16"


def test_str_inside_containers_is_char_too():
    [(_, _, [element])] = sent(["ab"])
    assert element == (CHAR, (1, 2), "ab")
    [(_, _, [fields])] = sent({"k": "ab"})
    assert fields == {"k": (CHAR, (1, 2), "ab")}


@pytest.mark.parametrize("text", ["x", "a\U0001F600b", "\u00e9t\u00e9", "tab\there"])
def test_str_round_trip(text):
    assert roundtrip(text) == [text]


def test_empty_str_comes_back_as_an_empty_output():
    # Outputs are the elements of a cell, and every empty cell element becomes [].
    assert roundtrip("", "a") == [[], "a"]


# ---------------------------------------------------------------------------------------------------------
# char arrays to str


@pytest.mark.parametrize(
    "dims, text",
    [((1, 3), "abc"), ((3, 1), "abc"), ((1, 1), "z"), ((0, 0), ""), ((0, 4), ""), ((1, 0), "")],
)
def test_char_shapes_that_give_a_str(dims, text):
    # In a struct field, so that empty arrays reach the char converter rather than becoming [].
    assert read_one(struct(["t"], [[char(text, dims)]]))["t"] == text


def test_m_by_1_char_reads_in_linear_order():
    assert read_one(char("xyz", (3, 1))) == "xyz"


@pytest.mark.parametrize("dims", [(2, 3), (2, 2), (1, 1, 1), (1, 3, 1), (2, 1, 2)])
def test_char_shapes_that_are_refused(dims):
    n = 1
    for d in dims:
        n *= d
    with pytest.raises(ValueError) as e:
        read_one(char("a" * n, dims))
    assert str(e.value) == CHAR_SHAPE


def test_char_surrogate_pair_becomes_one_character():
    assert read_one(char("a\U0001F600")) == "a\U0001F600"


@pytest.mark.parametrize("text", ["\ud800", "a\udc00", "\ude00\ud83d"])
def test_char_with_unpaired_surrogate_raises_the_codecs_error(text):
    with pytest.raises(UnicodeDecodeError) as e:
        read_one(char(text))
    assert e.value.encoding == "utf-16-le"


@pytest.mark.parametrize("text", ["\ufeffabc", "\ufffeabc", "\ufeff", "a\ufffeb"])
def test_a_leading_u_feff_or_u_fffe_is_a_character_both_ways(text):
    # Code units on the wire are little-endian by definition: nothing is a byte-order mark.
    from veltra import dictionary
    assert roundtrip(text, [text], np.array([text, "x"]), {"k": text}) == [text, [text], [text, "x"], {"k": text}]
    [back] = roundtrip(dictionary({text: 1.0}))
    assert list(back.keys()) == [text]


# ---------------------------------------------------------------------------------------------------------
# string arrays to str and lists


@pytest.mark.parametrize("text", ["", "one", "a\U0001F600"])
def test_one_element_string_array_is_a_str(text):
    assert read_one(strings([text])) == text


def test_missing_string_scalar_is_none():
    assert read_one(strings([None])) is None


def test_missing_is_distinct_from_empty():
    assert read_one(strings(["", None, ""])) == ["", None, ""]


@pytest.mark.parametrize(
    "values, dims",
    [
        (["a", None, "c"], (1, 3)),
        (["a", None, "c"], (3, 1)),
        (["x\U0001F600", "", None, "y"], (1, 4)),
    ],
)
def test_string_arrays_are_lists(values, dims):
    assert read_one(strings(values, dims)) == values


@pytest.mark.parametrize("dims", [(0, 0), (1, 0), (0, 3)])
def test_empty_string_arrays_are_empty_lists(dims):
    assert read_one(struct(["s"], [[strings([], dims)]]))["s"] == []


@pytest.mark.parametrize("dims", [(2, 2), (1, 1, 2), (2, 1, 2)])
def test_string_shapes_that_are_refused(dims):
    n = 1
    for d in dims:
        n *= d
    with pytest.raises(ValueError) as e:
        read_one(strings(["s"] * n, dims))
    assert str(e.value) == STRING_SHAPE


def test_string_element_with_unpaired_surrogate_fails_the_list():
    with pytest.raises(UnicodeDecodeError):
        read_one(strings(["ok", "\ud800"]))


def test_text_inside_cells():
    assert read_one(cell([char("ab"), strings(["c", None]), strings([None])])) == ["ab", ["c", None], None]


# ---- numpy text arrays ----

@pytest.mark.parametrize(
    "value, dims, texts",
    [
        (np.array([["ab", "c"], ["\U0001F600", "x\x00"]]), (2, 2), ["ab", "\U0001F600", "c", "x"]),
        (np.array([["ab", "c"], ["d", "e"]], dtype=">U2").T, (2, 2), ["ab", "c", "d", "e"]),
        (np.array([b"ab", b"c\x00", "é".encode()]), (1, 3), ["ab", "c", "é"]),
        (np.array(["a", None, float("nan"), pd.NA], dtype=object), (1, 4), ["a", None, None, None]),
        (np.array("solo"), (1, 1), ["solo"]),
        (np.zeros((0, 3), dtype="U1"), (0, 3), []),
    ],
    ids=["unicode-2d", "byteswapped-transposed", "bytes-utf8", "object-with-missing", "0-d", "empty"],
)
def test_numpy_text_arrays_become_string_arrays_in_column_major_order(value, dims, texts):
    assert sent(value) == [(STRING, dims, texts)]
