"""py_pb against its peers, measured in the same run.

    .venv/bin/python bench/bench_py_pb.py [--quick]

Prints ratios (ours / peer; lower is better) with the target for each:
  - a small call and its result, against pickle;
  - a 64 MiB float64 array (Fortran- and C-ordered) into parameters bytes, against numpy's copy of it into fresh
    memory (a.copy()), with a warm copy (numpy.copyto into memory already touched) beside it; and C-ordered int8
    and int16 arrays of the same size and row count, each against its own a.copy();
  - a result holding one 64 MiB double array into a veltra.double and on to numpy.asarray, against the same;
  - peak memory above the input for the big cases, each in a fresh process (VmHWM), against the payload;
  - 100,000 mixed numbers and strings in a list, and 100,000 numbers in a dict of 1,000 lists: time per element;
    2,000,000 floats with one 2-by-2 array beside them, against the floats alone
    against pickle;
  - time values, 1,000,000 elements each, in elements per second: a datetime64[ns] array both ways and an engine
    datetime array coming back, against numpy.datetime_as_string of the same values; a timedelta64[ns] array
    both ways, against its cast to timedelta64[ms].
Every time is the best of several repetitions.
"""

import argparse
import gc
import pickle
import subprocess
import sys
import textwrap
import timeit

import numpy as np

import py_pb
from veltra.loopback import _len_field, _varint, loopback

MIB = 1 << 20
BIG_BYTES = 64 * MIB
BIG_SHAPE = (4096, BIG_BYTES // 8 // 4096)  # 4096 x 2048 doubles


def best(fn, repeat, number=1):
    """Best time of `repeat` runs of `number` calls, per call, in seconds."""
    gc.collect()
    return min(timeit.Timer(fn).repeat(repeat=repeat, number=number)) / number


def autonumber(fn, target=0.2):
    """How many calls make one timing run last about `target` seconds."""
    n, t = 1, 0.0
    while True:
        t = timeit.Timer(fn).timeit(n)
        if t >= target / 4:
            return max(1, int(n * target / t))
        n *= 4


class Report:
    def __init__(self):
        self.rows = []

    def ratio(self, name, ours, peer, peer_name, target=None, unit="ms", scale=1e3):
        r = ours / peer
        verdict = "" if target is None else ("ok" if r <= target else "MISSED")
        self.rows.append((name, ours, peer, peer_name, r, target, verdict))
        tgt = "" if target is None else f"<= {target:g}x"
        print(f"  {name:46} {ours * scale:10.3f} {unit}  vs {peer_name:22} {peer * scale:10.3f} {unit}"
              f"  = {r:5.2f}x  {tgt:8} {verdict}", flush=True)

    def rate(self, name, ours, peer, peer_name, n, target=None):
        """Like ratio, plus the elements per second; `target` is a floor in elements per second."""
        per_s = n / ours
        verdict = "" if target is None else ("ok" if per_s >= target else "MISSED")
        self.rows.append((name, ours, peer, peer_name, ours / peer, target, verdict))
        tgt = "" if target is None else f">= {target / 1e6:g} M/s"
        print(f"  {name:46} {ours * 1e3:10.3f} ms  vs {peer_name:22} {peer * 1e3:10.3f} ms  = {ours / peer:5.2f}x"
              f"  {per_s / 1e6:6.2f} M elements/s  {tgt:10} {verdict}", flush=True)

    def missed(self):
        return [row[0] for row in self.rows if row[6] == "MISSED"]


def small_call(report, repeat):
    print("\n== a small call: (1.0, 'a', 3)")
    args = (1.0, "a", 3)
    params = py_pb.py_to_serialized_str(args)
    result = loopback(params)
    pickled = pickle.dumps(args)

    def ours_out():
        py_pb.py_to_serialized_str(args)

    def peer_out():
        pickle.dumps(args)

    def ours_in():
        py_pb.serialized_str_to_py(result)

    def peer_in():
        pickle.loads(pickled)

    for label, ours, peer, peer_name in [
        ("py_to_serialized_str", ours_out, peer_out, "pickle.dumps"),
        ("serialized_str_to_py (its loopback result)", ours_in, peer_in, "pickle.loads"),
    ]:
        n_ours, n_peer = autonumber(ours), autonumber(peer)
        report.ratio(label, best(ours, repeat, n_ours), best(peer, repeat, n_peer), peer_name,
                     target=2.0, unit="us", scale=1e6)


def big_arrays(report, repeat):
    print(f"\n== a 64 MiB float64 array ({BIG_SHAPE[0]} x {BIG_SHAPE[1]})")
    data = np.random.default_rng(1).standard_normal(BIG_SHAPE)
    a_f = np.asfortranarray(data)
    a_c = np.ascontiguousarray(data)
    del data
    assert a_f.nbytes == BIG_BYTES

    # The yardstick is numpy's own copy into fresh memory, as each call must produce fresh bytes: a.copy()
    # (order "K", so the F-ordered array is copied straight, not reordered). A warm copy (numpy.copyto into
    # memory already touched) is printed beside it: the same copy without the page faults of new memory.
    copy = best(lambda: a_f.copy(order="K"), repeat)
    warm_dst = np.empty_like(a_f, order="K")
    np.copyto(warm_dst, a_f)
    warm = best(lambda: np.copyto(warm_dst, a_f), repeat)
    del warm_dst
    print(f"  yardsticks: a.copy() {copy * 1e3:.3f} ms, warm numpy.copyto {warm * 1e3:.3f} ms")

    params_f = best(lambda: py_pb.py_to_serialized_str((a_f,)), repeat)
    params_c = best(lambda: py_pb.py_to_serialized_str((a_c,)), repeat)
    report.ratio("F-ordered into params bytes", params_f, copy, "a.copy()", target=1.2)
    report.ratio("F-ordered into params bytes", params_f, warm, "warm numpy.copyto")
    report.ratio("C-ordered into params bytes", params_c, copy, "a.copy()", target=2.0)
    report.ratio("C-ordered into params bytes", params_c, warm, "warm numpy.copyto")
    # Narrower elements transpose with more work per byte; the one-byte copy is the slowest.
    for dtype in (np.int8, np.int16):
        shape = (BIG_SHAPE[0], BIG_BYTES // np.dtype(dtype).itemsize // BIG_SHAPE[0])
        narrow = np.random.default_rng(2).integers(-100, 100, shape, dtype=dtype)
        report.ratio(f"C-ordered {np.dtype(dtype).name} into params bytes",
                     best(lambda: py_pb.py_to_serialized_str((narrow,)), repeat),
                     best(lambda: narrow.copy(order="K"), repeat), "a.copy()")
        del narrow

    result = loopback(py_pb.py_to_serialized_str((a_f,)))

    def read_result():
        out = py_pb.serialized_str_to_py(result)
        return np.asarray(out[0])

    # Where the time goes: each stage on its own (informational).
    import veltra

    print("  stages:")
    for label, fn in [
        ("  numpy F -> veltra.double (one copy)", lambda: veltra.double(a_f)),
        ("  numpy C -> veltra.double (reordering copy)", lambda: veltra.double(a_c)),
        ("  numpy.asfortranarray(aC)", lambda: np.asfortranarray(a_c)),
    ]:
        report.ratio(label, best(fn, repeat), copy, "a.copy()")
    held = veltra.double(a_f)
    report.ratio("  veltra.double -> params bytes (one copy)", best(lambda: py_pb.py_to_serialized_str((held,)), repeat),
                 copy, "a.copy()")
    del held

    view = read_result()
    assert view.shape == BIG_SHAPE and np.array_equal(view, a_f)
    del view
    read = best(read_result, repeat)
    report.ratio("result -> veltra.double -> numpy.asarray", read, copy, "a.copy()", target=1.2)
    report.ratio("result -> veltra.double -> numpy.asarray", read, warm, "warm numpy.copyto")


PEAK_CHILD = textwrap.dedent(
    """
    import sys
    import time
    import numpy as np
    import py_pb
    from veltra.loopback import loopback

    def hwm_kib():
        with open("/proc/self/status") as f:
            for line in f:
                if line.startswith("VmHWM:"):
                    return int(line.split()[1])

    def reset_hwm():
        # Resets the peak to the current RSS (Linux >= 4.0); without it the set-up's own peak would hide ours.
        try:
            with open("/proc/self/clear_refs", "w") as f:
                f.write("5")
            return True
        except OSError:
            return False

    def make(case, rows, cols):
        # The conversion to measure, and the array whose copy is the yardstick (None: what it returns).
        n = rows * cols
        if case == "params-F":
            value = np.arange(n, dtype=np.float64).reshape((rows, cols), order="F")
            return (lambda: py_pb.py_to_serialized_str((value,))), value
        if case == "params-C":
            value = np.arange(n, dtype=np.float64).reshape((rows, cols))
            return (lambda: py_pb.py_to_serialized_str((value,))), value
        value = loopback(py_pb.py_to_serialized_str((np.arange(n, dtype=np.float64).reshape((rows, cols)),)))
        return (lambda: np.asarray(py_pb.serialized_str_to_py(value)[0])), None

    case, rows, cols = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
    # A tiny run of the same path first, so that one-time set-up (registries, imports, caches) is not counted.
    make(case, 2, 3)[0]()
    run, source = make(case, rows, cols)
    ok = reset_hwm()
    before = hwm_kib()
    start = time.perf_counter()
    keep = run()
    seconds = time.perf_counter() - start
    after = hwm_kib()
    # The yardstick, after the peak was read: numpy's copy of the array into fresh memory.
    source = keep if source is None else source
    start = time.perf_counter()
    source.copy(order="K")
    print(after - before, int(ok), seconds, time.perf_counter() - start)
    """
)


# What one conversion may need beyond its input: its output, and little else.
PEAK_TARGET = 1.1


def peak_memory(report):
    print("\n== peak memory above the input, each case in a fresh process (VmHWM)")
    payload_kib = BIG_BYTES // 1024
    for case, what in [("params-F", "F-ordered array -> params bytes"),
                       ("params-C", "C-ordered array -> params bytes"),
                       ("result", "result bytes -> veltra.double -> numpy")]:
        out = subprocess.run([sys.executable, "-c", PEAK_CHILD, case, str(BIG_SHAPE[0]), str(BIG_SHAPE[1])],
                             capture_output=True, text=True, check=True)
        grown, reset_ok = map(int, out.stdout.split()[:2])
        note = "" if reset_ok else " (could not reset the peak: figure may be low)"
        r = grown / payload_kib
        verdict = "ok" if r <= PEAK_TARGET else "MISSED"
        report.rows.append((f"peak {case}", grown, payload_kib, "payload", r, PEAK_TARGET, verdict))
        print(f"  {what:46} {grown / 1024:8.1f} MiB above the input = {r:4.2f}x payload  <= {PEAK_TARGET:g}x"
              f"  {verdict}{note}", flush=True)

    # Reported without a target: 1 GiB, once each, in a fresh process.
    rows, cols = 16384, 8192
    print(f"  1 GiB float64 ({rows} x {cols}), once, time against a.copy() in the same process:")
    for case, what in [("params-F", "F-ordered array -> params bytes"),
                       ("params-C", "C-ordered array -> params bytes"),
                       ("result", "result bytes -> veltra.double -> numpy")]:
        out = subprocess.run([sys.executable, "-c", PEAK_CHILD, case, str(rows), str(cols)],
                             capture_output=True, text=True, check=True)
        fields = out.stdout.split()
        grown, seconds, copy = int(fields[0]), float(fields[2]), float(fields[3])
        print(f"    {what:44} {grown / 1024:8.1f} MiB above the input = {grown / (1 << 20):4.2f}x payload,"
              f" {seconds * 1e3:7.1f} ms = {seconds / copy:4.2f}x a.copy() ({copy * 1e3:.1f} ms)", flush=True)


def many_elements(report, repeat):
    print("\n== 100,000 elements: time per element")
    n = 100_000
    mixed = [i if i % 4 == 0 else i * 0.5 if i % 4 == 1 else f"s{i}" if i % 4 == 2 else -i for i in range(n)]
    numbers = [i * 0.25 if i % 2 else i for i in range(n)]
    dict_of_lists = {f"col{k}": numbers[k * 100:(k + 1) * 100] for k in range(n // 100)}

    for label, value in [("list of numbers and strings", mixed), ("dict of 1,000 lists of 100 numbers", dict_of_lists)]:
        args = (value,)
        result = loopback(py_pb.py_to_serialized_str(args))
        pickled = pickle.dumps(args)
        back = py_pb.serialized_str_to_py(result)[0]
        assert back == value, "round trip changed the value"
        out_ours = best(lambda: py_pb.py_to_serialized_str(args), repeat)
        out_peer = best(lambda: pickle.dumps(args), repeat)
        in_ours = best(lambda: py_pb.serialized_str_to_py(result), repeat)
        in_peer = best(lambda: pickle.loads(pickled), repeat)
        report.ratio(f"{label}: to bytes", out_ours / n, out_peer / n, "pickle.dumps", target=3.0, unit="ns",
                     scale=1e9)
        report.ratio(f"{label}: from bytes", in_ours / n, in_peer / n, "pickle.loads", target=3.0, unit="ns",
                     scale=1e9)
        print(f"    (message {len(result):,} bytes, pickle {len(pickled):,} bytes)")

    # One value that is no plain value costs that value, not a second walk over the others.
    floats = [i * 0.5 for i in range(2_000_000)]
    alone = best(lambda: py_pb.py_to_serialized_str((floats,)), repeat)
    mixed_call = best(lambda: py_pb.py_to_serialized_str((floats, np.ones((2, 2)))), repeat)
    report.ratio("2,000,000 floats and one 2-by-2 array: to bytes", mixed_call, alone, "the floats alone", target=1.2)


# Kinds and field numbers of envelope/proto/veltra_array.proto used below.
_STRING, _VALUE_OBJECT = 3, 27
_TYPE, _DIMS, _STRING_UNITS, _STRING_LENGTHS, _CLASS_NAME, _FIRST_PROPERTIES, _OBJECTS = 1, 2, 6, 7, 8, 9, 11
_OBJECT_PROPERTIES, _PROPERTY_NAME, _PROPERTY_VALUE = 2, 1, 2
_RESULT_LHS = 1


def engine_datetime_result(texts, n):
    """A result whose one output is a 1-by-n engine datetime array: one object per element, each holding a 1x1
    DateString, the texts taken in turn.

    Written as bytes: a million value objects through the protobuf runtime would take far longer than what is
    measured. Each distinct object is encoded once and the block repeated.
    """
    def one_object(text):
        string = (_varint(_TYPE << 3) + _varint(_STRING) + _len_field(_DIMS, _varint(1) + _varint(1))
                  + _len_field(_STRING_UNITS, text.encode("utf-16-le"))
                  + _len_field(_STRING_LENGTHS, _varint(2 * len(text))))  # sint64: zigzag, 2n for n >= 0
        prop = _len_field(_PROPERTY_NAME, b"DateString") + _len_field(_PROPERTY_VALUE, string)
        return _len_field(_OBJECTS, _len_field(_OBJECT_PROPERTIES, prop))

    objects = [one_object(t) for t in texts]
    body = b"".join(objects) * (n // len(objects)) + b"".join(objects[:n % len(objects)])
    array = (_varint(_TYPE << 3) + _varint(_VALUE_OBJECT) + _len_field(_DIMS, _varint(1) + _varint(n))
             + _len_field(_CLASS_NAME, b"datetime") + _len_field(_FIRST_PROPERTIES, b"DateString") + body)
    return _len_field(_RESULT_LHS, array)


def time_values(report, repeat):
    n = 1_000_000
    print(f"\n== time values: {n:,} elements, elements per second")
    rng = np.random.default_rng(2)
    offsets = rng.integers(0, 10**17, n).astype("timedelta64[ns]")  # about three years, to the nanosecond
    dates = np.datetime64("2024-01-01T00:00:00", "ns") + offsets
    as_text = best(lambda: np.datetime_as_string(dates), repeat)

    params = py_pb.py_to_serialized_str((dates,))
    back = py_pb.serialized_str_to_py(loopback(params))[0]
    assert back.dtype == dates.dtype and np.array_equal(back, dates), "datetime64 round trip changed the values"
    del back
    report.rate("datetime64[ns] array -> params bytes", best(lambda: py_pb.py_to_serialized_str((dates,)), repeat),
                as_text, "datetime_as_string", n, target=5e6)
    report.rate("  and back (text form)", best(lambda: py_pb.serialized_str_to_py(loopback(params)), repeat),
                as_text, "datetime_as_string", n)
    del params

    # The engine answers with one object per element; 1,000 distinct dates in turn stand for its texts.
    distinct = dates[:1000]
    engine = engine_datetime_result(np.datetime_as_string(distinct).tolist(), n)
    expected = np.tile(distinct, n // len(distinct))
    back = py_pb.serialized_str_to_py(engine)[0]
    assert back.dtype == expected.dtype and np.array_equal(back.ravel(), expected), "engine datetimes misread"
    del back
    report.rate("engine datetime array (1-by-N) back", best(lambda: py_pb.serialized_str_to_py(engine), repeat),
                best(lambda: np.datetime_as_string(expected), repeat), "datetime_as_string", n, target=3e6)
    print(f"    (result message {len(engine):,} bytes)")
    del engine, expected

    durations = offsets
    in_ms = durations.astype("timedelta64[ms]")
    to_ms = best(lambda: durations.astype("timedelta64[ms]"), repeat)
    params = py_pb.py_to_serialized_str((durations,))
    back = py_pb.serialized_str_to_py(loopback(params))[0]
    assert back.dtype == in_ms.dtype and np.array_equal(back, in_ms), "timedelta64 round trip changed the values"
    del back
    report.rate("timedelta64[ns] array -> params bytes", best(lambda: py_pb.py_to_serialized_str((durations,)), repeat),
                to_ms, "astype(timedelta64[ms])", n, target=20e6)
    report.rate("  and back (timedelta64[ms])", best(lambda: py_pb.serialized_str_to_py(loopback(params)), repeat),
                to_ms, "astype(timedelta64[ms])", n, target=20e6)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--quick", action="store_true", help="fewer repetitions (for a smoke run)")
    parser.add_argument("--only", choices=["small", "big", "peak", "many", "time"], action="append",
                        help="run only these groups (repeatable)")
    opts = parser.parse_args()
    repeat = 3 if opts.quick else 7
    groups = opts.only or ["small", "big", "peak", "many", "time"]

    report = Report()
    print(f"py_pb benchmark, best of {repeat}; ratio = ours / peer (lower is better)")
    if "small" in groups:
        small_call(report, repeat)
    if "big" in groups:
        big_arrays(report, max(3, repeat - 2))
    if "peak" in groups:
        peak_memory(report)
    if "many" in groups:
        many_elements(report, max(3, repeat // 2))
    if "time" in groups:
        time_values(report, max(3, repeat // 2))

    missed = report.missed()
    print("\n" + ("all targets met" if not missed else "targets missed: " + "; ".join(missed)))


if __name__ == "__main__":
    main()
