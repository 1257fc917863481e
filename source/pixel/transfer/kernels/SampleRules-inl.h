// The rules of pixel/transfer/SampleRules.h on vectors of floats. Included by kernels inside their per-target
// namespace. Every step is that of the scalar rule in its order: Mul then Add, never fused, and true division.
#if defined(RASTER_SAMPLE_RULES_INL) == defined(HWY_TARGET_TOGGLE)
#ifdef RASTER_SAMPLE_RULES_INL
#undef RASTER_SAMPLE_RULES_INL
#else
#define RASTER_SAMPLE_RULES_INL
#endif

#include "pixel/transfer/SampleRules.h"

#include <cstdint>
#include <hwy/highway.h>
#include <type_traits>

HWY_BEFORE_NAMESPACE();
namespace Raster::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

template<class Sample, class D>
HWY_INLINE auto LoadFloats(D d, Sample const * samples) {
    if constexpr (std::is_same_v<Sample, float>) {
        return hn::LoadU(d, samples);
    } else {
        hn::RebindToSigned<D> const whole;
        hn::Rebind<Sample, D> const narrow;
        return hn::ConvertTo(d, hn::PromoteTo(whole, hn::LoadU(narrow, samples)));
    }
}

// Integers are rounded to nearest, halves to even: a float of 2^23 has no bits for a fraction. Sums of integers are
// never negative, and always numbers.
template<class Sample, class V>
HWY_INLINE void StoreSamples(V value, Sample * samples) {
    hn::DFromV<V> const d;
    if constexpr (std::is_same_v<Sample, float>) {
        hn::StoreU(value, d, samples);
    } else {
        hn::RebindToSigned<decltype(d)> const whole;
        hn::Rebind<Sample, decltype(d)> const narrow;
        float const withoutFraction = 8388608.0f;
        auto const rounded =
            hn::Add(hn::Min(value, hn::Set(d, SampleRules::maximum<Sample>)), hn::Set(d, withoutFraction));
        auto const number = hn::Sub(hn::BitCast(whole, rounded), hn::BitCast(whole, hn::Set(d, withoutFraction)));
        if constexpr (sizeof(Sample) == 1)
            hn::StoreU(hn::U8FromU32(hn::BitCast(hn::RebindToUnsigned<decltype(d)>(), number)), narrow, samples);
        else
            hn::StoreU(hn::DemoteTo(narrow, number), narrow, samples);
    }
}

template<class Sample, class V>
HWY_INLINE V Premultiply(V colour, V alpha) {
    hn::DFromV<V> const d;
    auto product = hn::Mul(colour, alpha);
    if constexpr (std::is_same_v<Sample, std::uint8_t>)
        product = hn::Mul(product, hn::Set(d, 0.003921569f));
    else if constexpr (std::is_same_v<Sample, std::uint16_t>)
        product = hn::Mul(product, hn::Set(d, 1.5259022e-5f));
    if constexpr (std::is_same_v<Sample, float>) // an integer's product with 0 is 0
        product = hn::IfThenZeroElse(hn::Eq(alpha, hn::Zero(d)), product);
    return hn::IfThenElse(hn::Eq(alpha, hn::Set(d, SampleRules::maximum<Sample>)), colour, product);
}

// A sample without weight is left out if it could be infinite; a product with 0 of a finite one changes no sum.
template<bool MayBeInfinite, class V>
HWY_INLINE V Accumulate(V sum, V weight, V pixels) {
    hn::DFromV<V> const d;
    auto const added = hn::Add(sum, hn::Mul(weight, pixels));
    if constexpr (MayBeInfinite)
        return hn::IfThenElse(hn::Eq(weight, hn::Zero(d)), sum, added);
    else
        return added;
}

// The first of a sum.
template<bool MayBeInfinite, class V>
HWY_INLINE V BeginSum(V weight, V pixels) {
    if constexpr (MayBeInfinite)
        return Accumulate<true>(hn::Zero(hn::DFromV<V>()), weight, pixels);
    else
        return hn::Mul(weight, pixels); // never negative, so adding it to 0 would change nothing
}

// The colour that belongs to a premultiplied sum; `asItIs` are the lanes whose alpha is 0 or full. What passes an
// integer's maximum is bounded when it is stored.
template<class Sample, class V, class M>
HWY_INLINE V Unpremultiply(V colour, V reciprocal, M asItIs) {
    auto const full = hn::Set(hn::DFromV<V>(), SampleRules::maximum<Sample>);
    return hn::IfThenElse(asItIs, colour, hn::Mul(hn::Mul(colour, full), reciprocal));
}

// Stores one vector of premultiplied sums as samples.
// sumOf: gives the sums of a channel, alpha being the last. dest: where they go, for each channel.
template<class Sample, int colours, class SumOf>
HWY_INLINE void StoreSums(SumOf const & sumOf, Sample * const * dest) {
    auto const alpha = sumOf(colours);
    StoreSamples(alpha, dest[colours]);
    if constexpr (colours > 0) {
        hn::DFromV<decltype(alpha)> const d;
        auto const full = hn::Set(d, SampleRules::maximum<Sample>);
        auto const asItIs = hn::Or(hn::Eq(alpha, hn::Zero(d)), hn::Eq(alpha, full));
        if (hn::AllTrue(d, asItIs)) {
            for (int c = 0; c < colours; ++c)
                StoreSamples(sumOf(c), dest[c]);
            return;
        }
        auto const reciprocal = hn::Div(hn::Set(d, 1.0f), alpha);
        for (int c = 0; c < colours; ++c)
            StoreSamples(Unpremultiply<Sample>(sumOf(c), reciprocal, asItIs), dest[c]);
    }
}

// Calls a function with the number of colours as a constant.
template<class Function>
HWY_INLINE void VisitColours(int colours, Function const & function) {
    switch (colours) {
    case 0:
        return function(std::integral_constant<int, 0>());
    case 1:
        return function(std::integral_constant<int, 1>());
    case 3:
        return function(std::integral_constant<int, 3>());
    default:
        return function(std::integral_constant<int, 4>());
    }
}
}
HWY_AFTER_NAMESPACE();

#endif
