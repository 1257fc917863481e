#include "pixel/Half.h"

#include <Imath/half.h>

namespace Raster {
float ToFloat(Half value) noexcept { return imath_half_to_float(value.bits); }

Half ToHalf(float value) noexcept { return {imath_float_to_half(value)}; }
}
