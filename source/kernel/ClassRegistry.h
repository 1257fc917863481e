#pragma once

#include "kernel/Export.h"
#include "kernel/IDTag.h"

namespace Kernel {
class ClassPropertiesBase;

/// The classes whose objects can be made from a file. Each is registered by `ClassPropertiesBase::Init`, called by
/// whoever starts the layer that it belongs to; nothing registers itself while the program is being loaded.
/// Threads: any.
namespace ClassRegistry {
/// Null if no class has that name.
RASTER_API ClassPropertiesBase const * Find(ClassUID uid);
/// The record lives as long as the process. A second class of one name changes nothing and is traced.
RASTER_API void Register(ClassPropertiesBase const & properties);
}
}
