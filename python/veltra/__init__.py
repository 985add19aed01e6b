"""The engine's Python package: typed N-d arrays, and the types that py_pb adds (object, dictionary).

The typed array types live in the extension module ``veltramultidimarrayforpython`` and are re-exported here,
so ``veltra.double is veltramultidimarrayforpython.double``. ``veltra.object`` and ``veltra.dictionary`` are
added by ``import py_pb``.
"""

from typing import TYPE_CHECKING

from veltramultidimarrayforpython import (
    double,
    int8,
    int16,
    int32,
    int64,
    logical,
    single,
    uint8,
    uint16,
    uint32,
    uint64,
)

if TYPE_CHECKING:
    # Declared for type checkers only: at run time py_pb's start-up adds them to this package.
    from veltra._types import dictionary as dictionary, object as object

__all__ = [
    "double",
    "single",
    "int8",
    "uint8",
    "int16",
    "uint16",
    "int32",
    "uint32",
    "int64",
    "uint64",
    "logical",
]
