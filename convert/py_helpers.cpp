#include "convert/py_helpers.h"

#include <string>

namespace PythonVeltraDataArray::detail {

pyutil::Ref getAttribute(PyObject* obj, const char* name) {
    pyutil::Ref value = pyutil::Ref::steal(PyObject_GetAttrString(obj, name));
    if (!value && (!PyErr_Occurred() || PyErr_ExceptionMatches(PyExc_AttributeError))) {
        PyErr_Clear();
        PyErr_SetString(PyExc_AttributeError, (std::string("unable to retrieve attribute '") + name + "'").c_str());
    }
    return value;
}

}  // namespace PythonVeltraDataArray::detail
