// The rules of pixel/ConversionRules.h on vectors of floats. Included by kernels inside their per-target namespace.
// Every step is that of the scalar rule in its order: Mul then Add, never fused, and true division.
#if defined(RASTER_CONVERSION_RULES_INL) == defined(HWY_TARGET_TOGGLE)
#ifdef RASTER_CONVERSION_RULES_INL
#undef RASTER_CONVERSION_RULES_INL
#else
#define RASTER_CONVERSION_RULES_INL
#endif

#include "pixel/ConversionRules.h"

#include <cstdint>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace Raster::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using FloatTag = hn::ScalableTag<float>;
using IntegerTag = hn::RebindToSigned<FloatTag>;
using Floats = hn::Vec<FloatTag>;
using Integers = hn::Vec<IntegerTag>;

/// NaN compares false and so becomes 0.
HWY_INLINE Floats Saturate(Floats value, float maximum) {
    FloatTag const tag;
    return hn::IfThenElseZero(hn::Gt(value, hn::Zero(tag)), hn::Min(value, hn::Set(tag, maximum)));
}
HWY_INLINE Floats ClampUnit(Floats value) { return Saturate(value, 1.0f); }

template<class Sample>
HWY_INLINE Floats LoadInteger(Sample const * source, float unit) {
    hn::Rebind<Sample, FloatTag> const narrow;
    auto const number = hn::ConvertTo(FloatTag(), hn::PromoteTo(IntegerTag(), hn::LoadU(narrow, source)));
    return hn::Mul(number, hn::Set(FloatTag(), unit));
}
HWY_INLINE Floats LoadUnit(std::uint8_t const * source) { return LoadInteger(source, Rules::unitOf8); }
HWY_INLINE Floats LoadUnit(std::uint16_t const * source) { return LoadInteger(source, Rules::unitOf16); }
HWY_INLINE Floats LoadUnit(float const * source) { return hn::LoadU(FloatTag(), source); }

HWY_INLINE Floats ScaleToRound(Floats value, float maximum) {
    FloatTag const tag;
    return hn::Add(hn::Mul(value, hn::Set(tag, maximum)), hn::Set(tag, 0.5f));
}

// Whole numbers within the range of the samples.
HWY_INLINE void StoreInteger(Integers value, std::uint8_t * dest) {
    hn::RebindToUnsigned<FloatTag> const wide;
    hn::StoreU(hn::U8FromU32(hn::BitCast(wide, value)), hn::Rebind<std::uint8_t, FloatTag>(), dest);
}
HWY_INLINE void StoreInteger(Integers value, std::uint16_t * dest) {
    hn::Rebind<std::uint16_t, FloatTag> const narrow;
    hn::StoreU(hn::DemoteTo(narrow, value), narrow, dest);
}

template<class Sample>
HWY_INLINE void StoreSaturated(Floats value, float maximum, Sample * dest) {
    StoreInteger(hn::ConvertTo(IntegerTag(), Saturate(ScaleToRound(value, maximum), maximum)), dest);
}
/// For a value that is known to be within 0 to 1: it needs no saturation.
HWY_INLINE void StoreBounded(Floats value, std::uint8_t * dest) {
    StoreInteger(hn::ConvertTo(IntegerTag(), ScaleToRound(value, Rules::maximumOf8)), dest);
}
HWY_INLINE void StoreUnit(Floats value, std::uint8_t * dest) { StoreSaturated(value, Rules::maximumOf8, dest); }
HWY_INLINE void StoreUnit(Floats value, std::uint16_t * dest) { StoreSaturated(value, Rules::maximumOf16, dest); }
HWY_INLINE void StoreUnit(Floats value, float * dest) { hn::StoreU(value, FloatTag(), dest); }
}
HWY_AFTER_NAMESPACE();
#endif
