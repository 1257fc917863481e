/// Makes the accessors of the bitmaps of one format. One file for each, so that the build stays parallel.
#pragma once

#include "storage/Bitmap.h"

#define RASTER_DEFINE_CONST_ACCESSOR(Extend, Transform, ...)                                                           \
    template class RASTER_TEMPLATE_INSTANCE ModelConstAccessor<__VA_ARGS__, Extend, Transform>;
#define RASTER_DEFINE_ACCESSORS(Tuple)                                                                                 \
    RASTER_FOR_EACH_CONST_ACCESSOR(RASTER_DEFINE_CONST_ACCESSOR, BitmapOf<Tuple>)                                      \
    template class RASTER_TEMPLATE_INSTANCE ModelAccessor<BitmapOf<Tuple>>;
