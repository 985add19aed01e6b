#include "convert/error_converters.h"

#include <string>

#include "convert/type_name.h"

using foundation::veltradata::ValueObjectArray;

namespace PythonVeltraDataArray::detail {

namespace {
const std::string kNullObject = "passing null Python object pointer to VELTRA not supported";
const std::string kNone = "passing 'None' to VELTRA not supported";
const std::string kHandleRefs = "conversion of VELTRA handle object references to Python not supported yet";
}  // namespace

std::optional<Array> NullToError::convert(PyObject*, const ConversionState&) {
    PyErr_SetString(PyExc_RuntimeError, kNullObject.c_str());
    return std::nullopt;
}

std::optional<Array> PyNoneToError::convert(PyObject*, const ConversionState&) {
    PyErr_SetString(PyExc_TypeError, kNone.c_str());
    return std::nullopt;
}

std::optional<Array> NotYetConvertible::convert(PyObject* obj, const ConversionState&) {
    if (!obj) return std::nullopt;
    std::optional<std::string> name = pythonTypeName(obj);
    if (name) PyErr_SetString(PyExc_TypeError, unsupportedTypeText(*name).c_str());
    return std::nullopt;
}

PyObject* ObjectsNotYetConvertible::convert(const Array& a) {
    if (a.getType() == ArrayType::VALUE_OBJECT) {
        const std::string cls = ValueObjectArray(a).getClassInfo().getClassIdentifier().getClassName();
        PyErr_SetString(PyExc_TypeError,
                        ("conversion of VELTRA value object of class '" + cls + "' to Python not supported yet")
                            .c_str());
    } else {
        PyErr_SetString(PyExc_TypeError, kHandleRefs.c_str());
    }
    return nullptr;
}

}  // namespace PythonVeltraDataArray::detail
