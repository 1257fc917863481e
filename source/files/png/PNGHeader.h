#pragma once

#include "pixel/Format.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace Raster {
/// What a PNG says before its pixels come, and in which layout they come: expanded, so that palettes are RGB, grey has
/// at least 8 bits, and a transparent colour is an alpha channel.
struct PNGHeader {
    using Palette = std::array<unsigned char, 256 * 3>;

    int width = 0, height = 0;
    Format format = NoFormat;
    int colourChannels = 0; ///< 1 or 3
    int sampleBytes = 0;    ///< 1 or 2; the high byte comes first
    bool hasAlpha = false;
    bool isInterlaced = false; ///< rows don't come one after another
    double dpi = 0;            ///< 72 if the file has none
    /// The bytes of an embedded profile, not looked into; none if there is none that the codec takes.
    std::optional<std::vector<std::uint8_t>> profile;
    Palette palette{}; ///< zeros behind its last colour, and where the file has none

    int GetChannels() const { return colourChannels + hasAlpha; }
    std::size_t GetPixelBytes() const { return static_cast<std::size_t>(GetChannels() * sampleBytes); }
};
}
