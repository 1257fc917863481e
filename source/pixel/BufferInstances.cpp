#include "pixel/Buffer.h"

namespace Raster {
#define RASTER_DEFINE_BUFFER(C1, C2, C3, C4, C5) template class RASTER_TEMPLATE_INSTANCE Buffer<C1, C2, C3, C4, C5>;
RASTER_FOR_EACH_TUPLE(RASTER_DEFINE_BUFFER)
#undef RASTER_DEFINE_BUFFER
}
