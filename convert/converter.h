// The converter bases. A converter holds no per-call state: one instance serves every call.
//
// Writing a converter:
//  - Derive from ToArrayConverter or ToPythonConverter and implement doConvert. The base's convert holds every
//    converter to one convention, so callers can rely on it: an empty result comes with exactly one Python
//    exception set, a result with none. doConvert fails with `return fail(type, text)` (or `failed()` after a
//    C API call set the error); a C++ exception out of the array library becomes the ValueError the module
//    functions would give for it.
//  - Dispatch is by type name, and any class can take any name (`class dict: __module__ = "builtins"`). So a
//    converter never trusts the name: it checks the object's real type (PyDict_Check, PyBytes_Check, ...)
//    before any concrete-type C API call, and otherwise goes through the generic protocol (number, buffer,
//    mapping, iteration) or refuses with the unsupported-type TypeError naming the type.
#pragma once

#include <Python.h>

#include <memory>
#include <optional>
#include <string>

#include "pyutil/error.h"
#include "pyutil/ref.h"
#include "veltradata/veltradata.h"

namespace PythonVeltraDataArray::detail {

using foundation::veltradata::Array;
using foundation::veltradata::ArrayFactory;
using foundation::veltradata::ArrayType;
using pyutil::fail;
using pyutil::failed;
using pyutil::Ref;

class CallBudget;

// Flags that travel with every Python-to-array conversion.
struct ConversionState {
    // First flag: text may become a string scalar rather than a char array.
    bool allowString = false;
    // Second flag: reserved, passed through unchanged.
    bool reserved = false;
    // Third flag: the value is not inside a container. Containers clear it for their elements, so a str inside
    // a list always travels as a char array.
    bool notNested = false;

    // What one call may still produce (budget.h); null: not counted.
    CallBudget* budget = nullptr;
    // The result only lives while the call that converts it holds the value: large buffers may then be
    // borrowed rather than copied, and go once, straight from their memory, into the message.
    bool callHoldsSources = false;

    // What the module's top level passes.
    static ConversionState topLevel(CallBudget* budget = nullptr, bool callHoldsSources = false) {
        return ConversionState{true, false, true, budget, callHoldsSources};
    }
    // What a container passes to each of its elements.
    ConversionState forElement() const {
        ConversionState s = *this;
        s.notNested = false;
        return s;
    }
};

// Python object (borrowed) -> Array. Absent result: a Python exception is set.
class ConvertToVeltraDataArray {
public:
    virtual std::optional<Array> convert(PyObject* obj, const ConversionState& state) = 0;
    virtual ~ConvertToVeltraDataArray() = default;
};

// Array -> new Python reference, or null with a Python exception set.
class ConvertVDAToPyObject {
public:
    virtual PyObject* convert(const Array& a) = 0;
    virtual ~ConvertVDAToPyObject() = default;
};

// The base of every Python-to-array converter. A null object is refused here, before doConvert.
class ToArrayConverter : public ConvertToVeltraDataArray {
public:
    explicit ToArrayConverter(std::shared_ptr<ArrayFactory> factory) : factory_(std::move(factory)) {}
    std::optional<Array> convert(PyObject* obj, const ConversionState& state) final;

protected:
    // `obj` is not null.
    virtual std::optional<Array> doConvert(PyObject* obj, const ConversionState& state) = 0;
    ArrayFactory& factory() const { return *factory_; }

private:
    std::shared_ptr<ArrayFactory> factory_;
};

// The base of every array-to-Python converter.
class ToPythonConverter : public ConvertVDAToPyObject {
public:
    explicit ToPythonConverter(std::shared_ptr<ArrayFactory> factory) : factory_(std::move(factory)) {}
    PyObject* convert(const Array& a) final;

protected:
    virtual PyObject* doConvert(const Array& a) = 0;
    ArrayFactory& factory() const { return *factory_; }

private:
    std::shared_ptr<ArrayFactory> factory_;
};

// Declares a converter class that implements doConvert and nothing else, as most do:
//   VELTRA_TO_ARRAY_CONVERTER(PyFloatToDouble);   VELTRA_TO_PYTHON_CONVERTER(CharToPyStr);
#define VELTRA_TO_ARRAY_CONVERTER(Name)                                                      \
    class Name final : public ToArrayConverter {                                             \
    public:                                                                                  \
        using ToArrayConverter::ToArrayConverter;                                            \
                                                                                             \
    protected:                                                                               \
        std::optional<Array> doConvert(PyObject* obj, const ConversionState& state) override; \
    }
#define VELTRA_TO_PYTHON_CONVERTER(Name)                       \
    class Name final : public ToPythonConverter {              \
    public:                                                    \
        using ToPythonConverter::ToPythonConverter;            \
                                                               \
    protected:                                                 \
        PyObject* doConvert(const Array& a) override;          \
    }

// "conversion of Python data type '" + name + "' to VELTRA not supported"
std::string unsupportedTypeText(const std::string& name);
// TypeError with unsupportedTypeText for the name of obj's type.
pyutil::Failure failUnsupportedType(PyObject* obj);
// For an object that claims a type's name but failed the generic protocol it was read through: a pending
// TypeError, AttributeError or BufferError becomes the unsupported-type TypeError, with the protocol's own
// complaint as its cause. Any other error (an OverflowError, what the object's own method raised) stands.
pyutil::Failure failProtocol(PyObject* obj);

}  // namespace PythonVeltraDataArray::detail
