// Whole chains of levels, beside the time M that a memcpy of 64 MiB takes in the same process, each the best of
// several; how much faster two threads are, and how many per cent of a whole chain a change of 64 by 64 pixels costs.
// The levels exist and were written once before timing; a rebuild follows `InvalidateMipmaps`. Pictures are of 4096 by
// 4096 pixels, or 2048 by 2048 where RASTER_BENCHMARK_SMOKE is set: M still is for 64 MiB then.
#include "kernel/Dispatch.h"
#include "pixel/MemoryManager.h"
#include "storage/Bitmap.h"
#include "storage/Block.h"
#include "storage/Tile.h"
#include "storage/TileGuard.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

namespace Raster {
namespace {
template<class Work>
double MeasureSeconds(Work && work) {
    auto const start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Just before each measurement.
double MeasureMemcpy() {
    std::vector<char> from(64 << 20, 1), to(64 << 20, 2);
    std::vector<double> times;
    for (int i = 0; i < 15; ++i)
        times.push_back(MeasureSeconds([&] {
            std::memcpy(to.data(), from.data(), to.size());
            benchmark::DoNotOptimize(to.data());
        }));
    return *std::min_element(times.begin(), times.end());
}

enum class Alpha { Soft, Full };

template<class Tuple>
Kernel::Counted<BitmapOf<Tuple>> MakeBitmap(Alpha kind) {
    Tile::InitStaticTiles();
    Block::InitStaticBlock();
    MemoryManager::Instance().SetDRAMLimit(16384);
    using Storage = typename Tuple::Storage;
    int const side = std::getenv("RASTER_BENCHMARK_SMOKE") ? 2048 : 4096;
    auto const bitmap =
        Kernel::MakeCounted<BitmapOf<Tuple>>(side, side, MipmapModeManual, HardwareCachePolicy::Default);
    std::minstd_rand random(1);
    for (int plane = 0; plane < Tuple::channelCount; ++plane)
        for (std::size_t i = 0; i < bitmap->GetPlane(plane).GetTileCount(); ++i) {
            MutableTileGuard const guard(bitmap->GetPlane(plane).GetTile(i));
            auto * const samples = reinterpret_cast<Storage *>(guard.GetBuffer());
            bool const isFull = plane == Tuple::alphaIndex - 1 && kind == Alpha::Full;
            for (std::size_t s = 0; s < Tile::ByteCount / sizeof(Storage); ++s)
                samples[s] = isFull ? Storage(Tuple::First::maximum)
                                    : Storage(Tuple::First::maximum * float(random() & 0xffff) / 65535.0f);
        }
    bitmap->UpdateMipmaps(0, nullptr);
    return bitmap;
}

constexpr Kernel::RectT<int> stroke{1000, 1500, 1064, 1564};

/// The best of so many rounds. An empty change is the whole picture.
double MeasureUpdates(BitmapCore & bitmap, unsigned threads, std::size_t rounds, Kernel::RectT<int> const & change) {
    Kernel::Dispatch::SetThreadCount(threads);
    double best = std::numeric_limits<double>::max();
    for (std::size_t i = 0; i < rounds; ++i) {
        if (change.IsEmpty())
            bitmap.InvalidateMipmaps();
        else
            bitmap.InvalidateMipmaps(change);
        best = std::min(best, MeasureSeconds([&] { bitmap.UpdateMipmaps(0, nullptr); }));
    }
    Kernel::Dispatch::SetThreadCount(0);
    return best;
}

template<class Tuple>
void Chain(benchmark::State & state, Alpha kind) {
    auto const bitmap = MakeBitmap<Tuple>(kind);
    double const unit = MeasureMemcpy();
    double best = std::numeric_limits<double>::max();
    std::size_t rounds = 0;
    for (auto _ : state) {
        auto const seconds = MeasureUpdates(*bitmap, 1, 1, {});
        best = std::min(best, seconds);
        state.SetIterationTime(seconds);
        ++rounds;
    }
    double const two = MeasureUpdates(*bitmap, 2, rounds + 1, {});
    double const change = MeasureUpdates(*bitmap, 1, 10 * rounds, stroke);
    state.counters["M"] = best / unit;
    state.counters["M_two_threads"] = two / unit;
    state.counters["speedup_two_threads"] = best / two;
    state.counters["change_us"] = change * 1e6;
    state.counters["change_percent"] = change / best * 100;
    state.counters["memcpy_ms"] = unit * 1e3;
}

// For comparing processor times where other programs disturb the clock.
void CopyMemory(benchmark::State & state) {
    std::vector<char> from(64 << 20, 1), to(64 << 20, 2);
    for (auto _ : state)
        state.SetIterationTime(MeasureSeconds([&] {
            std::memcpy(to.data(), from.data(), to.size());
            benchmark::DoNotOptimize(to.data());
        }));
}

#define RASTER_BENCHMARK(name, call)                                                                                   \
    void name(benchmark::State & state) { call; }                                                                      \
    BENCHMARK(name)->UseManualTime()->Unit(benchmark::kMicrosecond)
}

RASTER_BENCHMARK(Memcpy_64MiB, CopyMemory(state));
RASTER_BENCHMARK(Chain_RGBA8_Soft, Chain<RGBA8Tuple>(state, Alpha::Soft));
RASTER_BENCHMARK(Chain_RGBA8_Full, Chain<RGBA8Tuple>(state, Alpha::Full));
RASTER_BENCHMARK(Chain_RGBA16_Soft, Chain<RGBA16Tuple>(state, Alpha::Soft));
RASTER_BENCHMARK(Chain_RGBAUF_Soft, Chain<RGBAUFTuple>(state, Alpha::Soft));
}
