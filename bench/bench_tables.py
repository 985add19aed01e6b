"""DataFrames to engine tables and back, against pyarrow, measured in the same run.

    .venv/bin/python bench/bench_tables.py [--quick]

pyarrow is the yardstick: `Table.from_pandas` plus an IPC stream write to bytes for the way in, and an IPC
stream read plus `to_pandas` for the way back. Ours: `py_to_serialized_str((df,))` for the way in, and
`serialized_str_to_py` of the loopback's result for the way back. Cases, 1,000,000 rows each:
  - 8 numeric columns (4 float64, 4 int64);
  - 1 string column of 10-character strings, 1% missing, in pandas' default string dtype (which pandas 3
    keeps in pyarrow's own format when pyarrow is installed, so that pyarrow writes and reads it without
    touching a string), and the same column as `object` (Python str objects, pandas 2's default);
  - a timetable: datetime64[ns] row times and 4 float64 columns.
Ratios are ours / pyarrow; lower is better. Every time is the best of several repetitions.
"""

import argparse
import gc
import timeit

import numpy as np
import pandas as pd
import pyarrow as pa

import py_pb
from veltra.loopback import loopback

ROWS = 1_000_000


def best(fn, repeat):
    gc.collect()
    return min(timeit.Timer(fn).repeat(repeat=repeat, number=1))


def arrow_write(df):
    table = pa.Table.from_pandas(df)
    sink = pa.BufferOutputStream()
    with pa.ipc.new_stream(sink, table.schema) as writer:
        writer.write_table(table)
    return sink.getvalue()


def arrow_read(buf):
    return pa.ipc.open_stream(buf).read_all().to_pandas()


def frames(rows):
    rng = np.random.default_rng(7)
    numbers = {f"f{k}": rng.standard_normal(rows) for k in range(4)}
    numbers.update({f"i{k}": rng.integers(-10**9, 10**9, rows) for k in range(4)})
    letters = np.array(list("abcdefghijklmnopqrstuvwxyz"))
    words = ["".join(w) for w in letters[rng.integers(0, 26, (rows, 10))]]
    for i in rng.choice(rows, rows // 100, replace=False):
        words[i] = None
    times = pd.date_range("2020-01-01", periods=rows, freq="s", unit="ns", name="t")
    return {
        "8 numeric columns": (pd.DataFrame(numbers), 1.5),
        "1 string column, 1% missing": (pd.DataFrame({"s": pd.Series(words, dtype=pd.StringDtype(na_value=np.nan)
                                                                      if hasattr(pd, "StringDtype") else object)}), 2.0),
        "1 string column as object": (pd.DataFrame({"s": pd.Series(words, dtype=object)}), 2.0),
        "timetable, 4 float columns": (pd.DataFrame({f"f{k}": rng.standard_normal(rows) for k in range(4)},
                                                    index=times), None),
    }


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--quick", action="store_true", help="fewer repetitions and 100,000 rows")
    args = parser.parse_args()
    repeat = 3 if args.quick else 7
    rows = ROWS // 10 if args.quick else ROWS
    print(f"pandas {pd.__version__}, pyarrow {pa.__version__}, {rows:,} rows, best of {repeat}")
    print(f"  {'case':40} {'ours ms':>9} {'pyarrow ms':>11} {'ratio':>7}  target")
    missed = []
    for name, (df, target) in frames(rows).items():
        params = py_pb.py_to_serialized_str((df,))
        result = loopback(params)
        back = py_pb.serialized_str_to_py(result)[0]
        assert len(back) == len(df)
        buf = arrow_write(df)
        for direction, ours, theirs in (
            ("to bytes", lambda: py_pb.py_to_serialized_str((df,)), lambda: arrow_write(df)),
            ("from bytes", lambda: py_pb.serialized_str_to_py(result), lambda: arrow_read(buf)),
        ):
            t_ours, t_arrow = best(ours, repeat), best(theirs, repeat)
            ratio = t_ours / t_arrow
            verdict = "" if target is None else ("ok" if ratio <= target else "MISSED")
            if verdict == "MISSED":
                missed.append(f"{name}, {direction}")
            tgt = "reported" if target is None else f"<= {target:g}x {verdict}"
            print(f"  {name + ', ' + direction:40} {t_ours * 1e3:9.1f} {t_arrow * 1e3:11.1f} {ratio:6.2f}x  {tgt}",
                  flush=True)
    if missed:
        print("\nmissed: " + "; ".join(missed))


if __name__ == "__main__":
    main()
