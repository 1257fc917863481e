#include "pixel/transfer/Sampler.h"

#include "pixel/transfer/SampleRules.h"
#include "pixel/transfer/kernels/SampleKernels.h"

namespace Raster {
SampleCell FindSampleCell(float u, float v) {
    float const x = u - 0.5f, y = v - 0.5f;
    if (!(std::fabs(x) <= SampleRules::farthest && std::fabs(y) <= SampleRules::farthest))
        return {SampleCell::outside, SampleCell::outside, 0, 0};
    std::int32_t const cellX = SampleRules::ToCell(x), cellY = SampleRules::ToCell(y);
    return {cellX, cellY, x - float(cellX), y - float(cellY)};
}

void Scalar::StepPositions(SamplePositions & positions, float * u, float * v, double du, double dv, int rows,
                           int columns) {
    for (int row = 0; row < rows; ++row)
        for (int column = 0; column < columns; ++column) {
            positions.u[row][column] = u[row];
            positions.v[row][column] = v[row];
            u[row] = static_cast<float>(u[row] + du);
            v[row] = static_cast<float>(v[row] + dv);
        }
}

SampleBounds Scalar::FindSampleBounds(SamplePositions const & positions, Kernel::RectT<int> const & block) {
    SampleBounds bounds{INT32_MAX, INT32_MAX, INT32_MIN, INT32_MIN};
    for (int row = block.top; row < block.bottom; ++row)
        for (int column = block.left; column < block.right; ++column) {
            auto const cell = FindSampleCell(positions.u[row][column], positions.v[row][column]);
            if (cell.x == SampleCell::outside)
                continue;
            bounds.left = std::min(bounds.left, cell.x);
            bounds.top = std::min(bounds.top, cell.y);
            bounds.right = std::max(bounds.right, cell.x + 2);
            bounds.bottom = std::max(bounds.bottom, cell.y + 2);
        }
    return bounds.left < bounds.right ? bounds : SampleBounds{};
}

namespace {
// The lane of a colour, and that of alpha.
float & Lane(float * const * groups, int colours, std::size_t pixel, int channel) {
    if (channel == colours)
        return groups[colours == 4 ? 1 : 0][pixel * 4 + 3];
    return groups[0][pixel * 4 + std::size_t(channel)];
}

template<class Sample>
void PremultiplyRowPlainly(float * const * groups, void const * const * source, int colours, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        for (int group = 0; group < (colours == 4 ? 2 : 1); ++group)
            std::fill_n(groups[group] + i * 4, 4, 0.0f);
        float const alpha = static_cast<Sample const *>(source[colours])[i];
        Lane(groups, colours, i, colours) = alpha;
        for (int c = 0; alpha != 0.0f && c < colours; ++c) {
            float const colour = static_cast<Sample const *>(source[c])[i];
            Lane(groups, colours, i, c) =
                alpha == SampleRules::maximum<Sample> ? colour : SampleRules::Premultiply(colour, alpha, Sample());
        }
    }
}

template<class Sample>
void SampleRowPlainly(void * const * dest, SampleWindow const & window, float const * u, float const * v, int colours,
                      std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        auto const cell = FindSampleCell(u[i], v[i]);
        float sums[5]{};
        if (cell.x != SampleCell::outside) {
            auto const weights = SampleRules::ToWeights(cell.fx, cell.fy);
            std::ptrdiff_t const at = std::ptrdiff_t(cell.y - window.bounds.top) * window.stride +
                                      std::ptrdiff_t(cell.x - window.bounds.left) * 4;
            float * const groups[2]{window.groups[0] + at, window.groups[1] ? window.groups[1] + at : nullptr};
            float * const below[2]{groups[0] + window.stride, groups[1] ? groups[1] + window.stride : nullptr};
            for (int c = 0; c <= colours; ++c) {
                float sum = SampleRules::Accumulate(0.0f, weights.topLeft, Lane(groups, colours, 0, c));
                sum = SampleRules::Accumulate(sum, weights.topRight, Lane(groups, colours, 1, c));
                sum = SampleRules::Accumulate(sum, weights.bottomLeft, Lane(below, colours, 0, c));
                sums[c] = SampleRules::Accumulate(sum, weights.bottomRight, Lane(below, colours, 1, c));
            }
        }
        static_cast<Sample *>(dest[colours])[i] = SampleRules::ToSample<Sample>(sums[colours]);
        for (int c = 0; c < colours; ++c)
            static_cast<Sample *>(dest[c])[i] =
                SampleRules::ToSample<Sample>(SampleRules::Unpremultiply<Sample>(sums[c], sums[colours]));
    }
}
}

PremultiplyRow Scalar::GetPremultiplyRow(SampleType sampleType) {
    return ChooseBySample<PremultiplyRow>(sampleType, PremultiplyRowPlainly<std::uint8_t>,
                                          PremultiplyRowPlainly<std::uint16_t>, PremultiplyRowPlainly<float>);
}
SampleRow Scalar::GetSampleRow(SampleType sampleType) {
    return ChooseBySample<SampleRow>(sampleType, SampleRowPlainly<std::uint8_t>, SampleRowPlainly<std::uint16_t>,
                                     SampleRowPlainly<float>);
}
PremultiplyRow GetPremultiplyRow(SampleType sampleType) {
    return ChooseBySample<PremultiplyRow>(sampleType, PremultiplyRow8, PremultiplyRow16, PremultiplyRowFloat);
}
SampleRow GetSampleRow(SampleType sampleType) {
    return ChooseBySample<SampleRow>(sampleType, SampleRow8, SampleRow16, SampleRowFloat);
}
}
