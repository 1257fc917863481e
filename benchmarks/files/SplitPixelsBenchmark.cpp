/// Taking pixels of codecs apart and putting them together, each beside its plain twin: at a row of a tile, a tile, and
/// beyond the cache. The argument counts pixels.
#include "files/kernels/SplitPixels.h"

#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <vector>

namespace {
using Bytes = std::vector<unsigned char>;

struct Pixels {
    Pixels(std::size_t count, std::size_t channels, std::size_t sampleBytes)
        : interleaved(count * channels * sampleBytes, 7), planar(count * channels * sampleBytes, 9) {
        for (std::size_t channel = 0; channel < channels; ++channel)
            constRows[channel] = rows[channel] = planar.data() + channel * count * sampleBytes;
    }
    Bytes interleaved, planar;
    std::array<void *, 4> rows{};
    std::array<void const *, 4> constRows{};
};

template<auto split, std::size_t channels, class Sample>
void Split(benchmark::State & state) {
    auto const count = static_cast<std::size_t>(state.range(0));
    Pixels pixels(count, channels, sizeof(Sample));
    for (auto _ : state) {
        split(pixels.interleaved.data(), count, pixels.rows.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(pixels.planar.size()));
}

template<auto join, std::size_t channels, class Sample>
void Join(benchmark::State & state) {
    auto const count = static_cast<std::size_t>(state.range(0));
    Pixels pixels(count, channels, sizeof(Sample));
    for (auto _ : state) {
        join(pixels.constRows.data(), count, pixels.interleaved.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(pixels.planar.size()));
}

#define RASTER_MEASURE(name, channels, sample)                                                                         \
    BENCHMARK_TEMPLATE(Split, Raster::Split##name, channels, sample)->Arg(256)->Arg(65536)->Arg(16 << 20);             \
    BENCHMARK_TEMPLATE(Split, Raster::Scalar::Split##name, channels, sample)->Arg(256)->Arg(65536)->Arg(16 << 20);     \
    BENCHMARK_TEMPLATE(Join, Raster::Join##name, channels, sample)->Arg(256)->Arg(65536)->Arg(16 << 20);               \
    BENCHMARK_TEMPLATE(Join, Raster::Scalar::Join##name, channels, sample)->Arg(256)->Arg(65536)->Arg(16 << 20);
RASTER_FOR_EACH_PIXEL_LAYOUT(RASTER_MEASURE)
#undef RASTER_MEASURE
}
