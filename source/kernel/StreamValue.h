/// How streams lay out numbers: little-endian, in the width of their type, on every machine.
#pragma once

#include <array>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace Kernel {
template<class T>
concept StreamValue = std::is_arithmetic_v<T> || std::is_enum_v<T>;

template<std::size_t size>
using UnsignedOfSize = std::conditional_t<
    size == 1, std::uint8_t,
    std::conditional_t<size == 2, std::uint16_t, std::conditional_t<size == 4, std::uint32_t, std::uint64_t>>>;

template<StreamValue T>
constexpr std::array<std::uint8_t, sizeof(T)> ToStreamBytes(T value) {
    static_assert(sizeof(T) <= 8, "a type of this width is not the same on every machine");
    auto const bits = std::bit_cast<UnsignedOfSize<sizeof(T)>>(value);
    std::array<std::uint8_t, sizeof(T)> bytes{};
    for (std::size_t i = 0; i < sizeof(T); ++i)
        bytes[i] = static_cast<std::uint8_t>(static_cast<std::uint64_t>(bits) >> 8 * i);
    return bytes;
}

template<StreamValue T>
constexpr T FromStreamBytes(std::array<std::uint8_t, sizeof(T)> const & bytes) {
    std::uint64_t bits = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i)
        bits |= std::uint64_t(bytes[i]) << 8 * i;
    if constexpr (std::same_as<T, bool>)
        return bits != 0; // a file may hold any byte here, a bool may not
    else
        return std::bit_cast<T>(static_cast<UnsignedOfSize<sizeof(T)>>(bits));
}
}
