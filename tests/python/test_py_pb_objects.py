"""veltra.object: engine handle arrays and value objects of classes Python has no type for, held, indexed one
dimension at a time, compared, and passed back to the engine whole or by element."""

import math

import numpy as np
import pytest

import py_pb
import veltra
from conftest import DOUBLE, HANDLE, VALUE_OBJECT, named, run_python
from py_pb_peer import handles, numeric, read_one, roundtrip, sent, value_object


def walk(obj, index):
    for i in index:
        obj = obj[i]
    return obj


@pytest.mark.parametrize("dims", [(1, 1), (3, 4), (2, 3, 2)])
def test_indexing_walks_the_dimensions_and_selects_the_column_major_element(dims):
    n = math.prod(dims)
    obj = read_one(handles(range(100, 100 + n), dims))
    assert type(obj) is veltra.object and len(obj) == dims[0] and obj.size == dims
    for index in np.ndindex(*dims):
        partial = obj
        for k, i in enumerate(index):
            partial = partial[i]
            rest = dims[k + 1:] or (1, 1)
            assert partial.size == rest and len(partial) == rest[0]
        position = sum(i * math.prod(dims[:d]) for d, i in enumerate(index))
        assert sent(partial) == [(HANDLE, (1, 1), [("Figure", 100 + position)])]
    with pytest.raises(IndexError, match=r"^index 0 exceeds matrix dimensions$"):
        walk(obj, (0,) * len(dims))[0]


def test_negative_indices_count_from_the_end_and_the_bound_is_the_dimension():
    obj = read_one(handles(range(12), (3, 4)))
    assert obj[-1] == obj[2] and obj[-1][-1] == obj[2][3]
    for bad, text in [(-4, "index -1 exceeds matrix dimensions"), (3, "index 3 exceeds matrix dimensions")]:
        with pytest.raises(IndexError) as e:
            obj[bad]
        assert str(e.value) == text


def test_objects_go_back_whole_or_fully_indexed_never_partly():
    obj = read_one(handles([7, 8, 7, 9], (2, 2)))
    assert sent(obj, obj[1][0]) == [(HANDLE, (2, 2), [("Figure", 7), ("Figure", 8), ("Figure", 7), ("Figure", 9)]),
                                    (HANDLE, (1, 1), [("Figure", 8)])]
    with pytest.raises(IndexError) as e:
        py_pb.py_to_serialized_str((obj[0],))
    assert str(e.value) == "number of indices (1) not equal to the number of dimensions (2)"
    back, element = roundtrip(obj, obj[0][1])
    assert back == obj and element.size == (1, 1) and sent(element) == sent(obj[0][1])


def test_value_objects_of_a_user_class_keep_their_class_and_properties():
    elements = [{"Rate": numeric(DOUBLE, [i], (1, 1)), "Name": numeric(DOUBLE, [i, i], (1, 2))} for i in range(6)]
    obj = read_one(value_object("finance.Model", elements, (2, 3)))
    assert obj.size == (2, 3)
    [(kind, dims, (cls, [props]))] = sent(obj[1][2])
    assert (kind, dims, cls) == (VALUE_OBJECT, (1, 1), "finance.Model")
    assert props == {"Rate": (DOUBLE, (1, 1), [5.0]), "Name": (DOUBLE, (1, 2), [5.0, 5.0])}
    [back] = roundtrip(obj)
    assert back == obj


def test_equality_and_the_refused_comparisons():
    a = read_one(handles([1, 2, 3]))
    b = read_one(handles([1, 2, 3]))
    assert a == b and not a != b and a != a[0] and a[0] != a[0][1] and a[0][1] == b[0][1]
    assert a != read_one(handles([1, 2, 4]))
    impostor = named("veltra", "object")()
    assert (a == impostor) is False  # carries the name only: never equal, never read as one
    with pytest.raises(TypeError) as e:
        a == 5
    assert str(e.value) == "comparison of objects of type 'veltra.object' with objects of another type not supported"
    for op, word in [("<", "less than"), ("<=", "less than or equal to"), (">", "greater than"),
                     (">=", "greater than or equal to")]:
        with pytest.raises(TypeError) as e:
            eval(f"a {op} b")
        assert str(e.value) == f"'veltra.object' does not support '{word}' comparison"
    with pytest.raises(TypeError):
        veltra.object()
    with pytest.raises(TypeError):
        py_pb.py_to_serialized_str((impostor,))


def test_the_types_are_injected_once_per_process():
    out = run_python("""
        import importlib, veltra, py_pb
        first = veltra.object
        importlib.reload(py_pb)
        print(veltra.object is first, veltra.object.__module__, veltra.object.__doc__)
    """)
    assert out == "True veltra VELTRA object\n"


@pytest.mark.parametrize(
    "setup, text",
    [("import sys; sys.modules['veltra'] = None", "Failed to initialize 'veltra' module."),
     ("import sys; sys.modules['veltra'] = 1", "PyModule_AddObject() failed for 'object'.")],
)
def test_start_up_failures_name_the_step(setup, text):
    out = run_python(f"""
        {setup}
        try:
            import py_pb
        except ValueError as e:
            print(e)
    """)
    assert out.endswith("Unable to initialize py_pb. Details: " + text + "\n")
