// The one piece of the driver's code the simulator uses: the bounds-checked
// little-endian reader and writer. Everything else it does its own way, so
// that it checks the driver instead of repeating it.
#pragma once

#include "util/wire.h"
