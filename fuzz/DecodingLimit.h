#pragma once

#include "files/ImageLimits.h"

#include <cstdint>

namespace Fuzz {
/// No picture may take more than 512 MiB once it is decoded: a run that is given 2 GiB then has enough for several.
inline void LimitDecoding() {
    static bool const isLimited = [] {
        auto limits = Raster::GetImageLimits();
        limits.largestDecodedBytes = std::uint64_t(512) << 20;
        Raster::SetImageLimits(limits);
        return true;
    }();
    static_cast<void>(isLimited);
}
}
