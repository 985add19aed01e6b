"""py_pb against its peers, measured in the same run.

    .venv/bin/python bench/bench_py_pb.py [--quick]

Prints ratios (ours / peer; lower is better) with the target for each:
  - a small call and its result, against pickle;
  - a 64 MiB float64 array (Fortran- and C-ordered) into parameters bytes, against one copy of the same bytes;
  - a result holding one 64 MiB double array into a veltra.double and on to numpy.asarray, against that copy;
  - peak memory above the input for the big cases, each in a fresh process (VmHWM), against the payload;
  - 100,000 mixed numbers and strings in a list, and in a dict of lists: time per element against pickle.
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
from veltra.loopback import loopback

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

    # The one-copy peers: bytes(memoryview(a)) copies a C-ordered array straight and reorders an F-ordered one
    # (memoryview.tobytes writes C order), so a plain memcpy is printed alongside as the stricter yardstick.
    copy_c = best(lambda: bytes(memoryview(a_c)), repeat)
    copy_f = best(lambda: bytes(memoryview(a_f)), repeat)

    params_f = best(lambda: py_pb.py_to_serialized_str((a_f,)), repeat)
    params_c = best(lambda: py_pb.py_to_serialized_str((a_c,)), repeat)
    report.ratio("F-ordered into params bytes", params_f, copy_f, "bytes(memoryview(aF))", target=2.0)
    report.ratio("F-ordered into params bytes", params_f, copy_c, "plain copy (C order)")
    report.ratio("C-ordered into params bytes", params_c, copy_c, "bytes(memoryview(aC))", target=2.5)

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
        report.ratio(label, best(fn, repeat), copy_c, "plain copy (C order)")
    held = veltra.double(a_f)
    report.ratio("  veltra.double -> params bytes (one copy)", best(lambda: py_pb.py_to_serialized_str((held,)), repeat),
                 copy_c, "plain copy (C order)")
    del held
    report.ratio("  result bytes -> veltra.double", best(lambda: py_pb.serialized_str_to_py(result), repeat),
                 copy_c, "plain copy (C order)")

    view = read_result()
    assert view.shape == BIG_SHAPE and np.array_equal(view, a_f)
    del view
    read = best(read_result, repeat)
    report.ratio("result -> veltra.double -> numpy.asarray", read, copy_c, "plain copy (C order)", target=2.5)
    report.ratio("result -> veltra.double -> numpy.asarray", read, copy_f, "bytes(memoryview(aF))")


PEAK_CHILD = textwrap.dedent(
    """
    import sys
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
        n = rows * cols
        if case == "params-F":
            value = np.arange(n, dtype=np.float64).reshape((rows, cols), order="F")
            return lambda: py_pb.py_to_serialized_str((value,))
        if case == "params-C":
            value = np.arange(n, dtype=np.float64).reshape((rows, cols))
            return lambda: py_pb.py_to_serialized_str((value,))
        value = loopback(py_pb.py_to_serialized_str((np.arange(n, dtype=np.float64).reshape((rows, cols)),)))
        return lambda: np.asarray(py_pb.serialized_str_to_py(value)[0])

    case, rows, cols = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
    # A tiny run of the same path first, so that one-time set-up (registries, imports, caches) is not counted.
    make(case, 2, 3)()
    run = make(case, rows, cols)
    ok = reset_hwm()
    before = hwm_kib()
    keep = run()
    after = hwm_kib()
    print(after - before, int(ok))
    """
)


def peak_memory(report):
    print("\n== peak memory above the input, each case in a fresh process (VmHWM)")
    payload_kib = BIG_BYTES // 1024
    for case, what in [("params-F", "F-ordered array -> params bytes"),
                       ("params-C", "C-ordered array -> params bytes"),
                       ("result", "result bytes -> veltra.double -> numpy")]:
        out = subprocess.run([sys.executable, "-c", PEAK_CHILD, case, str(BIG_SHAPE[0]), str(BIG_SHAPE[1])],
                             capture_output=True, text=True, check=True)
        grown, reset_ok = map(int, out.stdout.split())
        note = "" if reset_ok else " (could not reset the peak: figure may be low)"
        r = grown / payload_kib
        verdict = "ok" if r <= 2.0 else "MISSED"
        report.rows.append((f"peak {case}", grown, payload_kib, "payload", r, 2.0, verdict))
        print(f"  {what:46} {grown / 1024:8.1f} MiB above the input = {r:4.2f}x payload  <= 2x  {verdict}{note}",
              flush=True)


def many_elements(report, repeat):
    print("\n== 100,000 elements: time per element")
    n = 100_000
    mixed = [i if i % 4 == 0 else i * 0.5 if i % 4 == 1 else f"s{i}" if i % 4 == 2 else -i for i in range(n)]
    dict_of_lists = {f"col{k}": mixed[k * 1000:(k + 1) * 1000] for k in range(n // 1000)}

    for label, value in [("list of numbers and strings", mixed), ("dict of 100 lists of 1,000", dict_of_lists)]:
        args = (value,)
        result = loopback(py_pb.py_to_serialized_str(args))
        pickled = pickle.dumps(args)
        back = py_pb.serialized_str_to_py(result)[0]
        assert back == value, "round trip changed the value"
        out_ours = best(lambda: py_pb.py_to_serialized_str(args), repeat)
        out_peer = best(lambda: pickle.dumps(args), repeat)
        in_ours = best(lambda: py_pb.serialized_str_to_py(result), repeat)
        in_peer = best(lambda: pickle.loads(pickled), repeat)
        report.ratio(f"{label}: to bytes", out_ours / n, out_peer / n, "pickle.dumps", unit="ns", scale=1e9)
        report.ratio(f"{label}: from bytes", in_ours / n, in_peer / n, "pickle.loads", unit="ns", scale=1e9)
        print(f"    (message {len(result):,} bytes, pickle {len(pickled):,} bytes)")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--quick", action="store_true", help="fewer repetitions (for a smoke run)")
    parser.add_argument("--only", choices=["small", "big", "peak", "many"], action="append",
                        help="run only these groups (repeatable)")
    opts = parser.parse_args()
    repeat = 3 if opts.quick else 7
    groups = opts.only or ["small", "big", "peak", "many"]

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

    missed = report.missed()
    print("\n" + ("all targets met" if not missed else "targets missed: " + "; ".join(missed)))


if __name__ == "__main__":
    main()
