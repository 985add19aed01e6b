// Python list, tuple, set and dict <-> CELL and STRUCT arrays. Each element goes back through the dispatcher,
// with a conversion state of the container's own whose notNested flag is clear (a str inside a container
// always travels as a char array).
#pragma once

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// list -> 1-by-N CELL. A list that holds itself directly: ValueError.
class PyListToCell final : public ToArrayConverter {
public:
    using ToArrayConverter::ToArrayConverter;

protected:
    std::optional<Array> doConvert(PyObject* obj, const ConversionState& state) override;
};

// tuple -> 1-by-N CELL.
class PyTupleToCell final : public ToArrayConverter {
public:
    using ToArrayConverter::ToArrayConverter;

protected:
    std::optional<Array> doConvert(PyObject* obj, const ConversionState& state) override;
};

// set -> 1-by-N CELL in the pop order of a copy of the set.
class PySetToCell final : public ToArrayConverter {
public:
    using ToArrayConverter::ToArrayConverter;

protected:
    std::optional<Array> doConvert(PyObject* obj, const ConversionState& state) override;
};

// dict with str keys -> 1-by-1 STRUCT, fields in key order. A value that is the dict itself: ValueError.
class PyDictToStruct final : public ToArrayConverter {
public:
    using ToArrayConverter::ToArrayConverter;

protected:
    std::optional<Array> doConvert(PyObject* obj, const ConversionState& state) override;
};

// 1-by-N or M-by-1 CELL -> list; an empty element (of any kind and shape) becomes [].
class CellToPyList final : public ToPythonConverter {
public:
    using ToPythonConverter::ToPythonConverter;

protected:
    PyObject* doConvert(const Array& a) override;
};

// 1-by-1 STRUCT -> dict of its fields in creation order.
class StructToPyDict final : public ToPythonConverter {
public:
    using ToPythonConverter::ToPythonConverter;

protected:
    PyObject* doConvert(const Array& a) override;
};

}  // namespace PythonVeltraDataArray::detail
