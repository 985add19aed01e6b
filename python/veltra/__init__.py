"""The engine's Python package: typed N-d arrays, and the types that py_pb adds (object, dictionary).

The typed array types live in the extension module ``veltramultidimarrayforpython`` and are re-exported here,
so ``veltra.double is veltramultidimarrayforpython.double``.
"""

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
