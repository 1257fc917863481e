#include "pixel/transfer/UprightSampler.h"

#include "pixel/transfer/SampleRules.h"
#include "pixel/transfer/Sampler.h"
#include "pixel/transfer/kernels/UprightKernels.h"

#include <algorithm>

namespace Raster {
namespace {
constexpr int rowsAhead = 2; // of the source, that are asked for

template<class Sample>
void PremultiplyPlanesPlainly(float * const * dest, void const * const * source, int colours, std::size_t count) {
    auto const * const alphas = static_cast<Sample const *>(source[colours]);
    for (std::size_t i = 0; i < count; ++i) {
        float const alpha = alphas[i];
        dest[colours][i] = alpha;
        for (int c = 0; c < colours; ++c) {
            float const colour = static_cast<Sample const *>(source[c])[i];
            dest[c][i] = alpha == 0.0f                           ? 0.0f
                         : alpha == SampleRules::maximum<Sample> ? colour
                                                                 : SampleRules::Premultiply(colour, alpha, Sample());
        }
    }
}

template<class Sample>
void MixRowsPlainly(void * const * dest, UprightRow const & upper, UprightRow const & lower,
                    UprightColumns const & columns, float fy, int colours) {
    for (int i = 0; i < columns.count; ++i) {
        float const left = columns.weightsOfLeft[i], right = columns.weightsOfRight[i];
        float sums[5]{};
        for (int c = 0; c <= colours; ++c) {
            float const * const top = upper.planes[c] + columns.cells[i];
            float const * const bottom = lower.planes[c] + columns.cells[i];
            float sum = SampleRules::Accumulate(0.0f, (1.0f - fy) * left, top[0]);
            sum = SampleRules::Accumulate(sum, (1.0f - fy) * right, top[1]);
            sum = SampleRules::Accumulate(sum, fy * left, bottom[0]);
            sums[c] = SampleRules::Accumulate(sum, fy * right, bottom[1]);
        }
        static_cast<Sample *>(dest[colours])[i] = SampleRules::ToSample<Sample>(sums[colours]);
        for (int c = 0; c < colours; ++c)
            static_cast<Sample *>(dest[c])[i] =
                SampleRules::ToSample<Sample>(SampleRules::Unpremultiply<Sample>(sums[c], sums[colours]));
    }
}
}

PremultiplyPlanes Scalar::GetPremultiplyPlanes(SampleType sampleType) {
    return ChooseBySample<PremultiplyPlanes>(sampleType, PremultiplyPlanesPlainly<std::uint8_t>,
                                             PremultiplyPlanesPlainly<std::uint16_t>, PremultiplyPlanesPlainly<float>);
}
MixRows Scalar::GetMixRows(SampleType sampleType) {
    return ChooseBySample<MixRows>(sampleType, MixRowsPlainly<std::uint8_t>, MixRowsPlainly<std::uint16_t>,
                                   MixRowsPlainly<float>);
}
PremultiplyPlanes GetPremultiplyPlanes(SampleType sampleType) {
    return ChooseBySample<PremultiplyPlanes>(sampleType, PremultiplyPlanes8, PremultiplyPlanes16,
                                             PremultiplyPlanesFloat);
}
MixRows GetMixRows(SampleType sampleType) {
    return ChooseBySample<MixRows>(sampleType, MixRows8, MixRows16, MixRowsFloat);
}

UprightSampler::UprightSampler(Memory & memory, SourceTiles & sourceTiles, TupleLayout const & layout)
    : source(sourceTiles), colours(layout.channelCount - 1), sampleSize(std::size_t(layout.sampleSize)),
      premultiply(GetPremultiplyPlanes(layout.sampleType)), mix(GetMixRows(layout.sampleType)), columns(memory.columns),
      kept(memory.kept) {}

bool UprightSampler::Begin(Kernel::AffineTransform::Params const & taskMatrix, Kernel::RectT<int> const & rect) {
    matrix = taskMatrix;
    firstColumn = rect.left;
    kept[0].isKnown = kept[1].isKnown = false;
    return matrix.b == 0.0 && matrix.d == 0.0 && GetSampleStep(matrix).y == 0.0 && FindColumns(rect.GetWidth());
}

// Steps the positions of a row, which all rows share. Those outside everything come first or last, since equal steps
// never turn back; they take the cell of the nearest one inside, and no weight.
bool UprightSampler::FindColumns(int width) {
    columns.count = width;
    columns.left = INT32_MAX;
    columns.right = INT32_MIN;
    float u = ToSamplePosition(matrix.Apply({firstColumn + 0.5, 0.5}).x);
    double const step = GetSampleStep(matrix).x;
    int firstInside = width, lastInside = -1;
    for (int i = 0; i < width; ++i, u = static_cast<float>(u + step)) {
        auto const cell = FindSampleCell(u, 0.5f);
        bool const inside = cell.x != SampleCell::outside;
        columns.cells[i] = cell.x;
        columns.weightsOfLeft[i] = inside ? 1.0f - cell.fx : 0.0f;
        columns.weightsOfRight[i] = inside ? cell.fx : 0.0f;
        if (!inside)
            continue;
        columns.left = std::min(columns.left, cell.x);
        columns.right = std::max(columns.right, cell.x + 2);
        firstInside = std::min(firstInside, i);
        lastInside = i;
    }
    if (lastInside < 0 || std::int64_t(columns.right) - columns.left > UprightColumns::widest)
        return false;
    for (int i = firstInside; i <= lastInside; ++i)
        columns.cells[i] -= columns.left;
    std::fill(columns.cells, columns.cells + firstInside, columns.cells[firstInside]);
    std::fill(columns.cells + lastInside + 1, std::end(columns.cells), columns.cells[lastInside]);
    std::fill(columns.weightsOfLeft + width, std::end(columns.weightsOfLeft), 0.0f);
    std::fill(columns.weightsOfRight + width, std::end(columns.weightsOfRight), 0.0f);
    return true;
}

bool UprightSampler::SampleRow(int y, void * const * dest) {
    auto const cell = FindSampleCell(0.5f, ToSamplePosition(matrix.Apply({firstColumn + 0.5, y + 0.5}).y));
    if (cell.y == SampleCell::outside)
        return false;
    auto const & upper = GetSourceRow(cell.y);
    auto const & lower = GetSourceRow(cell.y + 1);
    if (upper.isEmpty && lower.isEmpty)
        return false;
    mix(dest, upper.row, lower.row, columns, cell.fy, colours);
    return true;
}

UprightSampler::SourceRow const & UprightSampler::GetSourceRow(int y) {
    auto & row = kept[y & 1];
    if (!row.isKnown || row.y != y) {
        row.isKnown = true;
        row.y = y;
        row.isEmpty = !FillRow(row.row, y);
    }
    return row;
}

// @return whether something may be there.
bool UprightSampler::FillRow(UprightRow & row, int y) {
    auto const clear = [&](int left, int right) {
        for (int c = 0; c <= colours && left < right; ++c)
            std::fill(row.planes[c] + (left - columns.left), row.planes[c] + (right - columns.left), 0.0f);
    };
    auto const & grid = source.GetGrid();
    int const left = std::clamp(columns.left, 0, grid.width), right = std::clamp(columns.right, 0, grid.width);
    if (y < 0 || y >= grid.height || left >= right) {
        clear(columns.left, columns.right);
        return false;
    }
    bool isAnythingThere = false;
    clear(columns.left, left);
    for (int x = left; x < right;) {
        int const column = x / grid.tileWidth;
        int const end = x + std::min(grid.tileWidth - x % grid.tileWidth, right - x);
        if (source.IsTransparent(column, y / TileGrid::tileHeight)) {
            clear(x, end);
        } else {
            float * dest[5];
            for (int c = 0; c <= colours; ++c)
                dest[c] = row.planes[c] + (x - columns.left);
            auto const rows = source.GetRows(x, y);
            auto const count = static_cast<std::size_t>(end - x);
            if (y % TileGrid::tileHeight < TileGrid::tileHeight - rowsAhead)
                PrefetchRows<PrefetchFor::Reading>(rows, colours + 1, rowsAhead * TileGrid::rowBytes,
                                                   count * sampleSize);
            premultiply(dest, rows.data(), colours, count);
            isAnythingThere = true;
        }
        x = end;
    }
    clear(right, columns.right);
    return isAnythingThere;
}
}
