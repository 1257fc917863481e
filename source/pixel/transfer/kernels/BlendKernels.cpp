#include "pixel/transfer/kernels/BlendKernels.h"

#include "pixel/transfer/BlendRules.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "pixel/transfer/kernels/BlendKernels.cpp"
#include <hwy/foreach_target.h> // before highway.h
#include <hwy/highway.h>

#include <algorithm>
#include <cstdint>

// Each row is blended in blocks that stay in the first-level cache: a pass over alpha writes the new alpha and the
// shares, then one pass a colour mixes. The passes over colour are what costs, and they are free of branches.
HWY_BEFORE_NAMESPACE();
namespace Raster::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

constexpr std::size_t blockLength = 256;

// What a pass over alpha found in its block.
enum class Cover { Nothing, Mixed, Everything };

// 8 bits. m(p, q) = (t + 128 + (t >> 8)) >> 8 with t = p q, in 16-bit lanes.
template<class V>
HWY_INLINE V Multiply8(V p, V q) {
    hn::DFromV<V> const d;
    auto const t = hn::Mul(p, q);
    return hn::ShiftRight<8>(hn::Add(hn::Add(t, hn::Set(d, 128)), hn::ShiftRight<8>(t)));
}

HWY_INLINE Cover CoverBlock8(std::uint8_t * HWY_RESTRICT destAlpha, std::uint8_t const * HWY_RESTRICT sourceAlpha,
                             std::uint8_t * HWY_RESTRICT shares, std::size_t count, unsigned opacity) {
    unsigned anyAlpha = 0, allAlpha = 255, allDest = 255;
    for (std::size_t i = 0; i < count; ++i) { // compilers turn this into vector code
        unsigned const a = opacity < 255 ? BlendRules::Multiply8(opacity, sourceAlpha[i]) : sourceAlpha[i];
        shares[i] = static_cast<std::uint8_t>(a);
        anyAlpha |= a;
        allAlpha &= a;
        allDest &= destAlpha[i];
    }
    if (anyAlpha == 0)
        return Cover::Nothing;
    if (allAlpha == 255) {
        std::fill_n(destAlpha, count, std::uint8_t(255));
        return Cover::Everything;
    }
    if (allDest == 255)
        return Cover::Mixed; // full alpha stays, and the share is the source's alpha

    hn::ScalableTag<std::int32_t> const wide;
    hn::ScalableTag<float> const real;
    hn::Rebind<std::uint8_t, decltype(wide)> const narrow;
    auto const full = hn::Set(wide, 255);
    auto const one = hn::Set(wide, 1);
    std::size_t i = 0;
    for (std::size_t const lanes = hn::Lanes(wide); i + lanes <= count; i += lanes) {
        auto const a = hn::PromoteTo(wide, hn::LoadU(narrow, shares + i));
        auto const d = hn::PromoteTo(wide, hn::LoadU(narrow, destAlpha + i));
        auto const alpha = hn::Add(Multiply8(hn::Sub(full, a), d), a);
        // n / r of integers below 2^16 is never so close below a whole number that the float quotient rounds up to it.
        auto const share = hn::ConvertTo(
            wide, hn::Div(hn::ConvertTo(real, hn::Mul(a, full)), hn::ConvertTo(real, hn::Max(alpha, one))));
        hn::StoreU(hn::DemoteTo(narrow, alpha), narrow, destAlpha + i);
        hn::StoreU(hn::DemoteTo(narrow, share), narrow, shares + i);
    }
    for (; i < count; ++i) {
        auto const cover = BlendRules::Cover(shares[i], destAlpha[i]);
        destAlpha[i] = cover.alpha;
        shares[i] = cover.share;
    }
    return Cover::Mixed;
}

HWY_INLINE void MixBlock8(std::uint8_t * HWY_RESTRICT dest, std::uint8_t const * HWY_RESTRICT source,
                          std::uint8_t const * HWY_RESTRICT shares, std::size_t count) {
    hn::ScalableTag<std::uint16_t> const wide;
    hn::ScalableTag<std::int16_t> const signedWide;
    hn::Rebind<std::uint8_t, decltype(wide)> const narrow;
    auto const full = hn::Set(wide, 255);
    std::size_t i = 0;
    for (std::size_t const lanes = hn::Lanes(wide); i + lanes <= count; i += lanes) {
        auto const k = hn::PromoteTo(wide, hn::LoadU(narrow, shares + i));
        auto const s = hn::PromoteTo(wide, hn::LoadU(narrow, source + i));
        auto const d = hn::PromoteTo(wide, hn::LoadU(narrow, dest + i));
        auto const mixed = hn::Add(Multiply8(s, k), Multiply8(d, hn::Sub(full, k))); // at most 255
        hn::StoreU(hn::DemoteTo(narrow, hn::BitCast(signedWide, mixed)), narrow, dest + i);
    }
    for (; i < count; ++i)
        dest[i] = BlendRules::Mix(dest[i], source[i], shares[i]);
}

// 16 bits, in unsigned 32-bit lanes. x / 65535, exact for every x up to 65535 * 65535.
template<class V>
HWY_INLINE V DivideBy65535(V x) {
    hn::DFromV<V> const d;
    return hn::ShiftRight<16>(hn::Add(hn::Add(x, hn::ShiftRight<16>(x)), hn::Set(d, 1)));
}

HWY_INLINE Cover CoverBlock16(std::uint16_t * HWY_RESTRICT destAlpha, std::uint16_t const * HWY_RESTRICT sourceAlpha,
                              std::uint16_t * HWY_RESTRICT shares, std::size_t count, unsigned opacity) {
    unsigned anyAlpha = 0, allAlpha = 65535, allDest = 65535;
    for (std::size_t i = 0; i < count; ++i) {
        unsigned const a = opacity < 65535 ? opacity * sourceAlpha[i] / 65535u : sourceAlpha[i];
        shares[i] = static_cast<std::uint16_t>(a);
        anyAlpha |= a;
        allAlpha &= a;
        allDest &= destAlpha[i];
    }
    if (anyAlpha == 0)
        return Cover::Nothing;
    if (allAlpha == 65535) {
        std::fill_n(destAlpha, count, std::uint16_t(65535));
        return Cover::Everything;
    }
    if (allDest == 65535)
        return Cover::Mixed;

    hn::ScalableTag<std::uint32_t> const wide;
    hn::ScalableTag<std::int32_t> const signedWide;
    hn::ScalableTag<float> const real;
    hn::Rebind<std::uint16_t, decltype(wide)> const narrow;
    auto const full = hn::Set(wide, 65535);
    auto const one = hn::Set(wide, 1);
    std::size_t i = 0;
    for (std::size_t const lanes = hn::Lanes(wide); i + lanes <= count; i += lanes) {
        auto const a = hn::PromoteTo(wide, hn::LoadU(narrow, shares + i));
        auto const d = hn::PromoteTo(wide, hn::LoadU(narrow, destAlpha + i));
        auto const alpha = hn::Add(DivideBy65535(hn::Mul(hn::Sub(full, a), d)), a);
        // floor(65535 a / r): the float quotient is off by one at most, which the remainder shows.
        auto const r = hn::BitCast(signedWide, hn::Max(alpha, one));
        auto const numerator = hn::BitCast(signedWide, hn::Mul(a, full)); // modulo 2^32, like the remainder
        auto const estimate = hn::Div(hn::Mul(hn::ConvertTo(real, hn::BitCast(signedWide, a)), hn::Set(real, 65535.0f)),
                                      hn::ConvertTo(real, r));
        auto share = hn::ConvertTo(signedWide, estimate);
        auto const remainder = hn::Sub(numerator, hn::Mul(share, r));
        auto const tooLarge = hn::Lt(remainder, hn::Zero(signedWide));
        auto const tooSmall = hn::Gt(remainder, hn::Sub(r, hn::Set(signedWide, 1)));
        share = hn::Add(share, hn::VecFromMask(signedWide, tooLarge)); // a mask is -1
        share = hn::Sub(share, hn::VecFromMask(signedWide, tooSmall));
        hn::StoreU(hn::DemoteTo(narrow, hn::BitCast(signedWide, alpha)), narrow, destAlpha + i);
        hn::StoreU(hn::DemoteTo(narrow, share), narrow, shares + i);
    }
    for (; i < count; ++i) {
        auto const cover = BlendRules::Cover(shares[i], destAlpha[i]);
        destAlpha[i] = cover.alpha;
        shares[i] = cover.share;
    }
    return Cover::Mixed;
}

HWY_INLINE void MixBlock16(std::uint16_t * HWY_RESTRICT dest, std::uint16_t const * HWY_RESTRICT source,
                           std::uint16_t const * HWY_RESTRICT shares, std::size_t count) {
    hn::ScalableTag<std::uint32_t> const wide;
    hn::ScalableTag<std::int32_t> const signedWide;
    hn::Rebind<std::uint16_t, decltype(wide)> const narrow;
    auto const full = hn::Set(wide, 65535);
    std::size_t i = 0;
    for (std::size_t const lanes = hn::Lanes(wide); i + lanes <= count; i += lanes) {
        auto const k = hn::PromoteTo(wide, hn::LoadU(narrow, shares + i));
        auto const s = hn::PromoteTo(wide, hn::LoadU(narrow, source + i));
        auto const d = hn::PromoteTo(wide, hn::LoadU(narrow, dest + i));
        auto const mixed = DivideBy65535(hn::Add(hn::Mul(s, k), hn::Mul(d, hn::Sub(full, k))));
        hn::StoreU(hn::DemoteTo(narrow, hn::BitCast(signedWide, mixed)), narrow, dest + i);
    }
    for (; i < count; ++i)
        dest[i] = BlendRules::Mix(dest[i], source[i], shares[i]);
}

template<class Sample>
struct Block;
template<>
struct Block<std::uint8_t> {
    static constexpr auto cover = CoverBlock8;
    static constexpr auto mix = MixBlock8;
    static unsigned Opacity(float opacity) { return BlendRules::ToOpacity8(opacity); }
};
template<>
struct Block<std::uint16_t> {
    static constexpr auto cover = CoverBlock16;
    static constexpr auto mix = MixBlock16;
    static unsigned Opacity(float opacity) { return BlendRules::ToOpacity16(opacity); }
};

template<class Sample>
void BlendIntegers(void * const * dest, void const * const * source, int colours, std::size_t count, float opacity) {
    unsigned const o = Block<Sample>::Opacity(opacity);
    Sample shares[blockLength];
    for (std::size_t begin = 0; begin < count; begin += blockLength) {
        std::size_t const length = std::min(blockLength, count - begin);
        auto const cover =
            Block<Sample>::cover(static_cast<Sample *>(dest[colours]) + begin,
                                 static_cast<Sample const *>(source[colours]) + begin, shares, length, o);
        if (cover == Cover::Nothing)
            continue;
        for (int c = 0; c < colours; ++c) {
            auto * const d = static_cast<Sample *>(dest[c]) + begin;
            auto const * const s = static_cast<Sample const *>(source[c]) + begin;
            if (cover == Cover::Everything)
                std::copy_n(s, length, d);
            else
                Block<Sample>::mix(d, s, shares, length);
        }
    }
}

void BlendRows8(void * const * dest, void const * const * source, int colours, std::size_t count, float opacity) {
    BlendIntegers<std::uint8_t>(dest, source, colours, count, opacity);
}

void BlendRows16(void * const * dest, void const * const * source, int colours, std::size_t count, float opacity) {
    BlendIntegers<std::uint16_t>(dest, source, colours, count, opacity);
}

// Floats: the pixels whose source alpha is 0 keep every bit, also where the source's colour is infinite or no number.
// Those whose share is 1 get every bit of the source, whatever was there.
void BlendRowsFloat(void * const * dest, void const * const * source, int colours, std::size_t count, float opacity) {
    hn::ScalableTag<float> const d;
    auto const zero = hn::Zero(d);
    auto const one = hn::Set(d, 1.0f);
    auto const o = hn::Set(d, opacity);
    auto * const destAlpha = static_cast<float *>(dest[colours]);
    auto const * const sourceAlpha = static_cast<float const *>(source[colours]);
    std::size_t i = 0;
    for (std::size_t const lanes = hn::Lanes(d); i + lanes <= count; i += lanes) {
        auto a = hn::LoadU(d, sourceAlpha + i);
        if (opacity != 1.0f)
            a = hn::Mul(a, o);
        auto const nothing = hn::Eq(a, zero);
        if (hn::AllTrue(d, nothing))
            continue;
        auto const da = hn::LoadU(d, destAlpha + i);
        auto const opaque = hn::Eq(da, one);
        auto share = a;
        if (!hn::AllTrue(d, opaque)) {
            auto const alpha = hn::Add(hn::Mul(hn::Sub(one, a), da), a);
            auto const quotient = hn::Div(a, alpha);
            share = hn::IfThenElse(opaque, a, hn::IfThenElse(hn::Eq(alpha, zero), zero, quotient));
            hn::StoreU(hn::IfThenElse(hn::Or(opaque, nothing), da, alpha), d, destAlpha + i);
        }
        auto const rest = hn::Sub(one, share);
        auto const replaced = hn::Eq(share, one);
        for (int c = 0; c < colours; ++c) {
            float * const row = static_cast<float *>(dest[c]) + i;
            auto const old = hn::LoadU(d, row);
            auto const s = hn::LoadU(d, static_cast<float const *>(source[c]) + i);
            auto const mixed = hn::Add(hn::Mul(share, s), hn::Mul(rest, old));
            hn::StoreU(hn::IfThenElse(nothing, old, hn::IfThenElse(replaced, s, mixed)), d, row);
        }
    }
    for (; i < count; ++i) {
        float const a = BlendRules::ApplyOpacity(sourceAlpha[i], opacity);
        if (a == 0.0f)
            continue;
        auto const cover = BlendRules::Cover(a, destAlpha[i]);
        destAlpha[i] = cover.alpha;
        for (int c = 0; c < colours; ++c) {
            float & value = static_cast<float *>(dest[c])[i];
            value = BlendRules::Mix(value, static_cast<float const *>(source[c])[i], cover.share);
        }
    }
}
}
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace Raster {
HWY_EXPORT(BlendRows8);
HWY_EXPORT(BlendRows16);
HWY_EXPORT(BlendRowsFloat);

void BlendRows8(void * const * dest, void const * const * source, int colours, std::size_t count, float opacity) {
    HWY_DYNAMIC_DISPATCH(BlendRows8)(dest, source, colours, count, opacity);
}
void BlendRows16(void * const * dest, void const * const * source, int colours, std::size_t count, float opacity) {
    HWY_DYNAMIC_DISPATCH(BlendRows16)(dest, source, colours, count, opacity);
}
void BlendRowsFloat(void * const * dest, void const * const * source, int colours, std::size_t count, float opacity) {
    HWY_DYNAMIC_DISPATCH(BlendRowsFloat)(dest, source, colours, count, opacity);
}
}
#endif
