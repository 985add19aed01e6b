"""Look inside a call's parameters or result message.

    python -m veltra.inspect FILE        (or - for standard input)
    python -m veltra.inspect FILE --json (the same, as JSON for scripts)

Prints the message as a tree: which of the two messages it is, each array's kind and dimensions, class and
field names, values (abbreviated past --limit), and an engine error with its stack. A message that cannot be
read gets one line naming the byte offset where reading failed, and exit status 1.

Reads the wire format directly: needs neither py_pb nor a protobuf runtime.
"""

from __future__ import annotations

import argparse
import json
import struct
import sys
from collections.abc import Iterator, Sequence
from typing import TYPE_CHECKING, Any

from veltramultidimarrayforpython import _numeric_kinds

if TYPE_CHECKING:
    from typing_extensions import Buffer

    _Span = tuple[int, int]

__all__ = ["inspect", "render", "main"]

KINDS = {0: "UNKNOWN", 1: "LOGICAL", 2: "CHAR", 3: "STRING", 24: "CELL", 25: "STRUCT", 26: "CLASSIC_OBJECT",
         27: "VALUE_OBJECT", 28: "HANDLE_OBJECT_REF", 29: "ENUM", 30: "SPARSE_DOUBLE", 31: "SPARSE_LOGICAL",
         32: "SPARSE_COMPLEX"}
# struct codes of each raw kind's element (complex kinds: of one part).
_ELEMENT = {1: "?", 2: "H", 30: "d", 31: "?", 32: "d"}
for _real, _complex, _name, _code in _numeric_kinds:  # each real numeric kind and its complex kind
    KINDS[_real], KINDS[_complex] = _name, "COMPLEX_" + _name
    _ELEMENT[_real] = _ELEMENT[_complex] = _code

_VARINT, _I64, _LEN, _I32 = 0, 1, 2, 5
_MAX_DEPTH = 200


class Malformed(ValueError):
    def __init__(self, offset: int, why: str) -> None:
        super().__init__(f"malformed message at byte {offset}: {why}")
        self.offset = offset


# ---- the wire ----

def _varint(data: memoryview, pos: int) -> tuple[int, int]:
    result = shift = 0
    start = pos
    while True:
        if pos >= len(data):
            raise Malformed(start, "a varint is cut short")
        byte = data[pos]
        pos += 1
        result |= (byte & 0x7F) << shift
        if not byte & 0x80:
            return result, pos
        shift += 7
        if shift >= 70:
            raise Malformed(start, "a varint runs past 10 bytes")


def _fields(data: memoryview, start: int, end: int) -> Iterator[tuple[int, int, Any, int]]:
    """(field, wire type, value, offset) of the message in data[start:end]: an int for varints, the
    (start, end) of the payload otherwise."""
    pos = start
    value: Any
    while pos < end:
        offset = pos
        key, pos = _varint(data, pos)
        field, wire_type = key >> 3, key & 7
        if field == 0:
            raise Malformed(offset, "field number 0")
        if wire_type == _VARINT:
            value, pos = _varint(data, pos)
        elif wire_type == _LEN:
            size, pos = _varint(data, pos)
            if size > end - pos:
                raise Malformed(offset, f"field {field} claims {size} bytes, {end - pos} remain")
            value, pos = (pos, pos + size), pos + size
        elif wire_type in (_I64, _I32):
            size = 8 if wire_type == _I64 else 4
            if size > end - pos:
                raise Malformed(offset, f"field {field} is cut short")
            value, pos = (pos, pos + size), pos + size
        else:
            raise Malformed(offset, f"wire type {wire_type} of field {field} is not one protobuf has")
        yield field, wire_type, value, offset


def _varints(data: memoryview, wire_type: int, value: Any) -> list[int]:
    """A repeated varint field: packed (a payload of varints) or one value."""
    if wire_type == _VARINT:
        return [value]
    out, pos = [], value[0]
    while pos < value[1]:
        v, pos = _varint(data, pos)
        out.append(v)
    return out


def _text(data: memoryview, span: _Span, offset: int) -> str:
    try:
        return bytes(data[span[0]:span[1]]).decode("utf-8")
    except UnicodeDecodeError:
        raise Malformed(offset, "a name is not UTF-8") from None


# ---- arrays and messages ----

def _array(data: memoryview, span: _Span, depth: int) -> dict[str, Any]:
    if depth > _MAX_DEPTH:
        raise Malformed(span[0], f"arrays nested more than {_MAX_DEPTH} levels deep")
    dims: list[int]
    raw: bytes | None
    names: list[str]
    out: dict[str, Any]
    kind, dims, raw, units, names, out = 0, [], None, b"", [], {}
    lengths, elements, objects, handles, enums, rows, cols = [], [], [], [], [], [], []
    for field, wt, value, offset in _fields(data, *span):
        if field == 1 and wt == _VARINT:
            kind = value - (1 << 64) if value >= 1 << 63 else value
        elif field == 2:
            dims += _varints(data, wt, value)
        elif field == 3 and wt == _LEN:
            raw = bytes(data[value[0]:value[1]])
        elif field == 4 and wt == _LEN:
            elements.append(value)
        elif field == 5 and wt == _LEN:
            names.append(_text(data, value, offset))
        elif field == 6 and wt == _LEN:
            units = bytes(data[value[0]:value[1]])
        elif field == 7:
            lengths += [(v >> 1) ^ -(v & 1) for v in _varints(data, wt, value)]
        elif field == 8 and wt == _LEN:
            out["class"] = _text(data, value, offset)
        elif field == 11 and wt == _LEN:
            objects.append((value, offset))
        elif field == 12:
            out["external_dims"] = _varints(data, wt, value)
        elif field == 13 and wt == _LEN:
            handles.append(_handle(data, value))
        elif field == 14 and wt == _LEN:
            enums.append(_text(data, value, offset))
        elif field == 15:
            rows += _varints(data, wt, value)
        elif field == 16:
            cols += _varints(data, wt, value)
    node = {"kind": KINDS.get(kind, f"kind {kind}"), "dims": dims or [0, 0], **out}
    if kind in _ELEMENT:
        code = _ELEMENT[kind]
        raw = raw or b""
        size = struct.calcsize(code)
        if len(raw) % size:
            raise Malformed(span[0], f"{len(raw)} bytes of data are no whole number of {node['kind']} elements")
        values = [v[0] for v in struct.iter_unpack("<" + code, raw)]
        if kind == 2:
            node["text"] = raw.decode("utf-16-le", "replace")
        else:
            if 14 <= kind <= 23 or kind == 32:
                values = [[values[i], values[i + 1]] for i in range(0, len(values) - 1, 2)]
            node["values"] = values
        if kind >= 30:
            node["rows"], node["cols"] = rows, cols
    elif kind == 3:
        texts: list[str | None]
        texts, pos = [], 0
        for n in lengths:
            if n < 0:
                texts.append(None)
            else:
                texts.append(units[pos:pos + 2 * n].decode("utf-16-le", "replace"))
                pos += 2 * n
        node["values"] = texts
    elif kind == 24:
        node["elements"] = [_array(data, e, depth + 1) for e in elements]
    elif kind == 25:
        arrays = [_array(data, e, depth + 1) for e in elements]
        n = len(names)
        node["fields"] = names
        node["elements"] = [dict(zip(names, arrays[i:i + n])) for i in range(0, len(arrays), n)] if n else []
    elif kind == 27:
        node["objects"] = [_object(data, span, offset, depth) for span, offset in objects]
    elif kind == 28:
        node["handles"] = handles
    elif kind == 29:
        node["values"] = enums
    return node


def _object(data: memoryview, span: _Span, offset: int, depth: int) -> dict[str, Any]:
    obj: dict[str, Any] = {"properties": {}}
    for field, wt, value, off in _fields(data, *span):
        if field == 1 and wt == _LEN:
            obj["class"] = _text(data, value, off)
        elif field == 2 and wt == _LEN:
            name, array = "", None
            for f, w, v, o in _fields(data, *value):
                if f == 1 and w == _LEN:
                    name = _text(data, v, o)
                elif f == 2 and w == _LEN:
                    array = _array(data, v, depth + 1)
            obj["properties"][name] = array
    return obj


def _handle(data: memoryview, span: _Span) -> dict[str, Any]:
    h = {"class": "", "id": 0}
    for field, wt, value, offset in _fields(data, *span):
        if field == 1 and wt == _LEN:
            h["class"] = _text(data, value, offset)
        elif field == 2 and wt == _VARINT:
            h["id"] = value
    return h


def _error(data: memoryview, span: _Span) -> dict[str, Any]:
    err: dict[str, Any] = {"message": "", "identifier": None, "stack": []}
    for field, wt, value, offset in _fields(data, *span):
        if field == 1 and wt == _LEN:
            err["message"] = _text(data, value, offset)
        elif field == 2 and wt == _LEN:
            err["identifier"] = _text(data, value, offset)
        elif field == 3 and wt == _LEN:
            frame = {"file": "", "name": "", "line": 0}
            for f, w, v, o in _fields(data, *value):
                if f in (1, 2) and w == _LEN:
                    frame["file" if f == 1 else "name"] = _text(data, v, o)
                elif f == 3 and w == _VARINT:
                    frame["line"] = v
            err["stack"].append(frame)
    return err


def _looks_like_error(data: memoryview, span: _Span) -> bool:
    """Whether a field-2 payload reads as an error (its field 1 is text) rather than an array (a varint)."""
    for field, wt, _value, _offset in _fields(data, *span):
        if field == 1:
            return wt == _LEN
    return True


def inspect(data: Buffer) -> dict[str, Any]:
    """The message in ``data`` (bytes) as a dict: {"message": "parameters", "nargout", "inputs"} or
    {"message": "result", "outputs", "error"}. Raises Malformed."""
    data = memoryview(data).cast("B")
    top = list(_fields(data, 0, len(data)))
    second = [(v, o) for f, wt, v, o in top if f == 2 and wt == _LEN]
    is_params = any(f == 1 and wt == _VARINT for f, wt, _, _ in top) or (
        second and not any(f == 1 and wt == _LEN for f, wt, _, _ in top) and not _looks_like_error(data, second[0][0]))
    if is_params:
        nargout = next((v for f, wt, v, _ in top if f == 1 and wt == _VARINT), 0)
        return {"message": "parameters", "nargout": nargout,
                "inputs": [_array(data, v, 0) for v, _ in second]}
    out: dict[str, Any] = {
        "message": "result", "outputs": [_array(data, v, 0) for f, wt, v, _ in top if f == 1 and wt == _LEN],
        "error": None}
    if second:
        out["error"] = _error(data, second[-1][0])
    return out


# ---- the tree ----

def _short(values: list[Any], limit: int) -> str:
    shown = ", ".join(repr(v) for v in values[:limit])
    return f"[{shown}, ... ({len(values)} values)]" if len(values) > limit else f"[{shown}]"


def _lines(node: dict[str, Any], label: str, indent: int, limit: int) -> Iterator[str]:
    head = f"{'  ' * indent}{label}: {node['kind']} {'x'.join(str(d) for d in node['dims'])}"
    if "class" in node:
        head += f" class {node['class']!r}"
    if "text" in node:
        text = node["text"]
        head += f" {text[:limit * 8]!r}" + (f" ... ({len(text)} characters)" if len(text) > limit * 8 else "")
    elif "values" in node:
        head += " " + _short(node["values"], limit)
    if "handles" in node:
        head += " " + _short([f"{h['class']}#{h['id']}" for h in node["handles"]], limit)
    yield head
    for i, e in enumerate(node.get("elements", [])[:limit]):
        if isinstance(e, dict) and "kind" not in e:  # a struct element: its fields
            for name, value in e.items():
                yield from _lines(value, f"[{i}].{name}", indent + 1, limit)
        else:
            yield from _lines(e, f"[{i}]", indent + 1, limit)
    if len(node.get("elements", [])) > limit:
        yield f"{'  ' * (indent + 1)}... ({len(node['elements'])} elements)"
    for i, obj in enumerate(node.get("objects", [])[:limit]):
        cls = f" class {obj['class']!r}" if "class" in obj else ""
        yield f"{'  ' * (indent + 1)}object [{i}]{cls}"
        for name, value in obj["properties"].items():
            if value is None:
                yield f"{'  ' * (indent + 2)}{name}: (no value)"
            else:
                yield from _lines(value, name, indent + 2, limit)
    if len(node.get("objects", [])) > limit:
        yield f"{'  ' * (indent + 1)}... ({len(node['objects'])} objects)"


def render(message: dict[str, Any], limit: int = 8) -> str:
    """The tree of inspect()'s result, as text."""
    lines = []
    if message["message"] == "parameters":
        lines.append(f"parameters: nargout {message['nargout']}, {len(message['inputs'])} inputs")
        for i, a in enumerate(message["inputs"]):
            lines += _lines(a, f"input {i}", 1, limit)
    else:
        lines.append(f"result: {len(message['outputs'])} outputs" + (", with an error" if message["error"] else ""))
        for i, a in enumerate(message["outputs"]):
            lines += _lines(a, f"output {i}", 1, limit)
        err = message["error"]
        if err:
            lines.append(f"  error: {err['message']!r}" + (f" ({err['identifier']})" if err["identifier"] else ""))
            lines += [f"    at {f['file']}, {f['name']}, line {f['line']}" for f in err["stack"]]
    return "\n".join(lines)


def main(argv: Sequence[str] | None = None) -> int:
    parser = argparse.ArgumentParser(prog="python -m veltra.inspect", description=__doc__.splitlines()[0])
    parser.add_argument("file", help="a serialized parameters or result message; - for standard input")
    parser.add_argument("--json", action="store_true", help="print JSON instead of a tree")
    parser.add_argument("--limit", type=int, default=8, help="values shown per array (default 8)")
    args = parser.parse_args(argv)
    try:
        if args.file == "-":
            data = sys.stdin.buffer.read()
        else:
            with open(args.file, "rb") as f:
                data = f.read()
    except OSError as e:
        print(f"veltra.inspect: {e}", file=sys.stderr)
        return 1
    try:
        message = inspect(data)
    except Malformed as e:
        print(f"veltra.inspect: {e}", file=sys.stderr)
        return 1
    except (RecursionError, MemoryError) as e:
        print(f"veltra.inspect: message too deep or too large to show: {type(e).__name__}", file=sys.stderr)
        return 1
    print(json.dumps(message, indent=1, default=str) if args.json else render(message, args.limit))
    return 0


if __name__ == "__main__":
    sys.exit(main())
