#pragma once

#include "pixel/ChannelTuple.h"

#include <cstddef>

namespace Raster {
/// Whether blending `count` samples of alpha at this opacity would change anything at all.
bool HasCoverage(SampleType sampleType, void const * alpha, std::size_t count, float opacity);
}
