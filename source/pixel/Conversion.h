/// Conversions between the eleven views of a colour: for one pixel, for a span, for rows of any length.
///
/// Equal views are copied. All else goes through normalised float RGB without being quantised in between, alpha
/// separately by the depth rule. docs/conversions.md tells the rules.
#pragma once

#include "kernel/Export.h"
#include "pixel/ConversionRules.h"
#include "pixel/LabSeam.h"
#include "pixel/Pixel.h"
#include "pixel/PixelView.h"

#include <cstddef>
#include <type_traits>

namespace Raster {
namespace Rules {
inline UnitRGB FromLab(std::uint16_t lightness, std::uint16_t aOpponent, std::uint16_t bOpponent) {
    std::uint16_t const lab[4]{lightness, aOpponent, bOpponent, 0};
    float rgb[4]{};
    ConvertFromLab(rgb, lab, 1);
    return {NumberOrZero(rgb[0]), NumberOrZero(rgb[1]), NumberOrZero(rgb[2])};
}

/// The colour of a pixel. Unbounded sources, and Lab, may give values outside 0 to 1. Alpha alone is black.
template<ViewTuple S>
UnitRGB ToUnitRGB(PixelOf<S> const & source) {
    if constexpr (familyOf<S> == ColourFamily::RGB)
        return {ToUnit(source[0]), ToUnit(source[1]), ToUnit(source[2])};
    else if constexpr (familyOf<S> == ColourFamily::Grey)
        return {ToUnit(source[0]), ToUnit(source[0]), ToUnit(source[0])};
    else if constexpr (familyOf<S> == ColourFamily::CMYK)
        return FromCMYK({source[0], source[1], source[2], source[3]});
    else if constexpr (familyOf<S> == ColourFamily::Lab)
        return FromLab(source[0], source[1], source[2]);
    else
        return {0, 0, 0};
}

/// Writes the colour channels of `dest` and leaves its alpha. Only RGBAUF keeps what lies outside 0 to 1.
template<ViewTuple D>
void FromUnitRGB(PixelOf<D> & dest, UnitRGB colour) {
    using Sample = typename D::Storage;
    if constexpr (viewOf<D> != PixelView::RGBAUF)
        colour = ClampUnit(colour);
    if constexpr (familyOf<D> == ColourFamily::RGB) {
        dest[0] = FromUnit<Sample>(colour.red);
        dest[1] = FromUnit<Sample>(colour.green);
        dest[2] = FromUnit<Sample>(colour.blue);
    } else if constexpr (viewOf<D> == PixelView::IA8) {
        dest[0] = ToGrey8(colour);
    } else if constexpr (viewOf<D> == PixelView::IA16) {
        dest[0] = ToGrey16(colour);
    } else if constexpr (familyOf<D> == ColourFamily::CMYK) {
        auto const inks = ToCMYK(colour);
        dest[0] = inks.cyan;
        dest[1] = inks.magenta;
        dest[2] = inks.yellow;
        dest[3] = inks.black;
    } else if constexpr (familyOf<D> == ColourFamily::Lab) {
        float const rgb[4]{colour.red, colour.green, colour.blue, 0};
        ConvertToLab(dest.channels, rgb, 1);
    }
}
}

/// One pixel, D and S being tuples of views: `ConvertPixel<IA8Tuple, RGBA8Tuple>(grey, colour)`.
template<ViewTuple D, ViewTuple S>
void ConvertPixel(PixelOf<D> & dest, PixelOf<S> const & source) {
    if constexpr (std::is_same_v<D, S>) {
        dest = source;
    } else {
        if constexpr (familyOf<D> == ColourFamily::Grey && familyOf<S> == ColourFamily::Grey)
            dest[0] = Rules::ConvertSample<typename D::Storage>(source[0]); // no weighting: neutral stays neutral
        else
            Rules::FromUnitRGB<D>(dest, Rules::ToUnitRGB<S>(source));
        dest[D::alphaIndex - 1] = Rules::ConvertSample<typename D::Storage>(source[S::alphaIndex - 1]);
    }
}

/// Converts `count` pixels that lie in planes: one pointer per real channel, in the order of the tuple, to `count`
/// samples that are aligned as their type. The planes of `dest` overlap nothing; source planes may be the same one.
/// Lists and planes may be anything if `count` is 0. Any thread may call. The result is that of `ConvertPixel`, to the
/// bit, on every machine. One call for a long row costs less than many for short ones.
using ConvertRows = void (*)(void * const * dest, void const * const * source, std::size_t count);

/// The conversion between two views or formats, never null for those that carry pixels; null for `NoView`, `NoFormat`
/// and values beyond.
RASTER_API ConvertRows GetConvertRows(PixelView dest, PixelView source);
RASTER_API ConvertRows GetConvertRows(Format dest, Format source);

/// 32 pixels in planar form. The spans don't overlap.
template<ViewTuple D, ViewTuple S>
void ConvertSpan(PlanarPixelSpanOf<D> & dest, PlanarPixelSpanOf<S> const & source) {
    void * destPlanes[D::channelCount];
    void const * sourcePlanes[S::channelCount];
    for (int channel = 0; channel < D::channelCount; ++channel)
        destPlanes[channel] = dest.runs[channel];
    for (int channel = 0; channel < S::channelCount; ++channel)
        sourcePlanes[channel] = source.runs[channel];
    GetConvertRows(viewOf<D>, viewOf<S>)(destPlanes, sourcePlanes, spanLength);
}
}
