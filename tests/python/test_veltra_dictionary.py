"""veltra.dictionary as a Python mapping: where it can be made from, what it does as a mapping, how it
compares."""

import collections
import collections.abc
import datetime as dt
import types

import numpy as np
import pytest

import py_pb
import veltra
from conftest import CELL, CHAR, DOUBLE, INT32, INT64, LOGICAL, STRING, VALUE_OBJECT
from py_pb_peer import cell, char, numeric, params, read_one, roundtrip, sent, strings, struct, value_object


class Int(int):
    pass


class Sub(dict):
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


# ---- to and from the engine ----

def layout(value):
    """What the peer decodes of the engine dictionary we write for `value`: (Keys, Values) or the Value text."""
    [(kind, dims, (cls, [p]))] = sent(value)
    assert (kind, dims, cls) == (VALUE_OBJECT, (1, 1), "dictionary") and list(p) == [
        "Version", "IsKeyCombined", "IsValueCombined", "Value"]
    assert (p["Version"], p["IsKeyCombined"], p["IsValueCombined"]) == (
        (DOUBLE, (1, 1), [1.0]), (LOGICAL, (1, 1), [True]), (LOGICAL, (1, 1), [False]))
    kind, dims, content = p["Value"]
    if kind == CHAR:
        return content
    [fields] = content
    return fields["Keys"], fields["Values"]


@pytest.mark.parametrize(
    "value, keys",
    [
        (veltra.dictionary(a=1, b="x"), (STRING, (2, 1), ["a", "b"])),
        (collections.OrderedDict([(3, 1), (-2**63, 2)]), (INT64, (2, 1), [3, -2**63])),
        (collections.UserDict({1: 1, 2.5: 2}), (DOUBLE, (2, 1), [1.0, 2.5])),
        (collections.ChainMap({True: 1}, {True: 0, False: 2}), (LOGICAL, (2, 1), [True, False])),
        (types.MappingProxyType({"k": 1, "j": 2}), (STRING, (2, 1), ["k", "j"])),
        (Sub(z=1, y=2), (STRING, (2, 1), ["z", "y"])),
    ],
    ids=["dictionary", "ordered-int", "userdict-float", "chainmap-bool", "mappingproxy", "dict-subclass"],
)
def test_mappings_become_engine_dictionaries_with_one_kind_of_keys(value, keys):
    got_keys, (kind, dims, values) = layout(value)
    assert got_keys == keys and (kind, dims) == (CELL, (2, 1))
    assert values == [sent(v)[0] for v in (value.values() if not isinstance(value, collections.ChainMap)
                                           else dict(value).values())]


def test_an_empty_dictionary_is_unconfigured():
    assert layout(veltra.dictionary()) == layout(collections.OrderedDict()) == "Unconfigured"


@pytest.mark.parametrize("bad", [{1: 1, "a": 2}, {True: 1, 2: 2}, {(1, 2): 3}, {None: 1}])
def test_keys_of_mixed_or_other_kinds_are_refused(bad):
    with pytest.raises(TypeError, match="^keys of a dictionary passed to VELTRA must be all str or all numbers, not "):
        py_pb.py_to_serialized_str((veltra.dictionary(bad),))


def test_dictionaries_round_trip_with_nested_values():
    inner = veltra.dictionary(x=[1, "two"])
    values = [veltra.dictionary(a=1.5, b="s", c=[1, 2], d={"f": 1}, e=inner), veltra.dictionary({1: "one", 2: 2.0}),
              veltra.dictionary()]
    back = roundtrip(*values)
    assert back == values and type(back[0]["e"]) is veltra.dictionary


def _engine_dictionary(keys, values, combined=True, extra=()):
    fields = [keys, values]
    return value_object("dictionary", [dict(Version=numeric(DOUBLE, [1.0], (1, 1)),
                                            IsKeyCombined=numeric(LOGICAL, [True], (1, 1)),
                                            IsValueCombined=numeric(LOGICAL, [combined], (1, 1)),
                                            Value=struct(["Keys", "Values", *extra], [fields + [numeric(DOUBLE, [0])
                                                                                                for _ in extra]]),
                                            )], (1, 1))


@pytest.mark.parametrize(
    "message, expected",
    [
        (_engine_dictionary(strings(["a", "b"], (2, 1)), numeric(DOUBLE, [1, 2], (2, 1))), {"a": 1.0, "b": 2.0}),
        (_engine_dictionary(numeric(INT32, [5, 6], (2, 1)), numeric(DOUBLE, [7], (1, 1))), {5: 7.0, 6: 7.0}),
        (_engine_dictionary(cell([char("k"), numeric(DOUBLE, [2])], (2, 1)), cell([strings(["v"]), cell([])], (2, 1)),
                            False), {"k": "v", 2.0: []}),
        (value_object("dictionary", [{"Value": char("Unconfigured")}], (1, 1)), {}),
    ],
    ids=["combined-values", "one-value-for-every-key", "keys-as-cell", "unconfigured"],
)
def test_engine_dictionaries_come_back_as_veltra_dictionaries(message, expected):
    d = read_one(message)
    assert type(d) is veltra.dictionary and d.todict() == expected


@pytest.mark.parametrize(
    "message, text",
    [
        (_engine_dictionary(strings(["a", "b"], (2, 1)), numeric(DOUBLE, [1, 2, 3], (1, 3))),
         "dimensions of the key and value must be the same, or the value must be scalar"),
        (value_object("dictionary", [{"Value": numeric(DOUBLE, [1])}], (1, 1)),
         "conversion of this dictionary to a veltra.dictionary not supported"),
        (value_object("dictionary", [{}], (1, 1)), "conversion of this dictionary to a veltra.dictionary not supported"),
        (_engine_dictionary(strings(["a"], (1, 1)), numeric(14, [1j], (1, 1))),
         "conversion of this dictionary to a veltra.dictionary not supported"),
    ],
)
def test_engine_dictionaries_of_other_layouts_are_refused(message, text):
    with pytest.raises(ValueError) as e:
        read_one(message)
    assert str(e.value) == text


def test_an_unchanged_dictionary_goes_back_as_it_came_and_a_changed_one_is_rebuilt():
    engine = _engine_dictionary(strings(["a", "b"], (2, 1)), numeric(DOUBLE, [1, 2], (2, 1)))
    as_sent = lambda d: params((d,)).rhs[0].SerializeToString()  # noqa: E731
    d = read_one(engine)
    d.keys(), d["a"], list(d), d.todict()  # reading changes nothing
    assert as_sent(d) == engine.SerializeToString()
    d["a"] = 1.0  # the same value, but assigned: rebuilt in our own layout
    rebuilt = as_sent(d)
    assert rebuilt != engine.SerializeToString() and layout(d)[0] == (STRING, (2, 1), ["a", "b"])
    emptied = read_one(engine)
    emptied.clear()
    assert layout(emptied) == "Unconfigured"


def test_a_dictionary_holding_itself_is_refused_with_recursion_error():
    d = veltra.dictionary()
    d["me"] = d
    with pytest.raises(RecursionError):
        py_pb.py_to_serialized_str((d,))


@pytest.mark.parametrize(
    "value, change",
    [
        ([1, 2], lambda v: v.append(3)),
        ({"f": 1.0}, lambda v: v.__setitem__("g", 2.0)),
        (np.array([1.0, 2.0]), lambda v: v.__setitem__((0, 1), 5.0)),
        (np.array(["2020-01-01", "2021-01-01"], "datetime64[ms]"), lambda v: v.__setitem__(0, np.datetime64(0, "ms"))),
        (veltra.dictionary(x=1.0), lambda v: v.__setitem__("x", 2.0)),
        (veltra.dictionary(x=[1]), lambda v: v["x"].append(2)),
    ],
    ids=["list", "struct", "array", "datetimes", "dictionary", "list-in-dictionary"],
)
def test_a_dictionary_read_back_sends_what_it_holds_after_changes_inside_its_values(value, change):
    [d] = roundtrip(veltra.dictionary(s="fixed", when=dt.datetime(2020, 1, 2), k=value))
    change(d["k"])
    assert sent(d) == sent(_anew(d))


def _anew(value):
    """The same pairs in dictionaries made here, nested ones too: always written anew."""
    if type(value) is veltra.dictionary:
        return veltra.dictionary({k: _anew(v) for k, v in value.items()})
    return value


def test_an_unchanged_dictionary_of_unchangeable_values_goes_back_as_it_came():
    inner = _engine_dictionary(strings(["x"], (1, 1)), numeric(DOUBLE, [1], (1, 1)))
    engine = _engine_dictionary(strings(["a", "b", "c"], (3, 1)),
                                cell([char("text"), inner, numeric(INT32, [7])], (3, 1)), False)
    d = read_one(engine)
    assert params((d,)).rhs[0].SerializeToString() == engine.SerializeToString()
    d["b"]["x"] = 1.0  # the same value, assigned inside: the whole is written anew
    assert params((d,)).rhs[0].SerializeToString() != engine.SerializeToString()


def _walk(mapping, change):
    """The keys iteration yields while `change(mapping, key)` runs at each, and how it ended."""
    seen = []
    try:
        for k in mapping:
            seen.append(k)
            if len(seen) > 10:
                return seen, "runaway"
            change(mapping, k)
    except RuntimeError as e:
        return seen, str(e)
    return seen, "done"


@pytest.mark.parametrize(
    "change",
    [
        lambda m, k: m.__setitem__(k + "x", 1),
        lambda m, k: (m.__delitem__(k), m.__setitem__(k, 1)) if k == "a" else None,
        lambda m, k: m.__delitem__(k),
        lambda m, k: m.clear(),
        lambda m, k: m.__setitem__(k, 2),
    ],
    ids=["add", "delete-and-add-again", "delete", "clear", "assign"],
)
def test_changing_a_dictionary_while_iterating_over_it_behaves_as_for_a_dict(change):
    assert _walk(veltra.dictionary(a=0, b=0, c=0), change) == _walk({"a": 0, "b": 0, "c": 0}, change)


def test_number_keys_go_only_when_the_key_array_holds_them_exactly():
    ok = {2**53: "a", -2**60: "b", 0.5: "c"}  # a double holds each exactly
    [back] = roundtrip(veltra.dictionary(ok), veltra.dictionary({2**63 - 1: 1, -2**63: 2}))[:1]
    assert back.todict() == ok
    for keys, culprit in [([2**53, 2**53 + 1, 0.5], 2**53 + 1), ([1.5, 10**400], 10**400), ([1, 2**63], 2**63),
                          ([-2**63 - 1], -2**63 - 1)]:
        with pytest.raises(ValueError) as e:
            py_pb.py_to_serialized_str((collections.OrderedDict.fromkeys(keys, 0),))
        assert repr(culprit)[:50] in str(e.value) and "str keys" in str(e.value)


class _Interrupting:
    def __init__(self, error=KeyboardInterrupt):
        self.error = error

    def __eq__(self, other):
        raise self.error

    def __hash__(self):
        return 1

    def __len__(self):
        raise self.error


class _PairsOf(collections.abc.Mapping):
    def __init__(self, pairs):
        self.pairs = pairs

    def __getitem__(self, key):
        raise KeyError(key)

    def __iter__(self):
        return iter(())

    def __len__(self):
        return len(self.pairs)

    def items(self):
        return self.pairs


def test_interrupts_pass_through_comparison_and_conversion_while_ordinary_errors_mean_not_equal():
    for make in (lambda e: veltra.dictionary(k=_Interrupting(e)), lambda e: veltra.dictionary({_Interrupting(e): 1})):
        with pytest.raises(KeyboardInterrupt):
            make(KeyboardInterrupt) == make(KeyboardInterrupt)
        with pytest.raises(SystemExit):
            make(SystemExit) != make(SystemExit)
        assert not make(ValueError) == make(ValueError) and make(ValueError) != make(ValueError)
    with pytest.raises(KeyboardInterrupt):
        py_pb.py_to_serialized_str((_PairsOf([_Interrupting()]),))
    with pytest.raises(ValueError, match="^invalid number of elements"):
        py_pb.py_to_serialized_str((_PairsOf([_Interrupting(ValueError)]),))
