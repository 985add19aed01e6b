"""The engine's Python package: typed N-d arrays, and the types that py_pb adds (object, dictionary).

The typed array types live in the extension module ``veltramultidimarrayforpython`` and are re-exported here,
so ``veltra.double is veltramultidimarrayforpython.double``. ``veltra.object`` and ``veltra.dictionary`` are
added by ``import py_pb``.
"""

from typing import TYPE_CHECKING

import veltramultidimarrayforpython as _arrays
from veltramultidimarrayforpython import *  # noqa: F403  (the typed array types)

if TYPE_CHECKING:
    # Declared for type checkers only: at run time py_pb's start-up adds them to this package.
    from veltra._types import dictionary as dictionary, object as object

__all__ = list(_arrays.__all__)
