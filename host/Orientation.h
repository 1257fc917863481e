/// How EXIF says that a picture is to be turned.
#pragma once

#include "host/Progress.h"
#include "kernel/AffineTransform.h"
#include "storage/DynamicBitmap.h"

namespace Host {
/// Whether width and height change places.
inline bool IsSideways(int orientation) { return orientation >= 5 && orientation <= 8; }

/// Where the pixels of an upright picture come from: its points mapped to those of the picture as it is stored.
/// @param width, height  of the stored picture. @param orientation  1 to 8; others count as 1.
Kernel::AffineTransform::Params GetUprightToStored(int orientation, int width, int height);

/// The picture upright; `bitmap` itself if it is. Pixels are moved, never mixed. Throws `Interrupted`.
Raster::DynamicBitmap MakeUpright(Raster::DynamicBitmap const & bitmap, int orientation, Progress & progress);
}
