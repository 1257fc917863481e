/// A transfer in the plainest words, pixel by pixel over planes of doubles that hold samples exactly: what the engine
/// is compared with.
#pragma once

#include "pixel/Conversion.h"
#include "pixel/Pixel.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <vector>

namespace Raster::Slow {
/// A picture of whole pixels. Outside it is transparent.
template<class Tuple>
struct Picture {
    Picture(int w, int h) : width(w), height(h), pixels(std::size_t(w) * std::size_t(h)) {}
    PixelOf<Tuple> & At(int x, int y) { return pixels[std::size_t(y) * std::size_t(width) + std::size_t(x)]; }
    PixelOf<Tuple> At(int x, int y) const {
        bool const inside = x >= 0 && y >= 0 && x < width && y < height;
        return inside ? pixels[std::size_t(y) * std::size_t(width) + std::size_t(x)] : PixelOf<Tuple>{};
    }
    int width, height;
    std::vector<PixelOf<Tuple>> pixels;
};

template<class Sample>
float Full() {
    return std::is_same_v<Sample, std::uint8_t> ? 255.0f : std::is_same_v<Sample, std::uint16_t> ? 65535.0f : 1.0f;
}

/// One bilinear sample around (u, v).
template<class Tuple>
PixelOf<Tuple> Sample(Picture<Tuple> const & picture, float u, float v) {
    using Storage = typename Tuple::Storage;
    constexpr int alphaAt = Tuple::channelCount - 1;
    float const x = u - 0.5f, y = v - 0.5f;
    if (!(std::fabs(x) <= 16777216.0f && std::fabs(y) <= 16777216.0f))
        return {};
    int const ix = x >= 0 ? int(x) : int(x - 1.0f), iy = y >= 0 ? int(y) : int(y - 1.0f);
    float const fx = x - float(ix), fy = y - float(iy);
    float const weights[4]{(1.0f - fy) * (1.0f - fx), (1.0f - fy) * fx, fy * (1.0f - fx), fy * fx};
    float sums[5]{};
    for (int corner = 0; corner < 4; ++corner) {
        auto const pixel = picture.At(ix + corner % 2, iy + corner / 2);
        float const alpha = float(pixel[alphaAt]);
        for (int c = 0; c < Tuple::channelCount; ++c) {
            float value = float(pixel[std::size_t(c)]);
            if (c != alphaAt && alpha != Full<Storage>()) {
                value = value * alpha;
                if (std::is_same_v<Storage, std::uint8_t>)
                    value = value * 0.003921569f;
                if (std::is_same_v<Storage, std::uint16_t>)
                    value = value * 1.5259022e-5f;
                if (alpha == 0.0f)
                    value = 0.0f;
            }
            if (weights[corner] != 0.0f) {
                float const product = weights[corner] * value;
                sums[c] = sums[c] + product;
            }
        }
    }
    float const alpha = sums[alphaAt];
    PixelOf<Tuple> result{};
    for (int c = 0; c < Tuple::channelCount; ++c) {
        float value = sums[c];
        if (c != alphaAt && alpha != 0.0f && alpha != Full<Storage>()) {
            value = value * Full<Storage>() * (1.0f / alpha);
            if (!std::is_same_v<Storage, float> && value > Full<Storage>())
                value = Full<Storage>();
        }
        if constexpr (std::is_same_v<Storage, float>)
            result[std::size_t(c)] = value;
        else
            result[std::size_t(c)] = Storage(std::lrint(value < 0                 ? 0.0f
                                                        : value > Full<Storage>() ? Full<Storage>()
                                                                                  : value));
    }
    return result;
}

inline int Round8(int p, int q) {
    int const t = p * q;
    return (t + 128 + (t >> 8)) >> 8;
}

/// Source over destination, in place.
template<class Tuple>
void Blend(PixelOf<Tuple> & d, PixelOf<Tuple> const & s, float opacity, bool opaque) {
    using Storage = typename Tuple::Storage;
    constexpr std::size_t alphaAt = Tuple::channelCount - 1;
    if constexpr (std::is_same_v<Storage, std::uint8_t>) {
        int a = s[alphaAt];
        int const o = opaque ? 255 : int(opacity * 255.0f);
        if (o < 255)
            a = Round8(o, a);
        if (a == 0)
            return;
        int const r = d[alphaAt] == 255 ? 255 : (Round8(255 - a, d[alphaAt]) + a) & 255;
        int const k = d[alphaAt] == 255 ? a : r == 0 ? 0 : a * 255 / r;
        for (std::size_t c = 0; c < alphaAt; ++c)
            d[c] = Storage(Round8(s[c], k) + Round8(d[c], 255 - k));
        d[alphaAt] = Storage(r);
    } else if constexpr (std::is_same_v<Storage, std::uint16_t>) {
        std::uint32_t a = s[alphaAt];
        std::uint32_t const o = opaque ? 65535u : std::uint32_t(opacity * 65535.0f);
        if (o < 65535)
            a = o * a / 65535;
        if (a == 0)
            return;
        std::uint32_t const r = d[alphaAt] == 65535 ? 65535 : (65535 - a) * d[alphaAt] / 65535 + a;
        std::uint32_t const k = d[alphaAt] == 65535 ? a : a * 65535 / r;
        for (std::size_t c = 0; c < alphaAt; ++c)
            d[c] = Storage((s[c] * k + d[c] * (65535 - k)) / 65535);
        d[alphaAt] = Storage(r);
    } else {
        float a = s[alphaAt];
        if (!opaque)
            a = a * opacity;
        if (a == 0.0f)
            return;
        float k = a;
        if (d[alphaAt] != 1.0f) {
            float const rest = (1.0f - a) * d[alphaAt];
            float const r = rest + a;
            k = r == 0.0f ? 0.0f : a / r;
            d[alphaAt] = r;
        }
        for (std::size_t c = 0; c < alphaAt; ++c) {
            float const over = k * s[c], under = (1.0f - k) * d[c];
            d[c] = k == 1.0f ? s[c] : over + under;
        }
    }
}

struct Rect {
    int left, top, right, bottom;
};

/// The whole transfer, without levels. `tileWidth` is that of the destination: positions begin anew in each tile.
template<class D, class S>
void Transfer(Picture<D> & dest, Picture<S> const & source, Rect work, int tileWidth, float opacity,
              double const * matrix) {
    bool const opaque = std::fabs(opacity - 1.0f) <= 1e-6f;
    double const identity[6]{1, 0, 0, 0, 1, 0};
    double const * const m = matrix ? matrix : identity;
    auto const whole = [](double value) { return value == std::floor(value) && std::fabs(value) <= 16777216.0; };
    bool const direct = m[0] == 1 && m[1] == 0 && m[3] == 0 && m[4] == 1 && whole(m[2]) && whole(m[5]);
    double const du = (m[0] + m[2]) - m[2], dv = (m[3] + m[5]) - m[5];
    for (int y = work.top; y < work.bottom; ++y) {
        float u = 0, v = 0;
        for (int x = work.left; x < work.right; ++x) {
            if (x == work.left || x % tileWidth == 0) {
                u = float(m[0] * (x + 0.5) + m[1] * (y + 0.5) + m[2]);
                v = float(m[3] * (x + 0.5) + m[4] * (y + 0.5) + m[5]);
            }
            PixelOf<S> const sample = direct ? source.At(x + int(m[2]), y + int(m[5])) : Sample<S>(source, u, v);
            PixelOf<D> converted;
            ConvertPixel<D, S>(converted, sample);
            Blend<D>(dest.At(x, y), converted, opacity, opaque);
            u = float(double(u) + du);
            v = float(double(v) + dv);
        }
    }
}
}
