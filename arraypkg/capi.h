// The capsule's function table (layout in veltra_capi.h).
#pragma once

#include "arraypkg/veltra_capi.h"

namespace PythonVeltraDataArray::arraypkg {

const VeltraArrayCapi* capiTable() noexcept;

}  // namespace PythonVeltraDataArray::arraypkg
