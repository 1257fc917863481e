// The models of 8-bit files, and of tuples of 8 bits that are converted. In two files, so that they compile side by
// side.
#include "files/jpeg/JPEG.h"

namespace Raster {
RASTER_JPEG_OF_TUPLE(template class RASTER_TEMPLATE_INSTANCE, Red8, Green8, Blue8, Alpha8, X5)
RASTER_JPEG_OF_TUPLE(template class RASTER_TEMPLATE_INSTANCE, Intensity8, Alpha8, X3, X4, X5)
RASTER_JPEG_OF_TUPLE(template class RASTER_TEMPLATE_INSTANCE, Cyan8, Magenta8, Yellow8, Black8, Alpha8)
RASTER_JPEG_OF_TUPLE(template class RASTER_TEMPLATE_INSTANCE, Alpha8, X2, X3, X4, X5)
}
