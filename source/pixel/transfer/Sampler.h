/// The bilinear sampler in pieces: positions, a window of premultiplied source pixels, and rows of samples.
///
/// A transfer goes over its destination in blocks. For each block it steps the positions of all rows, premultiplies
/// the part of the source that they touch once, and samples from there. Every number is what stepping and sampling
/// pixel by pixel gives; only the order of the work differs.
#pragma once

#include "kernel/AffineTransform.h"
#include "kernel/Rect.h"
#include "pixel/ChannelTuple.h"

#include <cstddef>
#include <cstdint>

namespace Raster {
/// Rows and columns of a block at most.
inline constexpr int sampleBlockSize = 64;

/// Where a matrix puts a pixel. Infinite past what a float holds, and from there no step leads back.
inline float ToSamplePosition(double position) { return static_cast<float>(position); }
/// What a position moves by from one pixel to the next.
inline Kernel::PointT<double> GetSampleStep(Kernel::AffineTransform::Params const & matrix) {
    auto const right = matrix.Apply({1.0, 0.0}), origin = matrix.Apply({0.0, 0.0});
    return {right.x - origin.x, right.y - origin.y};
}

/// Where the pixels of a block are sampled in the source: one (u, v) for each pixel, row after row.
struct SamplePositions {
    float u[sampleBlockSize][sampleBlockSize];
    float v[sampleBlockSize][sampleBlockSize];
};

/// Fills `columns` positions of `rows` rows, and moves (u, v) of each row on to the column after them. The step is
/// added in double and rounded to float each time, so that positions drift just as single precision does.
/// @param u, v    one position for each row; both have room for `sampleBlockSize` values, whatever `rows` is.
void StepPositions(SamplePositions & positions, float * u, float * v, double du, double dv, int rows, int columns);

/// The four pixels around a position: (x, y) to (x + 1, y + 1). Positions past 2^24 count as outside everything; x and
/// y are then `SampleCell::outside`.
struct SampleCell {
    static constexpr std::int32_t outside = INT32_MIN;
    std::int32_t x, y;
    float fx, fy; ///< how far the position lies from x towards x + 1, and from y towards y + 1
};
SampleCell FindSampleCell(float u, float v);

/// The cells that the positions of a part of a block touch: left and top, and right and bottom exclusive. All 0 if
/// there are none.
struct SampleBounds {
    std::int32_t left, top, right, bottom;
};
SampleBounds FindSampleBounds(SamplePositions const & positions, Kernel::RectT<int> const & block);

/// Premultiplied source pixels as floats of raw channel values, four lanes each: up to three colours and alpha in the
/// last lane. A fifth channel makes a second group of lanes: four colours in the first, alpha in the last lane of the
/// second.
struct SampleWindow {
    SampleBounds bounds;
    std::ptrdiff_t stride; ///< floats from one row to the next
    float * groups[2];     ///< the pixel at (left, top) of each group; the second is null unless there are four colours
};

/// Premultiplies `count` pixels into one row of a window. Where alpha is 0 the colour becomes 0, whatever it was.
/// @param source   one row of samples for each channel, alpha last.
/// @param groups   the lanes to write, four floats a pixel.
using PremultiplyRow = void (*)(float * const * groups, void const * const * source, int colours, std::size_t count);

/// Samples `count` positions (u, v), all of whose cells lie inside the window, or outside everything.
/// @param dest     one row of samples for each channel, alpha last, of the source's format.
using SampleRow = void (*)(void * const * dest, SampleWindow const & window, float const * u, float const * v,
                           int colours, std::size_t count);

PremultiplyRow GetPremultiplyRow(SampleType sampleType);
SampleRow GetSampleRow(SampleType sampleType);

/// One of the functions for the sample types that the ten formats have.
template<class Function>
Function ChooseBySample(SampleType sampleType, Function bytes, Function words, Function floats) {
    switch (sampleType) {
    case SampleType::Integer8:
        return bytes;
    case SampleType::Integer16:
        return words;
    case SampleType::Float:
        return floats;
    case SampleType::Half:
    case SampleType::ComplexFloat:
        break;
    }
    return nullptr;
}

namespace Scalar {
/// The same in plain code: the meaning of the kernels.
void StepPositions(SamplePositions & positions, float * u, float * v, double du, double dv, int rows, int columns);
SampleBounds FindSampleBounds(SamplePositions const & positions, Kernel::RectT<int> const & block);
PremultiplyRow GetPremultiplyRow(SampleType sampleType);
SampleRow GetSampleRow(SampleType sampleType);
}
}
