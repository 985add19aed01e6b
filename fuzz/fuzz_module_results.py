"""atheris harness: well-formed but hostile result messages into py_pb.serialized_str_to_py.

The messages are built with the protobuf classes generated from envelope/proto (veltra.wire), so they get past
the wire format and reach the array decoder and the converters to Python: every kind number 0..32 and some
beyond, dimensions zero and huge and of any count, data of the right length and just off it, fields that do
not belong to the kind, cells, structs and value objects nested shallow and very deep, odd names (also as bytes
that are not UTF-8, which the classes refuse to write and which are appended by hand), handles, enums and
sparse arrays, and engine errors.

Outcomes allowed are those of fuzz_module_bytes.py. Besides, a message that is read must give one output per
output sent (or the error dict when it carries an error), and a numeric array whose data has the length its
dimensions ask for must come back with exactly the values sent.

    python fuzz/fuzz_module_results.py -max_total_time=60 fuzz/corpus/fuzz_module_results
"""

import struct
import sys

import atheris
import numpy as np

import module_fuzz_support as support
from veltra.loopback import _len_field, _varint
from veltra.wire import messages

M = messages()

CELL, STRUCT, VALUE_OBJECT, HANDLE, ENUM = 24, 25, 27, 28, 29
STRING = 3
KINDS = list(range(33)) + [33, 34, 63, 127, 255, -1, 2**31 - 1, -2**31]
# Element dtypes of the raw kinds; complex kinds (14..23) carry real and imaginary part of the real kind k-10.
REAL = {1: "u1", 2: "<u2", 4: "<f8", 5: "<f4", 6: "i1", 7: "u1", 8: "<i2", 9: "<u2", 10: "<i4", 11: "<u4",
        12: "<i8", 13: "<u8", 30: "<f8", 31: "u1"}
for _k in range(14, 24):
    REAL[_k] = REAL[_k - 10]
REAL[32] = "<f8"
COMPLEX = set(range(14, 24)) | {32}
# The kinds whose values numpy holds as they are (double, single, the integers, complex double and single).
ORACLE_KINDS = set(range(4, 16))
DIMS = [0, 1, 1, 1, 2, 2, 3, 4, 5, 7, 255, 256, 2**31 - 1, 2**31, 2**32 - 1, 2**32, 2**32 + 1, 2**53, 2**62,
        2**63 - 1, 2**63, 2**64 - 1]
NAMES = ["a", "b", "x1", "f_1", "", "1x", "a b", "_a", "a.b", "A" * 63, "A" * 64, "é", "\u00e9t\u00e9",
         "\U0001f600", "a\x00b", "\x00", "message", "identifier", "stack_as_str", "__class__", "__dict__",
         "TimeZone", "Year", "Month", "Day", "Hour", "Minute", "Second", "DateString", "millis", "Version",
         "IsKeyCombined", "IsValueCombined", "Value", "Keys", "Values", "data", "varnames", "rownames", "nrows",
         "__CustomSave", "varNames", "rowTimes", "dimNames", "numRows", "categoryNames", "codes"]
CLASSES = ["", "C", "pkg.C", "pkg.sub.Class", "a b", "\x00", "é", "C" * 300, "datetime", "duration", "dictionary",
           "table", "timetable", "categorical"]
MAX_NODES = 200
MAX_ELEMENTS = 4096


# The wire's own encoders, as the loopback writes results with them.
varint, len_field = _varint, _len_field


def key(field, wire_type):
    return varint(field << 3 | wire_type)




class Builder:
    def __init__(self, fdp):
        self.fdp = fdp
        self.nodes = 0
        self.oracle = []  # (output index path, kind, data) of numeric arrays whose values must come back

    def int_in(self, lo, hi):
        return self.fdp.ConsumeIntInRange(lo, hi)

    def pick(self, values):
        return self.fdp.PickValueInList(values)

    def chance(self, in_256):
        return self.int_in(0, 255) < in_256

    def name(self):
        if self.chance(32):
            return self.fdp.ConsumeUnicodeNoSurrogates(self.int_in(0, 12))
        return self.pick(NAMES)

    def dims(self):
        n = self.pick([2, 2, 2, 2, 0, 1, 3, 4, 6, 32])
        if self.chance(200):
            return [self.pick(DIMS[:8]) for _ in range(n)]
        return [self.pick(DIMS) if self.chance(128) else self.int_in(0, 2**64 - 1) for _ in range(n)]

    @staticmethod
    def count(dims):
        """Elements the dimensions ask for; no dimensions at all is 0-by-0."""
        n = 1 if dims else 0
        for d in dims:
            n *= d
        return n

    def length(self, exact, unit):
        """A length near the one the dimensions ask for (in units), or any small one."""
        mode = self.int_in(0, 7)
        if mode <= 3 and exact <= MAX_ELEMENTS:
            return exact * unit
        if mode == 4 and exact <= MAX_ELEMENTS:
            return max(0, exact * unit + self.pick([-unit, -1, 1, unit]))
        return self.int_in(0, 64)

    def array(self, depth, index=None):
        """A VELTRA_Array. `index` is where the array sits among the outputs, if it is one: numeric outputs
        of exact length go to the oracle."""
        self.nodes += 1
        kind = self.pick(KINDS)
        dims = self.dims()
        n = self.count(dims)
        a = M.VELTRA_Array(type=kind, dims=dims)
        grow = depth < 6 and self.nodes < MAX_NODES

        unit = 0
        if kind in REAL:
            unit = np.dtype(REAL[kind]).itemsize * (2 if kind in COMPLEX else 1)
            size = self.length(n, unit)
            a.data = self.fdp.ConsumeBytes(size).ljust(size, b"\x01")
            if kind >= 30:
                stored = self.int_in(0, 8)
                a.sparse_rows.extend(self.pick(DIMS[:10]) for _ in range(stored))
                a.sparse_cols.extend(self.pick(DIMS[:10]) for _ in range(self.pick([stored, stored, 0, stored + 1])))
        elif kind == STRING:
            count = self.length(n, 1)
            lengths = [self.pick([-1, 0, 1, 2, 3, 5, -2, 2**31, 2**62]) for _ in range(count)]
            a.string_lengths.extend(lengths)
            units = sum(x for x in lengths if 0 <= x < 64)
            size = self.length(units, 2)
            a.string_units = self.fdp.ConsumeBytes(size).ljust(size, b"a")
        elif kind == CELL:
            count = min(self.length(n, 1), 16)
            for _ in range(count if grow else 0):
                a.elements.append(self.array(depth + 1))
        elif kind == STRUCT:
            names = [self.name() for _ in range(self.int_in(0, 4))]
            a.field_names.extend(names)
            count = min(self.length(n * len(names), 1), 16)
            for _ in range(count if grow else 0):
                a.elements.append(self.array(depth + 1))
        elif kind == VALUE_OBJECT:
            a.class_name = self.pick(CLASSES)
            a.first_properties.extend(self.name() for _ in range(self.int_in(0, 3)))
            a.second_properties.extend(self.name() for _ in range(self.int_in(0, 2)))
            for _ in range(min(self.length(n, 1), 8)):
                o = a.objects.add()
                if self.chance(64):
                    o.class_name = self.pick(CLASSES)
                    o.first_properties.extend(self.name() for _ in range(self.int_in(0, 2)))
                for _ in range(self.int_in(0, 3) if grow else 0):
                    p = o.properties.add(name=self.name())
                    if self.chance(220):
                        p.value.CopyFrom(self.array(depth + 1))
            if self.chance(64):
                a.external_dims.extend(self.dims())
            a.not_uniform = self.chance(64)
        elif kind == HANDLE:
            for _ in range(min(self.length(n, 1), 8)):
                a.handles.add(class_name=self.pick(CLASSES), id=self.pick([0, 1, 2**63, 2**64 - 1]))
        elif kind == ENUM:
            a.class_name = self.pick(CLASSES)
            a.enum_names.extend(self.name() for _ in range(min(self.length(n, 1), 8)))

        if self.chance(24):
            self.stray_fields(a, depth)
        elif index is not None and kind in ORACLE_KINDS and len(a.data) == n * unit:
            self.oracle.append((index, kind, a.data))
        return a

    def stray_fields(self, a, depth):
        """A field of another kind: the message is malformed, and must be refused as such."""
        which = self.int_in(0, 7)
        if which == 0:
            a.data = self.fdp.ConsumeBytes(self.int_in(0, 16))
        elif which == 1 and self.nodes < MAX_NODES:
            a.elements.append(self.array(depth + 1))
        elif which == 2:
            a.field_names.append(self.name())
        elif which == 3:
            a.string_lengths.append(self.pick([-1, 0, 1]))
        elif which == 4:
            a.class_name = self.pick(CLASSES)
        elif which == 5:
            a.handles.add(class_name="C", id=1)
        elif which == 6:
            a.enum_names.append(self.name())
        else:
            a.sparse_rows.append(0)

    def raw_suffix(self):
        """Fields appended to a serialized array by hand: string fields holding bytes that are not UTF-8,
        which the generated classes refuse to write, and repeated dims unpacked."""
        out = b""
        for _ in range(self.int_in(1, 3)):
            field = self.pick([5, 8, 9, 14, 6, 2])
            if field == 2:
                out += key(2, 0) + varint(self.pick(DIMS))
            else:
                out += len_field(field, self.pick([b"\xff", b"\xc3", b"a\xed\xa0\x80", b"\xc0\x80", b"\x00"]) +
                                 self.fdp.ConsumeBytes(self.int_in(0, 4)))
        return out

    def deep(self, inner):
        """inner (a serialized array) wrapped in as many cells, structs or value objects, one inside the other,
        as is most telling for the decoder's nesting bound and the converters' recursion guards."""
        levels = self.pick([10, 100, 198, 199, 200, 201, 202, 999, 1000, 1001, 3000])
        how = self.int_in(0, 3)  # 3: the three in turn
        cell_head = key(1, 0) + varint(CELL) + len_field(2, varint(1) + varint(1))
        struct_head = key(1, 0) + varint(STRUCT) + len_field(2, varint(1) + varint(1)) + len_field(5, b"a")
        object_head = key(1, 0) + varint(VALUE_OBJECT) + len_field(2, varint(1) + varint(1)) + len_field(8, b"C")
        prop_name = len_field(1, b"p")
        # Inside out: each level's header ends with the length of what it encloses.
        parts, size = [], len(inner)
        for i in range(levels):
            style = how if how < 3 else i % 3
            if style == 0:
                head = cell_head + key(4, 2) + varint(size)
            elif style == 1:
                head = struct_head + key(4, 2) + varint(size)
            else:
                prop = prop_name + key(2, 2) + varint(size)
                obj = key(2, 2) + varint(len(prop) + size)
                head = object_head + key(11, 2) + varint(len(obj) + len(prop) + size) + obj + prop
            parts.append(head)
            size += len(head)
        parts.reverse()
        return b"".join(parts) + inner

    def error(self, r):
        r.error.SetInParent()
        r.error.message = self.fdp.ConsumeUnicodeNoSurrogates(self.int_in(0, 40))
        if self.chance(128):
            r.error.identifier = self.pick(["", "a:b", "pkg:id:x", "\x00", "é"])
        for _ in range(self.int_in(0, 3)):
            r.error.stack.add(file=self.name(), name=self.name(), line=self.pick([0, 1, -1, 2**31 - 1, -2**31]))


def TestOneInput(data):
    b = Builder(atheris.FuzzedDataProvider(data))
    r = M.VELTRA_Result()
    for i in range(b.int_in(0, 4)):
        r.lhs.append(b.array(0, i))
    has_error = b.chance(40)
    if has_error:
        b.error(r)
    message = r.SerializeToString()
    outputs = len(r.lhs)
    if b.chance(48):
        inner = b.array(1).SerializeToString()
        if b.chance(128):
            inner += b.raw_suffix()
        if b.chance(128):
            inner = b.deep(inner)
        message += len_field(1, inner)
        outputs += 1

    out = support.read(message)
    if out is None:
        return
    if has_error:
        if not isinstance(out, dict):
            raise support.Unexpected(f"a result with an error read as {type(out).__name__}")
        return
    if not isinstance(out, list) or len(out) != outputs:
        raise support.Unexpected(f"{outputs} outputs sent, {out!r:.300} read")
    for i, kind, raw in b.oracle:
        check_values(out[i], kind, raw)
    # One more output that no shortcut takes: the whole result then goes the general way, and must read the same.
    general = support.read(message + len_field(1, GENERAL_OUTPUT))
    if isinstance(general, list) and len(general) == outputs + 1 and plain(general[:-1]) != plain(out):
        raise support.Unexpected(f"the general path read {general[:-1]!r:.300}, the shortcut {out!r:.300}")


GENERAL_OUTPUT = M.VELTRA_Array(type=4, dims=[2, 2], data=bytes(32)).SerializeToString()


def plain(v):
    """Plain values exactly (floats by their bits); anything else by its type."""
    if isinstance(v, list):
        return [plain(e) for e in v]
    if isinstance(v, dict):
        return [(k, plain(e)) for k, e in v.items()]
    if type(v) is float:
        return ("float", struct.pack("<d", v))
    if type(v) is complex:
        return ("complex", struct.pack("<dd", v.real, v.imag))
    if type(v) in (int, bool, str):
        return (type(v).__name__, v)
    return type(v).__name__


def check_values(value, kind, raw):
    sent = np.frombuffer(raw, dtype=REAL[kind])
    if kind in COMPLEX:
        sent = sent[0::2] + 1j * sent[1::2]
    got = np.asarray(value).ravel(order="F")
    if got.size != sent.size or not np.array_equal(got, sent, equal_nan=sent.dtype.kind in "fc"):
        raise support.Unexpected(f"kind {kind}: sent {sent[:8]!r}, read {value!r:.300}")


if __name__ == "__main__":
    atheris.Setup(sys.argv, TestOneInput)
    atheris.Fuzz()
