#pragma once

#include "kernel/Export.h"

#include <cstdint>

namespace Raster {
/// A pixel format that is known at run time. Each value but `NoFormat` stands for one channel tuple; the numbers are
/// stored in files.
enum Format : std::uint32_t {
    RGBA8 = 0,
    RGBA16 = 1,
    IA8 = 2,
    IA16 = 3,
    CMYKA8 = 4,
    LABA16 = 5,
    A8 = 6,
    A16 = 7,
    NoFormat = 8, ///< no pixels; whatever is asked of it, the answer is empty
    RGBAUF = 9,
    AF = 10
};

/// One above the largest `Format`.
inline constexpr std::uint32_t formatCount = 11;

enum ColourSpace : std::uint32_t {
    ColourSpaceNone = 0, ///< alpha-only formats and `NoFormat`
    ColourSpaceGrey = 1,
    ColourSpaceRGB = 2,
    ColourSpaceCMYK = 3,
    ColourSpaceLAB = 4,
    ColourSpaceRGBUF = 5
};
}
