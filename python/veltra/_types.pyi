# The two types that py_pb adds to the package at import time (veltra.object and veltra.dictionary). This
# module exists for type checkers only: veltra/__init__.py imports from it under TYPE_CHECKING, and at run time
# the types are veltra.object and veltra.dictionary once py_pb has been imported.

import builtins
from collections.abc import Iterator, Mapping
from typing import Any, ClassVar, SupportsIndex

from typing_extensions import Self

class object:
    """VELTRA object

    An engine object array (handle objects, or value objects of a class with no Python type), as a result
    gives it. Made by py_pb only. Indexing takes one dimension at a time: ``obj[i][j]`` of a 2-D object is the
    element at row i, column j. Pass the whole object or a fully indexed element back to the engine.
    """

    __hash__: ClassVar[None]  # type: ignore[assignment]
    @property
    def size(self) -> tuple[int, ...]:
        """dimensions of the 'veltra.object' object"""
    def __len__(self) -> int: ...
    def __getitem__(self, index: SupportsIndex, /) -> Self: ...
    def __eq__(self, other: builtins.object, /) -> bool: ...
    def __ne__(self, other: builtins.object, /) -> bool: ...

class dictionary:
    """VELTRA dictionary

    A mapping made like a dict (from a dict, an OrderedDict, a UserDict, a ChainMap, another
    veltra.dictionary, and keywords); it goes to the engine as an engine dictionary. Keys must be all str, all
    bool or all numbers when it is passed to the engine.
    """

    __hash__: ClassVar[None]  # type: ignore[assignment]
    def __new__(cls, mapping: Mapping[Any, Any] | dictionary = ..., /, **kwargs: Any) -> Self: ...
    def __len__(self) -> int: ...
    def __getitem__(self, key: Any, /) -> Any: ...
    def __setitem__(self, key: Any, value: Any, /) -> None: ...
    def __delitem__(self, key: Any, /) -> None: ...
    def __iter__(self) -> Iterator[Any]: ...
    def __eq__(self, other: builtins.object, /) -> bool: ...
    def __ne__(self, other: builtins.object, /) -> bool: ...
    def clear(self) -> None:
        """clear deletes all key-value pairs in the dictionary"""
    def items(self) -> list[tuple[Any, Any]]:
        """items returns the key-value pairs as a list"""
    def keys(self) -> list[Any]:
        """keys returns the keys as a list"""
    def todict(self) -> dict[Any, Any]:
        """todict returns a dict with the same key-value pairs as the original"""
    def values(self) -> list[Any]:
        """values returns the values as a list"""
