#pragma once

#include "kernel/Rect.h"

namespace Raster {
/// The bounding box, in byte columns and rows, of what is of interest within `width` bytes and `height` rows of a
/// buffer with 256 bytes from row to row. The buffer has 65536 bytes; width and height are 0 to 256. The zero rect if
/// nothing is of interest.
Kernel::RectT<int> ScanNonZeroRect(void const * buffer, int width, int height);   ///< Bytes that aren't 0.
Kernel::RectT<int> ScanBelowFullRect(void const * buffer, int width, int height); ///< Bytes below 255.
/// Floats below 1.0, which NaN isn't. A float counts if it begins left of `width`; the rect ends there at the latest.
Kernel::RectT<int> ScanBelowOneRect(void const * buffer, int width, int height);

/// The definitions of the three, byte by byte or nearly so.
namespace Scalar {
Kernel::RectT<int> ScanNonZeroRect(void const * buffer, int width, int height);
Kernel::RectT<int> ScanBelowFullRect(void const * buffer, int width, int height);
Kernel::RectT<int> ScanBelowOneRect(void const * buffer, int width, int height);
}
}
