"""Random nested values through parameters, the loopback result and back, against what the dispatch rules
say must come back."""

import contextlib
import datetime
import hashlib
import math
import zoneinfo

import numpy as np
from hypothesis import HealthCheck, given, settings, strategies as st

import veltramultidimarrayforpython as vpkg
import py_pb
import py_pb_peer as peer
import pytest
from conftest import (COMPLEX_DOUBLE, DOUBLE, INT8, INT16, INT32, LOGICAL, SINGLE, UINT8, UINT16, UINT32,
                      UINT64)
from py_pb_peer import roundtrip
from veltra.loopback import loopback

PACKAGE_TYPES = {np.dtype(np.float64): vpkg.double, np.dtype(np.int32): vpkg.int32, np.dtype(np.uint8): vpkg.uint8,
                 np.dtype(np.bool_): vpkg.logical}

# U+FEFF and U+FFFE drawn often: at the start of a text they look like byte-order marks, and are characters.
text = st.text(st.one_of(st.characters(blacklist_categories=("Cs",)), st.sampled_from("\ufeff\ufffe")), max_size=8)
names = st.from_regex(r"[A-Za-z][A-Za-z0-9_]{0,10}", fullmatch=True)
scalars = st.one_of(
    st.floats(allow_nan=False),
    st.integers(-2**63, 2**63 - 1),
    st.booleans(),
    st.complex_numbers(allow_nan=False),
    text,
    st.binary(max_size=6),
    st.builds(bytearray, st.binary(max_size=3)),
)
arrays = st.builds(
    lambda dtype, shape, order, seed: np.asarray(
        np.random.default_rng(seed).integers(0, 100, size=shape).astype(dtype), order=order),
    st.sampled_from(sorted(PACKAGE_TYPES, key=str)),
    st.lists(st.integers(0, 3), min_size=0, max_size=3).map(tuple),
    st.sampled_from("CF"),
    st.integers(0, 2**32 - 1),
)
hashable = st.one_of(st.floats(allow_nan=False), st.integers(-2**63, 2**63 - 1), text, st.binary(max_size=4))
values = st.recursive(
    st.one_of(scalars, arrays),
    lambda inner: st.one_of(
        st.lists(inner, max_size=4),
        st.lists(inner, max_size=4).map(tuple),
        st.sets(hashable, max_size=4),
        st.dictionaries(names, inner, max_size=4),
    ),
    max_leaves=12,
)


def engine_dims(shape):
    return (1, 1) if len(shape) == 0 else (1, shape[0]) if len(shape) == 1 else shape


def expected(v, in_cell):
    """What comes back for v: in a cell (list, tuple, set, or the outputs) empty values become []."""
    if isinstance(v, (bytes, bytearray)):
        if len(v) == 0 and in_cell:
            return []
        return v[0] if len(v) == 1 else ("uint8", [list(v)] if v else np.zeros((1, 0), np.uint8).tolist())
    if isinstance(v, str):
        return [] if (in_cell and v == "") else v
    if isinstance(v, (list, tuple)):
        return [expected(e, True) for e in v]
    if isinstance(v, set):
        copy = set(v)
        return [expected(copy.pop(), True) for _ in range(len(v))]
    if isinstance(v, dict):
        return {k: expected(e, False) for k, e in v.items()}
    if isinstance(v, np.ndarray):
        if v.size == 0 and in_cell:
            return []
        if v.size == 1:
            return v.reshape(-1)[0].item()
        return (PACKAGE_TYPES[v.dtype].__name__, v.reshape(engine_dims(v.shape)).tolist())
    return v


def observed(v):
    """What came back, in the form of `expected`: package arrays as (type name, nested list)."""
    if isinstance(v, list):
        return [observed(e) for e in v]
    if isinstance(v, dict):
        return {k: observed(e) for k, e in v.items()}
    if type(v).__module__ == "veltra":
        return (type(v).__name__, np.asarray(v).tolist())
    if isinstance(v, np.ndarray):
        return (str(v.dtype), v.shape, v.tobytes())
    return v


def same(a, b):
    if isinstance(a, float) and isinstance(b, float):
        return a == b and math.copysign(1, a) == math.copysign(1, b)
    if type(a) is not type(b):
        return False
    if isinstance(a, (list, tuple)):
        return len(a) == len(b) and all(same(x, y) for x, y in zip(a, b))
    if isinstance(a, dict):
        return list(a) == list(b) and all(same(a[k], b[k]) for k in a)
    return a == b


@settings(max_examples=300, deadline=None, suppress_health_check=[HealthCheck.too_slow])
@given(st.lists(values, max_size=4))
def test_random_values_come_back_as_the_dispatch_rules_say(args):
    back = roundtrip(*args)
    want = [expected(v, True) for v in args]
    assert same(observed(back), want), (back, want)


# Plain values (numbers, bools, text, and lists, tuples and dicts of them) take a way of their own in both
# directions that builds no arrays; with it switched off every value goes through its converter.
@contextlib.contextmanager
def plain_case_off():
    before = py_pb._plain_case(False)
    try:
        yield
    finally:
        py_pb._plain_case(before)


long_text = st.text(st.characters(blacklist_categories=("Cs",)), min_size=257, max_size=300)  # past the stack buffer
plain = st.recursive(
    st.one_of(st.floats(allow_nan=False), st.integers(-2**63, 2**63 - 1), st.booleans(), text, long_text),
    lambda inner: st.one_of(st.lists(inner, max_size=4), st.lists(inner, max_size=4).map(tuple),
                            st.dictionaries(names, inner, max_size=4)),
    max_leaves=12,
)


@settings(max_examples=200, deadline=None, suppress_health_check=[HealthCheck.too_slow])
@given(st.lists(st.one_of(plain, st.just(np.ones((2, 2)))), max_size=3), st.integers(0, 300))
def test_plain_values_cross_as_their_converters_take_them(args, nargout):
    fast = py_pb.py_to_serialized_str(tuple(args), nargout=nargout)
    back = py_pb.serialized_str_to_py(loopback(fast))
    with plain_case_off():
        assert py_pb.py_to_serialized_str(tuple(args), nargout=nargout) == fast
        assert same(observed(back), observed(py_pb.serialized_str_to_py(loopback(fast))))


# What the parameters of these calls hashed to before the plain values and the arrays were written by one
# writer: any change to a byte shows here.
PINNED = {
    "numbers": (lambda: ((1.0, -0.0, float("inf"), 7, -2**63, 2**63 - 1, True, False), 1), "f68133507afb39dd"),
    "text": (lambda: (("", "a", "h\u00e9llo", "\ufeffabc", "\U0001F600x", "z" * 300, ["x" * 1000]), 2),
             "0d5d735d63c6356c"),
    "containers": (lambda: (([], (), {}, [[]], [1, [2.5, ("t", {"a": 1, "b_2": [True]})]], {"k": {"n": "v"}}), 1),
                   "6c21342814626f03"),
    "arrays among plain values": (lambda: (([1.0, np.arange(6.0).reshape(2, 3), "t"],
                                            {"a": np.eye(2, dtype=np.float32)}), 1), "6f6178d5d093c429"),
    "arrays alone": (lambda: ((np.arange(12, dtype=np.int16).reshape(3, 4, order="F"), np.array([[1 + 2j]])), 3),
                     "e6d1dda7a8f022a6"),
    "shared containers": (lambda: _shared(), "922cc898f1e92874"),
    "other kinds": (lambda: ((b"by", {3}, datetime.datetime(2024, 1, 2, 3, 4, 5), np.float32(1.5)), 1),
                    "67505500100afc93"),
    "a list of arguments": (lambda: ([1, "two", [3.0]], 1), "f26fea2cb3597e0d"),
}


def _shared():
    shared, big = [1.0, "s", [2, 3]], list(range(100))
    return (shared, shared, [shared, big, big], big), 1


@pytest.mark.parametrize("off", [False, True], ids=["plain case on", "plain case off"])
def test_parameters_keep_their_bytes(off):
    got = {}
    with plain_case_off() if off else contextlib.nullcontext():
        for name, (make, _) in PINNED.items():
            args, nargout = make()
            got[name] = hashlib.sha256(py_pb.py_to_serialized_str(args, nargout=nargout)).hexdigest()[:16]
    assert got == {name: digest for name, (_, digest) in PINNED.items()}


def _read(*outputs):
    try:
        return py_pb.serialized_str_to_py(peer.result(*outputs))
    except Exception as e:  # compared by type and text
        return type(e), str(e)


PEER_PLAIN = {
    "column cell and char": peer.cell([peer.char("ab", (2, 1)), peer.numeric(INT8, [-3], (1, 1))], (2, 1)),
    "every real kind": peer.cell([peer.numeric(k, [7], (1, 1)) for k in (SINGLE, UINT8, INT16, UINT16, INT32,
                                                                         UINT32, UINT64)]),
    "logical byte 2": peer.numeric(UINT8, [2], (1, 1)).__class__(type=LOGICAL, dims=[1, 1], data=b"\x02"),
    "empty fields": peer.struct(["c", "s", "e", "d"], [[peer.char("", (0, 0)), peer.cell([], (0, 0)),
                                                         peer.struct([], [[]]), peer.numeric(DOUBLE, [], (0, 0))]]),
    "empty struct field": peer.struct(["s"], [[peer.struct([], [], (0, 0))]]),
    "a name twice": peer.struct(["a", "a"], [[peer.numeric(DOUBLE, [1]), peer.numeric(DOUBLE, [2])]]),
    "a name that is no identifier": peer.struct(["1a"], [[peer.numeric(DOUBLE, [1])]]),
    "complex scalar": peer.numeric(COMPLEX_DOUBLE, [1 + 2j], (1, 1)),
    "three dimensions": peer.numeric(DOUBLE, [1.0], (1, 1, 1)),
    "unpaired surrogate": peer.char("a\ud800"),
    "2-by-2 char in a struct": peer.struct(["t"], [[peer.char("abcd", (2, 2))]]),
    "engine datetimes": peer.datetime_texts(["2024-01-01T10:00:00.123456789", None, "", "2300-01-01"]),
    "engine datetimes 2-by-2": peer.datetime_texts(["2024-01-01", "2024-01-02T03:04", "NaT", "1969-12-31"], (2, 2)),
    "engine datetimes with a text numpy cannot read": peer.datetime_texts(["2024-01-01", "not a date"]),
    "engine datetimes with another property": peer.value_object(
        "datetime", [{"DateString": peer.strings(["2024-01-01"]), "TimeZone": peer.strings(["UTC"])}] * 2),
}


@pytest.mark.parametrize("case", PEER_PLAIN)
def test_results_read_the_same_with_the_plain_case_on_and_off(case):
    fast = _read(PEER_PLAIN[case])
    with plain_case_off():
        general = _read(PEER_PLAIN[case])
    if isinstance(fast, tuple):
        assert fast == general
    else:
        assert same(observed(fast), observed(general))


# ---- time values: folds and not-a-time ----

ZONES = [zoneinfo.ZoneInfo(k) for k in ("America/New_York", "Europe/London", "Australia/Lord_Howe", "UTC")]


@settings(max_examples=200, deadline=None)
@given(st.datetimes(timezones=st.sampled_from(ZONES)), st.integers(0, 1))
def test_datetimes_in_a_zone_keep_their_wall_clock_and_instant(value, fold):
    value = value.replace(fold=fold)
    [back] = roundtrip(value)
    assert back.replace(tzinfo=None) == value.replace(tzinfo=None) and back.utcoffset() == value.utcoffset()


@settings(max_examples=200, deadline=None)
@given(st.sampled_from(["Y", "M", "D", "h", "m", "s", "ms", "us", "ns"]),
       st.lists(st.one_of(st.none(), st.integers(-10**6, 10**6)), max_size=6))
def test_datetime64_arrays_with_not_a_time_come_back_as_they_went(unit, counts):
    a = np.array([np.iinfo(np.int64).min if c is None else c for c in counts], np.int64).view(f"M8[{unit}]")
    [back] = roundtrip(a)
    back = np.asarray(back)  # a single element comes back as a scalar
    assert back.dtype == (a.dtype if any(c is not None for c in counts) else np.dtype("M8[ns]"))
    assert np.array_equal(back.reshape(-1), a, equal_nan=True)
