/// What a conversion does to one sample or one colour. These lines define the results to the bit: the vector kernels
/// repeat them, and no step may be reordered, fused or replaced by an approximation.
#pragma once

#include <cstdint>

namespace Raster::Rules {
inline constexpr float unitOf8 = 0.003921569f;   ///< 1 / 255
inline constexpr float unitOf16 = 1.5259022e-5f; ///< 1 / 65535
inline constexpr float maximumOf8 = 255.0f;
inline constexpr float maximumOf16 = 65535.0f;
inline constexpr float redWeight = 0.299f, greenWeight = 0.587f, blueWeight = 0.114f;

/// `value` limited to 0 to `maximum`; NaN becomes 0.
inline float Saturate(float value, float maximum) { return value > 0 ? (value < maximum ? value : maximum) : 0.0f; }
inline float ClampUnit(float value) { return Saturate(value, 1.0f); }

inline float NumberOrZero(float value) { return value == value ? value : 0.0f; }

/// A sample with its nominal range mapped to 0 to 1. Floats stay as they are.
inline float ToUnit(std::uint8_t value) { return static_cast<float>(value) * unitOf8; }
inline float ToUnit(std::uint16_t value) { return static_cast<float>(value) * unitOf16; }
inline float ToUnit(float value) { return value; }

/// The way back: to nearest, saturated. A product by 255 that is formed in double and rounded to float equals the float
/// product (24 and 8 bits fit into 53), so all of it stays in float.
template<class Sample>
Sample FromUnit(float value) = delete;
template<>
inline std::uint8_t FromUnit<std::uint8_t>(float value) {
    return static_cast<std::uint8_t>(static_cast<std::int32_t>(Saturate(value * maximumOf8 + 0.5f, maximumOf8)));
}
template<>
inline std::uint16_t FromUnit<std::uint16_t>(float value) {
    return static_cast<std::uint16_t>(static_cast<std::int32_t>(Saturate(value * maximumOf16 + 0.5f, maximumOf16)));
}
template<>
inline float FromUnit<float>(float value) {
    return value;
}

/// The depth rule: a sample as one of another type.
template<class Dest, class Source>
Dest ConvertSample(Source value) {
    return FromUnit<Dest>(ToUnit(value));
}

/// A colour as normalised floats, through which conversions between colour families go.
struct UnitRGB {
    float red, green, blue;
};
struct InkCMYK {
    std::uint8_t cyan, magenta, yellow, black;
};

inline UnitRGB ClampUnit(UnitRGB colour) {
    return {ClampUnit(colour.red), ClampUnit(colour.green), ClampUnit(colour.blue)};
}

/// Grey of 8 bits is a weighted luminance. The colour is within 0 to 1.
inline std::uint8_t ToGrey8(UnitRGB colour) {
    return FromUnit<std::uint8_t>((colour.green * greenWeight + colour.red * redWeight) + colour.blue * blueWeight);
}

/// Grey of 16 bits is a plain mean: it differs from grey of 8 bits for all but neutral colours.
inline std::uint16_t ToGrey16(UnitRGB colour) {
    return FromUnit<std::uint16_t>((colour.red + colour.green + colour.blue) / 3.0f);
}

/// The uncalibrated separation with full replacement of the grey component. The colour is within 0 to 1.
inline InkCMYK ToCMYK(UnitRGB colour) {
    float const cyan = 1.0f - colour.red, magenta = 1.0f - colour.green, yellow = 1.0f - colour.blue;
    float const smaller = cyan < magenta ? cyan : magenta;
    float const black = smaller < yellow ? smaller : yellow;
    float const light = 1.0f - black;
    auto const ink = [&](float value) { return FromUnit<std::uint8_t>(black < 1.0f ? (value - black) / light : 0.0f); };
    return {ink(cyan), ink(magenta), ink(yellow), FromUnit<std::uint8_t>(black)};
}

inline UnitRGB FromCMYK(InkCMYK inks) {
    float const black = ToUnit(inks.black), light = 1.0f - black;
    auto const channel = [&](std::uint8_t value) {
        float const ink = ToUnit(value) * light + black;
        return 1.0f - (ink < 1.0f ? ink : 1.0f);
    };
    return {channel(inks.cyan), channel(inks.magenta), channel(inks.yellow)};
}
}
