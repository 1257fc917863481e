/// Source-over blending of planar rows: the last step of a transfer.
#pragma once

#include "kernel/Export.h"
#include "pixel/ChannelTuple.h"

#include <cstddef>

namespace Raster {
/// Lays `count` source pixels over as many destination pixels, in place.
/// @param dest     one row of samples for each channel, in tuple order. In the ten formats alpha comes last.
/// @param source   rows of the same format. Where its alpha, times the opacity, is 0 the destination stays as it is.
/// @param colours  the number of colour channels, alpha not counted; 0 for alpha-only formats.
/// @param opacity  0 to 1. Exactly 1 is the opaque form.
using BlendRows = void (*)(void * const * dest, void const * const * source, int colours, std::size_t count,
                           float opacity);

/// The rules of a format, chosen once per task. Only by sample type: 8 and 16-bit integers and floats exist.
RASTER_API BlendRows GetBlendRows(SampleType sampleType);

namespace Scalar {
/// The same rules in plain code: the meaning of the kernels.
BlendRows GetBlendRows(SampleType sampleType);
}
}
