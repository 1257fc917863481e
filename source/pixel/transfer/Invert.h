#pragma once

#include "kernel/Export.h"
#include "storage/DynamicBitmap.h"

namespace Raster {
/// Turns each colour sample v into its channel's maximum minus v, floats too, unclamped; alpha stays. Pixels of alpha
/// 0, and tiles known to be transparent, are left alone; alpha-only formats have nothing to invert. Parallel by tile.
/// Levels are told, and rebuilt at once with mipmap mode 1. A pending bitmap is loaded first.
/// @param abort  null, or a flag that is read once per row; the rows that were done stay inverted.
RASTER_API void Invert(DynamicBitmap & bitmap, bool * abort);
}
