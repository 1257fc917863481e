#include "pixel/transfer/Coverage.h"

#include "pixel/transfer/BlendRules.h"

#include <algorithm>
#include <cstdint>

namespace Raster {
namespace {
// Opacity never makes the smaller of two alphas the larger one, so the largest alone decides.
template<class Sample>
bool HasIntegerCoverage(Sample const * alpha, std::size_t count, float opacity) {
    Sample largest = 0;
    for (std::size_t i = 0; i < count; ++i)
        largest = std::max(largest, alpha[i]);
    return BlendRules::ApplyOpacity(largest, opacity) != 0;
}

bool HasFloatCoverage(float const * alpha, std::size_t count, float opacity) {
    bool found = false;
    for (std::size_t i = 0; i < count; ++i)
        found |= BlendRules::ApplyOpacity(alpha[i], opacity) != 0.0f; // also where alpha is no number
    return found;
}
}

bool HasCoverage(SampleType sampleType, void const * alpha, std::size_t count, float opacity) {
    switch (sampleType) {
    case SampleType::Integer8:
        return HasIntegerCoverage(static_cast<std::uint8_t const *>(alpha), count, opacity);
    case SampleType::Integer16:
        return HasIntegerCoverage(static_cast<std::uint16_t const *>(alpha), count, opacity);
    case SampleType::Float:
        return HasFloatCoverage(static_cast<float const *>(alpha), count, opacity);
    case SampleType::Half:
    case SampleType::ComplexFloat:
        break;
    }
    return false;
}
}
