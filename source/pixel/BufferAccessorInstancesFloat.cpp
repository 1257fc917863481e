// The accessors of buffers of the float formats. A file each for three groups, so that they compile side by side.
#include "pixel/Buffer.h"

namespace Raster {
RASTER_ACCESSORS_OF_MODEL(template class RASTER_TEMPLATE_INSTANCE, Buffer<RedUF, GreenUF, BlueUF, AlphaF, X5>)
RASTER_ACCESSORS_OF_MODEL(template class RASTER_TEMPLATE_INSTANCE, Buffer<AlphaF, X2, X3, X4, X5>)
}
