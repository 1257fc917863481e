/// The rules of bilinear sampling for one pixel.
#pragma once

#include "pixel/transfer/Sampler.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace Raster::SampleRules {
/// Positions beyond this have no fraction worth speaking of; they count as outside.
inline constexpr float farthest = 16777216.0f;

/// Whole part of a position whose half pixel was taken off: the floor, but an exact negative whole number lands one
/// lower, with a fraction of 1 and so with the same sample.
inline std::int32_t ToCell(float position) {
    return static_cast<std::int32_t>(position >= 0.0f ? position : position - 1.0f);
}

template<class Sample>
inline constexpr SampleType sampleTypeOf = std::is_same_v<Sample, std::uint8_t>    ? SampleType::Integer8
                                           : std::is_same_v<Sample, std::uint16_t> ? SampleType::Integer16
                                                                                   : SampleType::Float;

template<class Sample>
inline constexpr float maximum = std::is_floating_point_v<Sample> ? 1.0f : float(std::numeric_limits<Sample>::max());

/// A colour, weighted by an alpha that is neither 0 nor full.
inline float Premultiply(float colour, float alpha, std::uint8_t) { return colour * alpha * 0.003921569f; }
inline float Premultiply(float colour, float alpha, std::uint16_t) { return colour * alpha * 1.5259022e-5f; }
inline float Premultiply(float colour, float alpha, float) { return colour * alpha; }

/// Integers are rounded to nearest, halves to even, and saturate; floats stay.
template<class Sample>
Sample ToSample(float value) {
    if constexpr (std::is_floating_point_v<Sample>)
        return value;
    else
        return static_cast<Sample>(std::nearbyint(value > 0.0f ? std::min(value, maximum<Sample>) : 0.0f));
}

/// The colour that belongs to a premultiplied sum. Integers cannot pass their maximum; floats may.
template<class Sample>
float Unpremultiply(float colour, float alpha) {
    if (alpha == 0.0f || alpha == maximum<Sample>)
        return colour;
    float const value = colour * maximum<Sample> * (1.0f / alpha);
    if constexpr (std::is_floating_point_v<Sample>)
        return value;
    else
        return std::min(value, maximum<Sample>);
}

/// The weights of the four pixels of a cell, in the order of summation.
struct Weights {
    float topLeft, topRight, bottomLeft, bottomRight;
};
inline Weights ToWeights(float fx, float fy) {
    return {(1.0f - fy) * (1.0f - fx), (1.0f - fy) * fx, fy * (1.0f - fx), fy * fx};
}

/// Adds a weighted sample. One without weight is not multiplied: it may be infinite.
inline float Accumulate(float sum, float weight, float sample) { return weight == 0.0f ? sum : sum + weight * sample; }
}
