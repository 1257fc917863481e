/// Planar RGB to one plane of grey.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Raster {
// `rgb` holds three planes, which may be the same one but don't overlap `dest`. Floats are limited to 0 to 1 first.
void ConvertGrey8From8(std::uint8_t * dest, std::uint8_t const * const * rgb, std::size_t count);
void ConvertGrey8FromFloat(std::uint8_t * dest, float const * const * rgb, std::size_t count);
void ConvertGrey16FromFloat(std::uint16_t * dest, float const * const * rgb, std::size_t count);

namespace Scalar {
void ConvertGrey8From8(std::uint8_t * dest, std::uint8_t const * const * rgb, std::size_t count);
void ConvertGrey8FromFloat(std::uint8_t * dest, float const * const * rgb, std::size_t count);
void ConvertGrey16FromFloat(std::uint16_t * dest, float const * const * rgb, std::size_t count);
}
}
