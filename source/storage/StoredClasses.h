#pragma once

#include "kernel/Export.h"

namespace Raster {
/// Makes the classes of this library known to whoever loads documents: blocks, bitmaps, profiles, sets of profiles and
/// splines.
/// To be called once before the first document is loaded; again does nothing. Hosts register their own beside them.
RASTER_API void RegisterStoredClasses();
}
