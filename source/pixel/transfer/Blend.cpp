#include "pixel/transfer/Blend.h"

#include "pixel/transfer/BlendRules.h"
#include "pixel/transfer/kernels/BlendKernels.h"

#include <cstdint>

namespace Raster {
namespace {
template<class Sample>
void BlendRowsPlainly(void * const * dest, void const * const * source, int colours, std::size_t count, float opacity) {
    auto * const destAlpha = static_cast<Sample *>(dest[colours]);
    auto const * const sourceAlpha = static_cast<Sample const *>(source[colours]);
    for (std::size_t i = 0; i < count; ++i) {
        Sample const a = BlendRules::ApplyOpacity(sourceAlpha[i], opacity);
        if (a == Sample(0))
            continue;
        auto const cover = BlendRules::Cover(a, destAlpha[i]);
        destAlpha[i] = cover.alpha;
        for (int c = 0; c < colours; ++c) {
            auto & d = static_cast<Sample *>(dest[c])[i];
            d = BlendRules::Mix(d, static_cast<Sample const *>(source[c])[i], cover.share);
        }
    }
}
}

BlendRows Scalar::GetBlendRows(SampleType sampleType) {
    switch (sampleType) {
    case SampleType::Integer8:
        return BlendRowsPlainly<std::uint8_t>;
    case SampleType::Integer16:
        return BlendRowsPlainly<std::uint16_t>;
    case SampleType::Float:
        return BlendRowsPlainly<float>;
    case SampleType::Half:
    case SampleType::ComplexFloat:
        break;
    }
    return nullptr;
}

BlendRows GetBlendRows(SampleType sampleType) {
    switch (sampleType) {
    case SampleType::Integer8:
        return BlendRows8;
    case SampleType::Integer16:
        return BlendRows16;
    case SampleType::Float:
        return BlendRowsFloat;
    case SampleType::Half:
    case SampleType::ComplexFloat:
        break;
    }
    return nullptr;
}
}
