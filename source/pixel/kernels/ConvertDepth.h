/// The depth rule on one channel: `count` samples of one type become samples of another.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Raster {
// The planes don't overlap; they may be null if `count` is 0.
void ConvertDepth8ToFloat(float * dest, std::uint8_t const * source, std::size_t count);
void ConvertDepth16ToFloat(float * dest, std::uint16_t const * source, std::size_t count);
void ConvertDepthFloatTo8(std::uint8_t * dest, float const * source, std::size_t count);
void ConvertDepthFloatTo16(std::uint16_t * dest, float const * source, std::size_t count);
void ConvertDepth8To16(std::uint16_t * dest, std::uint8_t const * source, std::size_t count);
void ConvertDepth16To8(std::uint8_t * dest, std::uint16_t const * source, std::size_t count);
/// Unbounded to bounded float: limited to 0 to 1, NaN becomes 0.
void ConvertDepthClamp(float * dest, float const * source, std::size_t count);

namespace Scalar {
void ConvertDepth8ToFloat(float * dest, std::uint8_t const * source, std::size_t count);
void ConvertDepth16ToFloat(float * dest, std::uint16_t const * source, std::size_t count);
void ConvertDepthFloatTo8(std::uint8_t * dest, float const * source, std::size_t count);
void ConvertDepthFloatTo16(std::uint16_t * dest, float const * source, std::size_t count);
void ConvertDepth8To16(std::uint16_t * dest, std::uint8_t const * source, std::size_t count);
void ConvertDepth16To8(std::uint8_t * dest, std::uint16_t const * source, std::size_t count);
void ConvertDepthClamp(float * dest, float const * source, std::size_t count);
}
}
