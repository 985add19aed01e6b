// Python list, tuple, set and dict <-> CELL and STRUCT arrays. Each element goes back through the dispatcher,
// with a conversion state of the container's own whose notNested flag is clear (a str inside a container
// always travels as a char array).
#pragma once

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// Shared with the argument walk (arguments.h) and the result reader, which take plain containers the same way.
inline constexpr char kIntoVeltra[] = " while converting a Python object to VELTRA";
inline constexpr char kIntoPython[] = " while converting a VELTRA array to Python";
inline constexpr char kRecursiveList[] = "passing recursive list to VELTRA not supported";
inline constexpr char kRecursiveDict[] = "passing recursive dict to VELTRA not supported";
inline constexpr char kDictChanged[] = "dict changed size during conversion to VELTRA";

// list -> 1-by-N CELL. A list that holds itself directly: ValueError.
VELTRA_TO_ARRAY_CONVERTER(PyListToCell);

// tuple -> 1-by-N CELL.
VELTRA_TO_ARRAY_CONVERTER(PyTupleToCell);

// set -> 1-by-N CELL in the pop order of a copy of the set.
VELTRA_TO_ARRAY_CONVERTER(PySetToCell);

// dict with str keys -> 1-by-1 STRUCT, fields in key order. A value that is the dict itself: ValueError.
VELTRA_TO_ARRAY_CONVERTER(PyDictToStruct);

// 1-by-N or M-by-1 CELL -> list; an empty element (of any kind and shape) becomes [].
VELTRA_TO_PYTHON_CONVERTER(CellToPyList);

// 1-by-1 STRUCT -> dict of its fields in creation order.
VELTRA_TO_PYTHON_CONVERTER(StructToPyDict);

}  // namespace PythonVeltraDataArray::detail
