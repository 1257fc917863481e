#pragma once

#include "host/Progress.h"
#include "storage/DynamicBitmap.h"

namespace Host {
/// The picture in another size. Shrinking by more than two reads a level of the bitmap, which it has if its mipmap mode
/// is on demand; the rest is bilinear. What lies beyond an edge is the edge's own colour, so that edges don't fade.
/// @param width, height  at least 1. Throws `Interrupted`.
Raster::DynamicBitmap Resample(Raster::DynamicBitmap const & bitmap, int width, int height, Progress & progress);
}
