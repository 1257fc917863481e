#pragma once

#include "kernel/Export.h"

#include <cstdint>

namespace Raster {
/// A 16-bit float as it lies in memory (IEEE 754 binary16). Arithmetic is done in `float`.
struct Half {
    std::uint16_t bits = 0;
    bool operator==(Half const &) const = default; ///< Compares bits: 0 and -0 differ.
};

/// Exact.
RASTER_API float ToFloat(Half value) noexcept;
/// To nearest, halves to even; too large becomes infinity.
RASTER_API Half ToHalf(float value) noexcept;

/// The sample of a complex channel: two floats side by side. Stored and copied, never computed with.
struct ComplexFloat {
    float first = 0, second = 0;
    bool operator==(ComplexFloat const &) const = default;
};
}
