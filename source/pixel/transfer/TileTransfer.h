#pragma once

#include "kernel/AffineTransform.h"
#include "pixel/Conversion.h"
#include "pixel/ForEachTile.h"
#include "pixel/transfer/Blend.h"
#include "pixel/transfer/Sampler.h"
#include "storage/BitmapCore.h"

namespace Raster {
/// What all tiles of one transfer have in common: the operands, and the pieces of work that their formats call for,
/// chosen once.
struct TransferJob {
    BitmapCore * dest = nullptr;
    BitmapCore const * source = nullptr;
    float opacity = 1.0f; ///< 0 to 1; exactly 1 is the opaque form
    /// Maps pixels of the destination to the source, unless `isDirect`: then pixel (x, y) is source pixel
    /// (x + offsetX, y + offsetY).
    Kernel::AffineTransform::Params matrix;
    bool isDirect = true;
    int offsetX = 0, offsetY = 0;

    ConvertRows convert = nullptr; ///< null if both formats are the same
    BlendRows blend = nullptr;
    PremultiplyRow premultiply = nullptr;
    SampleRow sample = nullptr;
};

/// Does one tile of a transfer. Rows are written whole: an abort is noticed between rows, and sampled rows come in
/// bands of `sampleBlockSize`. A tile of the destination is not touched where nothing is laid on it.
void TransferTile(TransferJob const & job, TileTask const & task);
}
