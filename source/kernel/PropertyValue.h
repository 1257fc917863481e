/// Which C++ types can be properties, and the bytes that they have in a file.
#pragma once

#include "kernel/Point.h"
#include "kernel/PropType.h"
#include "kernel/Rect.h"
#include "kernel/Size.h"
#include "kernel/StreamValue.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Kernel {
template<class T>
inline constexpr PropType propTypeOf = PropType::None;
template<>
inline constexpr PropType propTypeOf<std::uint8_t> = PropType::UInt8;
template<>
inline constexpr PropType propTypeOf<std::uint16_t> = PropType::UInt16;
template<>
inline constexpr PropType propTypeOf<std::uint32_t> = PropType::UInt32;
template<>
inline constexpr PropType propTypeOf<std::uint64_t> = PropType::UInt64;
template<>
inline constexpr PropType propTypeOf<std::int8_t> = PropType::Int8;
template<>
inline constexpr PropType propTypeOf<std::int16_t> = PropType::Int16;
template<>
inline constexpr PropType propTypeOf<std::int32_t> = PropType::Int32;
template<>
inline constexpr PropType propTypeOf<std::int64_t> = PropType::Int64;
template<>
inline constexpr PropType propTypeOf<float> = PropType::Float;
template<>
inline constexpr PropType propTypeOf<double> = PropType::Double;
template<>
inline constexpr PropType propTypeOf<bool> = PropType::Bool;
template<>
inline constexpr PropType propTypeOf<PointT<int>> = PropType::PointInt32;
template<>
inline constexpr PropType propTypeOf<PointT<double>> = PropType::PointDouble;
template<>
inline constexpr PropType propTypeOf<SizeT<int>> = PropType::SizeInt32;
template<>
inline constexpr PropType propTypeOf<RectT<int>> = PropType::RectInt32;

/// A type whose values are stored as one property of fixed size.
template<class T>
concept PropertyValue = propTypeOf<T>
!= PropType::None;

namespace Internal {
template<class T>
constexpr auto GetPropertyParts(T const & value) {
    if constexpr (StreamValue<T>)
        return std::array<T, 1>{value};
    else if constexpr (requires { value.left; })
        return std::array{value.left, value.top, value.right, value.bottom};
    else if constexpr (requires { value.width; })
        return std::array{value.width, value.height};
    else
        return std::array{value.x, value.y};
}

template<class T, class Part>
constexpr T MakeFromParts(Part const * parts) {
    if constexpr (StreamValue<T>)
        return parts[0];
    else if constexpr (requires(T value) { value.left; })
        return T{parts[0], parts[1], parts[2], parts[3]};
    else
        return T{parts[0], parts[1]};
}

template<class T>
using PropertyPart = typename decltype(GetPropertyParts(T{}))::value_type;
}

template<PropertyValue T>
inline constexpr std::size_t propertyBytes = sizeof(Internal::PropertyPart<T>) *
                                             decltype(Internal::GetPropertyParts(T{})){}.size();

template<PropertyValue T>
std::array<std::uint8_t, propertyBytes<T>> ToPropertyBytes(T const & value) {
    std::array<std::uint8_t, propertyBytes<T>> bytes{};
    auto * next = bytes.data();
    for (auto const part : Internal::GetPropertyParts(value)) {
        auto const partBytes = ToStreamBytes(part);
        next = std::copy(partBytes.begin(), partBytes.end(), next);
    }
    return bytes;
}

template<PropertyValue T>
T FromPropertyBytes(std::uint8_t const * bytes) {
    using Part = Internal::PropertyPart<T>;
    std::array<Part, propertyBytes<T> / sizeof(Part)> parts{};
    for (std::size_t i = 0; i < parts.size(); ++i) {
        std::array<std::uint8_t, sizeof(Part)> partBytes;
        std::memcpy(partBytes.data(), bytes + i * sizeof(Part), sizeof(Part));
        parts[i] = FromStreamBytes<Part>(partBytes);
    }
    return Internal::MakeFromParts<T>(parts.data());
}
}
