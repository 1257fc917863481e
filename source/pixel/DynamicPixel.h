#pragma once

#include "kernel/Export.h"
#include "kernel/String.h"
#include "pixel/Pixel.h"
#include "pixel/PixelView.h"

namespace Raster {
/// One colour in all eleven views at once, for callers that learn at run time in which one they need it. A plain value
/// of 72 bytes; the default is zero in every view.
///
/// Assigning a pixel of any view stores that view as given and computes each of the others directly from it by
/// `ConvertPixel`. A write through a reference to one view leaves the other views as they were; assigning that view
/// again brings them up to date.
class RASTER_API DynamicPixel {
public:
    DynamicPixel() noexcept = default;
    DynamicPixel(DynamicPixel const &) noexcept = default;
    DynamicPixel & operator=(DynamicPixel const &) noexcept = default;

#define RASTER_DECLARE_VIEW(view)                                                                                      \
    DynamicPixel(PixelOf<view##Tuple> const & pixel) { *this = pixel; }                                                \
    DynamicPixel & operator=(PixelOf<view##Tuple> const & pixel);                                                      \
    operator PixelOf<view##Tuple> &() noexcept { return pixel##view; }                                                 \
    operator PixelOf<view##Tuple> *() noexcept { return &pixel##view; }                                                \
    operator PixelOf<view##Tuple> const &() const noexcept { return pixel##view; }
    RASTER_FOR_EACH_VIEW(RASTER_DECLARE_VIEW)
#undef RASTER_DECLARE_VIEW

    Kernel::StringUtf8 GetDescription() const { return "DynamicPixel"; }

private:
    template<ViewTuple Source>
    DynamicPixel & Assign(PixelOf<Source> source);

#define RASTER_DECLARE_MEMBER(view) PixelOf<view##Tuple> pixel##view{};
    RASTER_FOR_EACH_VIEW(RASTER_DECLARE_MEMBER)
#undef RASTER_DECLARE_MEMBER
};
}
