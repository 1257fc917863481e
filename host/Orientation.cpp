#include "host/Orientation.h"

#include "host/Signals.h"
#include "pixel/transfer/BitmapTransfer.h"

namespace Host {
Kernel::AffineTransform::Params GetUprightToStored(int orientation, int width, int height) {
    double const w = width, h = height;
    switch (orientation) {
    case 2:
        return {-1, 0, w, 0, 1, 0}; // mirrored
    case 3:
        return {-1, 0, w, 0, -1, h}; // upside down
    case 4:
        return {1, 0, 0, 0, -1, h}; // mirrored upside down
    case 5:
        return {0, 1, 0, 1, 0, 0}; // mirrored along the diagonal
    case 6:
        return {0, 1, 0, -1, 0, h}; // to be turned right
    case 7:
        return {0, -1, w, -1, 0, h}; // mirrored along the other diagonal
    case 8:
        return {0, -1, w, 1, 0, 0}; // to be turned left
    default:
        return {};
    }
}

Raster::DynamicBitmap MakeUpright(Raster::DynamicBitmap const & bitmap, int orientation, Progress & progress) {
    int const width = bitmap.GetWidth(), height = bitmap.GetHeight();
    auto const matrix = GetUprightToStored(orientation, width, height);
    if (matrix.IsIdentity())
        return bitmap;
    bool const isSideways = IsSideways(orientation);
    Raster::DynamicBitmap upright(isSideways ? height : width, isSideways ? width : height, bitmap.GetFormat(),
                                  bitmap.GetMipmapMode(), Raster::HardwareCachePolicy());
    auto const params = progress.GetParams();
    // Centres of pixels land on centres of pixels, so that the sampler gives each pixel as it is.
    Raster::Transfer(upright, bitmap, &params, nullptr, matrix.ToArray().data());
    Signals::ThrowIfAborted();
    return upright;
}
}
