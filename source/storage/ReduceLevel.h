#pragma once

#include "kernel/Rect.h"

namespace Raster {
class BitmapCore;

/// Filters `rect` of a level anew from the level before, or the bitmap itself, in parallel by the tiles of the level.
/// Afterwards the tiles that were written are scrubbed.
/// @param rect   within the level
/// @param level  of the same tuple as the source, and half its size, rounded up
/// @param abort  null, or a flag that is read between parts of tiles; what is written by then stays
void ReduceLevel(BitmapCore & level, BitmapCore const & source, Kernel::RectT<int> const & rect, bool * abort);
}
