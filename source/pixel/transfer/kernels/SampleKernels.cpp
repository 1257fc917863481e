#include "pixel/transfer/kernels/SampleKernels.h"

#include "pixel/transfer/SampleRules.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "pixel/transfer/kernels/SampleKernels.cpp"
#include <hwy/foreach_target.h> // before highway.h
#include <hwy/highway.h>

#include "pixel/transfer/kernels/SampleRules-inl.h"

#include <algorithm>
#include <cstdint>
#include <type_traits>

HWY_BEFORE_NAMESPACE();
namespace Raster::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

template<class Sample>
void PremultiplyPixels(float * const * groups, void const * const * source, int colours, std::size_t count) {
    hn::ScalableTag<float> const d;
    std::size_t const lanes = hn::Lanes(d);
    if (count < lanes) {
        Scalar::GetPremultiplyRow(SampleRules::sampleTypeOf<Sample>)(groups, source, colours, count);
        return;
    }
    auto const zero = hn::Zero(d);
    for (std::size_t next = 0; next < count; next += lanes) {
        std::size_t const i = std::min(next, count - lanes); // the last vector may begin in the one before
        auto const load = [&](int channel) { return LoadFloats(d, static_cast<Sample const *>(source[channel]) + i); };
        auto const alpha = load(colours);
        auto const colour = [&](int channel) {
            return channel < colours ? Premultiply<Sample>(load(channel), alpha) : zero;
        };
        hn::StoreInterleaved4(colour(0), colour(1), colour(2), colours == 4 ? colour(3) : alpha, d, groups[0] + i * 4);
        if (colours == 4)
            hn::StoreInterleaved4(zero, zero, zero, alpha, d, groups[1] + i * 4);
    }
}

// Samples are taken in three passes over a short run: cells and weights, the sums, and back to samples. The middle one
// goes pixel by pixel with the channels side by side in one vector.
constexpr std::size_t runLength = sampleBlockSize;

struct Run {
    HWY_ALIGN std::int32_t offsets[runLength]; ///< of the cell, from the window's first pixel, in floats
    // Weights, 0 for a cell outside everything. Vectors of weights are read past those that they use.
    static constexpr std::size_t weightCount = runLength + 16;
    HWY_ALIGN float topLeft[weightCount], topRight[weightCount], bottomLeft[weightCount], bottomRight[weightCount];
    HWY_ALIGN float sums[2][runLength * 4];
};

HWY_INLINE bool IsInside(float x, float y) {
    return (x <= SampleRules::farthest) & (x >= -SampleRules::farthest) & (y <= SampleRules::farthest) &
           (y >= -SampleRules::farthest);
}

// The whole part of a position whose half pixel was taken off; see `SampleRules::ToCell`.
template<class V>
HWY_INLINE auto ToCells(V position) {
    hn::DFromV<V> const d;
    auto const isNegative = hn::Lt(position, hn::Zero(d));
    return hn::ConvertTo(hn::RebindToSigned<decltype(d)>(),
                         hn::IfThenElse(isNegative, hn::Sub(position, hn::Set(d, 1.0f)), position));
}

// One vector of positions.
HWY_INLINE void FindCells(Run & run, SampleWindow const & window, float const * u, float const * v, std::size_t at) {
    hn::CappedTag<float, 16> const d;
    hn::RebindToSigned<decltype(d)> const whole;
    auto const half = hn::Set(d, 0.5f), one = hn::Set(d, 1.0f), farthest = hn::Set(d, SampleRules::farthest);
    auto const x = hn::Sub(hn::LoadU(d, u), half), y = hn::Sub(hn::LoadU(d, v), half);
    auto const isInside = hn::And(hn::Le(hn::Abs(x), farthest), hn::Le(hn::Abs(y), farthest)); // not where no number
    auto const insideX = hn::IfThenElseZero(isInside, x), insideY = hn::IfThenElseZero(isInside, y);
    auto const cellX = ToCells(insideX), cellY = ToCells(insideY);
    auto const offset = hn::Add(hn::Mul(hn::Sub(cellY, hn::Set(whole, window.bounds.top)),
                                        hn::Set(whole, static_cast<std::int32_t>(window.stride))),
                                hn::ShiftLeft<2>(hn::Sub(cellX, hn::Set(whole, window.bounds.left))));
    hn::StoreU(hn::IfThenElseZero(hn::RebindMask(whole, isInside), offset), whole, run.offsets + at);
    auto const fx = hn::Sub(insideX, hn::ConvertTo(d, cellX)), fy = hn::Sub(insideY, hn::ConvertTo(d, cellY));
    auto const left = hn::IfThenElseZero(isInside, hn::Sub(one, fx)), right = hn::IfThenElseZero(isInside, fx);
    auto const above = hn::Sub(one, fy);
    hn::StoreU(hn::Mul(above, left), d, run.topLeft + at);
    hn::StoreU(hn::Mul(above, right), d, run.topRight + at);
    hn::StoreU(hn::Mul(fy, left), d, run.bottomLeft + at);
    hn::StoreU(hn::Mul(fy, right), d, run.bottomRight + at);
}

HWY_INLINE void FindAllCells(Run & run, SampleWindow const & window, float const * u, float const * v,
                             std::size_t count) {
    std::size_t const lanes = hn::Lanes(hn::CappedTag<float, 16>());
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes)
        FindCells(run, window, u + i, v + i, i);
    if (i == count)
        return;
    float lastU[16]{}, lastV[16]{};
    std::copy(u + i, u + count, lastU);
    std::copy(v + i, v + count, lastV);
    FindCells(run, window, lastU, lastV, i);
}

#if HWY_TARGET != HWY_SCALAR
// Four lanes are a pixel; as many pixels as fill a vector, up to four, are summed at once.
using Pixels = hn::CappedTag<float, 16>;
constexpr std::size_t pixelsAtOnce = hn::MaxLanes(Pixels()) / 4;

// The pixels at so many offsets, one after the other. Each is loaded into all places and kept in its own: that takes no
// step which moves lanes, of which processors do fewer at a time.
template<class D>
HWY_INLINE hn::Vec<D> GatherPixels(D d, float const * pixels, std::int32_t const * offsets) {
    if constexpr (hn::MaxLanes(d) == 4) {
        return hn::LoadU(d, pixels + offsets[0]);
    } else {
        auto gathered = hn::LoadDup128(d, pixels + offsets[hn::MaxLanes(d) / 4 - 1]);
        for (std::size_t i = hn::MaxLanes(d) / 4 - 1; i-- > 0;)
            gathered = hn::IfThenElse(hn::FirstN(d, (i + 1) * 4), hn::LoadDup128(d, pixels + offsets[i]), gathered);
        return gathered;
    }
}

template<bool MayBeInfinite, class D>
HWY_INLINE void SumPixels(D d, Run & run, SampleWindow const & window, int group, std::size_t i) {
    HWY_ALIGN static constexpr std::int32_t lanesOfPixels[16]{0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3};
    auto const spread = hn::SetTableIndices(d, lanesOfPixels);
    auto const weight = [&](float const * weights) { return hn::TableLookupLanes(hn::LoadU(d, weights + i), spread); };
    float const * const top = window.groups[group];
    float const * const bottom = top + window.stride;
    std::int32_t const * const offsets = run.offsets + i;
    auto sum = BeginSum<MayBeInfinite>(weight(run.topLeft), GatherPixels(d, top, offsets));
    sum = Accumulate<MayBeInfinite>(sum, weight(run.topRight), GatherPixels(d, top + 4, offsets));
    sum = Accumulate<MayBeInfinite>(sum, weight(run.bottomLeft), GatherPixels(d, bottom, offsets));
    sum = Accumulate<MayBeInfinite>(sum, weight(run.bottomRight), GatherPixels(d, bottom + 4, offsets));
    hn::StoreU(sum, d, run.sums[group] + i * 4);
}

template<bool MayBeInfinite>
HWY_INLINE void SumCells(Run & run, SampleWindow const & window, int group, std::size_t count) {
    std::size_t i = 0;
    for (; i + pixelsAtOnce <= count; i += pixelsAtOnce)
        SumPixels<MayBeInfinite>(Pixels(), run, window, group, i);
    for (; i < count; ++i)
        SumPixels<MayBeInfinite>(hn::FixedTag<float, 4>(), run, window, group, i);
}
#else
template<bool MayBeInfinite>
HWY_INLINE void SumCells(Run & run, SampleWindow const & window, int group, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        for (std::size_t lane = 0; lane < 4; ++lane) {
            float const * const top = window.groups[group] + run.offsets[i] + lane;
            float const * const bottom = top + window.stride;
            float sum = SampleRules::Accumulate(0.0f, run.topLeft[i], top[0]);
            sum = SampleRules::Accumulate(sum, run.topRight[i], top[4]);
            sum = SampleRules::Accumulate(sum, run.bottomLeft[i], bottom[0]);
            run.sums[group][i * 4 + lane] = SampleRules::Accumulate(sum, run.bottomRight[i], bottom[4]);
        }
}
#endif

// The lanes past `count` hold whatever an earlier run left: they are computed, and never stored.
template<class Sample, int colours>
HWY_INLINE void StoreRun(void * const * dest, Run const & run, std::size_t begin, std::size_t count) {
    hn::ScalableTag<float> const d;
    std::size_t const lanes = hn::Lanes(d);
    HWY_ALIGN Sample spill[colours + 1][runLength];
    for (std::size_t i = 0; i < count; i += lanes) {
        bool const whole = i + lanes <= count;
        Sample * target[colours + 1];
        for (int c = 0; c <= colours; ++c)
            target[c] = whole ? static_cast<Sample *>(dest[c]) + begin + i : spill[c];
        hn::Vec<decltype(d)> first, second, third, fourth, alpha;
        hn::LoadInterleaved4(d, run.sums[0] + i * 4, first, second, third, fourth);
        alpha = fourth;
        if constexpr (colours == 4) {
            hn::Vec<decltype(d)> unused0, unused1, unused2;
            hn::LoadInterleaved4(d, run.sums[1] + i * 4, unused0, unused1, unused2, alpha);
        }
        StoreSums<Sample, colours>(
            [&](int c) {
                return c == colours ? alpha : c == 0 ? first : c == 1 ? second : c == 2 ? third : fourth;
            },
            target);
        if (!whole)
            for (int c = 0; c <= colours; ++c)
                std::copy_n(spill[c], count - i, static_cast<Sample *>(dest[c]) + begin + i);
    }
}

template<class Sample>
void SamplePixels(void * const * dest, SampleWindow const & window, float const * u, float const * v, int colours,
                  std::size_t count) {
    Run run; // every lane that is stored was written before
    for (std::size_t begin = 0; begin < count; begin += runLength) {
        std::size_t const length = std::min(runLength, count - begin);
        FindAllCells(run, window, u + begin, v + begin, length);
        SumCells<std::is_same_v<Sample, float>>(run, window, 0, length);
        if (colours == 4)
            SumCells<std::is_same_v<Sample, float>>(run, window, 1, length);
        VisitColours(colours,
                     [&](auto number) { StoreRun<Sample, decltype(number)::value>(dest, run, begin, length); });
    }
}

void PremultiplyRow8(float * const * groups, void const * const * source, int colours, std::size_t count) {
    PremultiplyPixels<std::uint8_t>(groups, source, colours, count);
}
void PremultiplyRow16(float * const * groups, void const * const * source, int colours, std::size_t count) {
    PremultiplyPixels<std::uint16_t>(groups, source, colours, count);
}
void PremultiplyRowFloat(float * const * groups, void const * const * source, int colours, std::size_t count) {
    PremultiplyPixels<float>(groups, source, colours, count);
}
void SampleRow8(void * const * dest, SampleWindow const & window, float const * u, float const * v, int colours,
                std::size_t count) {
    SamplePixels<std::uint8_t>(dest, window, u, v, colours, count);
}
void SampleRow16(void * const * dest, SampleWindow const & window, float const * u, float const * v, int colours,
                 std::size_t count) {
    SamplePixels<std::uint16_t>(dest, window, u, v, colours, count);
}
void SampleRowFloat(void * const * dest, SampleWindow const & window, float const * u, float const * v, int colours,
                    std::size_t count) {
    SamplePixels<float>(dest, window, u, v, colours, count);
}

#if HWY_TARGET != HWY_SCALAR
// Rows are chains of additions, each of which waits for the one before: a vector of rows steps at once, and two of them
// side by side, in u and in v, fill the time.
using Doubles = hn::CappedTag<double, 8>;
using Rows = hn::Rebind<float, Doubles>;
constexpr int columnsAtOnce = 4;

// Four columns from `column` on. @return the positions after them.
template<class V, class Step>
HWY_INLINE V StepColumns(V now, Step step, float (*positions)[sampleBlockSize], int column) {
    Rows const d;
    hn::FixedTag<float, columnsAtOnce> const piece;
    auto const next = [&](V position) { return hn::DemoteTo(d, hn::Add(hn::PromoteTo(Doubles(), position), step)); };
    auto const second = next(now), third = next(second), fourth = next(third);
    HWY_ALIGN float turned[hn::MaxLanes(Doubles()) * columnsAtOnce]; // a row's columns one after the other
    hn::StoreInterleaved4(now, second, third, fourth, d, turned);
    for (std::size_t row = 0; row < hn::Lanes(d); ++row)
        hn::StoreU(hn::LoadU(piece, turned + row * columnsAtOnce), piece, positions[row] + column);
    return next(fourth);
}

void StepPositions(SamplePositions & positions, float * u, float * v, double du, double dv, int rows, int columns) {
    Rows const d;
    auto const lanes = static_cast<int>(hn::Lanes(d));
    auto const stepU = hn::Set(Doubles(), du), stepV = hn::Set(Doubles(), dv);
    int const whole = columns - columns % columnsAtOnce;
    for (int row = 0; row < rows; row += 2 * lanes) { // rows past the last are stepped along with it
        auto firstU = hn::LoadU(d, u + row), secondU = hn::LoadU(d, u + row + lanes);
        auto firstV = hn::LoadU(d, v + row), secondV = hn::LoadU(d, v + row + lanes);
        for (int column = 0; column < whole; column += columnsAtOnce) {
            firstU = StepColumns(firstU, stepU, positions.u + row, column);
            secondU = StepColumns(secondU, stepU, positions.u + row + lanes, column);
            firstV = StepColumns(firstV, stepV, positions.v + row, column);
            secondV = StepColumns(secondV, stepV, positions.v + row + lanes, column);
        }
        hn::StoreU(firstU, d, u + row);
        hn::StoreU(secondU, d, u + row + lanes);
        hn::StoreU(firstV, d, v + row);
        hn::StoreU(secondV, d, v + row + lanes);
    }
    for (int row = 0; row < rows; ++row)
        for (int column = whole; column < columns; ++column) {
            positions.u[row][column] = u[row];
            positions.v[row][column] = v[row];
            u[row] = static_cast<float>(u[row] + du);
            v[row] = static_cast<float>(v[row] + dv);
        }
}
#else
void StepPositions(SamplePositions & positions, float * u, float * v, double du, double dv, int rows, int columns) {
    Scalar::StepPositions(positions, u, v, du, dv, rows, columns);
}
#endif

struct Extent {
    float left = 2 * SampleRules::farthest, top = left, right = -left, bottom = right;

    HWY_INLINE void Add(float u, float v) {
        float const x = u - 0.5f, y = v - 0.5f;
        bool const inside = IsInside(x, y);
        left = inside && x < left ? x : left;
        right = inside && x > right ? x : right;
        top = inside && y < top ? y : top;
        bottom = inside && y > bottom ? y : bottom;
    }
};

// Equal steps, rounded or not, never turn back: where both ends of a row are inside, they are its extremes.
SampleBounds FindSampleBounds(SamplePositions const & positions, Kernel::RectT<int> const & block) {
    Extent extent;
    for (int row = block.top; row < block.bottom; ++row) {
        float const * const u = positions.u[row];
        float const * const v = positions.v[row];
        int const last = block.right - 1;
        if (IsInside(u[block.left] - 0.5f, v[block.left] - 0.5f) && IsInside(u[last] - 0.5f, v[last] - 0.5f)) {
            extent.Add(u[block.left], v[block.left]);
            extent.Add(u[last], v[last]);
        } else {
            for (int column = block.left; column <= last; ++column)
                extent.Add(u[column], v[column]);
        }
    }
    if (extent.left > extent.right)
        return {};
    return {SampleRules::ToCell(extent.left), SampleRules::ToCell(extent.top), SampleRules::ToCell(extent.right) + 2,
            SampleRules::ToCell(extent.bottom) + 2};
}
}
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace Raster {
HWY_EXPORT(PremultiplyRow8);
HWY_EXPORT(PremultiplyRow16);
HWY_EXPORT(PremultiplyRowFloat);
HWY_EXPORT(SampleRow8);
HWY_EXPORT(SampleRow16);
HWY_EXPORT(SampleRowFloat);
HWY_EXPORT(StepPositions);
HWY_EXPORT(FindSampleBounds);

void PremultiplyRow8(float * const * groups, void const * const * source, int colours, std::size_t count) {
    HWY_DYNAMIC_DISPATCH(PremultiplyRow8)(groups, source, colours, count);
}
void PremultiplyRow16(float * const * groups, void const * const * source, int colours, std::size_t count) {
    HWY_DYNAMIC_DISPATCH(PremultiplyRow16)(groups, source, colours, count);
}
void PremultiplyRowFloat(float * const * groups, void const * const * source, int colours, std::size_t count) {
    HWY_DYNAMIC_DISPATCH(PremultiplyRowFloat)(groups, source, colours, count);
}
void SampleRow8(void * const * dest, SampleWindow const & window, float const * u, float const * v, int colours,
                std::size_t count) {
    HWY_DYNAMIC_DISPATCH(SampleRow8)(dest, window, u, v, colours, count);
}
void SampleRow16(void * const * dest, SampleWindow const & window, float const * u, float const * v, int colours,
                 std::size_t count) {
    HWY_DYNAMIC_DISPATCH(SampleRow16)(dest, window, u, v, colours, count);
}
void SampleRowFloat(void * const * dest, SampleWindow const & window, float const * u, float const * v, int colours,
                    std::size_t count) {
    HWY_DYNAMIC_DISPATCH(SampleRowFloat)(dest, window, u, v, colours, count);
}
void StepPositions(SamplePositions & positions, float * u, float * v, double du, double dv, int rows, int columns) {
    HWY_DYNAMIC_DISPATCH(StepPositions)(positions, u, v, du, dv, rows, columns);
}
SampleBounds FindSampleBounds(SamplePositions const & positions, Kernel::RectT<int> const & block) {
    return HWY_DYNAMIC_DISPATCH(FindSampleBounds)(positions, block);
}
}
#endif
