// The accessors of buffers of the 8-bit formats. A file each for three groups, so that they compile side by side.
#include "pixel/Buffer.h"

namespace Raster {
RASTER_ACCESSORS_OF_MODEL(template class RASTER_TEMPLATE_INSTANCE, Buffer<Red8, Green8, Blue8, Alpha8, X5>)
RASTER_ACCESSORS_OF_MODEL(template class RASTER_TEMPLATE_INSTANCE, Buffer<Intensity8, Alpha8, X3, X4, X5>)
RASTER_ACCESSORS_OF_MODEL(template class RASTER_TEMPLATE_INSTANCE, Buffer<Cyan8, Magenta8, Yellow8, Black8, Alpha8>)
RASTER_ACCESSORS_OF_MODEL(template class RASTER_TEMPLATE_INSTANCE, Buffer<Alpha8, X2, X3, X4, X5>)
}
