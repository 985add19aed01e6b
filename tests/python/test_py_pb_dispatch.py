"""Choosing converters: Python objects by type name (exact, registry first, then the buffer and mapping
fallbacks), arrays by kind and element count; and every refusal on the way."""

import array
import collections
import datetime

import numpy as np
import pandas as pd
import pytest

import py_pb
import veltramultidimarrayforpython as vpkg
from conftest import (DOUBLE, ENUM, HANDLE, LOGICAL, SPARSE_COMPLEX, SPARSE_DOUBLE, SPARSE_LOGICAL, UINT8, VALUE_OBJECT,
                      named, run_python)
from py_pb_peer import array as pb_array, cell, numeric, read_one, sent, struct
from veltra.wire import messages

NONE = "passing 'None' to VELTRA not supported"
NULL = "passing null Python object pointer to VELTRA not supported"
SPARSE = "conversion of VELTRA sparse array to Python not supported"


def unsupported(name):
    return f"conversion of Python data type '{name}' to VELTRA not supported"


def refusal(value):
    """The TypeError (or other exception) a call with this one argument raises, as (type, text)."""
    with pytest.raises(Exception) as e:
        py_pb.py_to_serialized_str((value,))
    return type(e.value), str(e.value)


# ---------------------------------------------------------------------------------------------------------
# Python to array: refusals and type names


@pytest.mark.parametrize("wrap", [lambda v: v, lambda v: [1, v], lambda v: {"a": (v,)}])
def test_none_is_refused_at_any_depth(wrap):
    assert refusal(wrap(None)) == (TypeError, NONE)


class MyInt(int):
    pass


class MyList(list):
    pass


class Outer:
    class Inner:
        pass


@pytest.mark.parametrize(
    "value, name",
    [
        (MyInt(3), __name__ + ".MyInt"),  # a subclass of a registered type has a name of its own
        (MyList([1]), __name__ + ".MyList"),  # a mapping to PyMapping_Check: still refused
        (Outer.Inner(), __name__ + ".Inner"),  # tp_name is the plain name, not the qualified one
        (object(), "object"),
        (frozenset({1}), "frozenset"),  # a set, but not by name
        (range(3), "range"),  # a sequence: no fallback takes it
        (collections.deque(), "collections.deque"),  # a static type with a dotted tp_name
        (datetime.date(2020, 1, 1), "datetime.date"),
        (named(3, "Thing")(), "Thing"),  # a __module__ that is not a str is left out
        # Classes that only carry registered names reach those entries and are refused there, never converted
        # by a fallback.
        (named("veltra", "object")(), "veltra.object"),
        (named("veltra", "dictionary")(), "veltra.dictionary"),
        (named("pandas.core.frame", "DataFrame")(), "pandas.core.frame.DataFrame"),
        # A mapping to PyMapping_Check without items(): the dictionary converter cannot read it.
        (named("somewhere", "Lookup", __getitem__=lambda self, key: 1)(), "somewhere.Lookup"),
    ],
)
def test_unregistered_types_are_refused_by_name(value, name):
    assert refusal(value) == (TypeError, unsupported(name))


def test_a_class_defined_in_the_main_script():
    out = run_python(
        """
        import py_pb
        class MyInt(int):
            pass
        try:
            py_pb.py_to_serialized_str((MyInt(1),))
        except TypeError as e:
            print(e)
        """
    )
    assert out == unsupported("__main__.MyInt") + "\n"


# ---------------------------------------------------------------------------------------------------------
# Python to array: the name rule decides, not the type


def test_a_class_named_like_a_builtin_reaches_its_converter():
    # __module__ "builtins" is left out of the name: this class is looked up as "float".
    fake_float = named("builtins", "float", __float__=lambda self: 2.5)
    assert sent(fake_float()) == [(DOUBLE, (1, 1), [2.5])]


@pytest.mark.parametrize(
    "name, body, exc, text, cause",
    [
        ("float", {}, TypeError, unsupported("float"), "must be real number, not float"),
        ("int", {}, TypeError, unsupported("int"), "'int' object cannot be interpreted as an integer"),
        ("bool", {"__bool__": lambda self: 1 / 0}, ZeroDivisionError, "division by zero", None),
    ],
)
def test_a_number_protocol_failure_is_reported(name, body, exc, text, cause):
    # An object that only claims a number's name is read through the number protocol; when that refuses it,
    # the object's type is refused, with the protocol's complaint as the cause. Its own errors pass as they are.
    with pytest.raises(exc) as e:
        py_pb.py_to_serialized_str((named("builtins", name, **body)(),))
    assert str(e.value) == text
    assert (cause and str(e.value.__cause__)) == cause


def test_an_empty_type_name_counts_as_no_object():
    assert refusal(named("builtins", "")()) == (RuntimeError, NULL)


# ---------------------------------------------------------------------------------------------------------
# Python to array: the buffer fallback


class Bytes(bytes):
    pass


class NdSub(np.ndarray):
    pass


@pytest.mark.parametrize(
    "value, expected",
    [
        # array.array is also a mapping to PyMapping_Check: the buffer test comes first.
        (array.array("d", [1.0, 2.0]), (DOUBLE, (1, 2), [1.0, 2.0])),
        (Bytes(b"\x01\xff"), (UINT8, (1, 2), [1, 255])),
        (np.float64(2.5), (DOUBLE, (1, 1), [2.5])),
        (np.arange(3.0).view(NdSub), (DOUBLE, (1, 3), [0.0, 1.0, 2.0])),
        (memoryview(b"\x05"), (UINT8, (1, 1), [5])),
    ],
)
def test_buffers_of_unregistered_types(value, expected):
    assert sent(value) == [expected]


# ---------------------------------------------------------------------------------------------------------
# array to Python: the registry by element count


def test_one_element_uses_the_scalar_registry_and_others_the_array_registry():
    assert read_one(numeric(DOUBLE, [1.5])) == 1.5
    two = read_one(numeric(DOUBLE, [1.0, 2.0]))
    assert type(two) is vpkg.double and np.asarray(two).tolist() == [[1.0, 2.0]]
    assert read_one(numeric(LOGICAL, [True])) is True
    many = read_one(numeric(LOGICAL, [True, False]))
    assert type(many) is vpkg.logical and np.asarray(many).tolist() == [[True, False]]
    # Empty arrays: test_py_pb_containers.py (a cell turns them into [], a struct field does not).


def sparse(kind, dims=(2, 2)):
    value = {SPARSE_DOUBLE: np.float64(1).tobytes(), SPARSE_LOGICAL: b"\x01",
             SPARSE_COMPLEX: np.array([1.0, 2.0]).tobytes()}[kind]
    return pb_array(kind, dims, value, sparse_rows=[dims[0] - 1], sparse_cols=[0])


@pytest.mark.parametrize("kind, dims, in_struct",  # the array and the scalar registry, as an output and a field
                         [(k, d, False) for k in (SPARSE_DOUBLE, SPARSE_LOGICAL, SPARSE_COMPLEX) for d in ((2, 2), (1, 1))]
                         + [(SPARSE_DOUBLE, (2, 2), True)])
def test_sparse_arrays_are_refused(kind, dims, in_struct):
    with pytest.raises(TypeError) as e:
        read_one(struct(["s"], [[sparse(kind, dims)]]) if in_struct else sparse(kind, dims))
    assert str(e.value) == SPARSE


def test_enumerations_are_refused_with_their_kind_number_also_when_nested():
    # A nested failure fails the whole result with the inner message.
    with pytest.raises(TypeError) as e:
        read_one(cell([numeric(DOUBLE, [1.0]), cell([pb_array(ENUM, (1, 1), class_name="C", enum_names=["x"])])]))
    assert str(e.value) == "conversion of VELTRA data type 29 to Python not supported"
