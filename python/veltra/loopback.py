"""A stand-in for the engine in tests: answers a call's parameters message with a result message.

``loopback(params)`` returns the serialized VELTRA_Result whose outputs are the call's inputs, in order, so
``py_pb.serialized_str_to_py(loopback(py_pb.py_to_serialized_str(args)))`` gives back what ``args`` became on
the way in. ``error_result(...)`` builds a result that carries an engine error instead.

Both work on the wire format directly (the arrays are moved as opaque length-delimited blobs), so they need
no protobuf runtime and no generated classes.
"""

from __future__ import annotations

from collections.abc import Iterable, Iterator
from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    from typing_extensions import Buffer

__all__ = ["loopback", "error_result", "input_arrays"]

# Field numbers of envelope/proto/veltra_common.proto.
_PARAMS_NARGOUT, _PARAMS_RHS = 1, 2
_RESULT_LHS, _RESULT_ERROR = 1, 2
_ERROR_MESSAGE, _ERROR_IDENTIFIER, _ERROR_STACK = 1, 2, 3
_FRAME_FILE, _FRAME_NAME, _FRAME_LINE = 1, 2, 3

_VARINT, _I64, _LEN, _I32 = 0, 1, 2, 5


def _read_varint(data: memoryview, pos: int) -> tuple[int, int]:
    result = shift = 0
    while True:
        if pos >= len(data):
            raise ValueError("truncated varint in parameters message")
        byte = data[pos]
        pos += 1
        result |= (byte & 0x7F) << shift
        if not byte & 0x80:
            return result, pos
        shift += 7
        if shift >= 64:
            raise ValueError("varint longer than 10 bytes in parameters message")


def _varint(value: int) -> bytes:
    value &= (1 << 64) - 1  # negative int32 values travel as their 64-bit two's complement
    out = bytearray()
    while True:
        byte = value & 0x7F
        value >>= 7
        if value:
            out.append(byte | 0x80)
        else:
            out.append(byte)
            return bytes(out)


def _len_field(field: int, payload: bytes) -> bytes:
    return _varint(field << 3 | _LEN) + _varint(len(payload)) + payload


def _fields(data: Buffer) -> Iterator[tuple[int, int, Any]]:
    """(field number, wire type, value) of a message: an int for varints, a memoryview slice otherwise."""
    data = memoryview(data).cast("B")
    pos = 0
    value: Any
    while pos < len(data):
        key, pos = _read_varint(data, pos)
        field, wire_type = key >> 3, key & 7
        if wire_type == _VARINT:
            value, pos = _read_varint(data, pos)
        elif wire_type == _LEN:
            size, pos = _read_varint(data, pos)
            if size > len(data) - pos:
                raise ValueError("length-delimited field runs past the end of the parameters message")
            value, pos = data[pos:pos + size], pos + size
        elif wire_type in (_I64, _I32):
            size = 8 if wire_type == _I64 else 4
            if size > len(data) - pos:
                raise ValueError("fixed-size field runs past the end of the parameters message")
            value, pos = data[pos:pos + size], pos + size
        else:
            raise ValueError(f"unsupported wire type {wire_type} in parameters message")
        yield field, wire_type, value


def _inputs(params: Buffer) -> list[memoryview]:
    return [v for f, wt, v in _fields(params) if f == _PARAMS_RHS and wt == _LEN]


def input_arrays(params: Buffer) -> list[bytes]:
    """The serialized VELTRA_Array messages of a parameters message, in order."""
    return [bytes(v) for v in _inputs(params)]


def loopback(params: Buffer) -> bytes:
    """The VELTRA_Result (bytes) whose outputs are the inputs of the VELTRA_Params ``params``."""
    parts: list[bytes | memoryview] = []
    for array in _inputs(params):  # slices of params: each payload is copied once, into the result
        parts += [_varint(_RESULT_LHS << 3 | _LEN), _varint(len(array)), array]
    return b"".join(parts)


def error_result(
    message: str, identifier: str | None = None, stack: Iterable[tuple[str, str, int]] = ()
) -> bytes:
    """A VELTRA_Result carrying an engine error. ``stack`` holds (file, function name, line) frames."""
    error = _len_field(_ERROR_MESSAGE, message.encode())
    if identifier is not None:
        error += _len_field(_ERROR_IDENTIFIER, identifier.encode())
    for file, name, line in stack:
        frame = _len_field(_FRAME_FILE, file.encode()) + _len_field(_FRAME_NAME, name.encode())
        frame += _varint(_FRAME_LINE << 3 | _VARINT) + _varint(line)
        error += _len_field(_ERROR_STACK, frame)
    return _len_field(_RESULT_ERROR, error)
