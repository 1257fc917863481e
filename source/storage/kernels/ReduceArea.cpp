#include "storage/kernels/ReduceArea.h"

#include "storage/ReductionRules.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "storage/kernels/ReduceArea.cpp"
#include <hwy/foreach_target.h> // before highway.h
#include <hwy/highway.h>

#include <cstddef>
#include <cstdint>

// A row of results is made a vector at a time, in all planes: the alphas of its pixels are loaded once and stay in
// registers, and where they are all full the colours need neither products nor quotients.
HWY_BEFORE_NAMESPACE();
namespace Raster::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

#if HWY_TARGET == HWY_SCALAR // a vector of one lane holds no two neighbours
void ReduceArea8(ReductionArea const & area) { Scalar::ReduceArea8(area); }
void ReduceArea16(ReductionArea const & area) { Scalar::ReduceArea16(area); }
void ReduceAreaFloat(ReductionArea const & area) { Scalar::ReduceAreaFloat(area); }
#else
/// The samples above each lane's result.
template<class V>
struct Corners {
    V topLeft, topRight, bottomLeft, bottomRight;
};

template<class V>
HWY_INLINE V Sum(Corners<V> const & c) {
    return hn::Add(hn::Add(hn::Add(c.topLeft, c.topRight), c.bottomLeft), c.bottomRight);
}

// What the sample types differ in. A lane is as wide as two samples, so that a pair of neighbours is one lane of memory
// (floats are computed in lanes of their own width); `Full` and `None` are tests on the corners of alpha.

struct Bytes {
    using Sample = std::uint8_t;
    using D = hn::ScalableTag<std::uint16_t>;
    using V = hn::Vec<D>;
    using Memory = hn::Repartition<std::uint8_t, D>;
    using Packed = hn::Rebind<std::uint8_t, D>;
    using Alpha = Corners<V>;

    static HWY_INLINE Corners<V> Load(Sample const * top, Sample const * bottom) {
        D const d;
        auto const upper = hn::BitCast(d, hn::LoadU(Memory(), top));
        auto const lower = hn::BitCast(d, hn::LoadU(Memory(), bottom));
        auto const low = hn::Set(d, 255);
        return {hn::And(upper, low), hn::ShiftRight<8>(upper), hn::And(lower, low), hn::ShiftRight<8>(lower)};
    }
    static HWY_INLINE void Store(V value, Sample * dest) {
        hn::RebindToSigned<D> const signedWide;
        hn::StoreU(hn::DemoteTo(Packed(), hn::BitCast(signedWide, value)), Packed(), dest);
    }
    static HWY_INLINE V Quarter(V sum) { return hn::ShiftRight<2>(sum); }
    static HWY_INLINE V Premultiply(V colour, V alpha) {
        auto const product = hn::Mul(colour, alpha);
        return hn::ShiftRight<8>(hn::Add(hn::Add(product, hn::Set(D(), 128)), hn::ShiftRight<8>(product)));
    }
    static HWY_INLINE bool IsFull(V alpha) { return hn::AllTrue(D(), hn::Eq(alpha, hn::Set(D(), 255))); }

    /// Divides by alpha. With r = floor(65535 / a), c 255 r / 65536 is at most c 255 / a and falls short of it by less
    /// than 1: so its whole part is the quotient or one less, which the remainder tells.
    struct Divisor {
        V alpha, reciprocal;

        explicit HWY_INLINE Divisor(V mean) : alpha(hn::Max(mean, hn::Set(D(), 1))), reciprocal(Invert(alpha)) {}

        // A float quotient of whole numbers below 2^16 is never rounded up to a whole one.
        static HWY_INLINE V Invert(V alpha) {
            hn::Half<D> const half;
            hn::Repartition<std::int32_t, D> const wide;
            hn::Repartition<float, D> const real;
            auto const invert = [&](auto part) {
                auto const divisor = hn::ConvertTo(real, hn::PromoteTo(wide, part));
                return hn::DemoteTo(half, hn::ConvertTo(wide, hn::Div(hn::Set(real, 65535.0f), divisor)));
            };
            return hn::Combine(D(), invert(hn::UpperHalf(half, alpha)), invert(hn::LowerHalf(half, alpha)));
        }

        /// Of colours, which premultiplied are not above alpha.
        HWY_INLINE V Divide(V colour) const {
            D const d;
            auto const dividend = hn::Sub(hn::ShiftLeft<8>(colour), colour);
            auto const quotient = hn::MulHigh(dividend, reciprocal);
            auto const remainder = hn::Sub(dividend, hn::Mul(quotient, alpha)); // below 2 alpha
            hn::RebindToSigned<D> const s;
            auto const isExact = hn::VecFromMask(s, hn::Lt(hn::BitCast(s, remainder), hn::BitCast(s, alpha))); // is -1
            return hn::Add(hn::Add(quotient, hn::Set(d, 1)), hn::BitCast(d, isExact));
        }
    };
};

struct Words {
    using Sample = std::uint16_t;
    using D = hn::ScalableTag<std::uint32_t>;
    using V = hn::Vec<D>;
    using Memory = hn::Repartition<std::uint16_t, D>;
    using Packed = hn::Rebind<std::uint16_t, D>;

    static HWY_INLINE Corners<V> Load(Sample const * top, Sample const * bottom) {
        D const d;
        auto const upper = hn::BitCast(d, hn::LoadU(Memory(), top));
        auto const lower = hn::BitCast(d, hn::LoadU(Memory(), bottom));
        auto const low = hn::Set(d, 65535);
        return {hn::And(upper, low), hn::ShiftRight<16>(upper), hn::And(lower, low), hn::ShiftRight<16>(lower)};
    }
    static HWY_INLINE void Store(V value, Sample * dest) {
        hn::RebindToSigned<D> const signedWide;
        hn::StoreU(hn::DemoteTo(Packed(), hn::BitCast(signedWide, value)), Packed(), dest);
    }
    static HWY_INLINE V Quarter(V sum) { return hn::ShiftRight<2>(sum); }
    // x / 65535, exact for every x up to 65535 * 65535.
    static HWY_INLINE V Premultiply(V colour, V alpha) {
        auto const product = hn::Mul(colour, alpha);
        return hn::ShiftRight<16>(hn::Add(hn::Add(product, hn::ShiftRight<16>(product)), hn::Set(D(), 1)));
    }
    static HWY_INLINE bool IsFull(V alpha) { return hn::AllTrue(D(), hn::Eq(alpha, hn::Set(D(), 65535))); }

    /// Divides by alpha: the float quotient is off by one at most, which the remainder, modulo 2^32, tells.
    struct Divisor {
        using Signed = hn::RebindToSigned<D>;
        using Real = hn::RebindToFloat<D>;
        hn::Vec<Signed> alpha;
        hn::Vec<Real> reciprocal;

        explicit HWY_INLINE Divisor(V mean)
            : alpha(hn::BitCast(Signed(), hn::Max(mean, hn::Set(D(), 1)))),
              reciprocal(hn::Div(hn::Set(Real(), 65535.0f), hn::ConvertTo(Real(), alpha))) {}

        HWY_INLINE V Divide(V colour) const {
            Signed const d;
            auto const dividend = hn::BitCast(d, hn::Sub(hn::ShiftLeft<16>(colour), colour));
            auto const estimate = hn::ConvertTo(d, hn::Mul(hn::ConvertTo(Real(), hn::BitCast(d, colour)), reciprocal));
            auto const remainder = hn::Sub(dividend, hn::Mul(estimate, alpha));
            auto const isTooLarge = hn::VecFromMask(d, hn::Lt(remainder, hn::Zero(d))); // -1 if so
            auto const isEnough = hn::VecFromMask(d, hn::Lt(remainder, alpha));
            return hn::BitCast(D(), hn::Add(hn::Add(estimate, hn::Set(d, 1)), hn::Add(isTooLarge, isEnough)));
        }
    };
};

struct Reals {
    using Sample = float;
    using D = hn::ScalableTag<float>;
    using V = hn::Vec<D>;

    static HWY_INLINE Corners<V> Load(Sample const * top, Sample const * bottom) {
        D const d;
        auto const upper0 = hn::LoadU(d, top), upper1 = hn::LoadU(d, top + hn::Lanes(d));
        auto const lower0 = hn::LoadU(d, bottom), lower1 = hn::LoadU(d, bottom + hn::Lanes(d));
        return {hn::ConcatEven(d, upper1, upper0), hn::ConcatOdd(d, upper1, upper0), hn::ConcatEven(d, lower1, lower0),
                hn::ConcatOdd(d, lower1, lower0)};
    }
    static HWY_INLINE void Store(V value, Sample * dest) { hn::StoreU(value, D(), dest); }
    static HWY_INLINE V Quarter(V sum) { return hn::Mul(sum, hn::Set(D(), 0.25f)); } // as exact as a quotient
    static HWY_INLINE V Premultiply(V colour, V alpha) {
        return hn::IfThenZeroElse(hn::Eq(alpha, hn::Zero(D())), hn::Mul(colour, alpha));
    }
    static HWY_INLINE bool IsFull(V alpha) { return hn::AllTrue(D(), hn::Eq(alpha, hn::Set(D(), 1.0f))); }

    struct Divisor {
        V alpha; // a quotient by 1 is exact, so only 0 is told apart

        explicit HWY_INLINE Divisor(V mean)
            : alpha(hn::IfThenElse(hn::Eq(mean, hn::Zero(D())), hn::Set(D(), 1.0f), mean)) {}
        HWY_INLINE V Divide(V colour) const { return hn::Div(colour, alpha); }
    };
};

// Pointers to where a row of results begins in each plane.
template<class Sample>
struct Row {
    Sample const * top[5];
    Sample const * bottom[5];
    Sample * dest[5];

    HWY_INLINE Row(ReductionArea const & area, int y) {
        constexpr std::size_t stride = ReductionArea::stride / sizeof(Sample);
        bool const isLast = 2 * y + 1 == area.sourceHeight;
        for (int plane = 0; plane < area.planeCount; ++plane) {
            top[plane] = static_cast<Sample const *>(area.source[plane]) + static_cast<std::size_t>(2 * y) * stride;
            bottom[plane] = top[plane] + (isLast ? 0 : stride);
            dest[plane] = static_cast<Sample *>(area.dest[plane]) + static_cast<std::size_t>(y) * stride;
        }
    }
};

template<class Type>
HWY_INLINE void ReducePlain(Row<typename Type::Sample> const & row, int plane, std::size_t x) {
    auto const corners = Type::Load(row.top[plane] + 2 * x, row.bottom[plane] + 2 * x);
    Type::Store(Type::Quarter(Sum(corners)), row.dest[plane] + x);
}

template<class Type>
HWY_INLINE void ReduceWithAlpha(Row<typename Type::Sample> const & row, int planes, int alphaPlane, std::size_t x) {
    auto const alphas = Type::Load(row.top[alphaPlane] + 2 * x, row.bottom[alphaPlane] + 2 * x);
    auto const alpha = Type::Quarter(Sum(alphas));
    Type::Store(alpha, row.dest[alphaPlane] + x);
    bool const isOpaque = Type::IsFull(alphas.topLeft) && Type::IsFull(alphas.topRight) &&
                          Type::IsFull(alphas.bottomLeft) && Type::IsFull(alphas.bottomRight);
    if (isOpaque) {
        for (int plane = 0; plane < planes; ++plane)
            if (plane != alphaPlane)
                ReducePlain<Type>(row, plane, x);
        return;
    }
    typename Type::Divisor const divisor(alpha);
    for (int plane = 0; plane < planes; ++plane) {
        if (plane == alphaPlane)
            continue;
        auto corners = Type::Load(row.top[plane] + 2 * x, row.bottom[plane] + 2 * x);
        corners.topLeft = Type::Premultiply(corners.topLeft, alphas.topLeft);
        corners.topRight = Type::Premultiply(corners.topRight, alphas.topRight);
        corners.bottomLeft = Type::Premultiply(corners.bottomLeft, alphas.bottomLeft);
        corners.bottomRight = Type::Premultiply(corners.bottomRight, alphas.bottomRight);
        Type::Store(divisor.Divide(Type::Quarter(Sum(corners))), row.dest[plane] + x);
    }
}

template<class Type>
HWY_INLINE void ReduceArea(ReductionArea const & area) {
    auto const lanes = static_cast<int>(hn::Lanes(typename Type::D()));
    int const pairs = area.sourceWidth / 2;
    for (int y = 0; y < area.GetDestHeight(); ++y) {
        Row<typename Type::Sample> const row(area, y);
        int x = 0;
        if (area.alphaPlane >= 0)
            for (; x + lanes <= pairs; x += lanes)
                ReduceWithAlpha<Type>(row, area.planeCount, area.alphaPlane, static_cast<std::size_t>(x));
        else
            for (int plane = 0; plane < area.planeCount; ++plane)
                for (x = 0; x + lanes <= pairs; x += lanes)
                    ReducePlain<Type>(row, plane, static_cast<std::size_t>(x));
        ReductionRules::ReduceRow<typename Type::Sample>(area, y, x, area.GetDestWidth());
    }
}

void ReduceArea8(ReductionArea const & area) { ReduceArea<Bytes>(area); }
void ReduceArea16(ReductionArea const & area) { ReduceArea<Words>(area); }
void ReduceAreaFloat(ReductionArea const & area) { ReduceArea<Reals>(area); }
#endif
}
HWY_AFTER_NAMESPACE();

#if HWY_ONCE // below: compiled once, for the baseline
namespace Raster {
void Scalar::ReduceArea8(ReductionArea const & area) { ReductionRules::Reduce<std::uint8_t>(area); }
void Scalar::ReduceArea16(ReductionArea const & area) { ReductionRules::Reduce<std::uint16_t>(area); }
void Scalar::ReduceAreaFloat(ReductionArea const & area) { ReductionRules::Reduce<float>(area); }
void Scalar::ReduceAreaHalf(ReductionArea const & area) { ReductionRules::Reduce<Half>(area); }
void Scalar::ReduceAreaComplex(ReductionArea const & area) { ReductionRules::Reduce<float, 2>(area); }

HWY_EXPORT(ReduceArea8);
HWY_EXPORT(ReduceArea16);
HWY_EXPORT(ReduceAreaFloat);

void ReduceArea8(ReductionArea const & area) { HWY_DYNAMIC_DISPATCH(ReduceArea8)(area); }
void ReduceArea16(ReductionArea const & area) { HWY_DYNAMIC_DISPATCH(ReduceArea16)(area); }
void ReduceAreaFloat(ReductionArea const & area) { HWY_DYNAMIC_DISPATCH(ReduceAreaFloat)(area); }
}
#endif
