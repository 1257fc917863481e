/// The filter between two levels of a picture, for one pixel: the mean of 2 by 2 pixels, each counted by its alpha, so
/// that what is transparent doesn't bleed its colour. Sums run top left, top right, bottom left, bottom right.
///
///     a = (a1 + a2 + a3 + a4) / 4                      likewise every channel of a picture without alpha
///     c = (a1 c1 + a2 c2 + a3 c3 + a4 c4) / 4 / a      without the last division if a is 0
///
/// Complex samples are two floats side by side, and each of the two is filtered as if the other were not there: the
/// first of a colour counts by the first of its alpha. A half is computed as a float and rounded once, at the end.
#pragma once

#include "pixel/Half.h"
#include "storage/kernels/ReduceArea.h"

#include <algorithm>
#include <cstdint>

namespace Raster::ReductionRules {
template<class Sample>
struct Rules;

/// Premultiplying by the full alpha is exact, so it needs no test.
template<>
struct Rules<std::uint8_t> {
    using Wide = std::uint32_t;
    static constexpr Wide Widen(std::uint8_t value) { return value; }
    static constexpr std::uint8_t Narrow(Wide value) { return static_cast<std::uint8_t>(value); }
    static constexpr Wide Premultiply(Wide colour, Wide alpha) {
        Wide const product = colour * alpha;
        return (product + 128 + (product >> 8)) >> 8;
    }
    static constexpr Wide Quarter(Wide sum) { return sum >> 2; }
    static constexpr Wide Unpremultiply(Wide colour, Wide alpha) {
        return alpha == 0 || alpha == 255 ? colour : std::min<Wide>(colour * 255 / alpha, 255);
    }
};

template<>
struct Rules<std::uint16_t> {
    using Wide = std::uint32_t; // 65535 * 65535 fits
    static constexpr Wide Widen(std::uint16_t value) { return value; }
    static constexpr std::uint16_t Narrow(Wide value) { return static_cast<std::uint16_t>(value); }
    static constexpr Wide Premultiply(Wide colour, Wide alpha) { return colour * alpha / 65535; }
    static constexpr Wide Quarter(Wide sum) { return sum >> 2; }
    static constexpr Wide Unpremultiply(Wide colour, Wide alpha) {
        return alpha == 0 || alpha == 65535 ? colour : std::min<Wide>(colour * 65535 / alpha, 65535);
    }
};

/// Nothing is clamped: infinities and NaN pass on. Only under an alpha of 0 a colour is 0 whatever it was, since it may
/// well be one of these there and 0 times that is no number.
template<>
struct Rules<float> {
    using Wide = float;
    static constexpr Wide Widen(float value) { return value; }
    static constexpr float Narrow(Wide value) { return value; }
    static constexpr Wide Premultiply(Wide colour, Wide alpha) { return alpha == 0.0f ? 0.0f : colour * alpha; }
    static constexpr Wide Quarter(Wide sum) { return sum / 4.0f; }
    static constexpr Wide Unpremultiply(Wide colour, Wide alpha) {
        return alpha == 0.0f || alpha == 1.0f ? colour : colour / alpha;
    }
};

template<>
struct Rules<Half> : Rules<float> {
    static Wide Widen(Half value) { return ToFloat(value); }
    static Half Narrow(Wide value) { return ToHalf(value); }
};

/// One row of an area's results, from column `begin` up to `end`. Of `parts` numbers that make up a sample it does the
/// one of index `part`.
template<class Number, std::size_t parts = 1>
void ReduceRow(ReductionArea const & area, int y, int begin, int end, std::size_t part = 0) {
    using R = Rules<Number>;
    constexpr std::size_t stride = ReductionArea::stride / sizeof(Number);
    std::size_t const top = static_cast<std::size_t>(2 * y) * stride + part;
    std::size_t const bottom = static_cast<std::size_t>(std::min(2 * y + 1, area.sourceHeight - 1)) * stride + part;
    for (int x = begin; x < end; ++x) {
        std::size_t const left = static_cast<std::size_t>(2 * x) * parts;
        std::size_t const right = static_cast<std::size_t>(std::min(2 * x + 1, area.sourceWidth - 1)) * parts;
        std::size_t const corners[4] = {top + left, top + right, bottom + left, bottom + right};
        std::size_t const result = static_cast<std::size_t>(y) * stride + static_cast<std::size_t>(x) * parts + part;

        auto const sum = [&](int plane, auto && valueOf) {
            auto const samples = static_cast<Number const *>(area.source[plane]);
            auto total = valueOf(samples, corners[0]);
            for (int i = 1; i < 4; ++i)
                total += valueOf(samples, corners[i]);
            return R::Quarter(total);
        };
        auto const plain = [](Number const * samples, std::size_t i) { return R::Widen(samples[i]); };
        auto const store = [&](int plane, typename R::Wide value) {
            static_cast<Number *>(area.dest[plane])[result] = R::Narrow(value);
        };

        if (area.alphaPlane < 0) {
            for (int plane = 0; plane < area.planeCount; ++plane)
                store(plane, sum(plane, plain));
            continue;
        }
        auto const alphas = static_cast<Number const *>(area.source[area.alphaPlane]);
        auto const weighted = [&](Number const * samples, std::size_t i) {
            return R::Premultiply(R::Widen(samples[i]), R::Widen(alphas[i]));
        };
        auto const alpha = sum(area.alphaPlane, plain);
        store(area.alphaPlane, alpha);
        for (int plane = 0; plane < area.planeCount; ++plane)
            if (plane != area.alphaPlane)
                store(plane, R::Unpremultiply(sum(plane, weighted), alpha));
    }
}

template<class Number, std::size_t parts = 1>
void Reduce(ReductionArea const & area) {
    for (int y = 0; y < area.GetDestHeight(); ++y)
        for (std::size_t part = 0; part < parts; ++part)
            ReduceRow<Number, parts>(area, y, 0, area.GetDestWidth(), part);
}
}
