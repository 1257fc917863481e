#pragma once

#include "kernel/Rect.h"
#include "storage/DynamicBitmap.h"

#include <cstddef>
#include <string>

namespace Host {
/// How many tiles of a part of a picture lie in a document and can't be had from there: they read as empty. Loads those
/// of the part that aren't in memory. Throws `Interrupted`.
/// @param area  in pixels.
std::size_t CountDamagedTiles(Raster::DynamicBitmap const & bitmap, Kernel::RectT<int> const & area);
std::size_t CountDamagedTiles(Raster::DynamicBitmap const & bitmap);

/// "a tile", "3 tiles".
std::string SayHowManyTiles(std::size_t count);
}
