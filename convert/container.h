// Python list, tuple, set and dict <-> CELL and STRUCT arrays. Each element goes back through the dispatcher,
// with a conversion state of the container's own whose notNested flag is clear (a str inside a container
// always travels as a char array).
#pragma once

#include <cstdint>

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// list -> 1-by-N CELL. A list that holds itself directly: ValueError.
class PyListToCell final : public ConvertToVeltraDataArray {
public:
    using ConvertToVeltraDataArray::ConvertToVeltraDataArray;
    std::optional<Array> convert(PyObject* obj, const ConversionState& state) override;
};

// tuple -> 1-by-N CELL.
class PyTupleToCell final : public ConvertToVeltraDataArray {
public:
    using ConvertToVeltraDataArray::ConvertToVeltraDataArray;
    std::optional<Array> convert(PyObject* obj, const ConversionState& state) override;
};

// set -> 1-by-N CELL in the pop order of a copy of the set.
class PySetToCell final : public ConvertToVeltraDataArray {
public:
    using ConvertToVeltraDataArray::ConvertToVeltraDataArray;
    std::optional<Array> convert(PyObject* obj, const ConversionState& state) override;
};

// dict with str keys -> 1-by-1 STRUCT, fields in key order. A value that is the dict itself: ValueError.
class PyDictToStruct final : public ConvertToVeltraDataArray {
public:
    using ConvertToVeltraDataArray::ConvertToVeltraDataArray;
    std::optional<Array> convert(PyObject* obj, const ConversionState& state) override;
};

// 1-by-N or M-by-1 CELL -> list; an empty element (of any kind and shape) becomes [].
class CellToPyList final : public ConvertVDAToPyObject {
public:
    using ConvertVDAToPyObject::ConvertVDAToPyObject;
    PyObject* convert(const Array& a) override;
};

// STRUCT -> dict of its fields in creation order. The whole array, which must then hold exactly one element,
// or in element mode the one element at `index`.
class StructToPyDict final : public ConvertVDAToPyObject {
public:
    StructToPyDict(std::shared_ptr<ArrayFactory> factory, bool elementMode = false, std::uint64_t index = 0)
        : ConvertVDAToPyObject(std::move(factory)), elementMode_(elementMode), index_(index) {}
    PyObject* convert(const Array& a) override;

private:
    bool elementMode_;
    std::uint64_t index_;
};

}  // namespace PythonVeltraDataArray::detail
