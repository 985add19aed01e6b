#include "types/compare.h"

#include <string>

#include "pyutil/error.h"

namespace PythonVeltraDataArray::types {

PyObject* richCompare(PyObject* self, PyObject* other, int op, const char* typeName,
                      std::function<int(PyObject*, PyObject*)> equal, std::function<int(PyObject*)> sameType) {
    const std::string name(typeName);
    if (sameType(other) != 1)
        return pyutil::fail(PyExc_TypeError,
                            "comparison of objects of type '" + name + "' with objects of another type not supported");
    switch (op) {
        case Py_EQ:
        case Py_NE: {
            const int same = equal(self, other);
            if (same < 0) return pyutil::failed();
            return PyBool_FromLong(op == Py_EQ ? same : !same);
        }
        case Py_LT: return pyutil::fail(PyExc_TypeError, "'" + name + "' does not support 'less than' comparison");
        case Py_LE:
            return pyutil::fail(PyExc_TypeError, "'" + name + "' does not support 'less than or equal to' comparison");
        case Py_GT: return pyutil::fail(PyExc_TypeError, "'" + name + "' does not support 'greater than' comparison");
        default:
            return pyutil::fail(PyExc_TypeError, "'" + name + "' does not support 'greater than or equal to' comparison");
    }
}

}  // namespace PythonVeltraDataArray::types
