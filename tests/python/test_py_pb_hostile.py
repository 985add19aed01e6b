"""Input written to break the module: classes that only claim a registered type's name, arguments that expand
far beyond their own size, conversions interrupted by a signal."""

import itertools
import signal
import time

import numpy as np
import pytest
from numpy.lib.stride_tricks import as_strided

import py_pb
from conftest import named, run_python
from py_pb_peer import params, roundtrip
from veltra.loopback import loopback

BUILTIN_NAMES = ["float", "complex", "int", "bool", "str", "bytes", "bytearray", "dict", "list", "tuple", "set",
                 "NoneType", "memoryview", "NULL", "<buffer>"]
DOTTED_NAMES = ["numpy.ndarray", "veltra.double", "veltra.int8", "veltra.uint64", "veltra.logical", "veltra.object",
                "veltra.dictionary", "datetime.datetime", "datetime.timedelta", "numpy.datetime64",
                "numpy.timedelta64", "pandas.DataFrame", "pandas.core.frame.DataFrame",
                "pandas._libs.tslibs.timestamps.Timestamp", "pandas.Timedelta"]


class Own(Exception):
    """What an impostor's own methods raise: passed on as it is."""


def _raise(*args):
    raise Own()


BASES = [(object,), (bytes,), (int,), (list,), (dict,)]
BODIES = {
    "bare": {},
    "protocols": {"__float__": lambda self: 1.5, "__index__": lambda self: 7, "__complex__": lambda self: 1j,
                  "__iter__": lambda self: iter([1, "a"]), "__len__": lambda self: 1, "keys": lambda self: ["k"],
                  "__getitem__": lambda self, key: 2.0, "dtype": np.dtype("f8"), "_is_complex": False},
    "raising": {name: _raise for name in ("__float__", "__index__", "__complex__", "__iter__", "__len__", "keys",
                                          "__getitem__", "__bool__", "__buffer__")},
}


def _impostor(name, base, body):
    module, _, short = name.rpartition(".")
    cls = type(short, base, dict(body))
    cls.__module__ = module or "builtins"
    return cls() if base != (bytes,) else cls(b"\0" * 24)


@pytest.mark.parametrize("body", BODIES, ids=str)
@pytest.mark.parametrize("base", BASES, ids=lambda b: b[0].__name__)
@pytest.mark.parametrize("name", BUILTIN_NAMES + DOTTED_NAMES)
def test_an_impostor_converts_or_is_refused_with_a_type_error(name, base, body):
    # The package types and numpy arrays are read by attribute first: a missing one is an AttributeError.
    refusals = (TypeError, Own, AttributeError) if name.startswith(("veltra.", "numpy.ndarray")) else (TypeError, Own)
    if name in ("datetime.datetime", "datetime.timedelta", "pandas._libs.tslibs.timestamps.Timestamp",
                "pandas.Timedelta"):
        refusals += (IndexError,)  # a missing datetime or timedelta attribute
    try:
        data = py_pb.py_to_serialized_str((_impostor(name, base, BODIES[body]),))
    except refusals:
        return
    # Whatever converts is a message the peer reads back.
    assert isinstance(py_pb.serialized_str_to_py(loopback(data)), list)


def test_an_impostor_of_bytearray_is_read_as_its_bytes():
    fake = type("bytearray", (bytes,), {"__module__": "builtins"})
    payload = b"\0" * 8 + (0x1000).to_bytes(8, "little") + b"\0" * 8
    assert roundtrip(fake(payload))[0].tolist() == [list(payload)]


def test_an_impostor_mapping_converts_as_a_struct():
    fake = named("builtins", "dict", keys=lambda self: ["a", "b"], __getitem__=lambda self, key: key * 2)
    assert roundtrip(fake()) == [{"a": "aa", "b": "bb"}]


@pytest.mark.parametrize("key, shown", [("a\0b", r"'a\x00b'"), ("x" * 100_000, "'" + "x" * 99 + "...")])
def test_a_bad_field_name_is_shown_escaped_and_cut(key, shown):
    with pytest.raises(ValueError) as info:
        py_pb.py_to_serialized_str(({key: 1},))
    assert str(info.value) == "field name is not a valid VELTRA identifier: " + shown


# ---------------------------------------------------------------------------------------------------------
# arguments that expand: refused early, long before memory runs out

TOO_MANY = "the arguments hold more than 4194304 nested values"


def _doubled(levels, leaf=1.0):
    x = [leaf]
    for _ in range(levels):
        x = [x, x]
    return x


@pytest.mark.parametrize("levels", [22, 40])
def test_shared_sub_lists_fail_fast(levels):
    # 2**40 leaves: only a walk that counts every shared occurrence against the budget ever returns.
    with pytest.raises(ValueError, match=TOO_MANY):
        py_pb.py_to_serialized_str((_doubled(levels),))


def test_shared_sub_lists_within_the_budget_cross_whole():
    assert roundtrip(_doubled(3, "x")) == [_doubled(3, "x")]
    assert params(_doubled(12)).ByteSize() > 4096 * 12  # every copy is written out


# Each case runs in a fresh interpreter, so that its peak memory is its own: the figures are MiB of peak
# resident memory above what the input itself takes.
SIZE_CASES = {
    "one 2.5 GiB array": ("[np.ones(5 << 27)]", 64),
    "two 1.2 GiB arrays": ("[np.ones(1200 << 17), np.ones(1200 << 17)]", 1200 + 64),
    "a broadcast view of one element": ("[np.broadcast_to(np.ones(1), (1 << 30,))]", 16),
    # Text and time arrays are copied (to column-major, or to native byte order) before their elements are
    # read: the claim is charged first.
    "broadcast text": ("[np.broadcast_to(np.array(['ab']), (1 << 32,))]", 16),
    "broadcast byte-swapped dates": ("[np.broadcast_to(np.array([1], '>M8[ns]'), (1 << 33,))]", 16),
}


@pytest.mark.parametrize("case", SIZE_CASES)
def test_arguments_past_2_gib_are_refused_before_they_are_copied(case):
    inputs, allowed_mib = SIZE_CASES[case]
    out = run_python(f"""
        import resource, numpy as np, py_pb
        args = {inputs}
        base = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
        try:
            py_pb.py_to_serialized_str(tuple(args))
        except ValueError as e:
            print(str(e).split(",")[0])
        print((resource.getrusage(resource.RUSAGE_SELF).ru_maxrss - base) // 1024)
    """).splitlines()
    assert out[0].startswith("the arguments need at least "), out
    assert int(out[1]) <= allowed_mib, out


def _claiming(array, size):
    """`array` as a numpy.ndarray whose `size` says `size`: the charge for a time or text array is made from it."""
    cls = type("ndarray", (np.ndarray,), {"size": size})
    cls.__module__ = "numpy"
    return array.view(cls)


# Byte counts that pass 64 bits, which wrapped to a charge of (nearly) nothing.
WRAPPING_CLAIMS = {
    # The claimed count times 8 (4 for the two-character text) is 2**64.
    "dates": lambda: _claiming(np.array(["2020-01-01"], "M8[D]"), 1 << 61),
    "durations": lambda: _claiming(np.array([1], "m8[s]"), 1 << 61),
    "text": lambda: _claiming(np.array(["ab"]), 1 << 62),
    # No claim, but 2**59 dates, each a text 32 bytes longer than its own 8 bytes.
    "date texts": lambda: _claiming(as_strided(np.array([0], "M8[s]"), (1 << 30, 1 << 29), (0, 0)), 0),
}


@pytest.mark.parametrize("make", WRAPPING_CLAIMS.values(), ids=WRAPPING_CLAIMS.keys())
def test_byte_counts_past_64_bits_are_refused_rather_than_wrapped(make):
    with pytest.raises(ValueError, match="^the arguments need at least "):
        py_pb.py_to_serialized_str((make(),))


# ---------------------------------------------------------------------------------------------------------
# Ctrl-C during a long conversion


def _interrupted_after(n):
    """A tuple-like argument whose n-th item raises SIGINT in this process, as Ctrl-C would: the interrupt
    lands mid-conversion, at the same item every time."""
    def items():
        for i in itertools.count():
            if i == n:
                signal.raise_signal(signal.SIGINT)
            yield 1.0
    return named("builtins", "tuple", __iter__=lambda self: items())()


@pytest.mark.parametrize("n", [0, 1, 5000])
def test_a_signal_interrupts_a_conversion_to_the_engine(n):
    with pytest.raises(KeyboardInterrupt):
        py_pb.py_to_serialized_str((_interrupted_after(n),))
    assert py_pb.py_to_serialized_str((1.0,))  # and the next call works


def test_a_signal_interrupts_reading_a_long_result():
    # Reading runs no Python code, so the signal comes from a timer. The result is sized until reading it
    # takes ten times the timer's delay, so that the signal always arrives mid-conversion: result messages
    # concatenated are one result with all of their outputs, so it can grow past any budget of one call.
    delay, one = 0.05, loopback(py_pb.py_to_serialized_str((np.arange(200_000).astype(str).tolist(),)))
    data = one
    while True:
        start = time.perf_counter()
        py_pb.serialized_str_to_py(data)
        if time.perf_counter() - start >= 10 * delay:
            break
        data += data
    previous = signal.signal(signal.SIGALRM, signal.default_int_handler)
    try:
        signal.setitimer(signal.ITIMER_REAL, delay)
        with pytest.raises(KeyboardInterrupt):
            py_pb.serialized_str_to_py(data)
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, previous)
