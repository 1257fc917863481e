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
    auto const load = [&](int channel, std::size_t i) {
        return LoadFloats(d, static_cast<Sample const *>(source[channel]) + i);
    };
    for (std::size_t i = 0; i < count; i += hn::Lanes(d)) {
        auto const alpha = load(colours, i);
        hn::StoreU(alpha, d, dest[colours] + i);
        for (int c = 0; c < colours; ++c)
            hn::StoreU(Premultiply<Sample>(load(c, i), alpha), d, dest[c] + i);
    }
}

template<class Sample>
void PremultiplyColumns(float * const * dest, void const * const * source, int colours, std::size_t count) {
    std::size_t const whole = count - count % hn::Lanes(Columns());
    VisitColours(colours,
                 [&](auto number) { PremultiplyVectors<Sample, decltype(number)::value>(dest, source, whole); });
    float * restDest[5];
    void const * restSource[5];
    for (int c = 0; c <= colours; ++c) {
        restDest[c] = dest[c] + whole;
        restSource[c] = static_cast<Sample const *>(source[c]) + whole;
    }
    Scalar::GetPremultiplyPlanes(SampleRules::sampleTypeOf<Sample>)(restDest, restSource, colours, count - whole);
}

// The columns of one vector lie close together as a rule: then their samples are looked up in a table of one vector or
// of two. A matrix that shrinks further has them collected one by one.
void SpreadRow(UprightRow & row, float const * const * planes, UprightColumns const & columns, int colours) {
    Columns const d;
    hn::RebindToSigned<Columns> const whole;
    auto const lanes = static_cast<int>(hn::Lanes(d));
    auto const inFirst = hn::Set(whole, lanes - 1);
    for (int i = 0; i < columns.count; i += lanes) {
        auto const ends = std::minmax(columns.cells[i], columns.cells[i + lanes - 1]); // cells never turn back
        std::int32_t const first = ends.first, distance = ends.second + 1 - first;
        auto const left = hn::Sub(hn::LoadU(whole, columns.cells + i), hn::Set(whole, first));
        auto const right = hn::Add(left, hn::Set(whole, 1));
        if (distance < lanes) {
            auto const leftIndices = hn::IndicesFromVec(d, left), rightIndices = hn::IndicesFromVec(d, right);
            for (int c = 0; c <= colours; ++c) {
                auto const table = hn::LoadU(d, planes[c] + first);
                hn::StoreU(hn::TableLookupLanes(table, leftIndices), d, row.left[c] + i);
                hn::StoreU(hn::TableLookupLanes(table, rightIndices), d, row.right[c] + i);
            }
        } else if (distance < 2 * lanes) {
            auto const leftIndices = hn::IndicesFromVec(d, hn::And(left, inFirst));
            auto const rightIndices = hn::IndicesFromVec(d, hn::And(right, inFirst));
            auto const isLeftInSecond = hn::RebindMask(d, hn::Gt(left, inFirst));
            auto const isRightInSecond = hn::RebindMask(d, hn::Gt(right, inFirst));
            for (int c = 0; c <= colours; ++c) {
                auto const table = hn::LoadU(d, planes[c] + first), second = hn::LoadU(d, planes[c] + first + lanes);
                auto const look = [&](auto indices, auto isInSecond) {
                    return hn::IfThenElse(isInSecond, hn::TableLookupLanes(second, indices),
                                          hn::TableLookupLanes(table, indices));
                };
                hn::StoreU(look(leftIndices, isLeftInSecond), d, row.left[c] + i);
                hn::StoreU(look(rightIndices, isRightInSecond), d, row.right[c] + i);
            }
        } else {
            for (int c = 0; c <= colours; ++c)
                for (int lane = i; lane < i + lanes; ++lane) {
                    row.left[c][lane] = planes[c][columns.cells[lane]];
                    row.right[c][lane] = planes[c][columns.cells[lane] + 1];
                }
        }
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
        auto const sumOf = [&](int c) {
            auto sum = Accumulate<mayBeInfinite>(hn::Zero(d), topLeft, hn::LoadU(d, upper.left[c] + i));
            sum = Accumulate<mayBeInfinite>(sum, topRight, hn::LoadU(d, upper.right[c] + i));
            sum = Accumulate<mayBeInfinite>(sum, bottomLeft, hn::LoadU(d, lower.left[c] + i));
            return Accumulate<mayBeInfinite>(sum, bottomRight, hn::LoadU(d, lower.right[c] + i));
        };
        StoreSums<Sample, colours>(sumOf, target);
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
HWY_EXPORT(SpreadRow);

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
void SpreadRow(UprightRow & row, float const * const * planes, UprightColumns const & columns, int colours) {
    HWY_DYNAMIC_DISPATCH(SpreadRow)(row, planes, columns, colours);
}
}
#endif
