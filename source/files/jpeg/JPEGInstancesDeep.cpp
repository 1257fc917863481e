// The models of tuples with more than 8 bits, all of which are converted.
#include "files/jpeg/JPEG.h"

namespace Raster {
RASTER_JPEG_OF_TUPLE(template class RASTER_TEMPLATE_INSTANCE, Red16, Green16, Blue16, Alpha16, X5)
RASTER_JPEG_OF_TUPLE(template class RASTER_TEMPLATE_INSTANCE, Intensity16, Alpha16, X3, X4, X5)
RASTER_JPEG_OF_TUPLE(template class RASTER_TEMPLATE_INSTANCE, Lightness16, AOpponent16, BOpponent16, Alpha16, X5)
RASTER_JPEG_OF_TUPLE(template class RASTER_TEMPLATE_INSTANCE, Alpha16, X2, X3, X4, X5)
RASTER_JPEG_OF_TUPLE(template class RASTER_TEMPLATE_INSTANCE, RedUF, GreenUF, BlueUF, AlphaF, X5)
RASTER_JPEG_OF_TUPLE(template class RASTER_TEMPLATE_INSTANCE, AlphaF, X2, X3, X4, X5)
}
