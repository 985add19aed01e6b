"""A stand-in for the engine in tests: answers a call's parameters message with a result message.

``loopback(params)`` returns the serialized VELTRA_Result whose outputs are the call's inputs, in order, so
``py_pb.serialized_str_to_py(loopback(py_pb.py_to_serialized_str(args)))`` gives back what ``args`` became on
the way in. ``error_result(...)`` builds a result that carries an engine error instead.

Both work on the wire format directly (the arrays are moved as opaque length-delimited blobs), so they need
no protobuf runtime and no generated classes.
"""

from __future__ import annotations

from collections.abc import Iterable
from typing import TYPE_CHECKING

from veltra.inspect import _fields

if TYPE_CHECKING:
    from typing_extensions import Buffer

__all__ = ["loopback", "error_result", "input_arrays"]

# Field numbers of envelope/proto/veltra_common.proto.
_PARAMS_NARGOUT, _PARAMS_RHS = 1, 2
_RESULT_LHS, _RESULT_ERROR = 1, 2
_ERROR_MESSAGE, _ERROR_IDENTIFIER, _ERROR_STACK = 1, 2, 3
_FRAME_FILE, _FRAME_NAME, _FRAME_LINE = 1, 2, 3

_VARINT, _LEN = 0, 2


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


def _inputs(params: Buffer) -> list[memoryview]:
    data = memoryview(params).cast("B")
    return [data[v[0]:v[1]] for f, wt, v, _ in _fields(data, 0, len(data)) if f == _PARAMS_RHS and wt == _LEN]


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
