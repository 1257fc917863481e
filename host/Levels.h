/// Pictures in halves of halves of their size, for those who want them small.
#pragma once

#include "files/DynamicFile.h"
#include "host/Progress.h"
#include "storage/DynamicBitmap.h"

namespace Host {
/// Of a picture, in pixels.
struct Size {
    int width = 0, height = 0;
};

/// How often a picture can be halved without getting coarser than the result, by the direction in which it shrinks
/// less: the level that a transfer with a matrix would read. No more levels than a bitmap of that size has.
int ChooseLevel(Size const & from, Size const & to);

/// The picture in a file, halved that often, by the same rule and with the same bits as a bitmap's own levels. It is
/// drawn in bands, so that the picture as a bitmap never is in memory; level 0 is the whole of it. No pixels if the
/// file failed. Throws what the file throws, and `Interrupted`.
Raster::DynamicBitmap DrawLevel(Raster::DynamicFile & file, int level, Progress & progress);
}
