#pragma once

#include "storage/PlaneCore.h"

namespace Raster {
/// The tiles of one channel of a bitmap. All its operations are those of `PlaneCore`.
template<class Channel>
class Plane : public PlaneCore {
public:
    Plane(int width, int height) : PlaneCore(width, height, Channel::sampleSize, Channel::kind) {}
};

#define RASTER_DECLARE_PLANE(role, suffix) extern template class RASTER_EXTERN_TEMPLATE Plane<role##suffix>;
RASTER_FOR_EACH_CHANNEL(RASTER_DECLARE_PLANE)
#undef RASTER_DECLARE_PLANE
}
