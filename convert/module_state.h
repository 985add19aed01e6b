// Process-wide state written once by module initialisation and only read afterwards.
#pragma once

#include <Python.h>

#include "arraypkg/veltra_capi.h"

namespace PythonVeltraDataArray::detail {

// The typed array package's function table; null when the capsule could not be imported.
const VeltraArrayCapi* capsule() noexcept;
void setCapsule(const VeltraArrayCapi* table) noexcept;

}  // namespace PythonVeltraDataArray::detail
