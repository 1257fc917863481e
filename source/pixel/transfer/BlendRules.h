/// The rules of source-over blending for one sample. A source sample s of alpha a lies over a destination d of alpha
/// dAlpha:
///
///     r = (1 - a) dAlpha + a        the new alpha
///     k = a / r, 0 if r is 0        the share of the source in the new colour
///     d = k s + (1 - k) d
///
/// In integers the cases "a is 0" (nothing changes) and "dAlpha is full" (k = a, alpha stays) come out of the same
/// formulas, so they need no branch. In floats rounding tells them apart, and they are tested. So is a share of 1,
/// under which nothing of the old colour is left: it may be infinite or no number, as under alpha 0 it may well be.
#pragma once

#include <algorithm>
#include <cstdint>

namespace Raster::BlendRules {
/// p * q / 255 with the rounding of 8-bit blending. Multiplying by 255 or by 0 is exact.
constexpr unsigned Multiply8(unsigned p, unsigned q) {
    unsigned const t = p * q; // at most 65025, so 16-bit lanes hold every step
    return (t + 128 + (t >> 8)) >> 8;
}

/// Opacity as a byte: truncated, not rounded.
constexpr unsigned ToOpacity8(float opacity) { return static_cast<unsigned>(opacity * 255.0f); }
constexpr unsigned ToOpacity16(float opacity) { return static_cast<unsigned>(opacity * 65535.0f); }

template<class Sample>
struct Coverage {
    Sample alpha; ///< of the result
    Sample share; ///< of the source in the colour of the result
};

constexpr Coverage<std::uint8_t> Cover(std::uint8_t source, std::uint8_t dest) {
    unsigned const alpha = (Multiply8(255u - source, dest) + source) & 255u;
    unsigned const share = alpha == 0 ? 0 : source * 255u / alpha;
    return {static_cast<std::uint8_t>(alpha), static_cast<std::uint8_t>(share)};
}
constexpr std::uint8_t Mix(std::uint8_t dest, std::uint8_t source, std::uint8_t share) {
    return static_cast<std::uint8_t>(Multiply8(source, share) + Multiply8(dest, 255u - share));
}

constexpr Coverage<std::uint16_t> Cover(std::uint16_t source, std::uint16_t dest) {
    std::uint32_t const a = source;
    std::uint32_t const alpha = (65535u - a) * dest / 65535u + a;
    std::uint32_t const share = alpha == 0 ? 0 : a * 65535u / alpha;
    return {static_cast<std::uint16_t>(alpha), static_cast<std::uint16_t>(share)};
}
constexpr std::uint16_t Mix(std::uint16_t dest, std::uint16_t source, std::uint16_t share) {
    std::uint32_t const k = share;
    return static_cast<std::uint16_t>((source * k + dest * (65535u - k)) / 65535u);
}

constexpr Coverage<float> Cover(float source, float dest) {
    if (dest == 1.0f)
        return {dest, source};
    float const alpha = (1.0f - source) * dest + source;
    return {alpha, alpha == 0.0f ? 0.0f : source / alpha};
}
constexpr float Mix(float dest, float source, float share) {
    return share == 1.0f ? source : share * source + (1.0f - share) * dest;
}

constexpr std::uint8_t ApplyOpacity(std::uint8_t alpha, float opacity) {
    unsigned const o = ToOpacity8(opacity);
    return o < 255 ? static_cast<std::uint8_t>(Multiply8(o, alpha)) : alpha;
}
constexpr std::uint16_t ApplyOpacity(std::uint16_t alpha, float opacity) {
    unsigned const o = ToOpacity16(opacity);
    return o < 65535 ? static_cast<std::uint16_t>(o * alpha / 65535u) : alpha;
}
constexpr float ApplyOpacity(float alpha, float opacity) { return opacity == 1.0f ? alpha : alpha * opacity; }
}
