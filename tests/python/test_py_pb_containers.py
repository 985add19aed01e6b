"""Containers: list, tuple and set to 1-by-N cells, dict to a 1-by-1 struct, and cells and structs back."""

import math

import numpy as np
import pytest

import py_pb
import veltramultidimarrayforpython as vpkg
from conftest import CELL, CHAR, DOUBLE, INT64, STRUCT
from py_pb_peer import array as pb_array, cell, char, numeric, read_one, roundtrip, sent, strings, struct

RECURSIVE_LIST = "passing recursive list to VELTRA not supported"
RECURSIVE_DICT = "passing recursive dict to VELTRA not supported"
FIELD_NOT_STR = "field name of Python dict object passed to VELTRA must be a nonempty string"
FIELD_EMPTY = "field name passed to VELTRA is empty"
CELL_SHAPE = "cell arrays returned from VELTRA must be 1-by-N or M-by-1"
STRUCT_NOT_SCALAR = "only a scalar struct can be returned from VELTRA"
RECURSION = "maximum recursion depth exceeded while converting a Python object to VELTRA"


def d(value):
    return (DOUBLE, (1, 1), [value])


def i(value):
    return (INT64, (1, 1), [value])


# ---------------------------------------------------------------------------------------------------------
# Python to array


@pytest.mark.parametrize("empty", [[], (), set()])
def test_empty_containers_are_1_by_0_cells(empty):
    assert sent(empty) == [(CELL, (1, 0), [])]


@pytest.mark.parametrize("make", [list, tuple])
@pytest.mark.parametrize("n", [1, 7])
def test_sequences_are_1_by_n_cells_in_order(make, n):
    assert sent(make(float(k) for k in range(n))) == [(CELL, (1, n), [d(float(k)) for k in range(n)])]


def test_set_follows_the_pop_order_of_a_copy_and_is_left_unchanged():
    s = {3, "x", 1.5, (1, 2), b"z"}
    copy = set(s)
    order = [copy.pop() for _ in range(len(s))]
    [(kind, dims, elements)] = sent(s)
    assert (kind, dims) == (CELL, (1, 5))
    assert [e[0] for e in elements] == [{int: INT64, str: CHAR, float: DOUBLE, tuple: CELL, bytes: 7}[type(v)]
                                        for v in order]
    assert s == {3, "x", 1.5, (1, 2), b"z"}


def test_nesting():
    assert sent([1, (2.0, []), {"a": [3]}]) == [
        (CELL, (1, 3), [
            i(1),
            (CELL, (1, 2), [d(2.0), (CELL, (1, 0), [])]),
            (STRUCT, (1, 1), [{"a": (CELL, (1, 1), [i(3)])}]),
        ])
    ]


class Key(str):
    pass


def test_dict_is_a_1_by_1_struct_with_fields_in_key_order():
    # A dict without keys is a struct without fields; a str subclass key is a field name; 63 characters is the
    # longest name (one more: test_keys_that_are_not_identifiers).
    long = "x" * 63
    assert sent({"b": 1, "a": "xy", "c": {}, Key("k"): 2, long: 3}) == [
        (STRUCT, (1, 1), [{"b": i(1), "a": (CHAR, (1, 2), "xy"), "c": (STRUCT, (1, 1), [{}]), "k": i(2), long: i(3)}])
    ]
    [(_, _, [fields])] = sent({"b": 1, "a": 2})
    assert list(fields) == ["b", "a"]


@pytest.mark.parametrize("key", [1, b"a", None, ("a",)])
def test_dict_keys_must_be_str(key):
    with pytest.raises(ValueError) as e:
        py_pb.py_to_serialized_str(({"ok": 1, key: 2},))
    assert str(e.value) == FIELD_NOT_STR


@pytest.mark.parametrize("key", ["", "\ud800"])
def test_empty_or_unencodable_keys(key):
    with pytest.raises(ValueError) as e:
        py_pb.py_to_serialized_str(({key: 1},))
    assert str(e.value) == FIELD_EMPTY


@pytest.mark.parametrize("key", ["a b", "1x", "_x", "\u00e9", "x" * 64])
def test_keys_that_are_not_identifiers(key):
    with pytest.raises(ValueError) as e:
        py_pb.py_to_serialized_str(({key: 1},))
    assert str(e.value) == f"field name is not a valid VELTRA identifier: '{key}'"


def test_key_errors_come_before_value_errors():
    # All keys are checked before any value is converted.
    with pytest.raises(ValueError, match=FIELD_NOT_STR):
        py_pb.py_to_serialized_str(({"a": None, 2: 1},))


def test_containers_holding_themselves():
    x = [1]
    x.append(x)
    with pytest.raises(ValueError) as e:
        py_pb.py_to_serialized_str((x,))
    assert str(e.value) == RECURSIVE_LIST
    x = {"a": 1}
    x["b"] = x
    with pytest.raises(ValueError) as e:
        py_pb.py_to_serialized_str((x,))
    assert str(e.value) == RECURSIVE_DICT


# Every container converter enters the guard: a cycle of lists alone, and of dicts alone, shows each of those.
@pytest.mark.parametrize("shape", ["list-list", "dict-dict", "list-tuple"])
def test_indirect_cycles_raise_recursion_error(shape):
    x = []
    if shape == "list-list":
        x.append([x])
    elif shape == "dict-dict":
        x = {"a": {"b": None}}
        x["a"]["b"] = x
    else:
        x.append((x,))
    with pytest.raises(RecursionError) as e:
        py_pb.py_to_serialized_str((x,))
    assert str(e.value) == RECURSION


def test_depth_is_capped_even_with_a_raised_recursion_limit():
    import sys

    old = sys.getrecursionlimit()
    sys.setrecursionlimit(10**6)
    try:
        x = []
        x.append((x,))
        with pytest.raises(RecursionError):
            py_pb.py_to_serialized_str((x,))
    finally:
        sys.setrecursionlimit(old)


def test_deep_nesting_that_messages_cannot_carry():
    x = 1.0
    for _ in range(300):
        x = [x]
    with pytest.raises(ValueError) as e:
        py_pb.py_to_serialized_str((x,))
    assert str(e.value) == "The array is nested more than 200 levels deep and cannot be serialized."


def _clearing_float(victim):
    """An object looked up as "float" whose __float__ empties `victim`: conversion runs Python code that
    drops the container's own references, the object's included."""

    def as_float(self):
        victim.clear()
        return 2.5

    cls = type("float", (), {"__float__": as_float})
    cls.__module__ = "builtins"
    return cls()


def test_list_emptied_while_an_element_converts():
    x = [1.0, None, 2.0]
    x[1] = _clearing_float(x)
    with pytest.raises(IndexError) as e:
        py_pb.py_to_serialized_str((x,))
    assert str(e.value) == "list index out of range"


def test_dict_emptied_while_a_value_converts():
    x = {"a": None, "b": 1.0}
    x["a"] = _clearing_float(x)
    with pytest.raises(RuntimeError) as e:
        py_pb.py_to_serialized_str((x,))
    assert str(e.value) == "dict changed size during conversion to VELTRA"


def test_last_element_may_empty_its_list():
    x = [1.0, None]
    x[1] = _clearing_float(x)
    assert sent(x) == [(CELL, (1, 2), [d(1.0), d(2.5)])]


# ---------------------------------------------------------------------------------------------------------
# array to Python


def test_cell_of_empty_elements_of_any_kind_gives_empty_lists():
    out = read_one(cell([pb_array(DOUBLE, (0, 0)), numeric(DOUBLE, [1.5]), char("", (0, 5)),
                         strings([], (0, 0)), cell([], (0, 3)), pb_array(0, ())]))
    assert out == [[], 1.5, [], [], [], []]
    assert type(out[1]) is float


@pytest.mark.parametrize("dims", [(1, 3), (3, 1)])
def test_row_and_column_cells(dims):
    assert read_one(cell([numeric(DOUBLE, [float(k)]) for k in range(3)], dims)) == [0.0, 1.0, 2.0]


@pytest.mark.parametrize("dims", [(0, 0), (1, 0), (0, 7)])
def test_empty_cells(dims):
    assert read_one(struct(["c"], [[cell([], dims)]]))["c"] == []


@pytest.mark.parametrize("dims", [(2, 2), (1, 1, 1), (1, 2, 1)])
def test_cells_of_other_shapes_are_refused(dims):
    with pytest.raises(ValueError) as e:
        read_one(cell([numeric(DOUBLE, [1.0])] * math.prod(dims), dims))
    assert str(e.value) == CELL_SHAPE


def test_scalar_struct_is_a_dict_in_field_order():
    out = read_one(struct(["z", "a"], [[numeric(DOUBLE, [1.0]), char("hi")]]))
    assert out == {"z": 1.0, "a": "hi"} and list(out) == ["z", "a"]
    assert read_one(struct([], [[]], (1, 1))) == {}


@pytest.mark.parametrize("n, dims", [(2, (1, 2)), (2, (2, 1)), (3, (1, 1, 3)), (0, (0, 0)), (0, (1, 0))])
def test_non_scalar_structs_are_refused(n, dims):
    inner = struct(["a"], [[numeric(DOUBLE, [1.0])]] * n, dims)
    # Output cells turn empty elements into []: an empty struct reaches the struct converter only in a field.
    with pytest.raises(ValueError) as e:
        read_one(struct(["s"], [[inner]]) if n == 0 else inner)
    assert str(e.value) == STRUCT_NOT_SCALAR


def test_struct_field_holding_an_empty_array_goes_through_the_dispatcher():
    # Unlike a cell, a struct field does not turn empty arrays into []: they reach their kind's converter.
    out = read_one(struct(["d", "c", "s"], [[pb_array(DOUBLE, (0, 0)), char("", (1, 0)), strings([], (0, 0))]]))
    assert type(out["d"]) is vpkg.double and np.asarray(out["d"]).shape == (0, 0)
    assert out["c"] == "" and out["s"] == []


def test_struct_field_without_contents_is_refused():
    # An array without contents (kind 0) has no converter; in a cell it would be an empty element.
    with pytest.raises(TypeError) as e:
        read_one(struct(["u"], [[pb_array(0, ())]]))
    assert str(e.value) == "conversion of VELTRA data type 0 to Python not supported"


def test_nested_round_trip():
    value = [1, "two", (3.0, [True, {"k": [b"\x01", "s"]}]), {"a": {"b": {"c": -7}}}]
    assert roundtrip(value) == [[1, "two", [3.0, [True, {"k": [1, "s"]}]], {"a": {"b": {"c": -7}}}]]


def test_a_failing_element_fails_the_whole_list():
    with pytest.raises(ValueError) as e:
        read_one(cell([numeric(DOUBLE, [1.0]), cell([char("abcd", (2, 2))])]))
    assert str(e.value) == "char arrays returned from VELTRA must be 1-by-N or M-by-1"
