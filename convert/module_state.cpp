#include "module_state.h"

namespace PythonVeltraDataArray::detail {

namespace {
const VeltraArrayCapi* g_capsule = nullptr;
PyObject* g_doubleType = nullptr;
}  // namespace

const VeltraArrayCapi* capsule() noexcept { return g_capsule; }
void setCapsule(const VeltraArrayCapi* table) noexcept { g_capsule = table; }

PyObject* packageDoubleType() noexcept { return g_doubleType; }
void setPackageDoubleType(PyObject* stolen) noexcept {
    Py_XDECREF(g_doubleType);
    g_doubleType = stolen;
}

}  // namespace PythonVeltraDataArray::detail
