/// The predictor of tiles and its opposite, each beside its plain twin: one tile at a time in the cache, and tiles
/// beyond it. The argument is their number.
#include "kernel/kernels/PredictSamples.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

namespace Kernel {
namespace {
constexpr std::size_t blockBytes = 65536;

template<auto kernel, int sampleBytes>
void Run(benchmark::State & state) {
    auto const size = static_cast<std::size_t>(state.range(0)) * blockBytes;
    std::vector<std::uint8_t> from(size), to(size);
    for (std::size_t i = 0; i < size; ++i)
        from[i] = static_cast<std::uint8_t>(i * 37 >> 3);
    for (auto _ : state) {
        for (std::size_t at = 0; at < size; at += blockBytes)
            kernel(from.data() + at, to.data() + at, sampleBytes);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
}

#define RASTER_MEASURE(sampleBytes)                                                                                    \
    BENCHMARK_TEMPLATE(Run, PredictSamples, sampleBytes)->Arg(1)->Arg(1024);                                           \
    BENCHMARK_TEMPLATE(Run, Scalar::PredictSamples, sampleBytes)->Arg(1)->Arg(1024);                                   \
    BENCHMARK_TEMPLATE(Run, RestoreSamples, sampleBytes)->Arg(1)->Arg(1024);                                           \
    BENCHMARK_TEMPLATE(Run, Scalar::RestoreSamples, sampleBytes)->Arg(1)->Arg(1024);
RASTER_MEASURE(1)
RASTER_MEASURE(2)
RASTER_MEASURE(4)
RASTER_MEASURE(8)
#undef RASTER_MEASURE
}
}
