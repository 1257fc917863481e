/// The form of serialised objects, little-endian throughout:
///
///     stream  magic 4, stream version 2, schema version 2, root tag 4, zero 4, then records to the end
///     record  tag 4, type 4, length 8, then `length` bytes
///     object  class 4, schema version 2, zero 2, then records to the end of the record that it stands in
///     array   count 8, then for each object length 8 and an object of that length
///
/// An object is the content of a record of type `Object` or `Class`, an array that of `ObjectArray`. Shared and delayed
/// objects are items of their own: their records hold the 16 bytes of an `ItemID`.
#pragma once

#include "kernel/PropType.h"
#include "kernel/StreamValue.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Kernel::PropertyStream {
inline constexpr std::uint32_t magic = 0x50525331; // "1SRP" in the file
inline constexpr std::uint16_t version = 1;
inline constexpr std::size_t streamHeaderBytes = 16;
inline constexpr std::size_t recordHeaderBytes = 16;
inline constexpr std::size_t objectHeaderBytes = 8;
/// Objects within objects, and items that refer to items, at most.
inline constexpr int deepest = 64;

/// Reads a number out of bytes that are known to be there.
template<StreamValue T>
T ReadAt(std::uint8_t const * bytes) {
    std::array<std::uint8_t, sizeof(T)> copy;
    std::memcpy(copy.data(), bytes, sizeof(T));
    return FromStreamBytes<T>(copy);
}

template<StreamValue T>
void WriteAt(std::uint8_t * bytes, T value) {
    auto const copy = ToStreamBytes(value);
    std::memcpy(bytes, copy.data(), copy.size());
}
}
