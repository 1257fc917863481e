// Transfers beside the time M that a memcpy of 64 MiB takes in the same process. Destinations exist and were written
// once before timing; figures are taken on one thread unless the name says otherwise.
#include "kernel/Dispatch.h"
#include "pixel/MemoryManager.h"
#include "pixel/transfer/BitmapTransfer.h"
#include "storage/Block.h"
#include "storage/Tile.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

namespace Raster {
namespace {
// The median seconds of a memcpy of 64 MiB.
double MeasureMemcpy() {
    static double const seconds = [] {
        std::vector<char> from(64 << 20, 1), to(64 << 20, 2);
        std::vector<double> times;
        for (int i = 0; i < 15; ++i) {
            auto const start = std::chrono::steady_clock::now();
            std::memcpy(to.data(), from.data(), to.size());
            benchmark::DoNotOptimize(to.data());
            times.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        }
        std::sort(times.begin(), times.end());
        return times[times.size() / 2];
    }();
    return seconds;
}

enum class Alpha { Soft, Full };

template<class Tuple>
Kernel::Counted<BitmapOf<Tuple>> MakeBitmap(int width, int height, Alpha kind, unsigned seed,
                                            MipmapMode mode = MipmapModeNone) {
    static bool const initialised = [] {
        Tile::InitStaticTiles();
        Block::InitStaticBlock();
        MemoryManager::Instance().SetDRAMLimit(16384);
        return true;
    }();
    (void)initialised;
    using Storage = typename Tuple::Storage;
    Kernel::Counted<BitmapOf<Tuple>> bitmap(new BitmapOf<Tuple>(width, height, mode, HardwareCachePolicy()));
    std::mt19937 random(seed);
    for (int plane = 0; plane < Tuple::channelCount; ++plane)
        for (std::size_t i = 0; i < bitmap->GetPlane(plane).GetTileCount(); ++i) {
            MutableTileGuard guard(bitmap->GetPlane(plane).GetTile(i));
            auto * const samples = reinterpret_cast<Storage *>(guard.GetBuffer());
            bool const full = plane == Tuple::channelCount - 1 && kind == Alpha::Full;
            for (std::size_t s = 0; s < 65536 / sizeof(Storage); ++s)
                samples[s] = full ? Storage(Tuple::First::maximum)
                                  : Storage(Tuple::First::maximum * float(random() & 0xffff) / 65535.0f);
        }
    return bitmap;
}

struct Case {
    double const * matrix = nullptr;
    float opacity = 1.0f;
    unsigned threads = 1;
};

void Run(benchmark::State & state, BitmapCore & dest, BitmapCore const & source, Case const & what) {
    double const unit = MeasureMemcpy();
    Kernel::Dispatch::SetThreadCount(what.threads);
    double best = 1e9;
    for (auto _ : state) {
        auto const start = std::chrono::steady_clock::now();
        Transfer(dest, source, nullptr, &what.opacity, what.matrix);
        double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        best = std::min(best, seconds);
        state.SetIterationTime(seconds);
    }
    Kernel::Dispatch::SetThreadCount(0);
    state.counters["M"] = best / unit;
    state.counters["ns/px"] = best * 1e9 / (double(dest.GetWidth()) * dest.GetHeight());
}

template<class Tuple>
void Over(benchmark::State & state, Alpha sourceAlpha, Alpha destAlpha, unsigned threads) {
    auto const source = MakeBitmap<Tuple>(4096, 4096, sourceAlpha, 1);
    auto const dest = MakeBitmap<Tuple>(4096, 4096, destAlpha, 2);
    Run(state, *dest, *source, {nullptr, 1.0f, threads});
}

void Rotate(benchmark::State & state, double angle, double scale, unsigned threads) {
    auto const source = MakeBitmap<RGBA8Tuple>(2048, 2048, Alpha::Soft, 1);
    int const size = angle != 0 ? 2518 : int(2048 * scale);
    auto const dest = MakeBitmap<RGBA8Tuple>(size, size, Alpha::Full, 2);
    double const c = std::cos(angle) / scale, s = std::sin(angle) / scale, middle = size / 2.0;
    double const matrix[6]{c, s, 1024 - c * middle - s * middle, -s, c, 1024 + s * middle - c * middle};
    Run(state, *dest, *source, {matrix, 1.0f, threads});
}
double const thirtyDegrees = std::acos(-1.0) / 6;

#define RASTER_BENCHMARK(name, call)                                                                                   \
    void name(benchmark::State & state) { call; }                                                                      \
    BENCHMARK(name)->UseManualTime()->Unit(benchmark::kMillisecond)
}

RASTER_BENCHMARK(Over_RGBA8_SoftOntoOpaque, Over<RGBA8Tuple>(state, Alpha::Soft, Alpha::Full, 1));
RASTER_BENCHMARK(Over_RGBA8_SoftOntoSoft, Over<RGBA8Tuple>(state, Alpha::Soft, Alpha::Soft, 1));
RASTER_BENCHMARK(Over_RGBA8_OpaqueOntoOpaque, Over<RGBA8Tuple>(state, Alpha::Full, Alpha::Full, 1));
RASTER_BENCHMARK(Over_RGBA16_SoftOntoOpaque, Over<RGBA16Tuple>(state, Alpha::Soft, Alpha::Full, 1));
RASTER_BENCHMARK(Over_RGBAUF_SoftOntoOpaque, Over<RGBAUFTuple>(state, Alpha::Soft, Alpha::Full, 1));
RASTER_BENCHMARK(Over_RGBA8_SoftOntoOpaque_TwoThreads, Over<RGBA8Tuple>(state, Alpha::Soft, Alpha::Full, 2));
RASTER_BENCHMARK(RotateAndScale, Rotate(state, thirtyDegrees, 0.9, 1));
RASTER_BENCHMARK(RotateAndScale_TwoThreads, Rotate(state, thirtyDegrees, 0.9, 2));
RASTER_BENCHMARK(ScaleOnly, Rotate(state, 0, 1.23, 1));
}
