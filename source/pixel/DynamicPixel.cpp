#include "pixel/DynamicPixel.h"

#include "pixel/Conversion.h"

namespace Raster {
static_assert(sizeof(DynamicPixel) == 72, "the eleven views stand side by side, padded to their samples only");

// The source comes by value: it may be one of the views that are about to be written.
template<ViewTuple Source>
DynamicPixel & DynamicPixel::Assign(PixelOf<Source> source) {
#define RASTER_CONVERT(view) ConvertPixel<view##Tuple, Source>(pixel##view, source);
    RASTER_FOR_EACH_VIEW(RASTER_CONVERT)
#undef RASTER_CONVERT
    return *this;
}

#define RASTER_DEFINE_ASSIGNMENT(view)                                                                                 \
    DynamicPixel & DynamicPixel::operator=(PixelOf<view##Tuple> const & pixel) { return Assign<view##Tuple>(pixel); }
RASTER_FOR_EACH_VIEW(RASTER_DEFINE_ASSIGNMENT)
#undef RASTER_DEFINE_ASSIGNMENT
}
