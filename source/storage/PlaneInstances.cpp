#include "storage/Plane.h"

namespace Raster {
#define RASTER_DEFINE_PLANE(role, suffix) template class RASTER_TEMPLATE_INSTANCE Plane<role##suffix>;
RASTER_FOR_EACH_CHANNEL(RASTER_DEFINE_PLANE)
#undef RASTER_DEFINE_PLANE
}
