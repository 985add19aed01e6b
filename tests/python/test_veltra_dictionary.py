"""veltra.dictionary as a Python mapping: where it can be made from, what it does as a mapping, how it
compares."""

import collections

import pytest

import py_pb  # noqa: F401  (puts the type into the veltra package)
import veltra


class Int(int):
    pass


@pytest.mark.parametrize(
    "args, kwargs, expected",
    [
        ((), {}, {}),
        (({"a": 1, 2: "b"},), {}, {"a": 1, 2: "b"}),
        ((collections.OrderedDict(x=1),), {"y": 2}, {"x": 1, "y": 2}),
        ((collections.UserDict(x=1),), {}, {"x": 1}),
        ((collections.ChainMap({"k": "first", "a": 1}, {"k": "second", "b": 2}),), {}, {"k": "first", "a": 1, "b": 2}),
        ((veltra.dictionary(z=[1]),), {"z": 2}, {"z": 2}),
        ((), {"a": 1}, {"a": 1}),
    ],
    ids=["empty", "dict", "ordered-and-keywords", "userdict", "chainmap-first-wins", "dictionary", "keywords"],
)
def test_construction_from_every_source(args, kwargs, expected):
    d = veltra.dictionary(*args, **kwargs)
    assert d.todict() == expected and len(d) == len(expected)


def test_the_source_is_copied_not_shared():
    source = {"a": [1]}
    d = veltra.dictionary(source)
    source["b"] = 2
    copy = d.todict()
    copy["c"] = 3
    assert d.todict() == {"a": [1]} and d["a"] is source["a"]


@pytest.mark.parametrize(
    "arg, exc, text",
    [
        ([("a", 1)], TypeError, "conversion of object of type 'list' to a veltra.dictionary not supported"),
        (collections.ChainMap(1), ValueError, "unable to retrieve contents of ChainMap object"),
        (type("UserDict", (), {})(), None, None),  # a UserDict without its data: empty
    ],
)
def test_constructor_refusals(arg, exc, text):
    if exc is None:
        assert len(veltra.dictionary(arg)) == 0
        return
    with pytest.raises(exc) as e:
        veltra.dictionary(arg)
    assert str(e.value) == text


def test_mapping_protocol_methods_and_text_forms():
    d = veltra.dictionary({"a": 1, "b": 2})
    d["c"] = 3
    del d["a"]
    assert d["b"] == 2 and len(d) == 2
    with pytest.raises(KeyError):
        d["a"]
    assert d.keys() == ["b", "c"] and d.values() == [2, 3] and d.items() == [("b", 2), ("c", 3)]
    assert str(d) == "{'b': 2, 'c': 3}" and repr(d) == "veltra.dictionary({'b': 2, 'c': 3})"
    it = iter(d)
    assert type(it).__name__ == "dictionary_iter" and list(it) == ["b", "c"]
    with pytest.raises(StopIteration):
        next(it)
    d.clear()
    assert len(d) == 0 and repr(d) == "veltra.dictionary({})"
    with pytest.raises(TypeError):
        hash(d)
    assert veltra.dictionary.__doc__ == "VELTRA dictionary" and not hasattr(veltra, "dictionary_iter")
    assert veltra.dictionary.todict.__doc__ == "todict returns a dict with the same key-value pairs as the original"


def test_equality_ignores_order_and_is_asymmetric_for_subclass_values():
    assert veltra.dictionary(a=1, b=2) == veltra.dictionary(b=2, a=1)
    assert veltra.dictionary(a=1) != veltra.dictionary(a=1, b=2)
    ints, bools, subs = veltra.dictionary(a=1), veltra.dictionary(a=True), veltra.dictionary(a=Int(1))
    assert ints == bools and not bools == ints and bools != ints
    assert ints == subs and subs != ints
    with pytest.raises(TypeError) as e:
        ints == {"a": 1}
    assert str(e.value) == "comparison of objects of type 'veltra.dictionary' with objects of another type not supported"
    for op, word in [("<", "less than"), ("<=", "less than or equal to"), (">", "greater than"),
                     (">=", "greater than or equal to")]:
        with pytest.raises(TypeError) as e:
            eval(f"ints {op} bools")
        assert str(e.value) == f"'veltra.dictionary' does not support '{word}' comparison"


def test_a_dictionary_holding_itself_is_collected():
    import gc

    gc.collect()
    before = len(gc.get_objects())
    for _ in range(1000):
        d = veltra.dictionary()
        d["self"] = d
        d["it"] = iter(d)
    del d
    gc.collect()
    assert len(gc.get_objects()) - before < 100
