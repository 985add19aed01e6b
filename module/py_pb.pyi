"""Python values to the engine's call messages and back.

Importing py_pb also adds the types ``veltra.object`` and ``veltra.dictionary`` to the package ``veltra``.
"""

from typing import Any, Literal

from typing_extensions import Buffer

_Schema = Literal["VELTRA_PARAMS", "VELTRA_RESULT"]

def py_to_serialized_str(
    args: tuple[object, ...] | list[Any] | set[Any],
    /,
    *,
    schema: _Schema = "VELTRA_PARAMS",
    nargout: int | str = 1,
) -> bytes:
    """Convert tuple of Python objects to protobuf-serialized byte string.

    ``args`` holds the call's inputs, one per element; the result is a serialized VELTRA_Params message that
    asks for ``nargout`` outputs (an int, or a numeric string, at least 0). ``schema`` is checked but selects
    nothing.
    """

def serialized_str_to_py(data: Buffer, /, *, schema: _Schema = "VELTRA_RESULT") -> list[Any] | dict[str, Any]:
    """Convert protobuf-serialized byte string to tuple of Python objects.

    ``data`` is a serialized VELTRA_Result message. Returns the call's outputs as a list, or, when the message
    carries an engine error, a dict with the keys ``message``, ``identifier`` and ``stack_as_str``.
    """
