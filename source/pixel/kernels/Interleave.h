/// Planes of samples put together to whole pixels, and taken apart again.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Raster {
/// @param pixels    `count` pixels of `channels` samples, one after the other.
/// @param rows      `count` samples for each channel.
/// @param channels  at least 1. Two and four are fast, and five of bytes.
void Interleave8(std::uint8_t * pixels, std::uint8_t const * const * rows, int channels, std::size_t count);
void Interleave16(std::uint16_t * pixels, std::uint16_t const * const * rows, int channels, std::size_t count);
void InterleaveFloat(float * pixels, float const * const * rows, int channels, std::size_t count);

/// The opposite, for all channels but the last: alpha goes by another way.
void DeinterleaveColours8(std::uint8_t * const * rows, std::uint8_t const * pixels, int channels, std::size_t count);
void DeinterleaveColours16(std::uint16_t * const * rows, std::uint16_t const * pixels, int channels, std::size_t count);
void DeinterleaveColoursFloat(float * const * rows, float const * pixels, int channels, std::size_t count);

namespace Scalar {
/// The same in plain code, for pixels from `begin` on: the meaning of the kernels.
template<class Sample>
void Interleave(Sample * pixels, Sample const * const * rows, int channels, std::size_t begin, std::size_t count) {
    for (std::size_t i = begin; i < count; ++i)
        for (int channel = 0; channel < channels; ++channel)
            pixels[i * std::size_t(channels) + std::size_t(channel)] = rows[channel][i];
}
template<class Sample>
void DeinterleaveColours(Sample * const * rows, Sample const * pixels, int channels, std::size_t begin,
                         std::size_t count) {
    for (std::size_t i = begin; i < count; ++i)
        for (int channel = 0; channel + 1 < channels; ++channel)
            rows[channel][i] = pixels[i * std::size_t(channels) + std::size_t(channel)];
}
}
}
