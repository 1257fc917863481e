// The accessors of buffers of the 16-bit formats. A file each for three groups, so that they compile side by side.
#include "pixel/Buffer.h"

namespace Raster {
RASTER_ACCESSORS_OF_MODEL(template class RASTER_TEMPLATE_INSTANCE, Buffer<Red16, Green16, Blue16, Alpha16, X5>)
RASTER_ACCESSORS_OF_MODEL(template class RASTER_TEMPLATE_INSTANCE, Buffer<Intensity16, Alpha16, X3, X4, X5>)
RASTER_ACCESSORS_OF_MODEL(template class RASTER_TEMPLATE_INSTANCE,
                          Buffer<Lightness16, AOpponent16, BOpponent16, Alpha16, X5>)
RASTER_ACCESSORS_OF_MODEL(template class RASTER_TEMPLATE_INSTANCE, Buffer<Alpha16, X2, X3, X4, X5>)
}
