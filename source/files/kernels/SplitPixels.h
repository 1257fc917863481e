/// Between pixels as codecs keep them, side by side, and one row of samples for each channel.
#pragma once

#include <cstddef>

// Applies M(name, channels, sample): how many samples a pixel has, of which type. Names in 16 say that files keep the
// high byte first; rows have the machine's order.
#define RASTER_FOR_EACH_PIXEL_LAYOUT(M)                                                                                \
    M(IA8, 2, std::uint8_t)                                                                                            \
    M(RGB8, 3, std::uint8_t)                                                                                           \
    M(RGBA8, 4, std::uint8_t)                                                                                          \
    M(I16, 1, std::uint16_t)                                                                                           \
    M(IA16, 2, std::uint16_t)                                                                                          \
    M(RGB16, 3, std::uint16_t)                                                                                         \
    M(RGBA16, 4, std::uint16_t)

namespace Raster {
// SplitRGB8(pixels, count, rows) takes `count` pixels apart into one row for each channel; a null row is left out.
// JoinRGB8(rows, count, pixels) puts them together; no row may be null. In the same way for each layout. Sixteen-bit
// samples are aligned.
#define RASTER_DECLARE_LAYOUT(name, channels, sample)                                                                  \
    void Split##name(unsigned char const * pixels, std::size_t count, void * const * rows);                            \
    void Join##name(void const * const * rows, std::size_t count, unsigned char * pixels);
RASTER_FOR_EACH_PIXEL_LAYOUT(RASTER_DECLARE_LAYOUT)

namespace Scalar {
RASTER_FOR_EACH_PIXEL_LAYOUT(RASTER_DECLARE_LAYOUT)
}
#undef RASTER_DECLARE_LAYOUT
}
