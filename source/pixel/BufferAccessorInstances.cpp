#include "pixel/Buffer.h"

namespace Raster {
#define RASTER_DEFINE_CONST_ACCESSOR(Extend, Transform, ...)                                                           \
    template class RASTER_TEMPLATE_INSTANCE ModelConstAccessor<Buffer<__VA_ARGS__>, Extend, Transform>;
#define RASTER_DEFINE_ACCESSORS(format, ...)                                                                           \
    RASTER_FOR_EACH_CONST_ACCESSOR(RASTER_DEFINE_CONST_ACCESSOR, __VA_ARGS__)                                          \
    template class RASTER_TEMPLATE_INSTANCE ModelAccessor<Buffer<__VA_ARGS__>>;
RASTER_FOR_EACH_FORMAT(RASTER_DEFINE_ACCESSORS)
}
