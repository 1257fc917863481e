#pragma once

#include "host/Levels.h"
#include "host/Progress.h"
#include "storage/DynamicBitmap.h"

namespace Host {
/// The picture in another size: halved as often as it takes in each direction, then bilinear. What lies beyond an edge
/// is the edge's own colour, so that edges don't fade.
/// @param bitmap  the picture, halved `level` times. @param from  its size before that. @param to  at least 1 by 1.
/// Throws `Interrupted`.
Raster::DynamicBitmap Resample(Raster::DynamicBitmap const & bitmap, int level, Size const & from, Size const & to,
                               Progress & progress);
}
