/// The uncalibrated separation and its way back, between planar RGB and four planes of ink.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Raster {
// `rgb` is three planes, `inks` four. Source planes may be the same one; none overlaps a destination. Floats are
// limited to 0 to 1 before the separation.
void ConvertCMYKFrom8(std::uint8_t * const * inks, std::uint8_t const * const * rgb, std::size_t count);
void ConvertCMYKFromFloat(std::uint8_t * const * inks, float const * const * rgb, std::size_t count);
void ConvertCMYKTo8(std::uint8_t * const * rgb, std::uint8_t const * const * inks, std::size_t count);
void ConvertCMYKToFloat(float * const * rgb, std::uint8_t const * const * inks, std::size_t count);

namespace Scalar {
void ConvertCMYKFrom8(std::uint8_t * const * inks, std::uint8_t const * const * rgb, std::size_t count);
void ConvertCMYKFromFloat(std::uint8_t * const * inks, float const * const * rgb, std::size_t count);
void ConvertCMYKTo8(std::uint8_t * const * rgb, std::uint8_t const * const * inks, std::size_t count);
void ConvertCMYKToFloat(float * const * rgb, std::uint8_t const * const * inks, std::size_t count);
}
}
