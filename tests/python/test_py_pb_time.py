"""Points in time and lengths of time, both ways: what the peer decodes from our parameters, what we make of the
datetimes and durations the peer writes, and round trips through the loopback."""

import datetime as dt
import math
import os
import warnings
import zoneinfo

import numpy as np
import pandas as pd
import pytest

import py_pb
from conftest import CHAR, DOUBLE, INT64, STRING, VALUE_OBJECT, named
from py_pb_peer import (char, datetime_fields, datetime_texts, duration, numeric, read_one, roundtrip, sent, strings,
                        value_object)

UNITS = ["Y", "M", "W", "D", "h", "m", "s", "ms", "us", "ns", "ps", "fs", "as"]
PARIS = zoneinfo.ZoneInfo("Europe/Paris")
NAT_SCALAR = "conversion of VELTRA datetime scalar 'NaT' to Python not supported"


def tz(**offset):
    return dt.timezone(dt.timedelta(**offset))


def props(value):
    """The one value object we sent for `value`: its class and {property: (kind, dims, content)}."""
    [(kind, dims, (cls, objects))] = sent(value)
    assert kind == VALUE_OBJECT and dims == (1, 1) and len(objects) == 1
    return cls, objects[0]


# ---- into the engine: the field form ----

@pytest.mark.parametrize(
    "value, zone",
    [
        (dt.datetime(2024, 1, 2, 3, 4, 5, 250000), ""),
        (dt.datetime(2024, 1, 2, 3, 4, 5, 250000, tzinfo=dt.timezone.utc), "+00:00:00"),
        (dt.datetime(2024, 1, 2, 3, 4, 5, 250000, tzinfo=tz(hours=-5)), "-05:00:00"),
        (dt.datetime(2024, 1, 2, 3, 4, 5, 250000, tzinfo=tz(hours=5, minutes=30)), "+05:30:00"),
        # The sign is the hours' alone: offsets between minus one hour and zero read as positive.
        (dt.datetime(2024, 1, 2, 3, 4, 5, 250000, tzinfo=tz(minutes=-30)), "+00:30:00"),
        (dt.datetime(2024, 1, 2, 3, 4, 5, 250000, tzinfo=tz(hours=-5, minutes=-30)), "-05:30:00"),
        (dt.datetime(2024, 1, 2, 3, 4, 5, 250000, tzinfo=tz(hours=-1, minutes=-30, seconds=-7)), "-01:30:07"),
        (dt.datetime(2024, 1, 2, 3, 4, 5, 250000, tzinfo=PARIS), "Europe/Paris"),
        (pd.Timestamp("2024-01-02 03:04:05.250000999").tz_localize(PARIS), "Europe/Paris"),
        (pd.Timestamp("2024-01-02 03:04:05.250000999", tz="UTC"), "+00:00:00"),
        (pd.Timestamp("2024-01-02 03:04:05.250000999"), ""),
    ],
)
def test_datetimes_travel_in_the_field_form(value, zone):
    cls, p = props(value)
    assert cls == "datetime"
    assert p == {"TimeZone": (STRING, (1, 1), [zone]),
                 "Year": (INT64, (1, 1), [2024]), "Month": (INT64, (1, 1), [1]), "Day": (INT64, (1, 1), [2]),
                 "Hour": (INT64, (1, 1), [3]), "Minute": (INT64, (1, 1), [4]),
                 "Second": (DOUBLE, (1, 1), [5.25])}  # nanoseconds dropped, never rounded up


def test_sub_microseconds_are_dropped_not_rounded_into_the_next_second():
    _, p = props(pd.Timestamp("2024-01-02 03:04:59.999999999"))
    assert p["Second"] == (DOUBLE, (1, 1), [999999 / 1e6 + 59])
    assert p["Minute"][2] == [4]


@pytest.mark.parametrize(
    "value",
    [
        dt.datetime(1, 1, 1),
        dt.datetime(9999, 12, 31, 23, 59, 59, 999999),
        dt.datetime(2024, 2, 29, 12, tzinfo=PARIS),
        dt.datetime(2000, 2, 29, 0, 0, 0, 1, tzinfo=dt.timezone.utc),
        dt.datetime(2024, 6, 1, 8, tzinfo=tz(hours=5, minutes=45)),
        dt.datetime(2024, 6, 1, 8, tzinfo=tz(hours=-8)),
    ],
)
def test_datetimes_round_trip(value):
    [back] = roundtrip(value)
    assert type(back) is dt.datetime
    assert back.replace(tzinfo=None) == value.replace(tzinfo=None)
    assert back.utcoffset() == value.utcoffset()
    if value.tzinfo is None or isinstance(value.tzinfo, zoneinfo.ZoneInfo):
        assert back.tzinfo == value.tzinfo


def test_pandas_and_numpy_agree_with_the_standard_library():
    stdlib = dt.datetime(2024, 3, 4, 5, 6, 7, 891011, tzinfo=PARIS)
    assert sent(pd.Timestamp(stdlib)) == sent(stdlib)
    assert sent(pd.Timedelta(days=2, microseconds=3500)) == sent(dt.timedelta(days=2, microseconds=3500))
    assert sent(np.timedelta64(2 * 86400 * 10**6 + 3500, "us")) == sent(dt.timedelta(days=2, microseconds=3500))


NEW_YORK = zoneinfo.ZoneInfo("America/New_York")


@pytest.mark.parametrize(
    "value, zone",
    [
        (dt.datetime(2024, 11, 3, 1, 30, fold=1, tzinfo=NEW_YORK), "-05:00:00"),  # the second 1:30
        (pd.Timestamp(dt.datetime(2024, 11, 3, 1, 30, fold=1, tzinfo=NEW_YORK)), "-05:00:00"),
        (dt.datetime(2024, 3, 10, 2, 30, fold=1, tzinfo=NEW_YORK), "-04:00:00"),  # the later side of a gap
        (dt.datetime(2024, 11, 3, 1, 30, fold=0, tzinfo=NEW_YORK), "America/New_York"),
        (dt.datetime(2024, 7, 3, 1, 30, fold=1, tzinfo=NEW_YORK), "America/New_York"),  # a fold that changes nothing
    ],
)
def test_a_fold_the_zone_name_cannot_tell_travels_as_its_offset(value, zone):
    _, p = props(value)
    assert p["TimeZone"] == (STRING, (1, 1), [zone])
    [back] = roundtrip(value)
    assert back.timestamp() == value.timestamp()
    assert back.replace(tzinfo=None) == value.replace(tzinfo=None)


def _keyless_zone():
    for base in zoneinfo.TZPATH:
        path = os.path.join(base, "Europe", "Paris")
        if os.path.isfile(path):
            with open(path, "rb") as f:
                return zoneinfo.ZoneInfo.from_file(f)
    tzdata = pytest.importorskip("importlib.resources").files("tzdata") / "zoneinfo" / "Europe" / "Paris"
    with tzdata.open("rb") as f:
        return zoneinfo.ZoneInfo.from_file(f)


def _raises(error):
    def get(self):
        raise error
    return property(get)


# A ZoneInfo by its type's name whose key cannot be read.
InterruptedZone = type("ZoneInfo", (dt.tzinfo,), {"__module__": "zoneinfo", "key": _raises(KeyboardInterrupt),
                                                  "utcoffset": lambda self, d: dt.timedelta(0)})


@pytest.mark.parametrize(
    "value, exc",
    [
        (dt.datetime(2024, 1, 1, tzinfo=_keyless_zone()), TypeError),
        (dt.datetime(2024, 1, 1, tzinfo=tz(seconds=0.5)), TypeError),
        # -03:30 would read back as -02:30: the sign of an offset text is its hours'
        (dt.datetime(2024, 11, 3, 1, 30, fold=1, tzinfo=zoneinfo.ZoneInfo("America/St_Johns")), TypeError),
        (dt.datetime(2024, 1, 1, tzinfo=InterruptedZone()), KeyboardInterrupt),
    ],
)
def test_zones_that_cannot_cross_exactly_are_refused(value, exc):
    with pytest.raises(exc) as e:
        py_pb.py_to_serialized_str((value,))
    if exc is TypeError:  # the value, and a way out
        assert repr(value)[:60] in str(e.value) and ".astimezone(" in str(e.value)


class OtherZone(dt.tzinfo):
    def utcoffset(self, d):
        return dt.timedelta(hours=1)


class NanYear:
    year, month, day, hour, minute, second, microsecond, tzinfo = float("nan"), 1, 1, 0, 0, 0, 0, None


@pytest.mark.parametrize(
    "value, exc, text",
    [
        (dt.datetime(2024, 1, 1, tzinfo=OtherZone()), TypeError,
         "conversion of VELTRA datetime object with time zone with type 'test_py_pb_time.OtherZone' to Python not "
         "supported"),
        (named("datetime", "datetime", year=2024, month=1, hour=0, minute=0)(), IndexError,
         "unable to retrieve attribute 'day'"),
        (named("datetime", "datetime", year=2024, month=1, day=1, hour=0, minute=0, second=0)(), IndexError,
         "unable to retrieve attribute 'microsecond'"),
        (named("datetime", "datetime", year="2024", month=1, day=1, hour=0, minute=0)(), TypeError, None),
        (type("datetime", (NanYear,), {"__module__": "datetime"})(), TypeError, None),
        (named("datetime", "timedelta", days=1, seconds=0)(), IndexError, "unable to retrieve attribute 'microseconds'"),
        (named("numpy", "datetime64", __str__=lambda self: "2024-01-01")(), TypeError,
         "conversion of Python data type 'numpy.datetime64' to VELTRA not supported"),
    ],
)
def test_bad_inputs_are_refused_with_the_texts_users_see(value, exc, text):
    with pytest.raises(exc) as e:
        py_pb.py_to_serialized_str((value,))
    if text is not None:
        assert str(e.value) == text


# ---- into the engine: the text form ----

@pytest.mark.parametrize(
    "value, text",
    [(np.datetime64("NaT"), "NaT"), (np.datetime64("2024-01-02"), "2024-01-02"),
     (np.datetime64("2024-01-02T03:04:05.123456789"), "2024-01-02T03:04:05.123456789")],
)
def test_numpy_scalars_travel_as_their_text(value, text):
    assert props(value) == ("datetime", {"DateString": (STRING, (1, 1), [text])})


def _layouts(a):
    """a, a strided and transposed view, its values stored byte-swapped, and unaligned copies of it and of one
    element (0-d)."""
    def unaligned(x):
        b = np.frombuffer(bytearray(x.nbytes + 1), dtype=x.dtype, offset=1, count=x.size).reshape(x.shape)
        b[...] = x
        return b
    return [a, a.transpose(2, 0, 1)[:, ::2], a.byteswap().view(a.dtype.newbyteorder()), unaligned(a),
            unaligned(a[:1, :1, :1].reshape(()))]


def _random_datetimes(unit, shape, rng):
    # Counts across the whole range (numpy itself prints the far ones), near 1970, and NaT.
    n = int(np.prod(shape))
    values = np.concatenate([rng.integers(-2**63 + 1, 2**63, n // 3), rng.integers(-10**12, 10**12, n - n // 3)])
    values[rng.integers(0, n, n // 10)] = np.iinfo(np.int64).min
    return rng.permutation(values).reshape(shape).view(f"M8[{unit}]")


@pytest.mark.parametrize("unit", UNITS + ["10ms", "2D", "3h", "generic"])
def test_numpy_arrays_travel_as_the_texts_numpy_prints_in_column_major_order(unit):
    rng = np.random.default_rng(len(unit))
    if unit == "generic":
        a = np.array(["NaT"] * 24, dtype="M8").reshape(2, 3, 4)
    else:
        a = _random_datetimes(unit, (4, 3, 25), rng)
    for layout in _layouts(a):
        try:
            texts = [str(e) for e in layout.ravel(order="F")]
        except OverflowError:  # numpy 2.5 and later refuse to print a multiplied unit past its range
            with pytest.raises(OverflowError):
                sent(layout)
            continue
        [(kind, dims, (_, [p]))] = sent(layout)
        assert p["DateString"] == (STRING, layout.shape or (1, 1), texts)


@pytest.mark.parametrize("unit", UNITS)
@pytest.mark.parametrize("shape", [(), (3,), (2, 3), (2, 1, 2)])
def test_numpy_datetimes_read_back_as_they_went_in(unit, shape):
    a = _random_datetimes(unit, (int(np.prod(shape)),), np.random.default_rng(7))
    a = np.where(np.abs(a.view("i8")) < 10**6, a, a.dtype.type(12345, unit)).reshape(shape)
    value = a[()] if shape == () else a
    [back] = roundtrip(value)
    expected_type = np.datetime64 if shape == () else np.ndarray
    assert type(back) is expected_type
    if shape == () or unit == "W":
        assert np.array_equal(back, value, equal_nan=True)  # a week reads back as its first day
    else:
        assert back.shape == shape and back.dtype == a.dtype
        assert np.array_equal(back.view("i8"), a.view("i8"))


# ---- into the engine: durations ----

@pytest.mark.parametrize(
    "value, millis",
    [
        (dt.timedelta(days=1, seconds=2, microseconds=3500), 86402003.0),
        (dt.timedelta(microseconds=-1), -1.0),
        (dt.timedelta.max, 999999999 * 86400000.0 + 86399999),
        (pd.Timedelta(1500999, "ns"), 1.0),
        (np.timedelta64(-1500, "us"), -2.0),  # numpy's own cast rounds toward the past
        (np.timedelta64(3, "W"), 3 * 604800000.0),
        (np.timedelta64(2**62, "D"), 2.0**62 * 86400000),  # beyond numpy's int64 milliseconds: no wrap
        (np.timedelta64("NaT"), math.nan),
    ],
)
def test_durations_travel_as_milliseconds(value, millis):
    cls, p = props(value)
    assert cls == "duration" and list(p) == ["millis"]
    kind, dims, [got] = p["millis"]
    assert (kind, dims) == (DOUBLE, (1, 1))
    assert got == millis or (math.isnan(got) and math.isnan(millis))


@pytest.mark.parametrize("unit", UNITS + ["3us", "generic"])
def test_timedelta_arrays_travel_as_numpys_millisecond_cast_in_column_major_order(unit):
    rng = np.random.default_rng(3)
    bound = 2**20 if unit in ("Y", "M", "W", "D") else 2**40  # where numpy's own cast does not wrap
    values = rng.integers(-bound, bound, (3, 4, 5))
    values[0, 1, :] = np.iinfo(np.int64).min
    a = values.view(f"m8[{unit}]") if unit != "generic" else values.view("m8")
    for layout in _layouts(a):
        ms = layout.astype("m8[ms]")
        expected = np.where(np.isnat(ms), np.nan, ms.view("i8").astype(float)).ravel(order="F")
        [(_, _, (_, [p]))] = sent(layout)
        kind, dims, got = p["millis"]
        assert (kind, dims) == (DOUBLE, layout.shape or (1, 1))
        assert np.array_equal(got, expected, equal_nan=True)


# ---- out of the engine: datetimes ----

@pytest.mark.parametrize(
    "zone, tzinfo",
    [
        ("", None),
        ("UTC", zoneinfo.ZoneInfo("UTC")),
        ("America/New_York", zoneinfo.ZoneInfo("America/New_York")),
        ("+05:30", tz(hours=5, minutes=30)),
        ("-0800", tz(hours=-8)),
        ("5", tz(hours=5)),
        ("-05:30", tz(hours=-4, minutes=-30)),  # the sign belongs to the hours alone
        ("-00:30", tz(minutes=30)),
        ("-01:30", tz(minutes=-30)),
        ("+01:02:03", tz(hours=1, minutes=2, seconds=3)),
        (char("Europe/Paris"), PARIS),
        (char(""), None),
        (strings([]), None),
    ],
)
def test_engine_datetimes_come_back_with_their_zone(zone, tzinfo):
    back = read_one(datetime_fields(2024, 7, 8, 9, 10, 11.5, zone))
    assert back == dt.datetime(2024, 7, 8, 9, 10, 11, 500000, tzinfo=tzinfo) and back.tzinfo == tzinfo


@pytest.mark.parametrize(
    "message, exc, text",
    [
        (datetime_fields(2024, 1, 1, zone="UTCLeapSeconds"), ValueError,
         "conversion of VELTRA datetime object with time zone 'UTCLeapSeconds' to Python not supported"),
        (datetime_fields(2024, 1, 1, zone=strings([None])), ValueError,
         "conversion of VELTRA datetime object with time zone '<missing>' to Python not supported"),
        (datetime_fields(2024, 1, 1, zone=numeric(DOUBLE, [1.0])), ValueError,
         "conversion of VELTRA datetime object with time zone with type '4' to Python not supported"),
        (datetime_fields(2024, 1, 1, zone="Nowhere/Land"), zoneinfo.ZoneInfoNotFoundError, None),
        (datetime_fields(math.nan, math.nan, math.nan, math.nan, math.nan, math.nan, kind=DOUBLE), ValueError,
         NAT_SCALAR),
        (datetime_fields(2024, 1, 1, 0, 0, math.nan), ValueError, NAT_SCALAR),
        (datetime_fields(2024, 1, 1, 0, 0, 59.9999996), ValueError, "second must be in 0..59"),
        (datetime_fields(2024, 1, math.inf, kind=DOUBLE), OverflowError, None),
        (datetime_fields(2024, 1, 1, zone=numeric(DOUBLE, [], (0, 0))), None, None),  # an empty zone: naive
        (value_object("datetime", [{"Year": numeric(INT64, [2024], (1, 1))}], (1, 1)), ValueError,
         "unable to find property 'Month' in 'datetime' object"),
        (value_object("datetime", [{}, {}], (1, 2)), ValueError,
         "unable to find property 'DateString' in 'datetime' object"),
        (value_object("datetime", [{"Year": numeric(INT64, [], (0, 0))}], (1, 1)), ValueError, "array is empty"),
    ],
)
def test_engine_datetimes_that_cannot_come_back(message, exc, text):
    if exc is None:
        assert read_one(message) == dt.datetime(2024, 1, 1)
        return
    with pytest.raises(exc) as e:
        read_one(message)
    if text is not None:
        assert str(e.value) == text


def _with(message, name, value):
    """message (a 1x1 value object) with its property `name` holding `value`."""
    for p in message.objects[0].properties:
        if p.name == name:
            p.value.CopyFrom(value)
    return message


@pytest.mark.parametrize(
    "message, exc, what",
    [
        (_with(datetime_fields(2024, 1, 1), "Year", char("2024")), ValueError, "Year"),
        (_with(datetime_fields(2024, 1, 1), "Year", numeric(INT64, [2024, 2025])), ValueError, "Year"),
        (_with(datetime_fields(2024, 1, 1), "Second", numeric(DOUBLE, [1.0, 2.0])), ValueError, "Second"),
        (datetime_fields(2024, 1, 1, zone=strings(["UTC", "Europe/Paris"])), ValueError, "time zone"),
        (datetime_fields(2024, 1, 1, zone="America"), zoneinfo.ZoneInfoNotFoundError, "America"),
        (datetime_fields(2024, 1, 1, zone="A" * 300), zoneinfo.ZoneInfoNotFoundError, "AAAA"),
        (value_object("datetime", [{"DateString": strings(["2024-01-01", "2024-01-02"])}] * 2), ValueError,
         "DateString"),
        (value_object("duration", [{"millis": char("ab")}], (1, 1)), ValueError, "millis"),
        (value_object("duration", [{"millis": char("a")}], (1, 1)), ValueError, "millis"),
    ],
)
def test_hostile_time_properties_are_refused_naming_what_was_wrong(message, exc, what):
    with pytest.raises(exc, match=what):
        read_one(message)


def _text_form(texts):
    return value_object("datetime", [{"DateString": strings(texts)}], (1, 1))


@pytest.mark.parametrize(
    "message, expected",
    [
        (_text_form(["9" * 20]), "9" * 20),  # a year numpy's reader wraps
        (_text_form(["9" * 19, "2024"]), "9" * 19),
        # Units too fine for the date: the next coarser one that counts it, when it drops only zeros; never a
        # wrapped or a cut count.
        (_text_form(["1000-01-01T00:00:00.123456000000"]), np.datetime64("1000-01-01T00:00:00.123456")),
        (_text_form(["2024-01-01T00:00:00.123456789000", "NaT"]), np.array(["2024-01-01T00:00:00.123456789", "NaT"], "M8[ns]")),
        (_text_form(["1000-01-01T00:00:00.123456789012"]), "1000-01-01T00:00:00.123456789012"),
        (_text_form(["1970-01-01T00:00:30.000000000000000000Z", "2024-01-01"]),
         np.array(["1970-01-01T00:00:30", "2024-01-01"], "M8[ns]")),
        (_text_form(["1970-01-01T00:00:30.000000000000000001Z", "2024-01-01"]), "1970-01-01T00:00:30.000000000000000001Z"),
        (datetime_texts(["1000-01-01T00:00:00.123456000000Z", "2024-01-01"]),
         np.array(["1000-01-01T00:00:00.123456", "2024-01-01"], "M8[us]")),
        (datetime_texts(["1000-01-01T00:00:00.123456789012Z", "2024-01-01"]), "1000-01-01T00:00:00.123456789012Z"),
        # The date that asks for the coarser unit is named, whichever text would lose its digits.
        (datetime_texts(["2024-01-01T00:00:00.123456789", "1000-01-01"]), "1000-01-01"),
    ],
)
def test_engine_texts_never_come_back_wrapped_or_cut(message, expected):
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")  # numpy's on the zone suffix
        if isinstance(expected, str):
            with pytest.raises(ValueError, match="outside the range") as e:
                read_one(message)
            assert repr(expected) in str(e.value)
            return
        back = read_one(message)
    assert type(back) is type(expected) and back.dtype == expected.dtype
    assert np.array_equal(back, expected, equal_nan=True)


@pytest.mark.parametrize("value", [np.datetime64("NaT", "ns"), np.array(["NaT", "NaT"], "M8[ns]"),
                                   np.array([], "M8[ns]"), np.full((2, 3), np.datetime64("NaT", "ns"))])
def test_not_a_time_alone_keeps_nanoseconds(value):
    [back] = roundtrip(value)
    assert type(back) is type(value) and back.dtype == value.dtype and np.shape(back) == np.shape(value)


def test_double_fields_round_half_away_from_zero():
    back = read_one(datetime_fields(2023.5, 0.5, 1.49, 2.5, 3.5, 4.25, kind=DOUBLE))
    assert back == dt.datetime(2024, 1, 1, 3, 4, 4, 250000)


@pytest.mark.parametrize(
    "texts, dims, expected",
    [
        (["2024-01-01", None, "2024-01-03T04:05:06.789"], (1, 3),
         np.array(["2024-01-01", "NaT", "2024-01-03T04:05:06.789"], "M8[ns]")),
        (["2024-01-01", "2024-01-02", "2024-01-03", "2024-01-04"], (2, 2),
         np.array([["2024-01-01", "2024-01-03"], ["2024-01-02", "2024-01-04"]], "M8[ns]")),
        (["1677-09-21", "2300-01-01", "NaT"], (3, 1), np.array([["1677-09-21"], ["2300-01-01"], ["NaT"]], "M8[us]")),
        (["-300000-01-01", "2024-01-01 10:00"], (1, 2), np.array(["-300000-01-01", "2024-01-01T10:00"], "M8[ms]")),
    ],
)
def test_engine_datetime_arrays_come_back_as_nanoseconds_unless_that_would_wrap(texts, dims, expected):
    back = read_one(datetime_texts(texts, dims))
    assert back.dtype == expected.dtype and back.shape == expected.shape
    assert np.array_equal(back, expected, equal_nan=True)


def test_texts_in_other_forms_are_read_by_numpy():
    with pytest.warns(UserWarning):
        back = read_one(datetime_texts(["2024-01-01T10:00:00Z", "2024-01-02"]))
    assert np.array_equal(back, np.array(["2024-01-01T10:00", "2024-01-02"], "M8[ns]"))
    with pytest.raises(ValueError):
        read_one(datetime_texts(["yesterday-ish", "2024-01-02"]))


# ---- out of the engine: durations ----

@pytest.mark.parametrize(
    "millis, dims, expected",
    [
        ([1500.0], (1, 1), dt.timedelta(milliseconds=1500)),
        ([1.0, 2.5, math.nan, -4.7], (1, 4), np.array([1000, 2500, "NaT", -4700], "m8[us]")),  # kept, as one is
        ([1, 2, 3, 4, 5, 6], (2, 3), np.array([[1, 3, 5], [2, 4, 6]], "m8[ms]")),
        ([1, 2, 3, 4], (2, 1, 2), np.array([1, 2, 3, 4], "m8[ms]").reshape((2, 1, 2), order="F")),
        ([1e19, -1e16], (1, 2), np.array([10**16, -10**13], "m8[s]")),  # too long for milliseconds: coarser
        ([], (0, 0), np.zeros((0, 0), "m8[ms]")),
    ],
)
def test_engine_durations_come_back(millis, dims, expected):
    back = read_one(duration(millis, dims))
    if isinstance(expected, dt.timedelta):
        assert type(back) is dt.timedelta and back == expected
    else:
        assert back.dtype == expected.dtype and back.shape == expected.shape
        assert np.array_equal(back, expected, equal_nan=True)


@pytest.mark.parametrize(
    "message, exc, text",
    [
        (duration([math.nan]), ValueError, None),  # datetime.timedelta's own refusal
        (duration([math.inf, 1.0]), OverflowError, "cannot convert an infinite duration to numpy timedelta64"),
        (value_object("duration", [{}], (1, 1)), ValueError, "unable to find property 'millis' in 'duration' object"),
    ],
)
def test_engine_durations_that_cannot_come_back(message, exc, text):
    with pytest.raises(exc) as e:
        read_one(message)
    if text is not None:
        assert str(e.value) == text


def test_durations_come_back_alike_alone_and_in_arrays():
    millis = [-1.5, 2.0, 0.25, 1e-4, 0.0005, 0.0015, -0.0025, 123456.789, 3 * 86400000.0 + 0.001, -4.7]
    alone = [read_one(duration([m])) for m in millis]
    assert read_one(duration(millis)).tolist() == alone
    assert read_one(duration(millis, (2, 5))).tolist() == np.reshape(alone, (2, 5), order="F").tolist()


@pytest.mark.parametrize("unit", ["W", "D", "h", "s", "ms", "us", "ns"])
def test_timedelta_arrays_round_trip_at_millisecond_precision(unit):
    a = np.arange(-6, 6).reshape(3, 4).astype(f"m8[{unit}]") * 1234567
    a[1, 1] = np.timedelta64("NaT")
    [back] = roundtrip(a)
    assert back.dtype == np.dtype("m8[ms]") and back.shape == a.shape
    assert np.array_equal(back, a.astype("m8[ms]"), equal_nan=True)
