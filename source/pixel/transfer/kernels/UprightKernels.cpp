#include "pixel/transfer/kernels/UprightKernels.h"

#include "pixel/transfer/UprightSampler.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "pixel/transfer/kernels/UprightKernels.cpp"
#include <hwy/foreach_target.h> // before highway.h
#include <hwy/highway.h>

#include "pixel/transfer/kernels/SampleRules-inl.h"

#include <algorithm>
#include <cstdint>
#include <type_traits>

HWY_BEFORE_NAMESPACE();
namespace Raster::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// Arrays of columns are filled on to a multiple of this.
using Columns = hn::CappedTag<float, 16>;

template<class Sample, int colours>
HWY_INLINE void PremultiplyVectors(float * const * dest, void const * const * source, std::size_t count) {
    Columns const d;
    std::size_t const lanes = hn::Lanes(d);
    for (std::size_t next = 0; next < count; next += lanes) {
        std::size_t const i = std::min(next, count - lanes); // the last vector may begin in the one before
        auto const load = [&](int channel) { return LoadFloats(d, static_cast<Sample const *>(source[channel]) + i); };
        auto const alpha = load(colours);
        hn::StoreU(alpha, d, dest[colours] + i);
        for (int c = 0; c < colours; ++c)
            hn::StoreU(Premultiply<Sample>(load(c), alpha), d, dest[c] + i);
    }
}

template<class Sample>
void PremultiplyColumns(float * const * dest, void const * const * source, int colours, std::size_t count) {
    if (count < hn::Lanes(Columns())) {
        Scalar::GetPremultiplyPlanes(SampleRules::sampleTypeOf<Sample>)(dest, source, colours, count);
        return;
    }
    VisitColours(colours,
                 [&](auto number) { PremultiplyVectors<Sample, decltype(number)::value>(dest, source, count); });
}

// The samples beside a vector of columns.
struct Neighbours {
    hn::Vec<Columns> left, right;
};

// Calls a function with what finds the neighbours of the columns from `i` on in a plane. The columns of one vector lie
// close together as a rule: then their samples are looked up in a table of one vector or of two. A matrix that shrinks
// further has them gathered from all over the plane.
template<class Function>
HWY_INLINE void VisitLookUp(UprightColumns const & columns, int i, Function const & function) {
    Columns const d;
    hn::RebindToSigned<Columns> const whole;
    auto const lanes = static_cast<int>(hn::Lanes(d));
    auto const ends = std::minmax(columns.cells[i], columns.cells[i + lanes - 1]); // cells never turn back
    std::int32_t const first = ends.first, distance = ends.second + 1 - first;
    auto const cells = hn::LoadU(whole, columns.cells + i);
    auto const left = hn::Sub(cells, hn::Set(whole, first));
    auto const right = hn::Add(left, hn::Set(whole, 1));
    if (distance < lanes) {
        auto const leftIndices = hn::IndicesFromVec(d, left), rightIndices = hn::IndicesFromVec(d, right);
        function([&](float const * plane) -> Neighbours {
            auto const table = hn::LoadU(d, plane + first);
            return {hn::TableLookupLanes(table, leftIndices), hn::TableLookupLanes(table, rightIndices)};
        });
    } else if (distance < 2 * lanes) {
        auto const inFirst = hn::Set(whole, lanes - 1);
        auto const leftIndices = hn::IndicesFromVec(d, hn::And(left, inFirst));
        auto const rightIndices = hn::IndicesFromVec(d, hn::And(right, inFirst));
        auto const isLeftInSecond = hn::RebindMask(d, hn::Gt(left, inFirst));
        auto const isRightInSecond = hn::RebindMask(d, hn::Gt(right, inFirst));
        function([&](float const * plane) -> Neighbours {
            auto const table = hn::LoadU(d, plane + first), second = hn::LoadU(d, plane + first + lanes);
            auto const look = [&](auto indices, auto isInSecond) {
                return hn::IfThenElse(isInSecond, hn::TableLookupLanes(second, indices),
                                      hn::TableLookupLanes(table, indices));
            };
            return {look(leftIndices, isLeftInSecond), look(rightIndices, isRightInSecond)};
        });
    } else {
        function([&](float const * plane) -> Neighbours {
            return {hn::GatherIndex(d, plane, cells), hn::GatherIndex(d, plane + 1, cells)};
        });
    }
}

// The lanes past the last column have no weight: they are computed, and never stored.
template<class Sample, int colours>
HWY_INLINE void MixColumns(void * const * dest, UprightRow const & upper, UprightRow const & lower,
                           UprightColumns const & columns, float fy) {
    constexpr bool mayBeInfinite = std::is_same_v<Sample, float>;
    Columns const d;
    auto const lanes = static_cast<int>(hn::Lanes(d));
    HWY_ALIGN Sample spill[colours + 1][hn::MaxLanes(d)];
    auto const below = hn::Set(d, fy), above = hn::Set(d, 1.0f - fy);
    for (int i = 0; i < columns.count; i += lanes) {
        bool const whole = i + lanes <= columns.count;
        Sample * target[colours + 1];
        for (int c = 0; c <= colours; ++c)
            target[c] = whole ? static_cast<Sample *>(dest[c]) + i : spill[c];
        auto const left = hn::LoadU(d, columns.weightsOfLeft + i), right = hn::LoadU(d, columns.weightsOfRight + i);
        auto const topLeft = hn::Mul(above, left), topRight = hn::Mul(above, right);
        auto const bottomLeft = hn::Mul(below, left), bottomRight = hn::Mul(below, right);
        VisitLookUp(columns, i, [&](auto const & lookUp) {
            auto const sumOf = [&](int c) {
                Neighbours const top = lookUp(upper.planes[c]), bottom = lookUp(lower.planes[c]);
                auto sum = BeginSum<mayBeInfinite>(topLeft, top.left);
                sum = Accumulate<mayBeInfinite>(sum, topRight, top.right);
                sum = Accumulate<mayBeInfinite>(sum, bottomLeft, bottom.left);
                return Accumulate<mayBeInfinite>(sum, bottomRight, bottom.right);
            };
            StoreSums<Sample, colours>(sumOf, target);
        });
        if (!whole)
            for (int c = 0; c <= colours; ++c)
                std::copy_n(spill[c], columns.count - i, static_cast<Sample *>(dest[c]) + i);
    }
}

template<class Sample>
void MixSamples(void * const * dest, UprightRow const & upper, UprightRow const & lower, UprightColumns const & columns,
                float fy, int colours) {
    VisitColours(colours,
                 [&](auto number) { MixColumns<Sample, decltype(number)::value>(dest, upper, lower, columns, fy); });
}

void PremultiplyPlanes8(float * const * dest, void const * const * source, int colours, std::size_t count) {
    PremultiplyColumns<std::uint8_t>(dest, source, colours, count);
}
void PremultiplyPlanes16(float * const * dest, void const * const * source, int colours, std::size_t count) {
    PremultiplyColumns<std::uint16_t>(dest, source, colours, count);
}
void PremultiplyPlanesFloat(float * const * dest, void const * const * source, int colours, std::size_t count) {
    PremultiplyColumns<float>(dest, source, colours, count);
}
void MixRows8(void * const * dest, UprightRow const & upper, UprightRow const & lower, UprightColumns const & columns,
              float fy, int colours) {
    MixSamples<std::uint8_t>(dest, upper, lower, columns, fy, colours);
}
void MixRows16(void * const * dest, UprightRow const & upper, UprightRow const & lower, UprightColumns const & columns,
               float fy, int colours) {
    MixSamples<std::uint16_t>(dest, upper, lower, columns, fy, colours);
}
void MixRowsFloat(void * const * dest, UprightRow const & upper, UprightRow const & lower,
                  UprightColumns const & columns, float fy, int colours) {
    MixSamples<float>(dest, upper, lower, columns, fy, colours);
}
}
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace Raster {
HWY_EXPORT(PremultiplyPlanes8);
HWY_EXPORT(PremultiplyPlanes16);
HWY_EXPORT(PremultiplyPlanesFloat);
HWY_EXPORT(MixRows8);
HWY_EXPORT(MixRows16);
HWY_EXPORT(MixRowsFloat);

void PremultiplyPlanes8(float * const * dest, void const * const * source, int colours, std::size_t count) {
    HWY_DYNAMIC_DISPATCH(PremultiplyPlanes8)(dest, source, colours, count);
}
void PremultiplyPlanes16(float * const * dest, void const * const * source, int colours, std::size_t count) {
    HWY_DYNAMIC_DISPATCH(PremultiplyPlanes16)(dest, source, colours, count);
}
void PremultiplyPlanesFloat(float * const * dest, void const * const * source, int colours, std::size_t count) {
    HWY_DYNAMIC_DISPATCH(PremultiplyPlanesFloat)(dest, source, colours, count);
}
void MixRows8(void * const * dest, UprightRow const & upper, UprightRow const & lower, UprightColumns const & columns,
              float fy, int colours) {
    HWY_DYNAMIC_DISPATCH(MixRows8)(dest, upper, lower, columns, fy, colours);
}
void MixRows16(void * const * dest, UprightRow const & upper, UprightRow const & lower, UprightColumns const & columns,
               float fy, int colours) {
    HWY_DYNAMIC_DISPATCH(MixRows16)(dest, upper, lower, columns, fy, colours);
}
void MixRowsFloat(void * const * dest, UprightRow const & upper, UprightRow const & lower,
                  UprightColumns const & columns, float fy, int colours) {
    HWY_DYNAMIC_DISPATCH(MixRowsFloat)(dest, upper, lower, columns, fy, colours);
}
}
#endif
