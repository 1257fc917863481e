#include "pixel/Conversion.h"

#include "pixel/kernels/ConvertCMYK.h"
#include "pixel/kernels/ConvertDepth.h"
#include "pixel/kernels/ConvertGrey.h"
#include "pixel/kernels/Interleave.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace Raster {
namespace {
// Pixels that go through the pivot at a time: three runs of floats that stay in the first-level cache.
constexpr std::size_t chunkLength = 512;

using DestPlanes = void * const *;
using SourcePlanes = void const * const *;

void ConvertDepth(float * dest, std::uint8_t const * source, std::size_t count) {
    ConvertDepth8ToFloat(dest, source, count);
}
void ConvertDepth(float * dest, std::uint16_t const * source, std::size_t count) {
    ConvertDepth16ToFloat(dest, source, count);
}
void ConvertDepth(std::uint8_t * dest, float const * source, std::size_t count) {
    ConvertDepthFloatTo8(dest, source, count);
}
void ConvertDepth(std::uint16_t * dest, float const * source, std::size_t count) {
    ConvertDepthFloatTo16(dest, source, count);
}
void ConvertDepth(std::uint16_t * dest, std::uint8_t const * source, std::size_t count) {
    ConvertDepth8To16(dest, source, count);
}
void ConvertDepth(std::uint8_t * dest, std::uint16_t const * source, std::size_t count) {
    ConvertDepth16To8(dest, source, count);
}
template<class Sample>
void ConvertDepth(Sample * dest, Sample const * source, std::size_t count) {
    if (count == spanLength) // needs no call
        std::memcpy(dest, source, spanLength * sizeof(Sample));
    else
        std::memcpy(dest, source, count * sizeof(Sample));
}

/// The depth rule on a whole plane.
template<class D, class S>
void ConvertPlane(void * dest, void const * source, std::size_t count) {
    ConvertDepth(static_cast<typename D::Storage *>(dest), static_cast<typename S::Storage const *>(source), count);
}

/// The same for a colour channel: floats that come from the unbounded are limited where the destination is bounded.
template<class D, class S>
void ConvertColourPlane(void * dest, void const * source, std::size_t count) {
    if constexpr (viewOf<D> == PixelView::RGBAF && std::is_same_v<typename S::Storage, float>)
        ConvertDepthClamp(static_cast<float *>(dest), static_cast<float const *>(source), count);
    else
        ConvertPlane<D, S>(dest, source, count);
}

/// The first planes of a pixel, typed.
template<class Sample, std::size_t planeCount>
struct TypedPlanes {
    Sample * planes[planeCount];
    template<class Plane>
    TypedPlanes(Plane * const * from, std::size_t position) {
        for (std::size_t i = 0; i < planeCount; ++i)
            planes[i] = static_cast<Sample *>(from[i]) + position;
    }
};

/// A run of colours as normalised floats, some of them in place in the source.
struct UnitRun {
    alignas(64) float samples[3][chunkLength]; // a vector that crosses two cache lines costs twice
    float const * planes[3];
};

/// Lab goes through functions that take interleaved pixels; their alpha is not looked at.
struct LabRun {
    std::uint16_t lab[chunkLength * 4];
    float rgb[chunkLength * 4];
};

void LoadLabRun(UnitRun & run, std::uint16_t const * const * source, std::size_t count) {
    LabRun interleaved;
    std::uint16_t const * const rows[4]{source[0], source[1], source[2], source[2]};
    Interleave16(interleaved.lab, rows, 4, count);
    ConvertFromLab(interleaved.rgb, interleaved.lab, count);
    float * const colours[4]{run.samples[0], run.samples[1], run.samples[2], nullptr};
    DeinterleaveColoursFloat(colours, interleaved.rgb, 4, count);
    for (auto & samples : run.samples)
        for (std::size_t i = 0; i < count; ++i)
            samples[i] = Rules::NumberOrZero(samples[i]);
}

void StoreLabRun(std::uint16_t * const * dest, UnitRun const & run, std::size_t count) {
    LabRun interleaved;
    float limited[3][chunkLength];
    for (std::size_t channel = 0; channel < 3; ++channel)
        for (std::size_t i = 0; i < count; ++i)
            limited[channel][i] = Rules::ClampUnit(run.planes[channel][i]);
    float const * const rows[4]{limited[0], limited[1], limited[2], limited[2]};
    InterleaveFloat(interleaved.rgb, rows, 4, count);
    ConvertToLab(interleaved.lab, interleaved.rgb, count);
    std::uint16_t * const colours[4]{dest[0], dest[1], dest[2], nullptr};
    DeinterleaveColours16(colours, interleaved.lab, 4, count);
}

/// The colours of `count` pixels from `position`, `count` being at most `chunkLength`.
template<class S>
void LoadRun(UnitRun & run, SourcePlanes source, std::size_t position, std::size_t count) {
    using Sample = typename S::Storage;
    constexpr std::size_t planeCount = S::colourCount;
    TypedPlanes<Sample const, planeCount> const from(source, position);
    for (int channel = 0; channel < 3; ++channel)
        run.planes[channel] = run.samples[channel];
    if constexpr (familyOf<S> == ColourFamily::Grey) {
        ConvertDepth(run.samples[0], from.planes[0], count);
        run.planes[1] = run.planes[2] = run.samples[0];
    } else if constexpr (familyOf<S> == ColourFamily::CMYK) {
        float * const rgb[]{run.samples[0], run.samples[1], run.samples[2]};
        ConvertCMYKToFloat(rgb, from.planes, count);
    } else if constexpr (familyOf<S> == ColourFamily::Lab) {
        LoadLabRun(run, from.planes, count);
    } else if constexpr (std::is_same_v<Sample, float>) {
        for (int channel = 0; channel < 3; ++channel)
            run.planes[channel] = from.planes[channel];
    } else {
        for (int channel = 0; channel < 3; ++channel)
            ConvertDepth(run.samples[channel], from.planes[channel], count);
    }
}

/// Writes the colour channels of `count` pixels.
template<class D>
void StoreRun(DestPlanes dest, UnitRun const & run, std::size_t position, std::size_t count) {
    TypedPlanes<typename D::Storage, D::colourCount> const to(dest, position);
    if constexpr (viewOf<D> == PixelView::IA8) {
        ConvertGrey8FromFloat(to.planes[0], run.planes[0], run.planes[1], run.planes[2], count);
    } else if constexpr (viewOf<D> == PixelView::IA16) {
        ConvertGrey16FromFloat(to.planes[0], run.planes[0], run.planes[1], run.planes[2], count);
    } else if constexpr (familyOf<D> == ColourFamily::CMYK) {
        ConvertCMYKFromFloat(to.planes, run.planes, count);
    } else if constexpr (familyOf<D> == ColourFamily::Lab) {
        StoreLabRun(to.planes, run, count);
    } else {
        for (int channel = 0; channel < 3; ++channel)
            ConvertColourPlane<D, RGBAUFTuple>(to.planes[channel], run.planes[channel], count);
    }
}

/// The colour channels through the pivot, as many pixels at a time as stay in the cache.
template<class D, class S>
void ConvertThroughPivot(DestPlanes dest, SourcePlanes source, std::size_t count) {
    UnitRun run;
    for (std::size_t position = 0; position < count; position += chunkLength) {
        std::size_t const length = std::min(chunkLength, count - position);
        LoadRun<S>(run, source, position, length);
        StoreRun<D>(dest, run, position, length);
    }
}

/// Alpha alone becomes black: one pixel says how that looks, and fills the planes.
template<class D, class S>
void FillBlack(DestPlanes dest, std::size_t count) {
    PixelOf<D> black{};
    ConvertPixel<D, S>(black, PixelOf<S>{});
    for (std::size_t channel = 0; channel < D::colourCount; ++channel)
        std::fill_n(static_cast<typename D::Storage *>(dest[channel]), count, black[channel]);
}

template<class D>
constexpr bool isGreyOrRGB = familyOf<D> == ColourFamily::Grey || familyOf<D> == ColourFamily::RGB;

template<class D, class S>
void ConvertColours(DestPlanes dest, SourcePlanes source, std::size_t count) {
    constexpr bool channelByChannel =
        (familyOf<D> == ColourFamily::RGB && isGreyOrRGB<S>) || (isGreyOrRGB<D> && familyOf<S> == ColourFamily::Grey);
    constexpr bool bothBytes = sizeof(typename D::Storage) == 1 && sizeof(typename S::Storage) == 1;
    if constexpr (familyOf<D> == ColourFamily::None)
        return;
    else if constexpr (familyOf<S> == ColourFamily::None)
        FillBlack<D, S>(dest, count);
    else if constexpr (channelByChannel)
        for (int channel = 0; channel < D::colourCount; ++channel)
            ConvertColourPlane<D, S>(dest[channel], source[S::colourCount == 1 ? 0 : channel], count);
    else if constexpr (bothBytes && familyOf<D> == ColourFamily::Grey && familyOf<S> == ColourFamily::RGB)
        ConvertGrey8From8(static_cast<std::uint8_t *>(dest[0]), static_cast<std::uint8_t const *>(source[0]),
                          static_cast<std::uint8_t const *>(source[1]), static_cast<std::uint8_t const *>(source[2]),
                          count);
    else if constexpr (bothBytes && familyOf<D> == ColourFamily::CMYK && familyOf<S> == ColourFamily::RGB)
        ConvertCMYKFrom8(TypedPlanes<std::uint8_t, 4>(dest, 0).planes,
                         TypedPlanes<std::uint8_t const, 3>(source, 0).planes, count);
    else if constexpr (bothBytes && familyOf<D> == ColourFamily::RGB && familyOf<S> == ColourFamily::CMYK)
        ConvertCMYKTo8(TypedPlanes<std::uint8_t, 3>(dest, 0).planes,
                       TypedPlanes<std::uint8_t const, 4>(source, 0).planes, count);
    else
        ConvertThroughPivot<D, S>(dest, source, count);
}

template<ViewTuple D, ViewTuple S>
void ConvertRowsOf(DestPlanes dest, SourcePlanes source, std::size_t count) {
    if (count == 0)
        return; // the planes may be null
    if constexpr (std::is_same_v<D, S>) {
        for (int channel = 0; channel < D::channelCount; ++channel)
            ConvertPlane<D, S>(dest[channel], source[channel], count);
    } else {
        ConvertColours<D, S>(dest, source, count);
        ConvertPlane<D, S>(dest[D::alphaIndex - 1], source[S::alphaIndex - 1], count);
    }
}

using Table = std::array<std::array<ConvertRows, viewCount>, viewCount>;

template<class D>
constexpr std::array<ConvertRows, viewCount> rowsTo{
#define RASTER_ENTRY(view) ConvertRowsOf<D, view##Tuple>,
    RASTER_FOR_EACH_VIEW(RASTER_ENTRY)
#undef RASTER_ENTRY
};

constexpr Table table{
#define RASTER_ENTRY(view) rowsTo<view##Tuple>,
    RASTER_FOR_EACH_VIEW(RASTER_ENTRY)
#undef RASTER_ENTRY
};
}

ConvertRows GetConvertRows(PixelView dest, PixelView source) {
    auto const destIndex = static_cast<std::size_t>(dest), sourceIndex = static_cast<std::size_t>(source);
    return destIndex < viewCount && sourceIndex < viewCount ? table[destIndex][sourceIndex] : nullptr;
}

ConvertRows GetConvertRows(Format dest, Format source) { return GetConvertRows(GetView(dest), GetView(source)); }
}
