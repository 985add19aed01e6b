#include "convert/module_state.h"

namespace PythonVeltraDataArray::detail {

namespace {
const VeltraArrayCapi* g_capsule = nullptr;
}  // namespace

const VeltraArrayCapi* capsule() noexcept { return g_capsule; }
void setCapsule(const VeltraArrayCapi* table) noexcept { g_capsule = table; }

}  // namespace PythonVeltraDataArray::detail
