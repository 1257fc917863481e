// Whole chains of levels, and what a small change costs, beside the time M that a memcpy of 64 MiB takes in the same
// process, each the best of several. The levels exist and were written once before timing; a rebuild follows
// `InvalidateMipmaps`.
#include "kernel/Dispatch.h"
#include "pixel/MemoryManager.h"
#include "storage/Bitmap.h"
#include "storage/Block.h"
#include "storage/Tile.h"
#include "storage/TileGuard.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
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
    auto const bitmap =
        Kernel::MakeCounted<BitmapOf<Tuple>>(4096, 4096, MipmapModeManual, HardwareCachePolicy::Default);
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

template<class Tuple>
void Chain(benchmark::State & state, Alpha kind, unsigned threads, Kernel::RectT<int> const & change = {}) {
    auto const bitmap = MakeBitmap<Tuple>(kind);
    double const unit = MeasureMemcpy();
    Kernel::Dispatch::SetThreadCount(threads);
    std::vector<double> times;
    for (auto _ : state) {
        if (change.IsEmpty())
            bitmap->InvalidateMipmaps();
        else
            bitmap->InvalidateMipmaps(change);
        times.push_back(MeasureSeconds([&] { bitmap->UpdateMipmaps(0, nullptr); }));
        state.SetIterationTime(times.back());
    }
    Kernel::Dispatch::SetThreadCount(0);
    double const best = *std::min_element(times.begin(), times.end());
    state.counters["M"] = best / unit;
    state.counters["best_us"] = best * 1e6;
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

constexpr Kernel::RectT<int> stroke{1000, 1500, 1064, 1564};

#define RASTER_BENCHMARK(name, call)                                                                                   \
    void name(benchmark::State & state) { call; }                                                                      \
    BENCHMARK(name)->UseManualTime()->Unit(benchmark::kMicrosecond)
}

RASTER_BENCHMARK(Memcpy_64MiB, CopyMemory(state));
RASTER_BENCHMARK(Chain_RGBA8_Soft, Chain<RGBA8Tuple>(state, Alpha::Soft, 1));
RASTER_BENCHMARK(Chain_RGBA8_Soft_TwoThreads, Chain<RGBA8Tuple>(state, Alpha::Soft, 2));
RASTER_BENCHMARK(Chain_RGBA8_Full, Chain<RGBA8Tuple>(state, Alpha::Full, 1));
RASTER_BENCHMARK(Chain_RGBA16_Soft, Chain<RGBA16Tuple>(state, Alpha::Soft, 1));
RASTER_BENCHMARK(Chain_RGBAUF_Soft, Chain<RGBAUFTuple>(state, Alpha::Soft, 1));
RASTER_BENCHMARK(Chain_RGBAUF_Soft_TwoThreads, Chain<RGBAUFTuple>(state, Alpha::Soft, 2));
RASTER_BENCHMARK(Change_RGBA8_Soft, Chain<RGBA8Tuple>(state, Alpha::Soft, 1, stroke));
RASTER_BENCHMARK(Change_RGBAUF_Soft, Chain<RGBAUFTuple>(state, Alpha::Soft, 1, stroke));
}
