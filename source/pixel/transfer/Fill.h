#pragma once

#include "kernel/Export.h"
#include "kernel/Rect.h"
#include "pixel/DynamicBuffer.h"
#include "pixel/DynamicPixel.h"
#include "storage/DynamicBitmap.h"

namespace Raster {
/// Lays one colour over a rectangle by the source-over rule, in the view of it that the destination's format shows.
/// Tiles that an opaque colour fills whole share their memory. Levels of a bitmap are told, and rebuilt at once with
/// mipmap mode 1. A pending bitmap is loaded first. Without a format nothing happens.
/// @param rect     in pixels; what lies outside the destination is ignored.
/// @param opacity  clamped to 0 to 1, no number being 0.
RASTER_API void Fill(DynamicBitmap & dest, Kernel::RectT<int> const & rect, DynamicPixel const & colour, float opacity);
RASTER_API void Fill(DynamicBuffer & dest, Kernel::RectT<int> const & rect, DynamicPixel const & colour, float opacity);
}
