// driver.h: the fusion driver behind the public entry points.
#pragma once

#include "core/core.h"

namespace lumora {

// Driver (driver.cpp)

// Forwards progress to the host; returns 0 when the host asked to cancel.
int progress(ProgressCallback cb, float amount);

}  // namespace lumora
