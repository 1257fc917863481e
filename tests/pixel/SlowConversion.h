/// The conversions once more, for tests to compare with: one pixel at a time, decided at run time, each formula written
/// out as it is told. Nothing of the library's own rules is used.
#pragma once

#include "pixel/LabSeam.h"
#include "pixel/Pixel.h"
#include "pixel/PixelView.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <ostream>
#include <vector>

namespace Raster::Slow {
/// A pixel of any view, its samples as numbers (doubles hold each exactly), alpha last.
struct AnyPixel {
    PixelView view;
    std::vector<double> samples;
};

inline bool operator==(AnyPixel const & a, AnyPixel const & b) {
    if (a.view != b.view || a.samples.size() != b.samples.size())
        return false;
    for (std::size_t i = 0; i < a.samples.size(); ++i) {
        bool const bothNaN = std::isnan(a.samples[i]) && std::isnan(b.samples[i]);
        if (!bothNaN && a.samples[i] != b.samples[i])
            return false;
    }
    return true;
}

inline char const * GetName(PixelView view) {
    static char const * const names[]{"RGBA8",  "RGBA16", "RGBAF", "RGBAUF", "IA8", "IA16",
                                      "CMYKA8", "LABA16", "A8",    "A16",    "AF"};
    return names[int(view)];
}

inline std::ostream & operator<<(std::ostream & stream, AnyPixel const & pixel) {
    stream << GetName(pixel.view) << " (";
    stream.precision(10);
    for (double const sample : pixel.samples)
        stream << ' ' << sample;
    return stream << " )";
}

template<class Tuple>
AnyPixel ToAny(PixelOf<Tuple> const & pixel) {
    AnyPixel result{viewOf<Tuple>, {}};
    for (auto const sample : pixel.channels)
        result.samples.push_back(double(sample));
    return result;
}

enum class Depth { Byte, Word, Real };

inline Depth GetDepth(PixelView view) {
    switch (view) {
    case PixelView::RGBA8:
    case PixelView::IA8:
    case PixelView::CMYKA8:
    case PixelView::A8:
        return Depth::Byte;
    case PixelView::RGBA16:
    case PixelView::IA16:
    case PixelView::LABA16:
    case PixelView::A16:
        return Depth::Word;
    default:
        return Depth::Real;
    }
}

inline std::size_t GetChannelCount(PixelView view) {
    switch (view) {
    case PixelView::A8:
    case PixelView::A16:
    case PixelView::AF:
        return 1;
    case PixelView::IA8:
    case PixelView::IA16:
        return 2;
    case PixelView::CMYKA8:
        return 5;
    default:
        return 4;
    }
}

inline bool IsGrey(PixelView view) { return view == PixelView::IA8 || view == PixelView::IA16; }
inline bool IsAlphaOnly(PixelView view) { return GetChannelCount(view) == 1; }

inline float Normalise(double sample, Depth depth) {
    float const number = float(sample);
    return depth == Depth::Byte ? number * 0.003921569f : depth == Depth::Word ? number * 1.5259022e-5f : number;
}

/// Truncation toward zero, then the range of the type; what is not a number is 0.
inline double ToInteger(float value, double largest) {
    double const whole = std::trunc(double(value));
    if (std::isnan(whole) || whole <= 0)
        return 0;
    return whole > largest ? largest : whole;
}

inline double Quantise(float value, Depth depth) {
    if (depth == Depth::Byte) {
        float const product = float(double(value) * 255.0);
        return ToInteger(product + 0.5f, 255);
    }
    if (depth == Depth::Word)
        return ToInteger(value * 65535.0f + 0.5f, 65535);
    return value;
}

inline float Clamp(float value) {
    if (std::isnan(value) || value <= 0.0f)
        return 0.0f;
    return value >= 1.0f ? 1.0f : value;
}

struct Colour {
    float r, g, b;
};

inline Colour GetColour(AnyPixel const & source) {
    auto const & in = source.samples;
    Depth const depth = GetDepth(source.view);
    if (IsAlphaOnly(source.view))
        return {0, 0, 0};
    if (IsGrey(source.view)) {
        float const grey = Normalise(in[0], depth);
        return {grey, grey, grey};
    }
    if (source.view == PixelView::LABA16) {
        std::uint16_t const lab[4]{std::uint16_t(in[0]), std::uint16_t(in[1]), std::uint16_t(in[2]), 0};
        float rgb[4]{};
        ConvertFromLab(rgb, lab, 1);
        for (float & value : rgb)
            value = std::isnan(value) ? 0.0f : value;
        return {rgb[0], rgb[1], rgb[2]};
    }
    if (source.view == PixelView::CMYKA8) {
        float const k = Normalise(in[3], depth);
        float rgb[3];
        for (int i = 0; i < 3; ++i) {
            float const product = Normalise(in[std::size_t(i)], depth) * (1.0f - k);
            rgb[i] = 1.0f - std::fmin(product + k, 1.0f);
        }
        return {rgb[0], rgb[1], rgb[2]};
    }
    return {Normalise(in[0], depth), Normalise(in[1], depth), Normalise(in[2], depth)};
}

inline std::array<double, 4> GetInks(Colour colour) {
    float inks[4]{1.0f - colour.r, 1.0f - colour.g, 1.0f - colour.b, 0};
    float const k = std::fmin(std::fmin(inks[0], inks[1]), inks[2]);
    for (int i = 0; i < 3; ++i) {
        if (k < 1.0f)
            inks[i] = (inks[i] - k) / (1.0f - k);
        else
            inks[i] = 0;
    }
    inks[3] = k;
    std::array<double, 4> result;
    for (std::size_t i = 0; i < 4; ++i)
        result[i] = ToInteger(inks[i] * 255.0f + 0.5f, 255);
    return result;
}

inline double GetGrey8(Colour colour) {
    float const sum = colour.g * 0.587f + colour.r * 0.299f;
    return ToInteger((sum + colour.b * 0.114f) * 255.0f + 0.5f, 255);
}

inline double GetGrey16(Colour colour) {
    float const sum = colour.r + colour.g + colour.b;
    return ToInteger(sum / 3.0f * 65535.0f + 0.5f, 65535);
}

inline AnyPixel Convert(PixelView view, AnyPixel const & source) {
    if (view == source.view)
        return source;
    Depth const depth = GetDepth(view), sourceDepth = GetDepth(source.view);
    AnyPixel result{view, {}};
    auto & out = result.samples;
    Colour const raw = GetColour(source);
    Colour const clamped{Clamp(raw.r), Clamp(raw.g), Clamp(raw.b)};
    if (IsGrey(view) && IsGrey(source.view)) {
        out = {Quantise(Normalise(source.samples[0], sourceDepth), depth)};
    } else if (view == PixelView::IA8) {
        out = {GetGrey8(clamped)};
    } else if (view == PixelView::IA16) {
        out = {GetGrey16(clamped)};
    } else if (view == PixelView::CMYKA8) {
        auto const inks = GetInks(clamped);
        out.assign(inks.begin(), inks.end());
    } else if (view == PixelView::LABA16) {
        float const rgb[4]{clamped.r, clamped.g, clamped.b, 0};
        std::uint16_t lab[4]{};
        ConvertToLab(lab, rgb, 1);
        out = {double(lab[0]), double(lab[1]), double(lab[2])};
    } else if (view == PixelView::RGBAUF) {
        out = {raw.r, raw.g, raw.b};
    } else if (!IsAlphaOnly(view)) {
        out = {Quantise(clamped.r, depth), Quantise(clamped.g, depth), Quantise(clamped.b, depth)};
    }
    out.push_back(Quantise(Normalise(source.samples.back(), sourceDepth), depth));
    return result;
}
}
