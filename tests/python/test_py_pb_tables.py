"""pandas DataFrames to engine tables and timetables and back, with categoricals: the layout the peer decodes,
the tables the peer writes, round trips through the loopback, and every refusal."""

import datetime as dt
import math
import random
import signal
import sys

import numpy as np
import pandas as pd
import pytest
from hypothesis import HealthCheck, given, settings, strategies as st

import py_pb
import veltra
from conftest import CELL, CHAR, DOUBLE, INT32, LOGICAL, STRING, STRUCT, UINT8, UINT16, VALUE_OBJECT, named
from py_pb_peer import (cell, char, datetime_texts, duration, handles, numeric, read_one, roundtrip, sent, strings,
                        struct, value_object)
from py_pb_peer import array as pb_array
from veltra.loopback import loopback

PANDAS3 = int(pd.__version__.split(".")[0]) >= 3
DURATIONS = pd.Series([dt.timedelta(0)]).dtype  # pandas' own unit, which durations come back in
CUSTOM_SAVE = ["CustomProps", "VariableCustomProps", "versionSavedFrom", "minCompatibleVersion", "incompatibilityMsg",
               "numDims", "useVarNamesOrig", "useVarNames2048", "useDimNamesOrig", "useDimNames2048", "dimNamesOrig",
               "dimNames20482048", "varNamesOrig", "varNames2048", "numRows", "numVars", "varDescriptions", "varUnits",
               "timeEvents", "varContinuity", "arrayProps", "varNames", "data", "rowTimes", "dimNames"]


def one(value):
    """The one value object sent for `value`: (class, {property: decoded})."""
    [(kind, dims, (cls, objects))] = sent(value)
    assert kind == VALUE_OBJECT and dims == (1, 1) and len(objects) == 1
    return cls, objects[0]


def fields(decoded):
    """A decoded 1x1 struct as {field: decoded}, in field order."""
    kind, dims, [f] = decoded
    assert kind == STRUCT and dims == (1, 1)
    return f


def back(df):
    [out] = roundtrip(df)
    assert isinstance(out, pd.DataFrame)
    return out


# ---- the layout we write ----

def test_a_table_carries_its_named_values_in_order():
    cls, p = one(pd.DataFrame({"x": [1.5, 2.5], "n": np.array([1, 2], np.int32)}))
    assert cls == "table"
    assert list(p) == ["data", "ndims", "nrows", "nvars", "rowDim", "rownames", "varnames", "props"]
    assert p["data"] == (CELL, (1, 2), [(DOUBLE, (2, 1), [1.5, 2.5]), (INT32, (2, 1), [1, 2])])
    assert p["varnames"] == (CELL, (1, 2), [(CHAR, (1, 1), "x"), (CHAR, (1, 1), "n")])
    assert [p[k] for k in ("ndims", "nrows", "nvars")] == [(DOUBLE, (1, 1), [2.0]), (DOUBLE, (1, 1), [2.0]),
                                                          (DOUBLE, (1, 1), [2.0])]
    row = fields(p["rowDim"])
    assert list(row) == ["labelType", "requireLabels", "requireUniqueLabels", "DuplicateLabelExceptionID",
                         "reservedNames", "labels", "length", "hasLabels", "subsType"]
    assert row["labelType"][2] == "text" and row["DuplicateLabelExceptionID"][2] == "VELTRA:table:DuplicateRowNames"
    assert row["requireLabels"] == row["hasLabels"] == (LOGICAL, (1, 1), [False])
    assert row["requireUniqueLabels"] == (LOGICAL, (1, 1), [True]) and row["length"] == (DOUBLE, (1, 1), [2.0])
    assert {k: v[2] for k, v in fields(row["subsType"]).items()} == {
        "reference": [0.0], "forwardedReference": [1.0], "assignment": [2.0], "deletion": [3.0]}
    props = fields(p["props"])
    assert list(props) == ["useVariableNamesOriginal", "useDimensionNamesOriginal", "Description", "CustomProps",
                           "VariableCustomProps", "DimensionNames", "DimensionNamesOriginal", "VariableNamesOriginal",
                           "UserData", "VariableDescriptions", "VariableUnits", "VariableContinuity",
                           "VersionSavedFrom", "minCompatibleVersion", "incompatibilityMsg"]
    assert props["DimensionNames"] == (CELL, (1, 2), [(CHAR, (1, 3), "Row"), (CHAR, (1, 9), "Variables")])
    assert props["VersionSavedFrom"][2] == [4.0] and props["minCompatibleVersion"][2] == [1.0]
    assert props["useVariableNamesOriginal"][2] == [False] and props["useDimensionNamesOriginal"][2] == [True]


def test_a_datetime_column_makes_a_timetable_with_its_saved_fields():
    times = pd.to_datetime(["2024-01-02T03:04:05", None])
    cls, p = one(pd.DataFrame({"v": [1.0, 2.0], "when": times, "s": ["a", None]}))
    assert cls == "timetable" and list(p) == ["__CustomSave"]
    save = fields(p["__CustomSave"])
    assert list(save) == CUSTOM_SAVE
    assert save["versionSavedFrom"] == (DOUBLE, (1, 1), [7.0]) and save["minCompatibleVersion"] == (INT32, (1, 1), [2])
    assert save["dimNames20482048"] == (CELL, (1, 0), []) and save["timeEvents"] == (DOUBLE, (0, 0), [])
    assert save["numRows"][2] == [2.0] and save["numVars"][2] == [2.0]
    assert save["varNames"] == (CELL, (1, 2), [(CHAR, (1, 1), "v"), (CHAR, (1, 1), "s")])
    assert save["data"][2][1] == (STRING, (2, 1), ["a", None])
    assert save["rowTimes"][2][0] == "datetime"
    assert save["rowTimes"][2][1] == [{"DateString": (STRING, (2, 1), [str(times.to_numpy()[0]), "NaT"])}]
    assert save["dimNames"] == (CELL, (1, 2), [(CHAR, (1, 4), "when"), (CHAR, (1, 9), "Variables")])
    assert list(fields(save["arrayProps"])) == ["Description", "UserData", "TableCustomProperties"]


@pytest.mark.parametrize("index, reset", [
    (pd.RangeIndex(3), False),
    (pd.RangeIndex(1, 4), True),
    (pd.Index(["a", "b", "c"], name="key"), True),
    (pd.RangeIndex(0, 6, 2), True),
])
def test_an_index_other_than_the_default_becomes_the_first_column(index, reset):
    _, p = one(pd.DataFrame({"v": [1.0, 2.0, 3.0]}, index=index))
    names = [e[2] for e in p["varnames"][2]]
    assert names == ([index.name or "index", "v"] if reset else ["v"])


def test_an_empty_frame_is_a_table_without_variables():
    _, p = one(pd.DataFrame({"a": []}))
    assert p["data"] == (CELL, (1, 0), []) and p["nrows"][2] == [0.0]


@pytest.mark.parametrize("values, names, codes, kind", [
    (["b", "a", "b"], ["a", "b"], [2, 1, 2], UINT8),
    (pd.Categorical(["é", "z", None, "z"], categories=["z", "unused", "é"]), ["z", "é"], [2, 1, 0, 1], UINT8),
    ([f"c{i:03}" for i in range(300)], [f"c{i:03}" for i in range(300)], list(range(1, 301)), UINT16),
])
def test_categoricals_carry_their_used_texts_in_byte_order_and_one_based_codes(values, names, codes, kind):
    _, p = one(pd.DataFrame({"c": pd.Series(values, dtype="category")}))
    [(_, _, (cls, [cat]))] = p["data"][2]
    assert cls == "categorical" and list(cat) == ["categoryNames", "codes"]
    assert cat["categoryNames"] == (CELL, (len(names), 1), [(CHAR, (1, len(n)), n) for n in names])
    assert cat["codes"] == (kind, (len(codes), 1), codes)


# ---- round trips ----

FRAMES = {
    "numbers": pd.DataFrame({"f": [1.5, np.nan, -0.0], "i": np.array([1, -2, 3], np.int8), "u": np.array([0, 2**64 - 1, 5], np.uint64),
                             "s": np.array([1, 2, 3], np.float32), "b": [True, False, True], "c": [1 + 2j, 0j, -1j]}),
    "text": pd.DataFrame({"t": ["x", "zé\U0001F600", None], "e": ["", "b", "c"]}),
    "category": pd.DataFrame({"k": pd.Categorical(["b", "a", None])}),
    "durations": pd.DataFrame({"d": pd.to_timedelta([1500, -2, None], unit="ms").astype(DURATIONS)}),
    "timetable": pd.DataFrame({"v": [1.0, 2.0, 3.0], "at": np.array(["2020-01-01", "NaT", "2300-06-01"], "M8[us]")},
                              index=pd.DatetimeIndex(["2024-01-01", "2024-01-02", None], name="when")),
    "zoned": pd.DataFrame({"v": [1, 2]}, index=pd.date_range("2024-03-31", periods=2, freq="h", tz="Europe/Paris",
                                                                name="t")),
    "utc column": pd.DataFrame({"when": pd.to_datetime([0, 1], unit="s", utc=True),
                                "at": pd.to_datetime([5, 6], unit="s").tz_localize("America/New_York")}),
    "named index": pd.DataFrame({"v": [1.0, 2.0]}, index=pd.Index(["a", "b"], name="key")),
    "rows only": pd.DataFrame(index=pd.RangeIndex(3)),
}


@pytest.mark.parametrize("name", FRAMES)
def test_frames_come_back_equal(name):
    df = FRAMES[name]
    # A reset index comes back as the first column; the first datetime column becomes the row times.
    expected = df.reset_index() if name == "named index" else df.set_index("when") if name == "utc column" else df
    pd.testing.assert_frame_equal(back(df), expected, check_freq=False, check_column_type=False)


@pytest.mark.parametrize("dtype, values, expected", [
    ("Int64", [1, None, 3], np.array([1.0, np.nan, 3.0])),
    ("UInt8", [1, 2, 255], np.array([1, 2, 255], np.uint8)),
    ("Float32", [0.5, None], np.array([0.5, np.nan], np.float32)),
    ("boolean", [True, False], np.array([True, False])),
    ("string", ["a", None], pd.Series(["a", None]).to_numpy()),
])
def test_nullable_columns_keep_their_values_exactly(dtype, values, expected):
    out = back(pd.DataFrame({"c": pd.array(values, dtype=dtype)}))["c"]
    if expected.dtype == object:
        assert list(out.fillna("<na>")) == list(pd.Series(expected).fillna("<na>"))
    else:
        np.testing.assert_array_equal(out.to_numpy(), expected, strict=True)


def test_columns_that_are_all_missing_come_back_as_their_kind():
    nat = np.array(["NaT", "NaT"], "M8[s]")
    coerced = pd.to_datetime(["x", "y"], errors="coerce", format="%Y")
    for df in (pd.DataFrame({"t": nat, "v": [1.0, 2.0]}),  # the row times
               pd.DataFrame({"t": pd.to_datetime(["2024-01-01", "2024-01-02"]), "u": nat.astype("M8[us]")}),
               pd.DataFrame({"t": coerced.tz_localize("Asia/Tokyo"), "u": coerced})):
        out = back(df)
        # NaT alone carries no unit: nanoseconds, as for any datetime that fits them.
        expected = df.apply(lambda c: c.dt.as_unit("ns") if c.dtype.kind == "M" and c.isna().all() else c)
        expected = expected.set_index("t")
        pd.testing.assert_frame_equal(out, expected, check_column_type=False)
    # Text: pandas' own string dtype, as for a column with some text.
    text = pd.Series(["a"]).dtype
    for column in (pd.Series([None, None], dtype=object), pd.Series([None, np.nan], dtype=text)):
        out = back(pd.DataFrame({"s": column}))["s"]
        assert out.dtype == text and out.isna().all()
    assert read_one(table([strings([None], (1, 1))], ["s"]))["s"].dtype == text


def test_a_duration_beyond_pandas_unit_comes_back_coarser_in_one_row_as_in_many():
    for values in ([2**62], [2**62, 1]):
        out = back(pd.DataFrame({"d": np.array(values, "m8[s]")}))["d"]
        np.testing.assert_array_equal(out.to_numpy(), np.array(values, "m8[s]"), strict=True)


def test_the_columns_axis_name_travels_as_the_name_of_the_variables_dimension():
    long = pd.DataFrame({"when": pd.to_datetime(["2024-01-01"] * 2 + ["2024-01-02"] * 2), "k": ["a", "b"] * 2,
                         "v": [1.0, 2.0, 3.0, 4.0]})
    wide = long.pivot(index="when", columns="k", values="v")  # a timetable, with columns.name "k"
    assert wide.columns.name == "k"
    save = fields(one(wide)[1]["__CustomSave"])
    assert save["dimNames"] == (CELL, (1, 2), [(CHAR, (1, 4), "when"), (CHAR, (1, 1), "k")])
    plain = wide.reset_index(drop=True)  # a table
    props = fields(one(plain)[1]["props"])
    assert props["DimensionNames"] == (CELL, (1, 2), [(CHAR, (1, 3), "Row"), (CHAR, (1, 1), "k")])
    for df in (wide, plain):
        pd.testing.assert_frame_equal(back(df), df, check_column_type=False)
    # The engine's default name is no name.
    rows = [numeric(DOUBLE, [1.0], (1, 1))], ["x"], datetime_texts(["2024-01-01"], (1, 1))
    assert read_one(timetable(*rows, ("Time", "Sensors"))).columns.name == "Sensors"
    assert read_one(timetable(*rows, ("Time", "Variables"))).columns.name is None


@pytest.mark.parametrize("df, value, advice, fix", [
    (pd.DataFrame({"a": [1.0], 0: [2.0]}), "the label 0 of type 'int' at position 1 is not text",
     "df.columns = df.columns.astype(str)", lambda df: df.set_axis(df.columns.astype(str), axis=1)),
    (pd.DataFrame({"a": [1.0]}, index=pd.Index([5], name=3)), "the name 3 of type 'int' of index level 0",
     "df = df.rename_axis(index=str)", lambda df: df.rename_axis(index=str)),
    (pd.DataFrame({"time": [1.5]}, index=pd.Index([7], name="time")), "'time' is used twice (index 'time')",
     "rename the index", lambda df: df.rename_axis(index="at")),
    (pd.DataFrame({"level_0": [1.5]}, index=pd.MultiIndex.from_tuples([(1, 2)])),
     "'level_0' is used twice (unnamed index level 0, taken as 'level_0')", "rename the index",
     lambda df: df.rename_axis(index=["a", "b"])),
    (pd.DataFrame({"k": [1.0]}).rename_axis(columns="k"), "(df.columns.name) 'k' is also the name of a column",
     "df = df.rename_axis(columns=None)", lambda df: df.rename_axis(columns=None)),
])
def test_names_that_are_not_text_or_are_taken_are_refused_with_advice_that_works(df, value, advice, fix):
    with pytest.raises(ValueError) as e:
        py_pb.py_to_serialized_str((df,))
    assert str(e.value).startswith("unable to convert pandas.DataFrame column names to VELTRA: ")
    assert value in str(e.value) and advice in str(e.value)
    py_pb.py_to_serialized_str((fix(df),))


@st.composite
def frames(draw):
    n = draw(st.integers(0, 6))
    columns = {}
    floats = st.floats(allow_nan=True, allow_infinity=True, width=64)
    texts = st.one_of(st.none(), st.text(st.characters(blacklist_categories=("Cs",)), max_size=5))
    for k in range(draw(st.integers(1, 4))):
        kind = draw(st.sampled_from(["f", "i", "b", "t", "c", "m"]))
        if kind == "f":
            col = pd.Series(draw(st.lists(floats, min_size=n, max_size=n)), dtype="float64")
        elif kind == "i":
            col = pd.Series(draw(st.lists(st.integers(-2**63, 2**63 - 1), min_size=n, max_size=n)), dtype="int64")
        elif kind == "b":
            col = pd.Series(draw(st.lists(st.booleans(), min_size=n, max_size=n)), dtype="bool")
        elif kind == "t":
            col = pd.Series(draw(st.lists(texts, min_size=n, max_size=n)), dtype=object)
        elif kind == "c":
            col = pd.Series(draw(st.lists(st.sampled_from(["a", "b", "c"]) | st.none(), min_size=n, max_size=n)),
                            dtype="category")
        else:
            millis = draw(st.lists(st.integers(-10**12, 10**12) | st.none(), min_size=n, max_size=n))
            col = pd.Series(pd.to_timedelta(millis, unit="ms")).astype(DURATIONS)
        columns[f"c{k}"] = col
    return pd.DataFrame(columns)


@settings(max_examples=60, deadline=None, suppress_health_check=[HealthCheck.too_slow])
@given(frames())
def test_random_frames_come_back_equal(df):
    if df.empty:
        return
    out = back(df)
    expected = df.copy()
    for name, col in df.items():
        if isinstance(col.dtype, pd.CategoricalDtype):  # only the used categories, in text order
            expected[name] = col.cat.remove_unused_categories().cat.reorder_categories(
                sorted(col.dropna().unique()))
        elif col.dtype == object:  # text comes back in pandas' own string dtype
            expected[name] = pd.Series(list(col), dtype=out[name].dtype)
    pd.testing.assert_frame_equal(out, expected, check_column_type=False)


# ---- tables the peer writes ----

def timetable(data, names, row_times, dim_names=("Time", "Variables")):
    values = {f: cell([], (1, 0)) for f in CUSTOM_SAVE}
    values.update(data=cell(data), varNames=cell([char(n) for n in names]), rowTimes=row_times,
                  dimNames=cell([char(n) for n in dim_names]))
    return value_object("timetable", [{"__CustomSave": struct(CUSTOM_SAVE, [[values[f] for f in CUSTOM_SAVE]])}], (1, 1))


def table(data, names, rownames=None):
    return value_object("table", [{"data": cell(data), "varnames": cell([char(n) for n in names]),
                                   "rownames": cell([char(r) for r in rownames or []], (len(rownames or []), 1))}],
                        (1, 1))


def test_a_timetable_from_the_engine_has_its_row_times_as_index_with_nat_for_missing():
    out = read_one(timetable([numeric(DOUBLE, [1.0, 2.0], (2, 1))], ["x"],
                             datetime_texts(["2024-01-01T10:00:00", None], (2, 1)), ("Stamp", "Variables")))
    assert out.index.name == "Stamp" and str(out.index.dtype) == "datetime64[ns]"
    assert out.index[0] == pd.Timestamp("2024-01-01T10:00") and out.index[1] is pd.NaT


def test_a_duration_variable_rounds_as_durations_alone_do():
    # In pandas' own unit (microseconds on pandas 3, nanoseconds on pandas 2), halves round to even, as a
    # duration alone rounds at its microseconds.
    per_ms = 1e6 if pd.Series(pd.to_timedelta([1], unit="s")).dtype == "m8[ns]" else 1e3
    millis = [h / per_ms for h in (0.5, 1.5, -2.5, 2.5)] + [1.25, math.nan]
    column = read_one(table([duration(millis, (len(millis), 1))], ["d"]))["d"].to_numpy()
    assert column[:5].astype("i8").tolist() == [0, 2, -2, 2, round(1.25 * per_ms)] and np.isnat(column[5])
    # Past what pandas' unit can count, a coarser one, the same as for the durations alone.
    millis = [1.5e19, 1500.0, -2500.0]
    alone = read_one(duration(millis, (len(millis), 1))).ravel()
    assert np.array_equal(read_one(table([duration(millis, (3, 1))], ["d"]))["d"].to_numpy(), alone)


def test_tables_from_the_engine_read_every_variable_kind():
    cat = value_object("categorical", [{"categoryNames": cell([char("lo"), char("hi")], (2, 1)),
                                        "codes": numeric(DOUBLE, [2, 0, 1], (3, 1))}], (1, 1))
    d = value_object("dictionary", [{"Version": numeric(DOUBLE, [1.0], (1, 1)),
                                     "IsKeyCombined": numeric(LOGICAL, [True], (1, 1)),
                                     "IsValueCombined": numeric(LOGICAL, [False], (1, 1)),
                                     "Value": char("Unconfigured")}] * 3, (3, 1))
    out = read_one(table([numeric(UINT16, [1, 2, 3], (3, 1)), strings(["a", None, "c"], (3, 1)), char("xyz", (3, 1)),
                          cat, d], ["u", "s", "ch", "k", "d"], ["r1", "r2", "r3"]))
    assert list(out.index) == ["r1", "r2", "r3"] and out["u"].dtype == np.uint16
    assert list(out["ch"]) == ["x", "y", "z"] and out["s"].isna().tolist() == [False, True, False]
    assert list(out["k"].astype(object).fillna("-")) == ["hi", "-", "lo"]
    assert all(type(v) is veltra.dictionary and len(v) == 0 for v in out["d"])


@pytest.mark.parametrize("variable, exc, text", [
    (value_object("table", [{}], (1, 1)), TypeError,
     "conversion of this nested VELTRA table is not supported. Use 'splitvars' to flatten it"),
    (value_object("timetable", [{}], (1, 1)), TypeError,
     "conversion of this nested VELTRA timetable is not supported. Use 'splitvars' to flatten it"),
    (value_object("Model", [{}], (1, 1)), TypeError,
     "custom VELTRA object conversion not supported. Extract the custom VELTRA object's properties and manually "
     "convert each property to an equivalent Python object"),
    (numeric(DOUBLE, [1, 2, 3, 4], (2, 2)), TypeError, "unable to flatten multidimensional array"),
    (char("abcd", (2, 2)), ValueError, "char arrays returned from VELTRA must be 1-by-N or M-by-1"),
    (pb_array(30, (2, 1), b"\0" * 8, sparse_rows=[0], sparse_cols=[0]), TypeError,
     "conversion of VELTRA sparse array to Python not supported"),
    (handles([1, 2], (2, 1)), TypeError, "conversion of VELTRA 'Figure' array to Python is not supported"),
    (cell([char("a")] * 2, (2, 1)), TypeError, "conversion of VELTRA data type 24 to Python not supported"),
    (value_object("categorical", [{"categoryNames": cell([char("a")], (1, 1)), "codes": numeric(UINT8, [2], (1, 1))}],
                  (1, 1)), ValueError, "VELTRA categorical code at position 0 does not name one of its 1 categories"),
])
def test_variables_without_a_column_form_are_refused(variable, exc, text):
    with pytest.raises(exc) as e:
        read_one(table([variable], ["v"]))
    assert str(e.value) == text


@pytest.mark.parametrize("row_times", [numeric(DOUBLE, [1.0], (1, 1)), datetime_texts(["not a date"], (1, 1))])
def test_row_times_that_are_not_datetimes_are_refused(row_times):
    with pytest.raises(TypeError, match=r"^invalid 'RowTimes' index in timetable for conversion to pandas\.DataFrame "
                                        r"object$"):
        read_one(timetable([numeric(DOUBLE, [1.0], (1, 1))], ["x"], row_times))


def test_a_table_without_its_layout_is_refused():
    with pytest.raises(ValueError, match="does not hold its variables in the layout Python reads"):
        read_one(value_object("table", [{}], (1, 1)))


# ---- refusals on the way in ----

@pytest.mark.parametrize("df, exc, text", [
    (pd.DataFrame({"a": [1], "z": pd.period_range("2024-01", periods=1, freq="M")}), TypeError,
     "conversion of pandas.DataFrame 'period[M]' column type to VELTRA is not supported (column 'z', position 1)"),
    (pd.DataFrame({"m": ["a", 1]}, dtype=object), TypeError,
     "conversion of pandas.DataFrame 'object' column type to VELTRA is not supported: element 1 is 1 of type 'int', "
     "and an object column must hold text and missing values only (column 'm', position 0)"),
    (pd.DataFrame({"f": pd.array([True, None], dtype="boolean")}), TypeError,
     "conversion of pandas.DataFrame 'boolean' column with missing values to VELTRA is not supported: logical "
     "arrays have no missing value; fill them (fillna) or convert the column to float (column 'f', position 0)"),
    (pd.DataFrame([[1, 2]], columns=["1", "1"]), ValueError,
     "unable to convert pandas.DataFrame column names to VELTRA: the name '1' is used twice (column '1', position 0)"
     " (column '1', position 1)"),
    (pd.DataFrame({"": [1]}), ValueError,
     "unable to convert pandas.DataFrame column names to VELTRA: a column name is empty (column '', position 0)"),
    (pd.DataFrame({"Properties": [1]}), ValueError,
     "unable to convert pandas.DataFrame column names to VELTRA: 'Properties' is a name tables keep for themselves; "
     "rename the column (column 'Properties', position 0)"),
    (pd.DataFrame([[1]], columns=pd.MultiIndex.from_tuples([("a", "b")])), ValueError,
     "unable to convert pandas.DataFrame column names to VELTRA: the columns are a MultiIndex; join each column's "
     "levels into one label first"),
    (pd.DataFrame({"v": [1]}, index=pd.IntervalIndex.from_breaks([0, 1], name="k")), TypeError,
     "conversion of pandas.DataFrame 'interval[int64, right]' column type to VELTRA is not supported (index 'k')"),
])
def test_frames_without_a_table_form_are_refused_naming_the_column(df, exc, text):
    with pytest.raises(exc) as e:
        py_pb.py_to_serialized_str((df,))
    assert str(e.value) == text


def test_a_class_that_only_claims_the_name_is_refused():
    fake = named("pandas", "DataFrame", columns=["a"], empty=False)()
    with pytest.raises(TypeError, match=r"^conversion of Python data type 'pandas\.DataFrame' to VELTRA not supported$"):
        py_pb.py_to_serialized_str((fake,))


def test_a_frame_inside_containers_and_a_failing_reset_index():
    class Broken(pd.DataFrame):
        def reset_index(self, *args, **kwargs):
            raise RuntimeError("no reset")

    assert roundtrip([pd.DataFrame({"a": [1.0]}), 2.0])[0][0].equals(pd.DataFrame({"a": [1.0]}))
    with pytest.raises(RuntimeError, match="no reset"):
        py_pb.py_to_serialized_str((Broken({"a": [1]}, index=[5]),))
    if PANDAS3:  # plain str columns are pandas 3's own string dtype and convert as they are
        assert pd.DataFrame({"s": ["a"]})["s"].dtype != object and back(pd.DataFrame({"s": ["a"]}))["s"][0] == "a"


def test_pyarrow_held_string_columns_are_read_in_place_as_their_text():
    pa = pytest.importorskip("pyarrow")
    values = ["a", None, "zé\U0001F600", "", "x" * 300, None]
    chunked = pa.chunked_array([pa.array(values[:2]), pa.array(values[2:])])
    columns = [pd.Series(values, dtype=pd.StringDtype("pyarrow")), pd.Series(values, dtype=pd.ArrowDtype(pa.string())),
               pd.Series(values, dtype=pd.StringDtype("pyarrow")).iloc[1:5].reset_index(drop=True),
               pd.Series(pd.arrays.ArrowExtensionArray(chunked))]
    for col in columns:
        [[_, _, (_, [p])]] = sent(pd.DataFrame({"c": col}))
        assert p["data"][2] == [(STRING, (len(col), 1), [None if pd.isna(v) else v for v in col])]


def test_a_chunk_whose_numbers_run_past_its_buffers_is_read_the_general_way(monkeypatch):
    class Chunk:  # pyarrow's layout from a duck, whose offset and length would make (offset + length + 1) * 4 wrap
        type = "string"
        offset = 2**62 - 2**40

        def __len__(self):
            return 2**40

        def buffers(self):
            return [None, bytes(8), b""]

    monkeypatch.setattr(pd.arrays.StringArray, "__arrow_array__", lambda self, type=None: Chunk())
    [[_, _, (_, [p])]] = sent(pd.DataFrame({"s": pd.array(["a", None], dtype="string[python]")}))
    assert p["data"][2] == [(STRING, (2, 1), ["a", None])]


# ---- Ctrl-C ----

@pytest.mark.parametrize("error", [KeyboardInterrupt, SystemExit, MemoryError])
def test_errors_that_are_not_ordinary_pass_through_a_frame_conversion(monkeypatch, error):
    def interrupted(*args, **kwargs):
        raise error

    with monkeypatch.context() as m:  # a column read from pyarrow's buffers
        m.setattr(pd.arrays.StringArray, "__arrow_array__", interrupted)
        with pytest.raises(error):
            py_pb.py_to_serialized_str((pd.DataFrame({"s": pd.array(["a"], dtype="string[python]")}),))
    with monkeypatch.context() as m:  # taking a column
        m.setattr(pd.core.indexing._iLocIndexer, "__getitem__", interrupted)
        with pytest.raises(error):
            py_pb.py_to_serialized_str((pd.DataFrame({"f": [1.0]}),))


def _calls_made(convert, arg, interrupt_at=None):
    """Runs convert(arg), counting the Python functions the conversion itself calls (those called from our code,
    not from within pandas: numpy and pandas absorb some errors raised deep inside them, which is theirs to
    answer for); raises SIGINT from within the interrupt_at-th of them. Returns the count."""
    count, caller = 0, None

    def profile(frame, event, _):
        nonlocal count
        if event == "call" and frame.f_back is caller:
            count += 1
            if count == interrupt_at:
                signal.raise_signal(signal.SIGINT)

    def run():
        nonlocal caller
        caller = sys._getframe()
        return convert(arg)

    sys.setprofile(profile)
    try:
        run()
    finally:
        sys.setprofile(None)
    return count


def test_ctrl_c_at_any_call_of_a_frame_conversion_is_a_keyboard_interrupt_both_ways():
    kinds = {"f": [1.5, 2.5], "n": pd.array([1, None], dtype="Int64"), "s": ["a", None],
             "o": pd.Series(["x", None], dtype=object), "p": pd.array(["u", "v"], dtype="string[python]"),
             "e": pd.Series([None, None], dtype=object), "c": pd.Categorical(["b", "a"]),
             "d": pd.to_timedelta([1, 2], unit="s"), "z": pd.to_datetime([0, 1], unit="s", utc=True)}
    df = pd.DataFrame({f"{k}{i}": v for i in range(6) for k, v in kinds.items()},
                      index=pd.DatetimeIndex(["2024-01-01", "2024-01-02"], name="when").tz_localize("Europe/Paris"))
    df.columns.name = "var"
    data = loopback(py_pb.py_to_serialized_str((df,)))
    expected = py_pb.serialized_str_to_py(data)[0]
    rng = random.Random(20240601)
    handler = signal.signal(signal.SIGINT, signal.default_int_handler)
    try:
        for convert, arg in ((py_pb.py_to_serialized_str, (df,)), (py_pb.serialized_str_to_py, data)):
            convert(arg)  # what a first call caches does not shift the count
            calls = _calls_made(convert, arg)
            assert calls >= 50
            for at in rng.sample(range(1, calls + 1), 50):
                with pytest.raises(KeyboardInterrupt):
                    _calls_made(convert, arg, interrupt_at=at)
    finally:
        signal.signal(signal.SIGINT, handler)
    # Nothing is left half-done: the next conversions give what they gave before.
    assert sys.getprofile() is None
    pd.testing.assert_frame_equal(py_pb.serialized_str_to_py(loopback(py_pb.py_to_serialized_str((df,))))[0], expected)
