#include "storage/BitmapAccessorInstances.h"

namespace Raster {
RASTER_DEFINE_ACCESSORS(RGBAUFTuple)
RASTER_DEFINE_ACCESSORS(AFTuple)
}
