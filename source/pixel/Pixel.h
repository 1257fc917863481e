/// Pixels and spans: the plain records that accessors fill.
#pragma once

#include "pixel/ChannelTuple.h"

#include <cstddef>

namespace Raster {
/// One pixel: a sample for each real channel, in tuple order. As large as the channels together.
template<class C1, class C2 = X2, class C3 = X3, class C4 = X4, class C5 = X5>
struct Pixel {
    using Tuple = ChannelTuple<C1, C2, C3, C4, C5>;
    using Storage = typename Tuple::Storage;

    Storage channels[Tuple::channelCount];

    constexpr Storage & operator[](std::size_t channel) { return channels[channel]; }
    constexpr Storage const & operator[](std::size_t channel) const { return channels[channel]; }
    constexpr bool operator==(Pixel const &) const = default;
};

/// The same pixel as floats. These are the raw channel values as numbers, not normalised: a `Red8` of 200 is 200.0.
template<class C1, class C2 = X2, class C3 = X3, class C4 = X4, class C5 = X5>
struct FloatPixel {
    using Tuple = ChannelTuple<C1, C2, C3, C4, C5>;

    float channels[Tuple::channelCount];

    constexpr float & operator[](std::size_t channel) { return channels[channel]; }
    constexpr float const & operator[](std::size_t channel) const { return channels[channel]; }
    constexpr bool operator==(FloatPixel const &) const = default;
};

/// The number of pixels in a span, everywhere.
inline constexpr int spanLength = 32;

/// 32 pixels side by side.
template<class C1, class C2 = X2, class C3 = X3, class C4 = X4, class C5 = X5>
struct InterleavedPixelSpan {
    using Tuple = ChannelTuple<C1, C2, C3, C4, C5>;

    Pixel<C1, C2, C3, C4, C5> pixels[spanLength];

    constexpr bool operator==(InterleavedPixelSpan const &) const = default;
};

/// 32 pixels as one run of 32 samples for each real channel, run after run in tuple order.
template<class C1, class C2 = X2, class C3 = X3, class C4 = X4, class C5 = X5>
struct PlanarPixelSpan {
    using Tuple = ChannelTuple<C1, C2, C3, C4, C5>;
    using Storage = typename Tuple::Storage;

    Storage runs[Tuple::channelCount][spanLength];

    constexpr bool operator==(PlanarPixelSpan const &) const = default;
};

template<class Tuple>
using PixelOf = typename Tuple::template Apply<Pixel>;
template<class Tuple>
using FloatPixelOf = typename Tuple::template Apply<FloatPixel>;
template<class Tuple>
using InterleavedPixelSpanOf = typename Tuple::template Apply<InterleavedPixelSpan>;
template<class Tuple>
using PlanarPixelSpanOf = typename Tuple::template Apply<PlanarPixelSpan>;
}
