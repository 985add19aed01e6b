"""Random nested values through parameters, the loopback result and back, against what the dispatch rules
say must come back."""

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


# Plain values (numbers, bools, text, and lists, tuples and dicts of them) take a shortcut in both directions
# that builds no arrays. A 2-by-2 array anywhere sends the whole call (and its result) down the general path, so
# the same values with one more argument show what the general path makes of them.
GENERAL = np.ones((2, 2))
long_text = st.text(st.characters(blacklist_categories=("Cs",)), min_size=257, max_size=300)  # past the stack buffer
plain = st.recursive(
    st.one_of(st.floats(allow_nan=False), st.integers(-2**63, 2**63 - 1), st.booleans(), text, long_text),
    lambda inner: st.one_of(st.lists(inner, max_size=4), st.lists(inner, max_size=4).map(tuple),
                            st.dictionaries(names, inner, max_size=4)),
    max_leaves=12,
)


@settings(max_examples=200, deadline=None, suppress_health_check=[HealthCheck.too_slow])
@given(st.lists(plain, max_size=3), st.integers(0, 300))
def test_plain_values_cross_as_the_general_path_would_take_them(args, nargout):
    fast = py_pb.py_to_serialized_str(tuple(args), nargout=nargout)
    general = py_pb.py_to_serialized_str((*args, GENERAL), nargout=nargout)
    prefix = len(py_pb.py_to_serialized_str((), nargout=nargout))  # nargout, before the arguments
    assert general == fast + py_pb.py_to_serialized_str((GENERAL,), nargout=nargout)[prefix:]

    back = py_pb.serialized_str_to_py(loopback(fast))
    back_general = py_pb.serialized_str_to_py(loopback(general))
    assert same(back, back_general[:-1]) and np.asarray(back_general[-1]).tolist() == GENERAL.tolist()


def _read(*outputs):
    try:
        return py_pb.serialized_str_to_py(peer.result(*outputs))
    except Exception as e:  # compared by type and text
        return type(e), str(e)


GENERAL_OUT = peer.numeric(DOUBLE, [1.0, 2.0, 3.0, 4.0], (2, 2))
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
def test_results_the_shortcut_reads_or_declines_read_as_the_general_path_reads_them(case):
    fast, general = _read(PEER_PLAIN[case]), _read(PEER_PLAIN[case], GENERAL_OUT)
    if isinstance(fast, tuple):
        assert fast == general
    else:
        assert same(observed(fast), observed(general[:-1]))


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
