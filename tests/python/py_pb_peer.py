"""Helpers for the py_pb tests. The Python protobuf runtime (classes generated from our schema files by
veltra.wire) is the independent peer: it decodes the parameters py_pb writes and encodes the results py_pb
reads, so these tests never check py_pb against itself.
"""

import numpy as np

import py_pb
from veltra.loopback import loopback
from veltra.wire import messages

from conftest import (CELL, CHAR, DOUBLE, INT8, INT16, INT32, INT64, LOGICAL, SINGLE, STRING, STRUCT, UINT8, UINT16,
                      UINT32, UINT64, VALUE_OBJECT, HANDLE)

# Element dtype of each raw kind (complex kinds by their real part).
REAL_DTYPE = {
    LOGICAL: np.bool_, CHAR: np.uint16, DOUBLE: np.float64, SINGLE: np.float32, INT8: np.int8, UINT8: np.uint8,
    INT16: np.int16, UINT16: np.uint16, INT32: np.int32, UINT32: np.uint32, INT64: np.int64, UINT64: np.uint64,
}
for _k in range(14, 24):
    REAL_DTYPE[_k] = REAL_DTYPE[_k - 10]


def params(value, **kwargs):
    """py_to_serialized_str(value, **kwargs), decoded by the peer."""
    m = messages().VELTRA_Params()
    m.ParseFromString(py_pb.py_to_serialized_str(value, **kwargs))
    return m


def sent(*values):
    """What the inputs of a call with these arguments look like: one decoded value per argument."""
    return [decode(a) for a in params(tuple(values)).rhs]


def roundtrip(*values):
    """values -> parameters -> loopback result -> Python."""
    out = py_pb.serialized_str_to_py(loopback(py_pb.py_to_serialized_str(tuple(values))))
    assert isinstance(out, list) and len(out) == len(values)
    return out


def decode(a):
    """A VELTRA_Array as (kind, dims, content). Content: a list of elements in column-major order for raw kinds
    (complex as Python complex), str for CHAR (surrogates kept as they are), a list of str/None for strings,
    a list of decoded elements for cells, a list of {field: decoded} for structs."""
    kind, dims = a.type, tuple(a.dims)
    if kind == CHAR:
        return kind, dims, a.data.decode("utf-16-le", "surrogatepass")
    if kind in REAL_DTYPE:
        values = np.frombuffer(a.data, dtype=np.dtype(REAL_DTYPE[kind]).newbyteorder("<"))
        if 14 <= kind <= 23:
            values = values[0::2].astype(complex) + 1j * values[1::2].astype(complex)
        return kind, dims, values.tolist()
    if kind == STRING:
        # Lengths count UTF-16 code units: cut the bytes, then decode each (a pair is one character).
        units = a.string_units
        out, pos = [], 0
        for n in a.string_lengths:
            if n < 0:
                out.append(None)
            else:
                out.append(units[pos:pos + 2 * n].decode("utf-16-le", "surrogatepass"))
                pos += 2 * n
        return kind, dims, out
    if kind == CELL:
        return kind, dims, [decode(e) for e in a.elements]
    if kind == STRUCT:
        names = list(a.field_names)
        n = len(names)
        if not n:
            return kind, dims, [{} for _ in range(int(np.prod(dims)))]
        elements = [a.elements[i:i + n] for i in range(0, len(a.elements), n)]
        return kind, dims, [{f: decode(v) for f, v in zip(names, e)} for e in elements]
    if kind == VALUE_OBJECT:
        return kind, dims, (a.class_name, [{p.name: decode(p.value) for p in o.properties} for o in a.objects])
    if kind == HANDLE:
        return kind, dims, [(h.class_name, h.id) for h in a.handles]
    return kind, dims, None


# ---- building results with the peer ----

def array(kind, dims, data=b"", **fields):
    a = messages().VELTRA_Array(type=kind, dims=list(dims), **fields)
    if data:
        a.data = data
    return a


def numeric(kind, values, dims=None):
    """A raw-kind array from a flat list in column-major order (complex values for complex kinds)."""
    values = list(values)
    dims = (1, len(values)) if dims is None else dims
    dt = np.dtype(REAL_DTYPE[kind]).newbyteorder("<")
    if 14 <= kind <= 23:
        flat = []
        for v in values:
            flat += [v.real, v.imag]
        data = np.array(flat).astype(dt).tobytes()
    else:
        data = np.array(values).astype(dt).tobytes()
    return array(kind, dims, data)


def char(text, dims=None):
    units = text.encode("utf-16-le", "surrogatepass")
    return array(CHAR, (1, len(units) // 2) if dims is None else dims, units)


def strings(values, dims=None):
    dims = (1, len(values)) if dims is None else dims
    units = "".join(v for v in values if v is not None).encode("utf-16-le", "surrogatepass")
    lengths = [-1 if v is None else len(v.encode("utf-16-le", "surrogatepass")) // 2 for v in values]
    return array(STRING, dims, string_units=units, string_lengths=lengths)


def cell(elements, dims=None):
    return array(CELL, (1, len(elements)) if dims is None else dims, elements=list(elements))


def struct(names, elements, dims=None):
    """elements: one list of field values per struct element, in field order."""
    flat = [v for e in elements for v in e]
    return array(STRUCT, (1, len(elements)) if dims is None else dims, field_names=list(names), elements=flat)


def value_object(class_name, elements, dims=None):
    """A value-object array of one class; elements: one {property name: VELTRA_Array} per element."""
    a = array(VALUE_OBJECT, (1, len(elements)) if dims is None else dims, class_name=class_name)
    for props in elements:
        o = a.objects.add()
        for name, value in props.items():
            o.properties.add(name=name, value=value)
    return a


def handles(ids, dims=None, class_name="Figure"):
    """A handle-object array of the given engine handle ids (column-major)."""
    a = array(HANDLE, (1, len(ids)) if dims is None else dims)
    for i in ids:
        a.handles.add(class_name=class_name, id=i)
    return a


def datetime_fields(year, month, day, hour=0, minute=0, second=0.0, zone="", kind=INT64):
    """A 1x1 engine datetime in the field form: the calendar fields as `kind`, the zone as a string scalar
    (or any array given instead)."""
    props = {"TimeZone": strings([zone]) if isinstance(zone, str) else zone}
    for name, v in zip(["Year", "Month", "Day", "Hour", "Minute"], [year, month, day, hour, minute]):
        props[name] = numeric(kind, [v], (1, 1))
    props["Second"] = numeric(DOUBLE, [second], (1, 1))
    return value_object("datetime", [props], (1, 1))


def datetime_texts(texts, dims=None):
    """An engine datetime array: one element per text (None: a missing string) holding its DateString."""
    return value_object("datetime", [{"DateString": strings([t])} for t in texts], dims)


def duration(millis, dims=None):
    """An engine duration: millis (flat, column-major) in the given shape."""
    return value_object("duration", [{"millis": numeric(DOUBLE, millis, dims)}], (1, 1))


def result(*outputs):
    r = messages().VELTRA_Result()
    r.lhs.extend(outputs)
    return r.SerializeToString()


def read(*outputs):
    """serialized_str_to_py of a result whose outputs the peer wrote."""
    return py_pb.serialized_str_to_py(result(*outputs))


def read_one(output):
    out = read(output)
    assert isinstance(out, list) and len(out) == 1
    return out[0]
