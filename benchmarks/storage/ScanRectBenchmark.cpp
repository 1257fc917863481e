// The scans for bounding boxes, against reading the same bytes. `memchr` for a byte that isn't there is the read: it
// has to look at every byte, and is as fast as the C library's authors could make it.

#include "storage/kernels/ScanRect.h"

#include "storage/CompareTimes.h"

#include <cstdint>
#include <cstring>
#include <vector>

namespace Raster {
namespace {
using Scan = Kernel::RectT<int> (*)(void const *, int, int);
constexpr std::size_t bytes = 65536;

/// Quiet but for one pixel in the middle of each row: the top is found at once, and the sides never.
std::vector<std::uint32_t> MakeTiles(std::size_t count, std::uint32_t quiet, std::uint32_t hit) {
    std::vector<std::uint32_t> words(count * bytes / 4, quiet);
    for (std::size_t i = 32; i < words.size(); i += 64)
        words[i] = hit;
    return words;
}

template<Scan scan, std::uint32_t quiet, std::uint32_t hit>
void ScanAgainstReading(benchmark::State & state) {
    auto const count = static_cast<std::size_t>(state.range(0));
    auto const words = MakeTiles(count, quiet, hit);
    CompareTimes(
        state, count,
        [&] {
            for (std::size_t i = 0; i < count; ++i)
                benchmark::DoNotOptimize(scan(&words[i * bytes / 4], 256, 256));
        },
        [&] {
            for (std::size_t i = 0; i < count; ++i)
                benchmark::DoNotOptimize(std::memchr(&words[i * bytes / 4], 0x55, bytes));
        });
    state.counters["GB/s"] = bytes / state.counters["ns"];
}

// One tile lies in the second cache, a thousand lie beyond the last.
#define RASTER_BENCHMARK_SCAN(scan, quiet, hit)                                                                        \
    BENCHMARK_TEMPLATE(ScanAgainstReading, scan, quiet, hit)->Arg(1)->Arg(1000)->UseManualTime()
RASTER_BENCHMARK_SCAN(ScanNonZeroRect, 0, 1);
RASTER_BENCHMARK_SCAN(Scalar::ScanNonZeroRect, 0, 1);
RASTER_BENCHMARK_SCAN(ScanBelowFullRect, 0xFFFFFFFF, 0);
RASTER_BENCHMARK_SCAN(Scalar::ScanBelowFullRect, 0xFFFFFFFF, 0);
RASTER_BENCHMARK_SCAN(ScanBelowOneRect, 0x3F800000, 0);
RASTER_BENCHMARK_SCAN(Scalar::ScanBelowOneRect, 0x3F800000, 0);
}
}
