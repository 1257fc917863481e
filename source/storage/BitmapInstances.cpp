#include "storage/Bitmap.inl" // the bodies; no other file includes them

namespace Raster {
#define RASTER_DEFINE_BITMAP(...) template class RASTER_TEMPLATE_INSTANCE Bitmap<__VA_ARGS__>;
RASTER_FOR_EACH_TUPLE(RASTER_DEFINE_BITMAP)
#undef RASTER_DEFINE_BITMAP
}
