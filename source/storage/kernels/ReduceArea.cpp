#include "storage/kernels/ReduceArea.h"

#include "storage/ReductionRules.h"

namespace Raster {
void Scalar::ReduceArea8(ReductionArea const & area) { ReductionRules::Reduce<std::uint8_t>(area); }
void Scalar::ReduceArea16(ReductionArea const & area) { ReductionRules::Reduce<std::uint16_t>(area); }
void Scalar::ReduceAreaFloat(ReductionArea const & area) { ReductionRules::Reduce<float>(area); }
void Scalar::ReduceAreaHalf(ReductionArea const & area) { ReductionRules::Reduce<Half>(area); }
void Scalar::ReduceAreaComplex(ReductionArea const & area) { ReductionRules::Reduce<float, 2>(area); }

void ReduceArea8(ReductionArea const & area) { Scalar::ReduceArea8(area); }
void ReduceArea16(ReductionArea const & area) { Scalar::ReduceArea16(area); }
void ReduceAreaFloat(ReductionArea const & area) { Scalar::ReduceAreaFloat(area); }
}
