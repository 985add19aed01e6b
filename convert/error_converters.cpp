#include "convert/error_converters.h"

#include <string>

#include "pyutil/messages.h"

namespace PythonVeltraDataArray::detail {

std::optional<Array> NullToError::doConvert(PyObject*, const ConversionState&) {
    return fail(PyExc_RuntimeError, pyutil::kNullObject);
}

std::optional<Array> PyNoneToError::doConvert(PyObject* obj, const ConversionState&) {
    if (obj != Py_None) return failUnsupportedType(obj);
    return fail(PyExc_TypeError, "passing 'None' to VELTRA not supported");
}

}  // namespace PythonVeltraDataArray::detail
