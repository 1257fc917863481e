/// Channel tuples: what a pixel consists of, at compile time.
#pragma once

#include "pixel/Channel.h"
#include "pixel/Format.h"

#include <concepts>
#include <cstddef>

namespace Raster {
/// Five channel types, the unused positions padded with placeholders. All real channels of a tuple share one sample
/// type, and stand before the placeholders.
template<class C1, class C2 = X2, class C3 = X3, class C4 = X4, class C5 = X5>
struct ChannelTuple {
    /// Another template over the same five channels: `Tuple::Apply<Bitmap>`.
    template<template<class, class, class, class, class> class Template>
    using Apply = Template<C1, C2, C3, C4, C5>;
    /// Calls `function(C1(), C2(), C3(), C4(), C5())`.
    template<class Function>
    static constexpr auto Expand(Function && function) {
        return function(C1(), C2(), C3(), C4(), C5());
    }

    using First = C1;
    using Storage = typename C1::Storage;
    static constexpr SampleType sampleType = C1::sampleType;
    static constexpr ChannelKind kind = C1::kind;
    static constexpr int sampleSize = C1::sampleSize; ///< bytes
    static constexpr int channelCount = C1::isPresent + C2::isPresent + C3::isPresent + C4::isPresent + C5::isPresent;
    static constexpr std::size_t pixelSize = std::size_t(channelCount) * sampleSize; ///< bytes, interleaved
    /// The position of alpha, counted from 1; 0 if the tuple has none.
    static constexpr int alphaIndex = C1::role == ChannelRole::Alpha   ? 1
                                      : C2::role == ChannelRole::Alpha ? 2
                                      : C3::role == ChannelRole::Alpha ? 3
                                      : C4::role == ChannelRole::Alpha ? 4
                                      : C5::role == ChannelRole::Alpha ? 5
                                                                       : 0;
    static constexpr bool hasAlpha = alphaIndex != 0;
    static constexpr int colourCount = channelCount - (hasAlpha ? 1 : 0);

    template<class C>
    static constexpr bool fits = !C::isPresent || C::sampleType == C1::sampleType;
    static_assert(fits<C2> && fits<C3> && fits<C4> && fits<C5>, "the channels of a tuple share one sample type");
};

using RGBA8Tuple = ChannelTuple<Red8, Green8, Blue8, Alpha8>;
using RGBA16Tuple = ChannelTuple<Red16, Green16, Blue16, Alpha16>;
using IA8Tuple = ChannelTuple<Intensity8, Alpha8>;
using IA16Tuple = ChannelTuple<Intensity16, Alpha16>;
using CMYKA8Tuple = ChannelTuple<Cyan8, Magenta8, Yellow8, Black8, Alpha8>;
using LABA16Tuple = ChannelTuple<Lightness16, AOpponent16, BOpponent16, Alpha16>;
using A8Tuple = ChannelTuple<Alpha8>;
using A16Tuple = ChannelTuple<Alpha16>;
using RGBAUFTuple = ChannelTuple<RedUF, GreenUF, BlueUF, AlphaF>;
using AFTuple = ChannelTuple<AlphaF>;
/// The pivot of conversions. It has no `Format` on purpose.
using RGBAFTuple = ChannelTuple<RedF, GreenF, BlueF, AlphaF>;

/// Applies M(format, C1, C2, C3, C4, C5) to each of the ten formats that carry pixels, in the order of their numbers.
#define RASTER_FOR_EACH_FORMAT(M)                                                                                      \
    M(RGBA8, Red8, Green8, Blue8, Alpha8, X5)                                                                          \
    M(RGBA16, Red16, Green16, Blue16, Alpha16, X5)                                                                     \
    M(IA8, Intensity8, Alpha8, X3, X4, X5)                                                                             \
    M(IA16, Intensity16, Alpha16, X3, X4, X5)                                                                          \
    M(CMYKA8, Cyan8, Magenta8, Yellow8, Black8, Alpha8)                                                                \
    M(LABA16, Lightness16, AOpponent16, BOpponent16, Alpha16, X5)                                                      \
    M(A8, Alpha8, X2, X3, X4, X5)                                                                                      \
    M(A16, Alpha16, X2, X3, X4, X5)                                                                                    \
    M(RGBAUF, RedUF, GreenUF, BlueUF, AlphaF, X5)                                                                      \
    M(AF, AlphaF, X2, X3, X4, X5)

/// Applies M(C1, C2, C3, C4, C5) to each of the 73 tuples. The two-channel generic tuples spell their fourth position
/// X5.
#define RASTER_FOR_EACH_TUPLE(M)                                                                                       \
    M(Red8, Green8, Blue8, Alpha8, X5)                                                                                 \
    M(Red8, Green8, Blue8, X4, X5)                                                                                     \
    M(Red16, Green16, Blue16, Alpha16, X5)                                                                             \
    M(Red16, Green16, Blue16, X4, X5)                                                                                  \
    M(Blue8, Green8, Red8, Alpha8, X5)                                                                                 \
    M(Alpha8, Red8, Green8, Blue8, X5)                                                                                 \
    M(RedF, GreenF, BlueF, AlphaF, X5)                                                                                 \
    M(RedF, GreenF, BlueF, X4, X5)                                                                                     \
    M(RedUF, GreenUF, BlueUF, AlphaF, X5)                                                                              \
    M(RedUF, GreenUF, BlueUF, X4, X5)                                                                                  \
    M(RedUH, GreenUH, BlueUH, AlphaH, X5)                                                                              \
    M(RedUH, GreenUH, BlueUH, X4, X5)                                                                                  \
    M(RedComplexUF, GreenComplexUF, BlueComplexUF, AlphaComplexUF, X5)                                                 \
    M(RedComplexUF, GreenComplexUF, BlueComplexUF, X4, X5)                                                             \
    M(RedF, YellowF, BlueF, AlphaF, X5)                                                                                \
    M(Intensity8, Alpha8, X3, X4, X5)                                                                                  \
    M(Intensity8, X2, X3, X4, X5)                                                                                      \
    M(Intensity16, Alpha16, X3, X4, X5)                                                                                \
    M(Intensity16, X2, X3, X4, X5)                                                                                     \
    M(IntensityF, AlphaF, X3, X4, X5)                                                                                  \
    M(IntensityF, X2, X3, X4, X5)                                                                                      \
    M(IntensityUF, AlphaF, X3, X4, X5)                                                                                 \
    M(IntensityUF, X2, X3, X4, X5)                                                                                     \
    M(IntensityH, AlphaH, X3, X4, X5)                                                                                  \
    M(IntensityUH, X2, X3, X4, X5)                                                                                     \
    M(IntensityComplexUF, AlphaComplexUF, X3, X4, X5)                                                                  \
    M(Cyan8, Magenta8, Yellow8, Black8, Alpha8)                                                                        \
    M(Cyan8, Magenta8, Yellow8, Black8, X5)                                                                            \
    M(CyanF, MagentaF, YellowF, BlackF, AlphaF)                                                                        \
    M(CyanF, MagentaF, YellowF, BlackF, X5)                                                                            \
    M(CyanComplexUF, MagentaComplexUF, YellowComplexUF, BlackComplexUF, AlphaComplexUF)                                \
    M(CyanComplexUF, MagentaComplexUF, YellowComplexUF, BlackComplexUF, X5)                                            \
    M(Lightness16, AOpponent16, BOpponent16, Alpha16, X5)                                                              \
    M(Lightness16, AOpponent16, BOpponent16, X4, X5)                                                                   \
    M(LightnessF, AOpponentF, BOpponentF, AlphaF, X5)                                                                  \
    M(LightnessF, AOpponentF, BOpponentF, X4, X5)                                                                      \
    M(Lightness16, X2, X3, X4, X5)                                                                                     \
    M(AOpponent16, BOpponent16, X3, X4, X5)                                                                            \
    M(HueF, SaturationF, LuminosityF, AlphaF, X5)                                                                      \
    M(HueF, SaturationF, ValueF, AlphaF, X5)                                                                           \
    M(HueF, ChromaUF, LuminosityUF, AlphaF, X5)                                                                        \
    M(HueF, ChromaUF, ValueUF, AlphaF, X5)                                                                             \
    M(Alpha8, X2, X3, X4, X5)                                                                                          \
    M(Alpha16, X2, X3, X4, X5)                                                                                         \
    M(AlphaF, X2, X3, X4, X5)                                                                                          \
    M(AlphaH, X2, X3, X4, X5)                                                                                          \
    M(AlphaComplexUF, X2, X3, X4, X5)                                                                                  \
    M(Index8, X2, X3, X4, X5)                                                                                          \
    M(Index16, X2, X3, X4, X5)                                                                                         \
    M(IndexX16, X2, X3, X4, X5)                                                                                        \
    M(IndexY16, X2, X3, X4, X5)                                                                                        \
    M(IndexX16, IndexY16, X3, X4, X5)                                                                                  \
    M(IndexXF, IndexYF, X3, X4, X5)                                                                                    \
    M(ChannelOne8, X2, X3, X4, X5)                                                                                     \
    M(ChannelOne8, ChannelTwo8, X3, X5, X5)                                                                            \
    M(ChannelOne8, ChannelTwo8, ChannelThree8, X4, X5)                                                                 \
    M(ChannelOne8, ChannelTwo8, ChannelThree8, ChannelFour8, X5)                                                       \
    M(ChannelOne8, ChannelTwo8, ChannelThree8, ChannelFour8, ChannelFive8)                                             \
    M(ChannelOne16, X2, X3, X4, X5)                                                                                    \
    M(ChannelOne16, ChannelTwo16, X3, X5, X5)                                                                          \
    M(ChannelOne16, ChannelTwo16, ChannelThree16, X4, X5)                                                              \
    M(ChannelOne16, ChannelTwo16, ChannelThree16, ChannelFour16, X5)                                                   \
    M(ChannelOne16, ChannelTwo16, ChannelThree16, ChannelFour16, ChannelFive16)                                        \
    M(ChannelOneUF, X2, X3, X4, X5)                                                                                    \
    M(ChannelOneUF, ChannelTwoUF, X3, X5, X5)                                                                          \
    M(ChannelOneUF, ChannelTwoUF, ChannelThreeUF, X4, X5)                                                              \
    M(ChannelOneUF, ChannelTwoUF, ChannelThreeUF, ChannelFourUF, X5)                                                   \
    M(ChannelOneUF, ChannelTwoUF, ChannelThreeUF, ChannelFourUF, ChannelFiveUF)                                        \
    M(ChannelOneUH, X2, X3, X4, X5)                                                                                    \
    M(ChannelOneUH, ChannelTwoUH, X3, X5, X5)                                                                          \
    M(ChannelOneUH, ChannelTwoUH, ChannelThreeUH, X4, X5)                                                              \
    M(ChannelOneUH, ChannelTwoUH, ChannelThreeUH, ChannelFourUH, X5)                                                   \
    M(ChannelOneUH, ChannelTwoUH, ChannelThreeUH, ChannelFourUH, ChannelFiveUH)

/// The `Format` that stands for a tuple; `NoFormat` for the 63 tuples that have none.
template<class Tuple>
inline constexpr Format formatOf = NoFormat;
/// The tuple that a `Format` stands for. `NoFormat` has none.
template<Format>
struct TupleOfFormat;

#define RASTER_DEFINE_FORMAT(format, C1, C2, C3, C4, C5)                                                               \
    template<>                                                                                                         \
    inline constexpr Format formatOf<ChannelTuple<C1, C2, C3, C4, C5>> = format;                                       \
    template<>                                                                                                         \
    struct TupleOfFormat<format> {                                                                                     \
        using Type = ChannelTuple<C1, C2, C3, C4, C5>;                                                                 \
    };
RASTER_FOR_EACH_FORMAT(RASTER_DEFINE_FORMAT)
#undef RASTER_DEFINE_FORMAT

/// The one switch behind every format-erased operation: calls `function(Tuple())` with the tuple of `format` and
/// returns what it returns. `NoFormat` and values above 10 have no arm: they give a value-initialised result.
template<class Function>
constexpr auto VisitFormat(Format format, Function && function) -> decltype(function(RGBA8Tuple())) {
    switch (format) {
#define RASTER_VISIT_ARM(format, C1, C2, C3, C4, C5)                                                                   \
    case format:                                                                                                       \
        return function(ChannelTuple<C1, C2, C3, C4, C5>());
        RASTER_FOR_EACH_FORMAT(RASTER_VISIT_ARM)
#undef RASTER_VISIT_ARM
    default:
        return decltype(function(RGBA8Tuple()))();
    }
}

/// What untyped code needs to know of a tuple.
struct TupleLayout {
    int channelCount; ///< real channels, and so planes
    int sampleSize;   ///< bytes of one sample: 1, 2, 4 or 8
    SampleType sampleType;
    ChannelKind kind;
    int alphaIndex; ///< position of alpha counted from 1; 0 if there is none
    Format format;  ///< `NoFormat` if the tuple has none
    constexpr std::size_t GetPixelSize() const { return std::size_t(channelCount) * std::size_t(sampleSize); }
    constexpr bool operator==(TupleLayout const &) const = default;
};

template<class Tuple>
inline constexpr TupleLayout layoutOf{Tuple::channelCount, Tuple::sampleSize, Tuple::sampleType,
                                      Tuple::kind,         Tuple::alphaIndex, formatOf<Tuple>};
}
