// Converters that only refuse: a null object, None, and the types whose conversions arrive in later work.
#pragma once

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// RuntimeError "passing null Python object pointer to VELTRA not supported" (the base refuses a null object
// before doConvert, with the same error).
class NullToError final : public ToArrayConverter {
public:
    using ToArrayConverter::ToArrayConverter;

protected:
    std::optional<Array> doConvert(PyObject* obj, const ConversionState& state) override;
};

// TypeError "passing 'None' to VELTRA not supported".
class PyNoneToError final : public ToArrayConverter {
public:
    using ToArrayConverter::ToArrayConverter;

protected:
    std::optional<Array> doConvert(PyObject* obj, const ConversionState& state) override;
};

// Holds the registry place of a type whose converter is not part of the module yet (veltra.object, dates,
// durations, veltra.dictionary and other mappings, DataFrames): refuses with the unsupported-type TypeError
// naming the object's type, so such values are never converted wrongly by a fallback.
class NotYetConvertible final : public ToArrayConverter {
public:
    using ToArrayConverter::ToArrayConverter;

protected:
    std::optional<Array> doConvert(PyObject* obj, const ConversionState& state) override;
};

// Value objects and handle object references: their conversions (dates, durations, tables, veltra.object)
// arrive later. TypeError naming the value object's class, or the handle kind.
class ObjectsNotYetConvertible final : public ToPythonConverter {
public:
    using ToPythonConverter::ToPythonConverter;

protected:
    PyObject* doConvert(const Array& a) override;
};

}  // namespace PythonVeltraDataArray::detail
