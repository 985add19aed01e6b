// The array model: Array, its typed views and the factory.
#pragma once

#include "array.h"
#include "array_factory.h"
#include "array_type.h"
#include "errors.h"
#include "identifiers.h"
#include "typed_view.h"
