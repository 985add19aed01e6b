"""atheris harness: random Python values into py_pb.py_to_serialized_str, and what it writes back in.

The values: numbers (huge ints among them), str (lone surrogates, NULs), bytes, bytearray, None, lists, tuples,
sets and dicts (sub-containers shared, non-str and non-identifier keys, cycles, very deep nesting, far more
nested values than a call may hold, elements whose conversion changes their own container), numpy
arrays of every dtype in every layout (C and Fortran order, strided, reversed, byte-swapped, unaligned, 0-d,
empty, broadcast), numpy scalars, memoryviews, array.array and ctypes buffers, the typed arrays of
veltramultidimarrayforpython, dates and tables, and impostors: classes made to carry a registered type name
(builtins.float ... builtins.set, numpy.ndarray, veltra.double, datetime.datetime, pandas.DataFrame, ...) over
another base, whose methods return odd things or raise Impostor.

A call may raise TypeError, ValueError (UnicodeEncodeError among them), RecursionError, OverflowError,
AttributeError, IndexError, what an impostor's own method raised, or RuntimeError for a container changed
while it was converted. What it writes must parse as a
parameters message with one input per argument and the nargout asked for, and must read back through the
loopback into one output per argument; numbers, text, containers of them, bytes and numeric numpy arrays must
come back with the values they went in with.

Sizes of what may be accepted are capped (a shared container counted each time it occurs, since each
occurrence is written): no input grows past a few tens of MiB on its way through.

    python fuzz/fuzz_module_values.py -max_total_time=60 fuzz/corpus/fuzz_module_values
"""

import array
import collections
import ctypes
import datetime
import math
import reprlib
import sys
import zoneinfo

import atheris
import numpy as np
import pandas as pd

import module_fuzz_support as support
import py_pb
import veltra
from veltra.loopback import loopback
from veltra.wire import messages

M = messages()
try:
    # The peer's parser stops at 100 levels of nesting unless told otherwise; the wire allows 200.
    from google._upb import _message as _upb

    _upb.SetAllowOversizeProtos(True)
except ImportError:
    pass


class Impostor(Exception):
    """Raised by the impostors' own methods; py_pb must pass it on as it is."""


ALLOWED = (TypeError, ValueError, RecursionError, OverflowError, AttributeError, IndexError, Impostor)
# A container changed by Python code that its own conversion ran.
CHANGED = {"dict changed size during conversion to VELTRA", "Set changed size during iteration"}

MAX_NODES = 20000          # values converted, every occurrence of a shared one counted
MAX_BYTES = 24 << 20       # payload bytes of strings, bytes and arrays, likewise
MAX_DEPTH = 8              # ordinary nesting; deep chains are built on purpose, see Gen.deep

TYPED = ["double", "single", "int8", "int16", "int32", "int64", "uint8", "uint16", "uint32", "uint64", "logical"]
REGISTERED = (["float", "complex", "int", "bool", "str", "bytes", "bytearray", "dict", "list", "tuple", "set",
               "NoneType", "memoryview", "NULL", "<buffer>", "veltra.object", "veltra.dictionary",
               "datetime.datetime", "datetime.timedelta", "numpy.datetime64", "numpy.timedelta64", "numpy.ndarray",
               "pandas.DataFrame", "pandas.core.frame.DataFrame", "pandas.Timestamp", "pandas.Timedelta",
               "pandas._libs.tslibs.timestamps.Timestamp", "pandas._libs.tslibs.timedeltas.Timedelta"]
              + ["veltra." + t for t in TYPED]
              + ["numpy.float64", "numpy.generic", "veltra", "", "builtins.float", "Float"])
# A type whose name is empty counts as no object at all: refused with RuntimeError, as a null pointer is.
NO_NAME = "passing null Python object pointer to VELTRA not supported"
BASES = [object, object, bytes, str, int, float, complex, list, dict, tuple, set, bytearray, Exception]

FLOATS = [0.0, -0.0, 1.5, -2.25, math.nan, math.inf, -math.inf, 5e-324, 1.7976931348623157e308, 1e-310]
INTS = [0, 1, -1, 255, 2**31 - 1, -2**31, 2**53 + 1, 2**63 - 1, -2**63, 2**63, -2**63 - 1, 2**64 - 1, 2**64,
        10**40, -10**40, 10**5000]
TEXTS = ["", "a", "text", "\x00", "a\x00b", "\ud800", "\udfff", "x\udc80y", "\U0001f600", "\u00e9", "\uffff",
         "\ud83d\ude00", "A" * 300]
KEYS = ["a", "b", "f1", "x_y", "A" * 63, "A" * 64, "", "1a", "a b", "_a", "a.b", "\u00e9", "a\x00b", "\ud800",
        "\x00", 1, 1.5, None, (1, 2), b"a", True, frozenset()]
DTYPES = ["?", "i1", "u1", "<i2", ">i2", "<u2", "<i4", ">i4", "<u4", "<i8", ">i8", "<u8", ">u8", "<f2", "<f4",
          ">f4", "<f8", ">f8", "g", "<c8", ">c8", "<c16", ">c16", "G", "O", "U3", "S3", "V4", "M8[s]", "m8[ms]", ">M8[ns]", "M8[D]",
          "M8[us]", "m8[ns]", ">m8[W]", "M8[10ms]",
          [("a", "<f8"), ("b", "i1")]]
ARRAY_CODES = "bBuhHiIlLqQfd"


def impostor_method(mode, good):
    def method(self, *args):
        if mode == 0:
            return good
        if mode == 1:
            raise Impostor("from an impostor's method")
        return "not what you asked for"
    return method


class Pair(ctypes.Structure):
    _fields_ = [("a", ctypes.c_double), ("b", ctypes.c_int8)]


class Gen:
    def __init__(self, fdp):
        self.fdp = fdp
        self.nodes = 0
        self.bytes = 0
        self.pool = []        # containers built so far, to be shared
        self.sizes = {}       # id -> (nodes, bytes) of a pooled container, all occurrences inside counted
        self.max_depth = 0
        self.mutated = False  # a container holds a value whose conversion changes the container
        self.impostors = False
        self.nameless = False  # an impostor class with an empty name
        # A value that may not read back: one duration (timedelta's own refusal of NaN), a text array of more
        # than one row and column (string arrays come back as lists only).
        self.one_way = False

    def int_in(self, lo, hi):
        return self.fdp.ConsumeIntInRange(lo, hi)

    def pick(self, values):
        return self.fdp.PickValueInList(values)

    def chance(self, in_256):
        return self.fdp.ConsumeIntInRange(0, 255) < in_256

    def room(self, nbytes=0):
        return self.nodes < MAX_NODES and self.bytes + nbytes <= MAX_BYTES

    def charge(self, nbytes):
        self.nodes += 1
        self.bytes += nbytes

    # ---- leaves ----

    def text(self):
        if self.chance(96):
            return self.fdp.ConsumeUnicode(self.int_in(0, 24))
        t = self.pick(TEXTS)
        return t * self.pick([1, 1, 1, 2, 1000]) if self.room(len(t) * 4000) else t

    def number(self):
        which = self.int_in(0, 5)
        if which == 0:
            return self.pick(FLOATS) if self.chance(128) else self.fdp.ConsumeFloat()
        if which == 1:
            return self.pick(INTS) if self.chance(160) else self.fdp.ConsumeInt(self.int_in(1, 12))
        if which == 2:
            return self.chance(128)
        if which == 3:
            return complex(self.pick(FLOATS), self.pick(FLOATS))
        if which == 4:
            return self.pick([np.float32(1.5), np.float64(-0.0), np.int8(-1), np.uint64(2**64 - 1), np.bool_(True),
                              np.complex64(1j), np.float16(2), np.longdouble(1), np.str_("x"), np.bytes_(b"x"),
                              np.datetime64("2020-01-01"), np.timedelta64(5, "s"), np.void(b"ab")])
        if self.chance(96):
            return self.time_value()
        if self.chance(64):
            return self.pick([collections.OrderedDict(a=1.5), collections.UserDict({1: "x"}),
                              collections.ChainMap({"k": 1}, {"k": 2}), veltra.dictionary({2.5: [1]}),
                              veltra.dictionary(), collections.OrderedDict([(1, 1), ("a", 2)])])
        return self.pick([None, datetime.date(2020, 1, 1), range(3), slice(1), Ellipsis, object(), int,
                          frozenset({1}), 1 + 0j])

    def time_value(self):
        self.one_way = True
        zone = self.pick([None, datetime.timezone.utc, datetime.timezone(datetime.timedelta(minutes=-30)),
                          datetime.timezone(datetime.timedelta(hours=5, minutes=45)), zoneinfo.ZoneInfo("Europe/Paris"),
                          zoneinfo.ZoneInfo("UTC"), datetime.timezone(datetime.timedelta(hours=-23, minutes=-59))])
        stamp = datetime.datetime(self.int_in(1, 9999), self.int_in(1, 12), self.int_in(1, 28), self.int_in(0, 23),
                                  self.int_in(0, 59), self.int_in(0, 59), self.int_in(0, 999999), tzinfo=zone)
        which = self.int_in(0, 5)
        if which == 0:
            return stamp
        if which == 1:
            return pd.Timestamp(stamp) if 1678 < stamp.year < 2261 else stamp
        if which == 2:
            return datetime.timedelta(microseconds=self.fdp.ConsumeInt(8) % (10**17)) * self.pick([1, -1])
        if which == 3:
            return pd.Timedelta(self.fdp.ConsumeInt(8) >> 2)
        unit = self.pick(["Y", "M", "W", "D", "h", "m", "s", "ms", "us", "ns", "ps", "fs", "as", "7s"])
        value = self.fdp.ConsumeInt(8) >> self.int_in(0, 62)
        return np.datetime64(value, unit) if which == 4 else np.timedelta64(value, unit)

    def raw_bytes(self):
        n = self.pick([0, 1, 2, 3, 16, 1000, 1 << 20]) if self.chance(64) else self.int_in(0, 32)
        if not self.room(n):
            n = 0
        data = self.fdp.ConsumeBytes(n).ljust(n, b"\x00")
        self.charge(n)
        return bytearray(data) if self.chance(64) else data

    def ndarray(self):
        dt = np.dtype(self.pick(DTYPES))
        self.one_way = self.one_way or dt.kind in "mMUSO"
        ndim = self.pick([0, 1, 1, 2, 2, 2, 3, 4, 7])
        shape = [self.pick([0, 1, 1, 2, 3, 4, 5]) for _ in range(ndim)]
        count = int(np.prod(shape)) if shape else 1
        if count * max(dt.itemsize, 1) * 4 > MAX_BYTES or not self.room(count * dt.itemsize * 4):
            shape, count = [2], 2
        self.charge(count * dt.itemsize)
        raw = self.fdp.ConsumeBytes(count * dt.itemsize).ljust(count * dt.itemsize, b"\x01")
        if dt.hasobject:
            a = np.array([self.pick([1.0, "a", None, [1]]) for _ in range(count)], dtype=object).reshape(shape)
        else:
            a = np.frombuffer(raw, dtype=dt).reshape(shape).copy()
        layout = self.int_in(0, 9)
        if layout == 1:
            a = np.asfortranarray(a)
        elif layout == 2 and a.ndim:
            a = np.repeat(a, 2, axis=-1)[..., ::2]                        # strided
        elif layout == 3 and a.ndim:
            a = a[::-1]                                                   # negative stride
        elif layout == 4 and a.ndim >= 2:
            a = a.T
        elif layout == 5 and not dt.hasobject:
            a = a.byteswap().view(a.dtype.newbyteorder())                  # same values, other byte order
        elif layout == 6 and not dt.hasobject and a.size:
            buf = bytearray(a.nbytes + 1)                                 # unaligned
            b = np.frombuffer(buf, dtype=a.dtype, offset=1, count=a.size).reshape(a.shape)
            b[...] = a
            a = b
        elif layout == 7 and a.ndim and a.size:
            a = np.broadcast_to(a[..., :1], a.shape[:-1] + (self.pick([0, 1, 3]),))  # zero stride
        elif layout == 8:
            a = a.reshape(a.shape + (1,))
        elif layout == 9 and a.ndim:
            a = a[..., 1:1]                                               # empty view
        if self.chance(32):
            a = a.view()
            a.flags.writeable = False
        return a

    def buffer(self):
        which = self.int_in(0, 6)
        if which == 0:
            a = self.ndarray()
            try:
                return memoryview(a)
            except (ValueError, TypeError, BufferError):
                return a
        if which == 1:
            m = memoryview(self.fdp.ConsumeBytes(48).ljust(48, b"\x02"))
            fmt = self.pick(["B", "b", "c", "d", "f", "q", "Q", "i", "?", "h", "L"])
            m = m.cast(fmt)
            size = m.itemsize
            if self.chance(96):
                shape = self.pick([[48 // size], [1, 48 // size], [48 // size // 2, 2], [2, 1, 48 // size // 2]])
                m = m.cast("B").cast(fmt, shape)
            if self.chance(64) and m.ndim == 1:
                m = m[::self.pick([2, -1, 3])]
            return m
        if which == 2:
            code = self.pick(list(ARRAY_CODES))
            return array.array("u", "ab") if code == "u" else array.array(code, [1, 2, 3][: self.int_in(0, 3)])
        if which == 3:
            t = self.pick([ctypes.c_double * 3, ctypes.c_int8 * 2, (ctypes.c_int16 * 2) * 2, ctypes.c_bool * 1])
            return t()
        if which == 4:
            return (Pair * 2)()
        if which == 5:
            m = memoryview(b"abcdefgh")
            m.release()
            return m
        return self.typed()

    def typed(self):
        name = self.pick(TYPED)
        cls = getattr(veltra, name)
        which = self.int_in(0, 4)
        try:
            if which == 0:
                return cls([[1, 0, 1], [0, 1, 1]])
            if which == 1:
                return cls(size=(self.pick([0, 1, 2]), self.pick([0, 1, 3])))
            if which == 2:
                return cls([[1, 2], [3, 4]])[self.pick([0, 1, -1])]      # a row: a view sharing the elements
            if which == 3:
                x = cls([1, 2, 3, 4, 5, 6])
                x.reshape((self.pick([1, 2, 3, 6]), self.pick([6, 3, 2, 1])))
                return x
            return cls([1, 2j]) if name in ("double", "single") else cls(7)
        except (ValueError, TypeError):
            return cls(1)

    # ---- impostors ----

    def impostor(self):
        self.impostors = True
        full = self.pick(REGISTERED)
        module, _, name = full.rpartition(".")
        module = module or "builtins"
        self.nameless = self.nameless or not name
        base = self.pick(BASES)
        body = {"__module__": module if self.chance(240) else self.pick([5, None, ""])}
        for attr, good in [("__float__", 1.5), ("__index__", self.pick([3, -1, 2**70])), ("__int__", 7),
                           ("__complex__", 1j), ("__len__", self.pick([0, 3, 2**62])), ("__bool__", True),
                           ("__str__", "s"), ("__repr__", "r"), ("__hash__", 5), ("__array__", np.arange(3.0)),
                           ("keys", ["a"]), ("__buffer__", memoryview(b"ab")), ("tolist", [1.0])]:
            if self.chance(40):
                body[attr] = impostor_method(self.int_in(0, 2), good)
        if self.chance(40):
            limit = self.int_in(0, 4)

            def getitem(self, i, limit=limit):
                if isinstance(i, int) and i >= limit:
                    raise IndexError(i)
                return 1.0
            body["__getitem__"] = getitem
        if self.chance(40):
            items = [1.0, "a", None][: self.int_in(0, 3)]
            fails = self.chance(128)

            def iterate(self, items=items, fails=fails):
                yield from items
                if fails:
                    raise Impostor("while iterating")
            body["__iter__"] = iterate
        if self.chance(40):
            def getattr_(self, attr, mode=self.int_in(0, 2)):
                if attr.startswith("__"):
                    raise AttributeError(attr)
                if mode == 0:
                    raise Impostor("attribute " + attr)
                return self_like_value(attr) if mode == 1 else "garbage"
            body["__getattr__"] = getattr_
        for attr in ("dtype", "shape", "ndim", "strides", "size", "_is_complex"):
            if self.chance(24):
                body[attr] = self_like_value(attr) if self.chance(128) else "garbage"
        try:
            cls = type(name, (base,), body)
        except TypeError:
            body.pop("__module__", None)
            try:
                cls = type(name, (base,), body)
            except TypeError:
                cls = type(name, (object,), {})
        try:
            if base in (list, tuple, set):
                return cls([1.0, "a"][: self.int_in(0, 2)])
            if base is dict:
                return cls({"a": 1.0} if self.chance(128) else {})
            if base in (bytes, bytearray):
                return cls(self.fdp.ConsumeBytes(self.int_in(0, 40)))
            if base is str:
                return cls(self.text())
            if base in (int, float, complex):
                return cls(self.pick([0, 1, 3]))
            return cls()
        except Exception:
            return object.__new__(cls) if base is object else self.pick([1.0, None])

    # ---- containers ----

    def container(self, depth):
        kind = self.int_in(0, 3)
        n = self.pick([0, 1, 2, 3, 5, 8]) if self.chance(230) else self.int_in(0, 300)
        nodes0, bytes0 = self.nodes, self.bytes
        self.charge(0)
        if kind == 3:
            out = {}
            for _ in range(n):
                if not self.room():
                    break
                k = self.pick(KEYS) if self.chance(200) else self.fdp.ConsumeUnicode(self.int_in(1, 8))
                out[k] = self.value(depth + 1)
        else:
            items = []
            for _ in range(n):
                if not self.room():
                    break
                items.append(self.value(depth + 1))
            if kind == 0:
                out = items
            elif kind == 1:
                out = tuple(items)
            else:
                out = set()
                for x in items:
                    # Hashing a tuple walks all of it, every shared occurrence again: a tower of shared
                    # tuples would take the harness itself exponential time.
                    if isinstance(x, tuple):
                        continue
                    # An identity hash follows the object's address, and with it the set's order: a replay of
                    # the same inputs would convert the same set in another order.
                    if type(x).__hash__ in (object.__hash__, type.__hash__):
                        continue
                    try:
                        out.add(x)
                    except Exception:
                        pass
        if self.chance(8) and not isinstance(out, tuple):
            self.mutator(out)
        self.sizes[id(out)] = (self.nodes - nodes0, self.bytes - bytes0)
        self.pool.append(out)
        return out

    def mutator(self, target):
        """Puts into target a float impostor whose conversion empties, shrinks or grows target."""
        how = self.int_in(0, 2)

        def convert(_):
            if how == 0:
                target.clear()
            elif how == 1 and target:
                if isinstance(target, list):
                    target.pop()
                elif isinstance(target, dict):
                    target.pop(next(iter(target)))
                else:
                    target.pop()
            elif isinstance(target, list):
                target.append(1.0)
            elif isinstance(target, dict):
                target[f"k{len(target)}"] = 1.0
            else:
                target.add(len(target) + 0.5)
            return 1.5

        m = type("float", (object,), {"__module__": "builtins", "__float__": convert})()
        if isinstance(target, list):
            target.insert(self.int_in(0, len(target)), m)
        elif isinstance(target, dict):
            target["m"] = m
        else:
            target.add(m)
        self.mutated = True

    def shared(self):
        """A container built earlier, once more: converted once for each place it is in."""
        c = self.pick(self.pool)
        n, b = self.sizes[id(c)]
        if self.nodes + n > MAX_NODES or self.bytes + b > MAX_BYTES:
            return 1.0
        self.nodes += n
        self.bytes += b
        return c

    def deep(self):
        """A chain of containers, each holding the next: around the wire's nesting bound (200) and the
        converters' recursion guard (1000)."""
        levels = self.pick([50, 198, 199, 200, 201, 202, 500, 998, 999, 1000, 1001, 5000])
        style = self.int_in(0, 3)
        x = self.number()
        for i in range(levels):
            s = style if style < 3 else i % 3
            x = [x] if s == 0 else (x,) if s == 1 else {"a": x}
        self.nodes += levels
        self.max_depth = max(self.max_depth, levels)
        return x

    def doubling(self):
        """x = [x, x] over and over: a few objects that hold far more nested values than one call may; refused
        early, since each occurrence counts."""
        x = self.number()
        for _ in range(self.int_in(22, 64)):
            x = self.pick([lambda y: [y, y], lambda y: (y, y), lambda y: {"a": y, "b": y}])(x)
        return x

    def cycle(self):
        a = [1.0]
        kind = self.int_in(0, 3)
        if kind == 0:
            a.append(a)
        elif kind == 1:
            a.append([a])
        elif kind == 2:
            d = {"a": 1.0}
            d["b"] = d
            return d
        else:
            d = {"a": a}
            a.append(d)
        return a

    def value(self, depth=0):
        self.max_depth = max(self.max_depth, depth)
        which = self.int_in(0, 15)
        if which <= 3:
            self.charge(16)
            return self.number()
        if which <= 5:
            t = self.text()
            self.charge(len(t) * 4)
            return t
        if which == 6:
            return self.raw_bytes()
        if which <= 8:
            return self.ndarray()
        if which == 9:
            return self.buffer()
        if which == 10:
            self.charge(64)
            return self.impostor()
        if which <= 12 and depth < MAX_DEPTH and self.room():
            return self.container(depth)
        if which == 13 and self.pool:
            return self.shared()
        if which == 14 and self.chance(32) and self.room():
            return self.deep()
        if which == 15 and self.chance(32):
            return self.cycle()
        if which == 15 and self.chance(16):
            return self.doubling()
        self.charge(16)
        return self.number()


def self_like_value(attr):
    return {"dtype": np.dtype("f8"), "shape": (2, 3), "ndim": 2, "strides": (8, 16), "size": 6,
            "_is_complex": False}.get(attr, 1)


# ---- what must come back ----

def short(x):
    return reprlib.repr(x)


def check_same(sent, got, where="argument"):
    """Raises Unexpected when got is not what sent must come back as; values without a fixed way back
    (empty ones, sets, buffers other than numeric numpy arrays, ...) pass unchecked."""
    t = type(sent)
    if t is float:
        ok = type(got) is float and (got == sent or (math.isnan(sent) and math.isnan(got)))
    elif t is bool:
        ok = got is sent
    elif t is int:
        ok = type(got) is int and got == sent
    elif t is complex:
        ok = type(got) is complex and (got == sent or (math.isnan(sent.real) or math.isnan(sent.imag)))
    elif t is str:
        # A leading U+FEFF or U+FFFE reads back as a byte-order mark.
        ok = not sent or sent[0] in "\ufeff\ufffe" or got == sent
    elif t in (list, tuple):
        if not sent:
            return
        ok = type(got) is list and len(got) == len(sent)
        if ok:
            for i, (s, g) in enumerate(zip(sent, got)):
                check_same(s, g, f"{where}[{i}]")
    elif t is dict:
        if not sent or not all(type(k) is str for k in sent):
            return
        ok = type(got) is dict and list(got) == list(sent)
        if ok:
            for k in sent:
                check_same(sent[k], got[k], f"{where}[{k!r}]")
    elif t in (bytes, bytearray):
        if not sent:
            return
        ok = (got == sent[0]) if len(sent) == 1 else (type(got) is veltra.uint8 and
                                                       np.asarray(got).tobytes() == bytes(sent))
    elif t is np.ndarray:
        ok = same_array(sent, got)
    else:
        return
    if not ok:
        raise support.Unexpected(f"{where}: sent {short(sent)}, read back {short(got)}")


def same_array(sent, got):
    if sent.dtype.kind == "M" and np.datetime_data(sent.dtype) in (("s", 1), ("D", 1), ("us", 1), ("ns", 1)) \
            and sent.ndim >= 2 and sent.shape[0] > 1 and sent.size > 1:
        # Dates come back as numpy printed them: same shape, unit and values. (Days beyond what numpy
        # prints exactly are left out.)
        if sent.dtype == np.dtype("M8[D]") and np.abs(sent.view("i8")).max(initial=0) > 2**40:
            return True
        g = np.asarray(got)
        return (g.shape == sent.shape and g.dtype == sent.dtype.newbyteorder("=")
                and np.array_equal(g, sent, equal_nan=True))  # NaT is NaT
    if sent.dtype.kind not in "biufc" or sent.dtype.itemsize not in (1, 2, 4, 8, 16) or sent.dtype.char in "eg" \
            or not sent.size:
        return True
    if sent.dtype.kind == "b":
        # Any non-zero byte is true on the way in; the engine's logical is one byte, 0 or 1.
        sent = (sent.view(np.uint8) != 0).astype(np.uint8)
        got = np.asarray(got)
        if got.dtype != np.bool_:
            return False
        got = got.view(np.uint8)
    if sent.size == 1:
        return np.array_equal(np.asarray(got).ravel(), sent.ravel(), equal_nan=sent.dtype.kind in "fc")
    g = np.asarray(got)
    shape = sent.shape if sent.ndim >= 2 else (1, sent.size)
    return (g.shape == shape and g.dtype == sent.dtype.newbyteorder("=")
            and np.array_equal(g, sent.reshape(shape), equal_nan=sent.dtype.kind in "fc"))


def TestOneInput(data):
    fdp = atheris.FuzzedDataProvider(data)
    gen = Gen(fdp)
    how = gen.int_in(0, 15)
    values = [gen.value() for _ in range(gen.pick([0, 1, 1, 2, 3, 5]))]
    args = tuple(values) if how else gen.value()
    kwargs = {}
    if gen.chance(24):
        kwargs["nargout"] = gen.pick([0, 2, -1, 2**31, 2**31 - 1, 2**64, "3", " 4", "x", "", 1.0, None, True])
    if gen.chance(8):
        kwargs["schema"] = gen.pick(["VELTRA_PARAMS", "VELTRA_RESULT", "x", 5])

    try:
        out = py_pb.py_to_serialized_str(args, **kwargs)
    except ALLOWED:
        return
    except RuntimeError as e:
        if not (str(e) in CHANGED and gen.mutated or str(e) == NO_NAME and gen.nameless):
            raise
        return
    except KeyError:
        # An impostor mapping whose keys() names a key its __getitem__ does not have.
        if not gen.impostors:
            raise
        return

    m = M.VELTRA_Params()
    m.ParseFromString(out)
    nargout = kwargs.get("nargout", 1)
    if (type(args) is tuple or type(args) is list and not gen.mutated) and len(m.rhs) != len(args):
        raise support.Unexpected(f"{len(args)} arguments, {len(m.rhs)} inputs written")
    if type(nargout) is int and m.nargout != nargout:
        raise support.Unexpected(f"nargout {nargout!r} written as {m.nargout}")

    back = support.read(loopback(out))
    if back is None:
        # The result puts one more level around each input than the parameters did.
        if gen.max_depth >= 199 or gen.one_way:
            return
        raise support.Unexpected("what py_to_serialized_str wrote does not read back")
    if type(args) is tuple and not gen.mutated:
        if not isinstance(back, list) or len(back) != len(args):
            raise support.Unexpected(f"{len(args)} arguments, {short(back)} read back")
        for i, (s, g) in enumerate(zip(args, back)):
            check_same(s, g, f"argument {i}")
        # With the plain values' way off, every value goes through its converter: the bytes must not change.
        if not (gen.mutated or gen.impostors or gen.one_way):
            before = py_pb._plain_case(False)
            try:
                general = py_pb.py_to_serialized_str(args, **kwargs)
            except ALLOWED:
                return
            finally:
                py_pb._plain_case(before)
            if general != out:
                raise support.Unexpected(f"the converters wrote other bytes for {short(args)}")


if __name__ == "__main__":
    atheris.Setup(sys.argv, TestOneInput)
    atheris.Fuzz()
