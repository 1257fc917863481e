#pragma once

#include "kernel/Export.h"
#include "pixel/TransferParams.h"
#include "storage/DynamicBitmap.h"

namespace Raster {
/// Replaces the pixels of `dest` by those of `source`, colours going through a transform of the colour manager and
/// alpha through the plain rule of depths. No blending, no sampling: pixel (x, y) becomes pixel (x, y), within the clip
/// and both sizes. Parallel by tile, with the same result for any number of threads. Where the source is known to be
/// transparent the destination becomes empty, and so it does if the source may stay unloaded and is. Levels are told;
/// pending bitmaps are loaded first, as in `Transfer`.
/// @param transform  from `ICCManager::GetTransformForProfiles` for the two formats; null converts by formula.
/// @param params     may be null. An abort leaves whole rows, and is read once per row of a tile.
RASTER_API void TransferManaged(DynamicBitmap & dest, DynamicBitmap const & source, void * transform,
                                TransferParams const * params);
}
