// The keyword arguments of the two module functions.
#pragma once

#include <Python.h>

#include <cstdint>

namespace PythonVeltraDataArray::module {

// The message kinds `schema` names. It is checked but selects nothing: py_to_serialized_str always writes
// parameters and serialized_str_to_py always reads a result.
enum class Schema : int { Params = 1, Result = 2 };

// Which function parses: decides the default schema and whether `nargout` is accepted.
enum class Direction { ToBytes, FromBytes };

struct KeywordOptions {
    std::int32_t nargout = 1;
    Schema schema = Schema::Params;
    bool failed = false;  // a Python exception is set
};

// Walks kwargs in order and stops at the first bad key or value, with TypeError or ValueError set.
// `nargout`: a str is read like std::stol (leading blanks and a sign, trailing characters ignored); an int is
// taken as it is. A negative count is refused, and so is one beyond the 32 bits the message carries:
// ValueError "Value of keyword argument 'nargout' (<n>) was greater than 2147483647".
KeywordOptions parseKeywords(PyObject* kwargs, Direction direction);

}  // namespace PythonVeltraDataArray::module
