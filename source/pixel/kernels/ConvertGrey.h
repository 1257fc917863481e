/// Planar RGB to one plane of grey.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Raster {
// The three planes may be the same one but don't overlap `dest`. Floats are limited to 0 to 1 first. The planes are
// arguments of their own, for short runs: a list in memory that was just written can't be read back at once.
void ConvertGrey8From8(std::uint8_t * dest, std::uint8_t const * red, std::uint8_t const * green,
                       std::uint8_t const * blue, std::size_t count);
void ConvertGrey8FromFloat(std::uint8_t * dest, float const * red, float const * green, float const * blue,
                           std::size_t count);
void ConvertGrey16FromFloat(std::uint16_t * dest, float const * red, float const * green, float const * blue,
                            std::size_t count);

namespace Scalar {
[[gnu::noinline]] void ConvertGrey8From8(std::uint8_t * dest, std::uint8_t const * red, std::uint8_t const * green,
                                         std::uint8_t const * blue, std::size_t count);
[[gnu::noinline]] void ConvertGrey8FromFloat(std::uint8_t * dest, float const * red, float const * green,
                                             float const * blue, std::size_t count);
[[gnu::noinline]] void ConvertGrey16FromFloat(std::uint16_t * dest, float const * red, float const * green,
                                              float const * blue, std::size_t count);
}
}
