/// The numbers by which image files name the colour model of a tuple's pixels.
#pragma once

#include "pixel/ChannelTuple.h"

namespace Raster {
/// The answer for a tuple that a file format has no colour type for.
inline constexpr int noColourType = -1;

namespace Internal {
template<class Tuple>
inline constexpr int pngColourType = noColourType;
template<class Tuple>
inline constexpr int nonAlphaPNGColourType = noColourType;
template<class Tuple>
inline constexpr int tiffColourType = noColourType;

// Tuple, PNG colour type, the same without alpha, TIFF photometric interpretation. PNG: 0 grey, 2 RGB, 3 palette,
// 4 grey and alpha, 6 RGB and alpha. TIFF: 1 black is zero, 2 RGB, 5 separated, 8 CIE L*a*b*.
#define RASTER_FOR_EACH_FILE_COLOUR_TYPE(M)                                                                            \
    M(A8Tuple, 0, 0, 1)                                                                                                \
    M(A16Tuple, 0, 0, 1)                                                                                               \
    M(IA8Tuple, 4, 0, 1)                                                                                               \
    M(IA16Tuple, 4, 0, 1)                                                                                              \
    M(RGBA8Tuple, 6, 2, 2)                                                                                             \
    M(RGBA16Tuple, 6, 2, 2)                                                                                            \
    M(RGBAUFTuple, noColourType, noColourType, 2)                                                                      \
    M(CMYKA8Tuple, noColourType, noColourType, 5)                                                                      \
    M(LABA16Tuple, noColourType, noColourType, 8)                                                                      \
    M(ChannelTuple<Index8>, 3, 3, noColourType)

#define RASTER_DEFINE_COLOUR_TYPES(Tuple, png, nonAlphaPNG, tiff)                                                      \
    template<>                                                                                                         \
    inline constexpr int pngColourType<Tuple> = png;                                                                   \
    template<>                                                                                                         \
    inline constexpr int nonAlphaPNGColourType<Tuple> = nonAlphaPNG;                                                   \
    template<>                                                                                                         \
    inline constexpr int tiffColourType<Tuple> = tiff;
RASTER_FOR_EACH_FILE_COLOUR_TYPE(RASTER_DEFINE_COLOUR_TYPES)
#undef RASTER_DEFINE_COLOUR_TYPES
#undef RASTER_FOR_EACH_FILE_COLOUR_TYPE
}

/// The PNG colour type in which pixels of the tuple are written, or `noColourType`.
template<class C1, class C2 = X2, class C3 = X3, class C4 = X4, class C5 = X5>
constexpr int FormatToPNGColourType() {
    return Internal::pngColourType<ChannelTuple<C1, C2, C3, C4, C5>>;
}

/// The PNG colour type in which pixels of the tuple are written when their alpha is left out, or `noColourType`.
template<class C1, class C2 = X2, class C3 = X3, class C4 = X4, class C5 = X5>
constexpr int FormatToNonAlphaPNGColourType() {
    return Internal::nonAlphaPNGColourType<ChannelTuple<C1, C2, C3, C4, C5>>;
}

/// The TIFF photometric interpretation in which pixels of the tuple are written, or `noColourType`.
template<class C1, class C2 = X2, class C3 = X3, class C4 = X4, class C5 = X5>
constexpr int FormatToTIFFColourType() {
    return Internal::tiffColourType<ChannelTuple<C1, C2, C3, C4, C5>>;
}
}
