// The rich comparison the module's own Python types share: == and != by an equality of their own, ordering
// refused, and any operand of another type refused.
#pragma once

#include <Python.h>

#include <functional>

namespace PythonVeltraDataArray::types {

// `sameType(other)`: 1 when other is of the type named `typeName`. Otherwise TypeError "comparison of objects
// of type '<typeName>' with objects of another type not supported". `equal(self, other)` decides == and !=:
// 1 equal, 0 not, -1 with an error set (one that comparing values raised and that must pass up); the four
// orderings raise TypeError "'<typeName>' does not support 'less than' comparison" and the like.
PyObject* richCompare(PyObject* self, PyObject* other, int op, const char* typeName,
                      std::function<int(PyObject*, PyObject*)> equal, std::function<int(PyObject*)> sameType);

}  // namespace PythonVeltraDataArray::types
