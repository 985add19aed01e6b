#include "convert/error_converters.h"

#include <string>

#include "pyutil/messages.h"

namespace PythonVeltraDataArray::detail {

using foundation::veltradata::ValueObjectArray;

std::optional<Array> NullToError::doConvert(PyObject*, const ConversionState&) {
    return fail(PyExc_RuntimeError, pyutil::kNullObject);
}

std::optional<Array> PyNoneToError::doConvert(PyObject* obj, const ConversionState&) {
    if (obj != Py_None) return failUnsupportedType(obj);
    return fail(PyExc_TypeError, "passing 'None' to VELTRA not supported");
}

std::optional<Array> NotYetConvertible::doConvert(PyObject* obj, const ConversionState&) {
    return failUnsupportedType(obj);
}

PyObject* ObjectsNotYetConvertible::doConvert(const Array& a) {
    if (a.getType() != ArrayType::VALUE_OBJECT)
        return fail(PyExc_TypeError, "conversion of VELTRA handle object references to Python not supported yet");
    const std::string cls = ValueObjectArray(a).getClassInfo().getClassIdentifier().getClassName();
    return fail(PyExc_TypeError, "conversion of VELTRA value object of class '" + cls + "' to Python not supported yet");
}

}  // namespace PythonVeltraDataArray::detail
