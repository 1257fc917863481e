/// What makes the samples of a tile easier to compress, and undoes it.
#pragma once

#include <cstdint>

namespace Kernel {
// Both work on 65536 bytes in 256 rows of 256, for samples of 1, 2, 4 or 8 bytes, low byte first; any other size does
// nothing. The two buffers may not overlap.

/// Replaces each sample by its difference from the one before in its row, then gathers the first bytes of all
/// differences, the second ones, and so on.
void PredictSamples(std::uint8_t const * raw, std::uint8_t * predicted, int sampleBytes);
/// The opposite.
void RestoreSamples(std::uint8_t const * predicted, std::uint8_t * raw, int sampleBytes);

namespace Scalar {
void PredictSamples(std::uint8_t const * raw, std::uint8_t * predicted, int sampleBytes);
void RestoreSamples(std::uint8_t const * predicted, std::uint8_t * raw, int sampleBytes);
}
}
