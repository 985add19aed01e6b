// Engine dictionaries both ways. A veltra.dictionary, and every other mapping that is not a dict (an
// OrderedDict or another dict subclass, a UserDict, a ChainMap, any Mapping), becomes a 1x1 value object of
// class "dictionary":
//   Version          1x1 double 1
//   IsKeyCombined    1x1 logical true: the keys are one array of one kind
//   IsValueCombined  1x1 logical false: the values are a cell, one element each
//   Value            "Unconfigured" (a char row) when empty; otherwise a 1x1 struct with the fields
//                    Keys    N-by-1: a string array (str keys), int64 (int keys), double (numbers with a float
//                            among them) or logical (bool keys)
//                    Values  N-by-1 cell, in the order of Keys
// docs/dictionary.md describes it for peers. Reading also takes keys as a cell and values as one array of
// scalars, and a single value for every key.
#pragma once

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// A mapping -> the engine dictionary. A veltra.dictionary read from the engine and not changed since goes
// back as the very array it came as. TypeError for keys of mixed or other kinds.
VELTRA_TO_ARRAY_CONVERTER(PyDictionaryToDictionary);

// A "dictionary" value object -> a veltra.dictionary that remembers the array. ValueError for layouts other
// than the one above, and for keys and values of different counts.
PyObject* dictionaryToPython(const Array& a);

}  // namespace PythonVeltraDataArray::detail
