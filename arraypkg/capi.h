// The capsule's function table (layout in veltra_capi.h).
#pragma once

#include "veltra_capi.h"

namespace veltra::arraypkg {

const VeltraArrayCapi* capiTable() noexcept;

}  // namespace veltra::arraypkg
