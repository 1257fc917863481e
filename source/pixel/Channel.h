/// The channel types: empty tags that fix what one channel of a pixel is.
#pragma once

#include "pixel/Half.h"

#include <concepts>
#include <cstdint>

namespace Raster {
enum class ChannelRole : std::uint8_t {
    Red,
    Green,
    Blue,
    Cyan,
    Magenta,
    Yellow,
    Black,
    Hue,
    Saturation,
    Luminosity,
    Value,
    Chroma,
    Intensity,
    Alpha,
    Lightness,
    AOpponent,
    BOpponent,
    Index,
    IndexX,
    IndexY,
    ChannelOne,
    ChannelTwo,
    ChannelThree,
    ChannelFour,
    ChannelFive,
    Empty
};

/// How a sample lies in memory.
enum class SampleType : std::uint8_t { Integer8, Integer16, Half, Float, ComplexFloat };

/// Integer channels fill with bytes of 255, float channels (halves and complex ones too) with floats of 1.0.
enum class ChannelKind : std::uint8_t { Integer, Float };

template<SampleType>
struct SampleTraits;
template<>
struct SampleTraits<SampleType::Integer8> {
    using Storage = std::uint8_t;
    static constexpr float maximum = 255.0f;
};
template<>
struct SampleTraits<SampleType::Integer16> {
    using Storage = std::uint16_t;
    static constexpr float maximum = 65535.0f;
};
template<>
struct SampleTraits<SampleType::Half> {
    using Storage = Half;
    static constexpr float maximum = 1.0f;
};
template<>
struct SampleTraits<SampleType::Float> {
    using Storage = float;
    static constexpr float maximum = 1.0f;
};
template<>
struct SampleTraits<SampleType::ComplexFloat> {
    using Storage = ComplexFloat;
    static constexpr float maximum = 1.0f;
};

template<ChannelRole Role, SampleType Type>
struct ChannelBase {
    using Storage = typename SampleTraits<Type>::Storage;
    static constexpr ChannelRole role = Role;
    static constexpr SampleType sampleType = Type;
    static constexpr ChannelKind kind =
        Type == SampleType::Integer8 || Type == SampleType::Integer16 ? ChannelKind::Integer : ChannelKind::Float;
    static constexpr int sampleSize = sizeof(Storage);            ///< bytes
    static constexpr float maximum = SampleTraits<Type>::maximum; ///< nominal; unbounded channels may exceed it
    static constexpr bool isPresent = Role != ChannelRole::Empty;
};

#define RASTER_CHANNEL_TYPE_8 SampleType::Integer8
#define RASTER_CHANNEL_TYPE_16 SampleType::Integer16
#define RASTER_CHANNEL_TYPE_H SampleType::Half
#define RASTER_CHANNEL_TYPE_UH SampleType::Half
#define RASTER_CHANNEL_TYPE_F SampleType::Float
#define RASTER_CHANNEL_TYPE_UF SampleType::Float
#define RASTER_CHANNEL_TYPE_ComplexUF SampleType::ComplexFloat

// Which suffixes each role has. M takes (role, suffix).
#define RASTER_CHANNELS_8_16_F_C(M, role) M(role, 8) M(role, 16) M(role, F) M(role, ComplexUF)
#define RASTER_CHANNELS_ALL(M, role) RASTER_CHANNELS_8_16_F_C(M, role) M(role, H) M(role, UF) M(role, UH)
#define RASTER_FOR_EACH_ROLE_AND_SUFFIX(M)                                                                             \
    RASTER_CHANNELS_ALL(M, Red)                                                                                        \
    RASTER_CHANNELS_ALL(M, Green)                                                                                      \
    RASTER_CHANNELS_ALL(M, Blue)                                                                                       \
    RASTER_CHANNELS_8_16_F_C(M, Cyan)                                                                                  \
    RASTER_CHANNELS_8_16_F_C(M, Magenta)                                                                               \
    RASTER_CHANNELS_8_16_F_C(M, Yellow)                                                                                \
    RASTER_CHANNELS_8_16_F_C(M, Black)                                                                                 \
    RASTER_CHANNELS_8_16_F_C(M, Hue)                                                                                   \
    RASTER_CHANNELS_8_16_F_C(M, Saturation)                                                                            \
    RASTER_CHANNELS_8_16_F_C(M, Luminosity)                                                                            \
    M(Luminosity, UF)                                                                                                  \
    RASTER_CHANNELS_8_16_F_C(M, Value)                                                                                 \
    M(Value, UF)                                                                                                       \
    M(Chroma, UF)                                                                                                      \
    RASTER_CHANNELS_ALL(M, Intensity)                                                                                  \
    RASTER_CHANNELS_8_16_F_C(M, Alpha)                                                                                 \
    M(Alpha, H)                                                                                                        \
    RASTER_CHANNELS_8_16_F_C(M, Lightness)                                                                             \
    RASTER_CHANNELS_8_16_F_C(M, AOpponent)                                                                             \
    RASTER_CHANNELS_8_16_F_C(M, BOpponent)                                                                             \
    RASTER_CHANNELS_8_16_F_C(M, Index)                                                                                 \
    RASTER_CHANNELS_8_16_F_C(M, IndexX)                                                                                \
    RASTER_CHANNELS_8_16_F_C(M, IndexY)                                                                                \
    RASTER_CHANNELS_GENERIC(M, ChannelOne)                                                                             \
    RASTER_CHANNELS_GENERIC(M, ChannelTwo)                                                                             \
    RASTER_CHANNELS_GENERIC(M, ChannelThree)                                                                           \
    RASTER_CHANNELS_GENERIC(M, ChannelFour)                                                                            \
    RASTER_CHANNELS_GENERIC(M, ChannelFive)
#define RASTER_CHANNELS_GENERIC(M, role) RASTER_CHANNELS_8_16_F_C(M, role) M(role, UF) M(role, UH)

#define RASTER_DEFINE_CHANNEL(role, suffix)                                                                            \
    struct role##suffix : ChannelBase<ChannelRole::role, RASTER_CHANNEL_TYPE_##suffix> {};
RASTER_FOR_EACH_ROLE_AND_SUFFIX(RASTER_DEFINE_CHANNEL)
#undef RASTER_DEFINE_CHANNEL

// Placeholders: position n of a tuple is padded with Xn. They hold nothing; as planes they would count as 8-bit.
struct X1 : ChannelBase<ChannelRole::Empty, SampleType::Integer8> {};
struct X2 : ChannelBase<ChannelRole::Empty, SampleType::Integer8> {};
struct X3 : ChannelBase<ChannelRole::Empty, SampleType::Integer8> {};
struct X4 : ChannelBase<ChannelRole::Empty, SampleType::Integer8> {};
struct X5 : ChannelBase<ChannelRole::Empty, SampleType::Integer8> {};

/// Applies M(role, suffix) to each of the 127 channel types, whose name is role##suffix: the 122 real ones, and the
/// five placeholders as (X, 1) to (X, 5).
#define RASTER_FOR_EACH_CHANNEL(M) RASTER_FOR_EACH_ROLE_AND_SUFFIX(M) M(X, 1) M(X, 2) M(X, 3) M(X, 4) M(X, 5)

template<class T>
concept Channel = requires {
    typename T::Storage;
    { T::role } -> std::convertible_to<ChannelRole>;
    { T::isPresent } -> std::convertible_to<bool>;
};
}
