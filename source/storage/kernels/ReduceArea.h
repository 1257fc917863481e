#pragma once

#include <cstddef>

namespace Raster {
/// A piece of a planar picture that is to be halved: each 2 by 2 samples become one. Rows lie 256 bytes apart on both
/// sides. Where a size is odd, the last column or row counts twice.
struct ReductionArea {
    static constexpr std::size_t stride = 256; ///< bytes

    void const * source[5]; ///< the first sample of each plane
    void * dest[5];         ///< where the first result of each plane goes; overlaps no source
    int planeCount = 0;
    int alphaPlane = -1; ///< colours are weighted by this plane; -1 if there is none, or if it is full throughout
    int sourceWidth = 0, sourceHeight = 0; ///< samples

    int GetDestWidth() const { return sourceWidth / 2 + sourceWidth % 2; }
    int GetDestHeight() const { return sourceHeight / 2 + sourceHeight % 2; }
};

// What the results are is told in storage/ReductionRules.h.
void ReduceArea8(ReductionArea const & area);
void ReduceArea16(ReductionArea const & area);
void ReduceAreaFloat(ReductionArea const & area);

/// The definitions, sample by sample. Halves and complex floats have no other.
namespace Scalar {
void ReduceArea8(ReductionArea const & area);
void ReduceArea16(ReductionArea const & area);
void ReduceAreaFloat(ReductionArea const & area);
void ReduceAreaHalf(ReductionArea const & area);
void ReduceAreaComplex(ReductionArea const & area);
}
}
