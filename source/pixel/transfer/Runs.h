/// Rows of any model in runs of up to 32 pixels, in planar form.
#pragma once

#include "pixel/Accessor.h"

namespace Raster {
/// Reads `count` pixels from the position to the right, which ends just past them. Whole runs go as spans.
template<class Accessor>
void ReadRun(Accessor & accessor, int count, typename Accessor::PlanarSpan & span) {
    if (count == spanLength) {
        accessor.SpanRead(span);
        accessor.Increment();
        return;
    }
    for (int i = 0; i < count; ++i, accessor.Increment()) {
        typename Accessor::PixelType pixel;
        accessor.Read(pixel);
        for (int channel = 0; channel < Accessor::PixelType::Tuple::channelCount; ++channel)
            span.runs[channel][i] = pixel.channels[channel];
    }
}

/// The opposite: writes the first `count` pixels of the span.
template<class Accessor>
void WriteRun(Accessor & accessor, int count, typename Accessor::PlanarSpan const & span) {
    if (count == spanLength) {
        accessor.SpanWrite(span);
        accessor.Increment();
        return;
    }
    for (int i = 0; i < count; ++i, accessor.Increment()) {
        typename Accessor::PixelType pixel;
        for (int channel = 0; channel < Accessor::PixelType::Tuple::channelCount; ++channel)
            pixel.channels[channel] = span.runs[channel][i];
        accessor.Write(pixel);
    }
}
}
