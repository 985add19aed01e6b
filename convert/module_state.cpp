#include "convert/module_state.h"

#include <utility>

#include "pyutil/ref.h"

namespace PythonVeltraDataArray::detail {

namespace {
const VeltraArrayCapi* g_capsule = nullptr;
PyObject* g_doubleType = nullptr;
}  // namespace

const VeltraArrayCapi* capsule() noexcept { return g_capsule; }
void setCapsule(const VeltraArrayCapi* table) noexcept { g_capsule = table; }

PyObject* packageDoubleType() noexcept { return g_doubleType; }
void setPackageDoubleType(PyObject* stolen) noexcept {
    pyutil::Ref old = pyutil::Ref::steal(std::exchange(g_doubleType, stolen));
}

}  // namespace PythonVeltraDataArray::detail
