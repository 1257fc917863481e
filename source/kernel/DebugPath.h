#pragma once

#include "kernel/Path.h"

namespace Kernel {
/// A path for a debug dump: in the system's folder for temporary files, different at every call and in every process.
/// Nothing is created. The name's characters other than letters, digits, '.', '-' and '_' become '_'.
RASTER_API Path MakeDebugSavePath(StringUtf8 const & name);
}
