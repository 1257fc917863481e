/// Turning spans and samples from one shape into another.
#pragma once

#include "pixel/Half.h"
#include "pixel/Pixel.h"

namespace Raster {
constexpr float SampleToFloat(std::uint8_t sample) { return sample; }
constexpr float SampleToFloat(std::uint16_t sample) { return sample; }
constexpr float SampleToFloat(float sample) { return sample; }
inline float SampleToFloat(Half sample) { return ToFloat(sample); }

template<class C1, class C2, class C3, class C4, class C5>
constexpr void Deinterleave(InterleavedPixelSpan<C1, C2, C3, C4, C5> const & from,
                            PlanarPixelSpan<C1, C2, C3, C4, C5> & to) {
    for (int channel = 0; channel < ChannelTuple<C1, C2, C3, C4, C5>::channelCount; ++channel)
        for (int i = 0; i < spanLength; ++i)
            to.runs[channel][i] = from.pixels[i].channels[channel];
}

template<class C1, class C2, class C3, class C4, class C5>
constexpr void Interleave(PlanarPixelSpan<C1, C2, C3, C4, C5> const & from,
                          InterleavedPixelSpan<C1, C2, C3, C4, C5> & to) {
    for (int channel = 0; channel < ChannelTuple<C1, C2, C3, C4, C5>::channelCount; ++channel)
        for (int i = 0; i < spanLength; ++i)
            to.pixels[i].channels[channel] = from.runs[channel][i];
}
}
