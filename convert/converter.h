// The two converter bases. A converter holds no per-call state: one instance serves every call.
#pragma once

#include <Python.h>

#include <memory>
#include <optional>

#include "veltradata/veltradata.h"

namespace PythonVeltraDataArray::detail {

using foundation::veltradata::Array;
using foundation::veltradata::ArrayFactory;
using foundation::veltradata::ArrayType;

// Flags that travel with every Python-to-array conversion.
struct ConversionState {
    // First flag: text may become a string scalar rather than a char array.
    bool allowString = false;
    // Second flag: reserved, passed through unchanged.
    bool reserved = false;
    // Third flag: the value is not inside a container. Containers clear it for their elements, so a str inside
    // a list always travels as a char array.
    bool notNested = false;

    // What the module's top level passes.
    static ConversionState topLevel() { return ConversionState{true, false, true}; }
    // What a container passes to each of its elements.
    ConversionState forElement() const {
        ConversionState s = *this;
        s.notNested = false;
        return s;
    }
};

// Python object (borrowed) -> Array. Absent result: a Python exception is set (or obj was null).
class ConvertToVeltraDataArray {
public:
    explicit ConvertToVeltraDataArray(std::shared_ptr<ArrayFactory> factory) : factory_(std::move(factory)) {}
    virtual std::optional<Array> convert(PyObject* obj, const ConversionState& state) = 0;
    virtual ~ConvertToVeltraDataArray() = default;

protected:
    ArrayFactory& factory() const { return *factory_; }
    std::shared_ptr<ArrayFactory> factory_;
};

// Array -> new Python reference, or null with a Python exception set.
class ConvertVDAToPyObject {
public:
    explicit ConvertVDAToPyObject(std::shared_ptr<ArrayFactory> factory) : factory_(std::move(factory)) {}
    virtual PyObject* convert(const Array& a) = 0;
    virtual ~ConvertVDAToPyObject() = default;

protected:
    ArrayFactory& factory() const { return *factory_; }
    std::shared_ptr<ArrayFactory> factory_;
};

}  // namespace PythonVeltraDataArray::detail
