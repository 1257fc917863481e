/// The eleven views of one colour: the ten formats that carry pixels, and RGBAF, the pivot of conversions.
#pragma once

#include "pixel/ChannelTuple.h"

#include <cstdint>

namespace Raster {
/// Applies M(view) to each view, in their order; the tuple of a view is named view##Tuple.
#define RASTER_FOR_EACH_VIEW(M)                                                                                        \
    M(RGBA8) M(RGBA16) M(RGBAF) M(RGBAUF) M(IA8) M(IA16) M(CMYKA8) M(LABA16) M(A8) M(A16) M(AF)

enum class PixelView : std::uint8_t { RGBA8, RGBA16, RGBAF, RGBAUF, IA8, IA16, CMYKA8, LABA16, A8, A16, AF, NoView };

inline constexpr int viewCount = 11;
#define RASTER_COUNT(view) +1
static_assert(viewCount == 0 RASTER_FOR_EACH_VIEW(RASTER_COUNT));
static_assert(viewCount == int(PixelView::NoView));
#undef RASTER_COUNT

/// The view that is laid out as a tuple; `NoView` for the tuples that have none.
template<class Tuple>
inline constexpr PixelView viewOf = PixelView::NoView;
#define RASTER_DEFINE_VIEW(view)                                                                                       \
    template<>                                                                                                         \
    inline constexpr PixelView viewOf<view##Tuple> = PixelView::view;
RASTER_FOR_EACH_VIEW(RASTER_DEFINE_VIEW)
#undef RASTER_DEFINE_VIEW

/// A tuple between which and every other view there is a conversion.
template<class Tuple>
concept ViewTuple = (viewOf<Tuple> != PixelView::NoView);

/// The view of a format; `NoView` for `NoFormat` and for values above 10.
constexpr PixelView GetView(Format format) {
    switch (format) {
    case RGBA8:
        return PixelView::RGBA8;
    case RGBA16:
        return PixelView::RGBA16;
    case IA8:
        return PixelView::IA8;
    case IA16:
        return PixelView::IA16;
    case CMYKA8:
        return PixelView::CMYKA8;
    case LABA16:
        return PixelView::LABA16;
    case A8:
        return PixelView::A8;
    case A16:
        return PixelView::A16;
    case RGBAUF:
        return PixelView::RGBAUF;
    case AF:
        return PixelView::AF;
    default:
        return PixelView::NoView;
    }
}

/// How the colour channels of a tuple are to be understood.
enum class ColourFamily : std::uint8_t { None, Grey, RGB, CMYK, Lab };

template<ViewTuple Tuple>
inline constexpr ColourFamily familyOf = Tuple::First::role == ChannelRole::Intensity   ? ColourFamily::Grey
                                         : Tuple::First::role == ChannelRole::Red       ? ColourFamily::RGB
                                         : Tuple::First::role == ChannelRole::Cyan      ? ColourFamily::CMYK
                                         : Tuple::First::role == ChannelRole::Lightness ? ColourFamily::Lab
                                                                                        : ColourFamily::None;
}
