"""Every converter of this module, on its success and failure paths, many times over: the reference counts of
what goes in stay put, and neither Python's allocations nor the process's memory grow."""

import collections
import datetime
import gc
import sys
import tracemalloc
import warnings

import zoneinfo

import numpy as np
import pandas as pd
import pytest

import py_pb
import veltra
import veltramultidimarrayforpython as vpkg
from conftest import DOUBLE, ENUM, LOGICAL, SINGLE, SPARSE_DOUBLE, VALUE_OBJECT, named, rss_kib, run_python
from py_pb_peer import (array as pb_array, cell, char, datetime_fields, datetime_texts, duration, handles, numeric, result,
                        strings, struct, value_object)
from veltra.loopback import error_result, loopback
from veltra.wire import messages

BIG = 1 << 20  # payloads this large make one leaked copy per round show in the process's memory


def _raise(self):
    raise ZeroDivisionError("no truth")


FakeFloat = named("builtins", "float", __float__=lambda self: 1.5)
FakeZone = type("FakeZone", (datetime.tzinfo,), {"utcoffset": lambda self, dt: None})
FakeDatetime = named("datetime", "datetime", year=2020, month=1)  # no day
FakeTimedelta = named("datetime", "timedelta", days=1, seconds=2.5, microseconds=0)
FakeTimedelta64 = named("numpy", "timedelta64")
BadFloat = named("builtins", "float")
BadBool = named("builtins", "bool", __bool__=_raise)
Unknown = named("somewhere", "Unknown")


def _cycle():
    x = []
    x.append((x,))
    return x


def _self_list():
    x = [1]
    x.append(x)
    return x


def _self_dict():
    x = {"a": 1}
    x["b"] = x
    return x


def _deep(n):
    x = 1.0
    for _ in range(n):
        x = [x]
    return x


big_text = "\u00e9\U0001F600" * (BIG // 4)
big_bytes = bytes(range(256)) * (BIG // 256)

def _doubled(levels):
    x = [1.0]
    for _ in range(levels):
        x = [x, x]
    return x


# Classes that only claim a built-in's name, read through the buffer, iteration and mapping protocols.
FakeBytes = type("bytearray", (bytes,), {"__module__": "builtins"})
FakeList = named("builtins", "list", __iter__=lambda self: iter([1.0, "a"]))
FakeDict = named("builtins", "dict", keys=lambda self: ["k"], __getitem__=lambda self, key: [key], __len__=lambda self: 1)

# (argument of py_to_serialized_str, keyword arguments)
TO_BYTES_OK = [
    ((FakeBytes(b"\0" * 24), FakeList(), FakeDict(), _doubled(10)), {}),
    ((1.5, 2, True, 1 - 2j, "a\U0001F600", b"\x00\xff", bytearray(b"xy")), {}),
    (([1, (2.0, set()), {"k": [b"z", {"n": None and 0 or "v"}]}],), {"nargout": "3", "schema": "VELTRA_RESULT"}),
    (({3, 4.5, "s"}, {}, [], ()), {"nargout": 2}),
    (([1, 2.5, "x", "y" * 300, True, {"k": ["v", ()]}],), {"nargout": 2}),  # plain values only
    ((big_text, big_bytes, bytearray(big_bytes)), {}),
    ((memoryview(big_bytes), vpkg.double([[1.0, 2.0]]), vpkg.logical([True])), {}),
    ((FakeFloat(),), {}),
    ((datetime.datetime(2020, 1, 1, 2, 3, 4, 5, tzinfo=zoneinfo.ZoneInfo("Europe/Paris")),
      datetime.datetime(2020, 1, 1, tzinfo=datetime.timezone(datetime.timedelta(hours=-5))), datetime.datetime(1, 1, 1),
      pd.Timestamp("2020-01-01 01:02:03.456789123", tz="UTC"), np.datetime64("2020-01-01"),
      np.arange(BIG // 32).astype("M8[ns]").reshape(-1, 2), np.array(["2300-01-01", "NaT"], "M8[s]")), {}),
    ((datetime.datetime(2024, 11, 3, 1, 30, fold=1, tzinfo=zoneinfo.ZoneInfo("America/New_York")),
      np.array([1, "NaT"], "m8").byteswap().view(">m8"), np.array(["NaT"], "M8[ns]")), {}),
    ((datetime.timedelta(days=-1, microseconds=5), pd.Timedelta(3, "s"), np.timedelta64(7, "us"),
      np.arange(BIG // 8).astype("m8[us]").reshape(2, -1)), {}),
]
TO_BYTES_FAIL = [
    ((None,), {}, TypeError),
    (([1, {"a": [None]}],), {}, TypeError),
    (([0, 2**64],), {}, OverflowError),
    (({"k": "\ud800"},), {}, UnicodeEncodeError),
    (({1: 2},), {}, ValueError),
    (({"": 2},), {}, ValueError),
    (({"a b": big_bytes},), {}, ValueError),  # thrown by the array library, caught at the module boundary
    ((_self_list(),), {}, ValueError),
    ((_self_dict(),), {}, ValueError),
    ((_cycle(),), {}, RecursionError),
    ((_deep(250),), {}, ValueError),  # refused by the message writer
    ((object(),), {}, TypeError),
    ((Unknown(),), {}, TypeError),
    ((datetime.datetime(2020, 1, 1, tzinfo=FakeZone()),), {}, TypeError),
    ((FakeDatetime(),), {}, IndexError),
    ((datetime.datetime(2020, 1, 1, tzinfo=datetime.timezone(datetime.timedelta(seconds=0.5))),), {}, TypeError),
    ((datetime.datetime(2024, 11, 3, 1, 30, fold=1, tzinfo=zoneinfo.ZoneInfo("America/St_Johns")),), {}, TypeError),
    ((FakeTimedelta(),), {}, TypeError),
    ((FakeTimedelta64(),), {}, TypeError),
    ((collections.OrderedDict([(1, 1), ("a", 2)]),), {}, TypeError),
    ((BadFloat(),), {}, TypeError),
    ((BadBool(),), {}, ZeroDivisionError),
    ((big_bytes, [BadBool()]), {}, ZeroDivisionError),
    (big_text, {}, ValueError),  # not a cell of arguments
    ((), {"nargout": "x"}, ValueError),
    ((), {"nargout": 2**70}, ValueError),
    ((), {"schema": "nope"}, ValueError),
    ((), {"other": 1}, ValueError),
    ((_doubled(40),), {}, ValueError),  # too many values once expanded
    ((np.broadcast_to(np.zeros(1), (1 << 29,)),), {}, ValueError),  # too many bytes, refused before the copy
    (({"a\0b": 1},), {}, ValueError),
    ((named("builtins", "NULL")(), named("builtins", "dict")()), {}, TypeError),
]


def _value_object():
    vo = messages().VELTRA_Array(type=VALUE_OBJECT, dims=[1, 1], class_name="datetime")
    vo.objects.add()
    return vo


OBJECTS = result(handles(range(BIG // 64), (2, BIG // 128)),
                 value_object("finance.Model", [{"Rate": numeric(DOUBLE, [1.0] * 1024)}] * 6, (2, 3)))


def _dictionaries():
    """veltra.dictionary: made from every source, used as a mapping, compared, refused; cycles collected."""
    d = veltra.dictionary({"a": [1]}, b=big_text)
    for source in (collections.OrderedDict(x=1), collections.UserDict(x=1), collections.ChainMap({"x": 1}, {"y": 2}), d):
        veltra.dictionary(source)
    fixed = veltra.dictionary(t=big_text, inner=veltra.dictionary(x=1.5))
    sent = py_pb.py_to_serialized_str((d, collections.OrderedDict([(1, big_bytes), (2.5, [1])]), veltra.dictionary(),
                                       fixed))
    back, *_, fixed_back = py_pb.serialized_str_to_py(loopback(sent))
    py_pb.py_to_serialized_str((back, fixed_back))  # written anew (a list inside), and as it came
    back["a"].append(big_text)
    back["new"] = 1
    py_pb.py_to_serialized_str((back,))
    for keys in ({2**53 + 1: big_bytes, 0.5: big_text}, {1: big_bytes, 2**64: big_text}):
        with pytest.raises(ValueError):
            py_pb.py_to_serialized_str((veltra.dictionary(keys),))
    with pytest.raises(RuntimeError):
        for k in back:
            back[k + "x"] = big_text
    d["c"] = d
    d["it"] = iter(d)
    small = veltra.dictionary()
    small["me"] = small
    with pytest.raises(RecursionError):
        py_pb.py_to_serialized_str((small,))
    del d["a"]
    assert list(d) == ["b", "c", "it"] and d.items() and d.todict() and d == d and repr(d)
    for bad in (lambda: veltra.dictionary([1]), lambda: veltra.dictionary(collections.ChainMap(1)), lambda: d < d,
                lambda: d == {}, lambda: d["missing"]):
        with pytest.raises((TypeError, ValueError, KeyError)):
            bad()


def _objects():
    """veltra.object: made, indexed, compared and sent back, on the paths that succeed and those that fail."""
    whole, model = py_pb.serialized_str_to_py(OBJECTS)
    element = whole[1][5]
    assert whole == whole and whole != element and model[1][2] == model[1][2]
    py_pb.py_to_serialized_str((whole, element, model, model[0][1]))
    for bad in (lambda: whole[2], lambda: element[0], lambda: whole < whole, lambda: whole == 1,
                lambda: py_pb.py_to_serialized_str((model[1],))):
        with pytest.raises((IndexError, TypeError)):
            bad()


def _frames(rows=4096):
    """A frame of every column kind (a leaked column per round would show), and frames that are refused. Made
    afresh each round: pandas notes every view taken of a frame or index in that object and forgets them only
    now and then, which would look like growth."""
    good = pd.DataFrame({"f": np.arange(rows, dtype=float), "s": ["x" * 7, None] * (rows // 2),
                         "k": pd.Categorical(["a", "b"] * (rows // 2)), "n": pd.array([1, None] * (rows // 2), "Int64"),
                         "d": pd.to_timedelta(np.arange(rows), unit="ms"), "e": [None] * rows,
                         "z": np.full(rows, np.datetime64("NaT", "s"))},
                        index=pd.date_range("2024-01-01", periods=rows, freq="s", tz="Europe/Paris", name="t"))
    good.columns.name = "var"
    bad = [pd.DataFrame({"p": pd.period_range("2024-01", periods=2, freq="M")}),
           pd.DataFrame({"m": ["a", 1]}, dtype=object), pd.DataFrame({"b": pd.array([True, None], "boolean")}),
           pd.DataFrame([[1, 2]], columns=["a", "a"]), pd.DataFrame({"a": [1.0], 0: [2.0]}),
           pd.DataFrame({"t": [1.5]}, index=pd.Index([7], name="t")), pd.DataFrame({"k": [1.0]}).rename_axis(columns="k")]
    return good, bad


def _interrupted(*args, **kwargs):
    raise KeyboardInterrupt


def _tables():
    """DataFrames to tables and timetables and back, and the frames and tables that are refused."""
    frame, bad_frames = _frames()
    times = pd.DataFrame({"z": np.array(["NaT"], "M8[ns]"), "d": np.array([2**62], "m8[s]")})
    back, plain, _ = py_pb.serialized_str_to_py(loopback(py_pb.py_to_serialized_str((frame, frame.reset_index(), times))))
    assert len(back) == len(plain) == len(frame)
    for bad in bad_frames:
        with pytest.raises((TypeError, ValueError)):
            py_pb.py_to_serialized_str((bad,))
    arrow_array = pd.arrays.StringArray.__arrow_array__
    pd.arrays.StringArray.__arrow_array__ = _interrupted
    try:
        with pytest.raises(KeyboardInterrupt):
            py_pb.py_to_serialized_str((frame.astype({"s": "string[python]"}),))
    finally:
        pd.arrays.StringArray.__arrow_array__ = arrow_array
    nested = value_object("table", [{"data": cell([numeric(DOUBLE, [1.0] * 1024, (1024, 1)),
                                                   value_object("table", [{}], (1, 1))]),
                                     "varnames": cell([char("a"), char("b")]), "rownames": cell([])}], (1, 1))
    with pytest.raises(TypeError):
        py_pb.serialized_str_to_py(result(nested))


FROM_BYTES_OK = [
    result(*[numeric(k, [1], (1, 1)) for k in range(6, 14)], numeric(SINGLE, [0.5]), numeric(DOUBLE, [2.5]),
           numeric(LOGICAL, [True]), *[numeric(k, [1 + 2j]) for k in range(14, 24)]),
    result(char("a\U0001F600"), char("x" * BIG, (BIG, 1)), strings(["a", None, "c"]), strings([None]),
           strings(["s" * BIG])),
    result(cell([cell([]), numeric(DOUBLE, [1.0]), struct(["a", "b"], [[char("v"), cell([strings(["q"])])]])])),
    result(cell([char("a\U0001F600"), numeric(DOUBLE, [1.0]), struct(["a"], [[cell([numeric(LOGICAL, [True])])]])])),
    result(numeric(DOUBLE, [1.0, 2.0]), numeric(LOGICAL, [True, False]), numeric(7, list(range(256)) * 64)),
    error_result("m" * BIG, "id:x", [("f", "g", 1)] * 50),
    error_result("no identifier"),
    result(datetime_fields(2024, 2, 29, 23, 59, 59.999999, "Europe/Paris"), datetime_fields(1, 1, 1, zone="-05:30"),
           datetime_fields(2024.5, 1, 1, zone=char("UTC"), kind=DOUBLE), datetime_texts(["2024-01-01", None, "2300-01-01"]),
           datetime_texts(["2024-01-01T10:00"] * (BIG // 32), (2, BIG // 64)), duration([1500.0]),
           duration(list(range(BIG // 8)), (2, BIG // 16)), duration([1e19, 2.0]), duration([1.5, -2.25])),
    result(value_object("datetime", [{"DateString": strings(["1000-01-01T00:00:00.123456000000"])}], (1, 1)),
           datetime_texts(["1000-01-01T00:00:00.123456000000Z", "NaT"])),
]
FROM_BYTES_FAIL = [
    (result(cell([numeric(DOUBLE, [1.0]), char("a\ud800")])), UnicodeDecodeError),
    (result(cell([numeric(DOUBLE, [1.0])] * 4, (2, 2))), ValueError),
    (result(char("abcdef", (2, 3))), ValueError),
    (result(strings(["a"] * 4, (2, 2))), ValueError),
    (result(struct(["a"], [[char("x" * BIG)], [char("y")]], (1, 2))), ValueError),
    (result(cell([char("ok" * BIG), pb_array(SPARSE_DOUBLE, (2, 2), b"\0" * 8, sparse_rows=[0], sparse_cols=[0])])),
     TypeError),
    (result(pb_array(ENUM, (1, 1), class_name="C", enum_names=["x"])), TypeError),
    (result(_value_object()), ValueError),
    (result(datetime_fields(2024, 1, 1, zone="UTCLeapSeconds")), ValueError),
    (result(datetime_fields(2024, 1, 1, zone="Nowhere/Land")), zoneinfo.ZoneInfoNotFoundError),
    (result(datetime_fields(*[float("nan")] * 6, kind=DOUBLE)), ValueError),
    (result(datetime_texts(["2024-01-01", "not a date"])), ValueError),
    (result(duration([float("nan")])), ValueError),
    (result(duration([float("inf"), 1.0])), OverflowError),
    (result(datetime_fields(2024, 1, 1, zone="America")), zoneinfo.ZoneInfoNotFoundError),
    (result(datetime_fields(2024, 1, 1, zone="../x")), ValueError),
    (result(datetime_fields(2024, 1, 1, zone=strings(["UTC", "UTC"]))), ValueError),
    (result(value_object("datetime", [{"Year": char("2024")}], (1, 1))), ValueError),
    (result(value_object("duration", [{"millis": char("ab")}], (1, 1))), ValueError),
    (result(datetime_texts(["9" * 20, "2024-01-01"])), ValueError),
    (result(value_object("datetime", [{"DateString": strings(["1000-01-01T00:00:00.123456789012"])}], (1, 1))),
     ValueError),
    (result(datetime_texts(["1000-01-01T00:00:00.123456789012Z", "NaT"])), ValueError),
    (result(value_object("table", [{}], (1, 1))), ValueError),
    (result(struct(["u"], [[pb_array(0, ())]])), TypeError),
    (result(strings(["ok" * BIG, "\ud800"])), UnicodeDecodeError),
    (result(char("\udc00")), UnicodeDecodeError),
]
UNREADABLE = [b"\x0a\x05\x08", b"\x0a\x02\x08\x63"]


def _exercise():
    for args, kwargs in TO_BYTES_OK:
        data = py_pb.py_to_serialized_str(args, **kwargs)
        py_pb.serialized_str_to_py(loopback(data))
    for args, kwargs, exc in TO_BYTES_FAIL:
        with pytest.raises(exc):
            py_pb.py_to_serialized_str(args, **kwargs)
    with pytest.raises(TypeError):
        py_pb.py_to_serialized_str((1,), (2,))
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")  # numpy's on a date text with a zone
        for data in FROM_BYTES_OK:
            py_pb.serialized_str_to_py(data, schema="VELTRA_RESULT")
    for data, exc in FROM_BYTES_FAIL:
        with pytest.raises(exc), warnings.catch_warnings():
            warnings.simplefilter("ignore")
            py_pb.serialized_str_to_py(data)
    for data in UNREADABLE:
        with pytest.raises(SystemError):
            py_pb.serialized_str_to_py(data)
    for bad in ("text", None):
        with pytest.raises(ValueError):
            py_pb.serialized_str_to_py(bad)
    with pytest.raises(ValueError):
        py_pb.serialized_str_to_py(b"", nargout=1)
    _objects()
    _dictionaries()
    _tables()


def _walk(obj, out, seen):
    """obj and everything inside it, each once."""
    if id(obj) in seen:
        return
    seen.add(id(obj))
    out.append(obj)
    if isinstance(obj, dict):
        for k, v in obj.items():
            _walk(k, out, seen)
            _walk(v, out, seen)
    elif isinstance(obj, (list, tuple, set)):
        for v in obj:
            _walk(v, out, seen)


def _watched():
    objs, seen = [], set()
    for args, kwargs, *_ in TO_BYTES_OK + TO_BYTES_FAIL:
        _walk(args, objs, seen)
        _walk(kwargs, objs, seen)
    objs += [FakeFloat, BadFloat, BadBool, Unknown, big_text, big_bytes, OBJECTS]
    objs += FROM_BYTES_OK + [d for d, _ in FROM_BYTES_FAIL] + UNREADABLE
    # Small ints, True and the like are shared by the whole interpreter: their counts move with everything.
    return [o for o in objs if sys.getrefcount(o) < 1000]


def test_conversions_do_not_leak(capfd):
    watched = _watched()
    for _ in range(3):
        _exercise()
    gc.collect()
    refs = [sys.getrefcount(o) for o in watched]
    rss = rss_kib()
    tracemalloc.start(12)  # deep enough to see the import system's frames
    try:
        before = tracemalloc.take_snapshot()
        for _ in range(100):
            _exercise()
        gc.collect()
        after = tracemalloc.take_snapshot()
    finally:
        tracemalloc.stop()
    capfd.readouterr()  # the unreadable results' reports

    now = [sys.getrefcount(o) for o in watched]
    assert now == refs
    # A zone that is not found is looked for as a module each time; the import system's caches are not ours.
    imports = [tracemalloc.Filter(False, "<frozen importlib._bootstrap>", all_frames=True)]
    after, before = after.filter_traces(imports), before.filter_traces(imports)
    grown = sum(s.size_diff for s in after.compare_to(before, "filename") if s.size_diff > 0)
    # One leaked 1 MiB object per round would be 100 MiB; a few hundred bytes of caches may settle.
    assert grown < 256 * 1024, f"Python allocations grew by {grown} bytes"
    growth = rss_kib() - rss
    assert growth < 16 * 1024, f"RSS grew by {growth} KiB"


_GROWTH_AFTER = """
import gc
import numpy as np
import py_pb
from veltra.loopback import loopback

def rss_kib():
    with open("/proc/self/status") as f:
        return next(int(line.split()[1]) for line in f if line.startswith("VmRSS:"))

py_pb.serialized_str_to_py(loopback(py_pb.py_to_serialized_str(([1.0], np.ones((2, 2))))))
gc.collect()
before = rss_kib()
{call}
gc.collect()
print(rss_kib() - before)
"""


@pytest.mark.parametrize("call, bound_mib", [
    # Two million numbers through their converters (the plain case off): millions of arrays made and dropped.
    ("py_pb._plain_case(False); assert len(py_pb.serialized_str_to_py(loopback(py_pb.py_to_serialized_str("
     "([float(i) for i in range(2_000_000)], np.ones((2, 2))))))[0]) == 2_000_000", 64),
    # Sixty thousand texts of 256 characters fill a plain call's tape with 30 MiB of text.
    ("py_pb.py_to_serialized_str(['%256d' % i for i in range(60_000)])", 16),
], ids=["numbers", "texts"])
def test_large_calls_give_their_memory_back(call, bound_mib):
    growth = int(run_python(_GROWTH_AFTER.format(call=call)))  # a fresh process: the figures are its own
    assert growth < bound_mib * 1024, f"RSS stayed {growth} KiB above where it was"
