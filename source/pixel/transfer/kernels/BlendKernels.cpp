#include "pixel/transfer/kernels/BlendKernels.h"

#include "pixel/transfer/BlendRules.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "pixel/transfer/kernels/BlendKernels.cpp"
#include <hwy/cache_control.h>
#include <hwy/foreach_target.h> // before highway.h
#include <hwy/highway.h>

#include <algorithm>
#include <cstdint>

// Each row is blended in blocks that stay in the first-level cache: a pass over alpha writes the new alpha and the
// shares, then one pass a colour mixes. The passes over colour are what costs, and they are free of branches.
HWY_BEFORE_NAMESPACE();
namespace Raster::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

constexpr std::size_t blockLength = 1024;
// In samples: too many streams at once for the processor to follow by itself.
constexpr std::size_t prefetchAhead = 512;
// Bytes that are copied at once. Tiles begin at the same place of a page: in longer copies processors take reads for
// such as wait for the writes just before them.
constexpr std::size_t copyLength = 256;

// What a pass over alpha found in its block.
enum class Cover { Nothing, Mixed, Everything };

// 8 bits. m(p, q) = (t + 128 + (t >> 8)) >> 8 with t = p q is floor(257 t / 65536 + 1/2), half of floor(257 p * 2 q /
// 65536) rounded up: a high product and an average in 16-bit lanes. Bytes at even places and bytes at odd ones go by
// turns. Runs end in narrower vectors, then one by one.
#if HWY_TARGET != HWY_SCALAR
using Bytes = hn::ScalableTag<std::uint8_t>;
using FewBytes = hn::FixedTag<std::uint8_t, 16>;

// 16-bit lanes made of the bytes at even places, and of those at odd ones.
template<class V>
struct EvenOdd {
    V even, odd;
};
template<class V>
EvenOdd(V, V) -> EvenOdd<V>;

// 257 p: each byte beside itself.
template<class D>
HWY_INLINE auto Times257(D d, hn::Vec<D> bytes) {
    alignas(16) static constexpr std::uint8_t evens[16] = {0, 0, 2, 2, 4, 4, 6, 6, 8, 8, 10, 10, 12, 12, 14, 14};
    alignas(16) static constexpr std::uint8_t odds[16] = {1, 1, 3, 3, 5, 5, 7, 7, 9, 9, 11, 11, 13, 13, 15, 15};
    hn::Repartition<std::uint16_t, D> const wide;
    return EvenOdd{hn::BitCast(wide, hn::TableLookupBytes(bytes, hn::LoadDup128(d, evens))),
                   hn::BitCast(wide, hn::TableLookupBytes(bytes, hn::LoadDup128(d, odds)))};
}
// 2 q.
template<class D>
HWY_INLINE auto Twice(D d, hn::Vec<D> bytes) {
    (void)d;
    hn::Repartition<std::uint16_t, D> const wide;
    auto const words = hn::BitCast(wide, bytes);
    auto const even = hn::And(words, hn::Set(wide, 255)), odd = hn::ShiftRight<8>(words);
    return EvenOdd{hn::Add(even, even), hn::Add(odd, odd)};
}
// 2 (255 - q) of 2 q.
template<class V>
HWY_INLINE EvenOdd<V> TwiceOthers(EvenOdd<V> twice) {
    auto const full = hn::Set(hn::DFromV<V>(), 2 * 255);
    return {hn::Sub(full, twice.even), hn::Sub(full, twice.odd)};
}

template<class V>
HWY_INLINE EvenOdd<V> Multiply(EvenOdd<V> p257, EvenOdd<V> twiceQ) {
    auto const zero = hn::Zero(hn::DFromV<V>());
    return {hn::AverageRound(hn::MulHigh(p257.even, twiceQ.even), zero),
            hn::AverageRound(hn::MulHigh(p257.odd, twiceQ.odd), zero)};
}
template<class V>
HWY_INLINE EvenOdd<V> Add(EvenOdd<V> a, EvenOdd<V> b) {
    return {hn::Add(a.even, b.even), hn::Add(a.odd, b.odd)};
}
// Lanes of at most 255 as bytes again.
template<class D, class V>
HWY_INLINE hn::Vec<D> Join(D d, EvenOdd<V> words) {
    return hn::BitCast(d, hn::Or(words.even, hn::ShiftLeft<8>(words.odd)));
}

// Calls function(tag, index) for whole vectors.
// @return where the pixels begin that are left.
template<class Function>
HWY_INLINE std::size_t ForEachVector(std::size_t count, Function const & function) {
    std::size_t i = 0;
    for (std::size_t const lanes = hn::Lanes(Bytes()); i + lanes <= count; i += lanes)
        function(Bytes(), i);
    for (; i + 16 <= count; i += 16)
        function(FewBytes(), i);
    return i;
}
#else
template<class Function>
HWY_INLINE std::size_t ForEachVector(std::size_t, Function const &) {
    return 0;
}
#endif

HWY_INLINE void ScaleAlpha8(std::uint8_t * HWY_RESTRICT scaled, std::uint8_t const * HWY_RESTRICT alpha,
                            std::size_t count, unsigned opacity) {
    std::size_t i = ForEachVector(count, [&](auto d, std::size_t at) {
        auto const a = hn::LoadU(d, alpha + at), o = hn::Set(d, static_cast<std::uint8_t>(opacity));
        hn::StoreU(Join(d, Multiply(Times257(d, a), Twice(d, o))), d, scaled + at);
    });
    for (; i < count; ++i)
        scaled[i] = static_cast<std::uint8_t>(BlendRules::Multiply8(opacity, alpha[i]));
}

// What all alphas of a block have in common.
struct Alphas8 {
    bool isNothing, isEverything, isDestFull;
};
HWY_INLINE Alphas8 LookAtAlphas8(std::uint8_t const * source, std::uint8_t const * dest, std::size_t count) {
#if HWY_TARGET != HWY_SCALAR
    Bytes const d;
    std::size_t const lanes = hn::Lanes(d);
    if (count >= lanes) {
        auto any = hn::Zero(d), all = hn::Set(d, 255), allDest = all;
        for (std::size_t i = 0; i < count; i += lanes) {
            std::size_t const at = std::min(i, count - lanes); // the last vector may begin in the one before
            auto const a = hn::LoadU(d, source + at);
            any = hn::Or(any, a);
            all = hn::And(all, a);
            allDest = hn::And(allDest, hn::LoadU(d, dest + at));
        }
        auto const full = hn::Set(d, 255);
        return {hn::AllTrue(d, hn::Eq(any, hn::Zero(d))), hn::AllTrue(d, hn::Eq(all, full)),
                hn::AllTrue(d, hn::Eq(allDest, full))};
    }
#endif
    unsigned any = 0, all = 255, allDest = 255;
    for (std::size_t i = 0; i < count; ++i) {
        any |= source[i];
        all &= source[i];
        allDest &= dest[i];
    }
    return {any == 0, all == 255, allDest == 255};
}

// The new alphas of a destination, and the share of the source in the new colours. The shares may replace its alphas.
HWY_INLINE void CoverPixels8(std::uint8_t * HWY_RESTRICT destAlpha, std::uint8_t const * alpha, std::uint8_t * shares,
                             std::size_t count) {
    std::size_t i = ForEachVector(count, [&](auto d, std::size_t at) {
        auto const a = hn::LoadU(d, alpha + at), others = hn::Not(a), old = hn::LoadU(d, destAlpha + at);
        auto const rest = Join(d, Multiply(Times257(d, others), Twice(d, old)));
        hn::StoreU(hn::Add(rest, a), d, destAlpha + at); // at most 255
    });
    for (; i < count; ++i)
        destAlpha[i] = BlendRules::Cover(alpha[i], destAlpha[i]).alpha;

    hn::ScalableTag<std::int32_t> const wide;
    hn::ScalableTag<float> const real;
    hn::Rebind<std::uint8_t, decltype(wide)> const narrow;
    i = 0;
    for (std::size_t const lanes = hn::Lanes(wide); i + lanes <= count; i += lanes) {
        auto const a = hn::ConvertTo(real, hn::PromoteTo(wide, hn::LoadU(narrow, alpha + i)));
        auto const r = hn::ConvertTo(real, hn::PromoteTo(wide, hn::LoadU(narrow, destAlpha + i)));
        // n / r of integers below 2^16 is never so close below a whole number that the float quotient rounds up to it.
        auto const share = hn::Div(hn::Mul(a, hn::Set(real, 255.0f)), hn::Max(r, hn::Set(real, 1.0f)));
        hn::StoreU(hn::DemoteTo(narrow, hn::ConvertTo(wide, share)), narrow, shares + i);
    }
    for (; i < count; ++i)
        shares[i] = static_cast<std::uint8_t>(destAlpha[i] == 0 ? 0 : alpha[i] * 255u / destAlpha[i]);
}

template<int colours>
HWY_INLINE void MixPixels8(std::uint8_t * const * dest, std::uint8_t const * const * source,
                           std::uint8_t const * shares, std::size_t count) {
    std::size_t const rest = ForEachVector(count, [&](auto d, std::size_t at) {
        auto const k = Twice(d, hn::LoadU(d, shares + at)), others = TwiceOthers(k);
        hwy::Prefetch(source[colours] + at + blockLength); // the next block is looked at before it is mixed
        hwy::Prefetch(dest[colours] + at + blockLength);
        for (int c = 0; c < colours; ++c) {
            hwy::Prefetch(source[c] + at + prefetchAhead);
            hwy::Prefetch(dest[c] + at + prefetchAhead);
            auto const s = hn::LoadU(d, source[c] + at), old = hn::LoadU(d, dest[c] + at);
            hn::StoreU(Join(d, Add(Multiply(Times257(d, s), k), Multiply(Times257(d, old), others))), d, dest[c] + at);
        }
    });
    for (int c = 0; c < colours; ++c)
        for (std::size_t i = rest; i < count; ++i)
            dest[c][i] = BlendRules::Mix(dest[c][i], source[c][i], shares[i]);
}

template<int colours>
void BlendBytes(void * const * dest, void const * const * source, std::size_t count, float opacity) {
    unsigned const o = BlendRules::ToOpacity8(opacity);
    HWY_ALIGN std::uint8_t shares[blockLength];
    for (std::size_t begin = 0; begin < count; begin += blockLength) {
        std::size_t const length = std::min(blockLength, count - begin);
        std::uint8_t * to[colours + 1];
        std::uint8_t const * from[colours + 1];
        for (int c = 0; c <= colours; ++c) {
            to[c] = static_cast<std::uint8_t *>(dest[c]) + begin;
            from[c] = static_cast<std::uint8_t const *>(source[c]) + begin;
        }
        std::uint8_t const * share = from[colours];
        if (o < 255) {
            ScaleAlpha8(shares, share, length, o);
            share = shares;
        }
        auto const alphas = LookAtAlphas8(share, to[colours], length);
        if (alphas.isNothing)
            continue;
        if (alphas.isEverything) {
            std::fill_n(to[colours], length, std::uint8_t(255));
            for (std::size_t i = 0; i < length; i += copyLength)
                for (int c = 0; c < colours; ++c)
                    std::copy_n(from[c] + i, std::min(copyLength, length - i), to[c] + i);
            continue;
        }
        if (!alphas.isDestFull) { // else alpha stays, and the share is the source's alpha
            CoverPixels8(to[colours], share, shares, length);
            share = shares;
        }
        MixPixels8<colours>(to, from, share, length);
    }
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

void BlendRows16(void * const * dest, void const * const * source, int colours, std::size_t count, float opacity) {
    unsigned const o = BlendRules::ToOpacity16(opacity);
    std::uint16_t shares[blockLength];
    for (std::size_t begin = 0; begin < count; begin += blockLength) {
        std::size_t const length = std::min(blockLength, count - begin);
        auto const cover = CoverBlock16(static_cast<std::uint16_t *>(dest[colours]) + begin,
                                        static_cast<std::uint16_t const *>(source[colours]) + begin, shares, length, o);
        if (cover == Cover::Nothing)
            continue;
        for (int c = 0; c < colours; ++c) {
            auto * const d = static_cast<std::uint16_t *>(dest[c]) + begin;
            auto const * const s = static_cast<std::uint16_t const *>(source[c]) + begin;
            if (cover == Cover::Everything)
                std::copy_n(s, length, d);
            else
                MixBlock16(d, s, shares, length);
        }
    }
}

void BlendRows8(void * const * dest, void const * const * source, int colours, std::size_t count, float opacity) {
    switch (colours) {
    case 0:
        return BlendBytes<0>(dest, source, count, opacity);
    case 1:
        return BlendBytes<1>(dest, source, count, opacity);
    case 2:
        return BlendBytes<2>(dest, source, count, opacity);
    case 3:
        return BlendBytes<3>(dest, source, count, opacity);
    default:
        return BlendBytes<4>(dest, source, count, opacity);
    }
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
