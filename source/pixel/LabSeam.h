/// Where colour management plugs in the conversions between Lab and RGB, which need a profile.
#pragma once

#include "kernel/Export.h"

#include <cstddef>
#include <cstdint>

namespace Raster {
/// Rows of interleaved pixels of four samples: normalised floats red, green, blue, alpha on one side, 16-bit lightness,
/// a, b, alpha on the other. The alpha of `dest` is left as it is. Called from any thread, several at once; `dest` and
/// `source` don't overlap; must not throw.
struct LabConversions {
    void (*toLab)(std::uint16_t * dest, float const * source, std::size_t pixelCount);
    void (*fromLab)(float * dest, std::uint16_t const * source, std::size_t pixelCount);
};

/// Lab without colour management: every colour becomes black, (0, 32896, 32896), and every Lab colour becomes black.
RASTER_API LabConversions GetPlainLabConversions();

/// Puts a pair of conversions in place for the whole process, at start: the two belong together, each undoing the
/// other. A null member restores the plain one. Any thread may call, but the two change one after the other: who
/// converts meanwhile may still use the ones before, or one of each pair.
RASTER_API void SetLabConversions(LabConversions const & conversions);

/// Through the conversions in place. Cheap when called for whole rows.
RASTER_API void ConvertToLab(std::uint16_t * dest, float const * source, std::size_t pixelCount);
RASTER_API void ConvertFromLab(float * dest, std::uint16_t const * source, std::size_t pixelCount);
}
