// Transfers beside the time M that a memcpy of 64 MiB takes in the same process. Destinations exist and were written
// once before timing; figures are taken on one thread unless the name says otherwise.
#include "kernel/Abort.h"
#include "kernel/Dispatch.h"
#include "pixel/transfer/BitmapTransfer.h"
#include "pixel/transfer/Fill.h"
#include "transfer/Scenes.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace Raster {
namespace {
// A tenth of the size, through levels that are there already.
Scene MakeMinified() {
    auto const source = MakeBitmap<RGBA8Tuple>(Side(4096), Side(4096), Alpha::Soft, 1, MipmapModeOnDemand);
    source->UpdateMipmaps(0, nullptr);
    return {MakeBitmap<RGBA8Tuple>(Side(4096) / 10, Side(4096) / 10, Alpha::Full, 2), source, {10, 0, 0, 0, 10, 0}};
}

void Run(benchmark::State & state, Scene const & scene, unsigned threads) {
    double const unit = MeasureMemcpy();
    Kernel::Dispatch::SetThreadCount(threads);
    double best = 1e9;
    for (auto _ : state) {
        double const seconds = MeasureTransfer(scene);
        best = std::min(best, seconds);
        state.SetIterationTime(seconds);
    }
    Kernel::Dispatch::SetThreadCount(0);
    state.counters["M"] = best / unit;
    state.counters["ns/px"] = best * 1e9 / (double(scene.dest->GetWidth()) * scene.dest->GetHeight());
}

// The best of nine on two threads beside the best of nine on one, by turns.
void CompareThreads(benchmark::State & state, Scene const & scene) {
    double best[2]{1e9, 1e9};
    for (auto _ : state)
        for (int i = 0; i < 18; ++i) {
            Kernel::Dispatch::SetThreadCount(i % 2 ? 2 : 1);
            double const seconds = MeasureTransfer(scene);
            best[i % 2] = std::min(best[i % 2], seconds);
        }
    Kernel::Dispatch::SetThreadCount(0);
    state.counters["two/one"] = best[1] / best[0];
}

// One colour over small rectangles here and there: what square tips do.
void FillSmall(benchmark::State & state) {
    int const size = 1024, side = int(state.range(0)), count = 200;
    DynamicBitmap dest(MakeBitmap<RGBA8Tuple>(size, size, Alpha::Full, 2));
    PixelOf<RGBA8Tuple> pixel{};
    pixel.channels[3] = 255;
    DynamicPixel const colour(pixel);
    std::mt19937 random(1);
    for (auto _ : state)
        for (int i = 0; i < count; ++i) {
            int const x = int(random() % unsigned(size - side)), y = int(random() % unsigned(size - side));
            Fill(dest, {x, y, x + side, y + side}, colour, 0.5f);
        }
    state.SetItemsProcessed(std::int64_t(state.iterations()) * count);
}

// A small picture over and over on pixels that lie in the cache, one destination for each thread.
void Stamp(benchmark::State & state) {
    int const size = int(state.range(0)), count = Side(400) * (256 / size);
    auto const source = MakeBitmap<RGBA8Tuple>(size, size, Alpha::Soft, 1);
    auto const dest = MakeBitmap<RGBA8Tuple>(size, size, Alpha::Full, 2);
    float const opacity = 1.0f;
    double best = 1e9;
    for (auto _ : state) {
        auto const start = std::chrono::steady_clock::now();
        for (int i = 0; i < count; ++i)
            Transfer(*dest, *source, nullptr, &opacity, nullptr);
        double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        best = std::min(best, seconds);
        state.SetIterationTime(seconds);
    }
    state.counters["ns/px"] = best * 1e9 / (double(size) * size * count);
}

// How long a transfer goes on after its flag was set by another thread: the 99th percentile of many.
void AbortLatency(benchmark::State & state) {
    auto const source = MakeBitmap<RGBA8Tuple>(Side(2048), Side(2048), Alpha::Soft, 1);
    auto const dest = MakeBitmap<RGBA8Tuple>(Side(2518), Side(2518), Alpha::Full, 2);
    double const matrix[6]{0.9, -0.5, 300, 0.5, 0.9, -300};
    float const opacity = 1.0f;
    std::vector<double> latencies;
    for (auto _ : state)
        for (int i = 0; i < Side(100); ++i) {
            bool abort = false;
            TransferParams params;
            params.abort = &abort;
            std::chrono::steady_clock::time_point asked;
            std::thread stopper([&, wait = 1000 + i * 100] {
                std::this_thread::sleep_for(std::chrono::microseconds(wait));
                asked = std::chrono::steady_clock::now();
                Kernel::RequestAbort(&abort);
            });
            Transfer(*dest, *source, &params, &opacity, matrix);
            auto const ended = std::chrono::steady_clock::now();
            stopper.join();
            latencies.push_back(std::max(0.0, std::chrono::duration<double>(ended - asked).count()));
            state.SetIterationTime(latencies.back());
        }
    std::sort(latencies.begin(), latencies.end());
    state.counters["p99_ms"] = latencies[latencies.size() * 99 / 100] * 1e3;
}

// The worst of the pairs of formats beside a memcpy of its larger side. Those into or out of Lab go through the colour
// library, whose time is their measure, and stand apart.
void EveryPair(benchmark::State & state, bool lab) {
    double worst = 0;
    std::string worstName;
    for (auto _ : state)
        for (std::uint32_t d = 0; d < formatCount; ++d)
            for (std::uint32_t s = 0; s < formatCount; ++s) {
                bool const isLab = (d == LABA16) != (s == LABA16);
                if (d == NoFormat || s == NoFormat || isLab != lab)
                    continue;
                int const size = Side(lab ? 512 : 1024);
                Kernel::Counted<BitmapCore> source, dest;
                auto const make = [size](Format format, unsigned seed) {
                    return VisitFormat(format, [&](auto tuple) {
                        return Kernel::Counted<BitmapCore>(
                            MakeBitmap<decltype(tuple)>(size, size, Alpha::Soft, seed).Get());
                    });
                };
                source = make(static_cast<Format>(s), 1);
                dest = make(static_cast<Format>(d), 2);
                float const opacity = 1.0f;
                Kernel::Dispatch::SetThreadCount(1);
                double best = 1e9;
                for (int i = 0; i < 5; ++i) {
                    auto const start = std::chrono::steady_clock::now();
                    Transfer(*dest, *source, nullptr, &opacity, nullptr);
                    best =
                        std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
                }
                Kernel::Dispatch::SetThreadCount(0);
                double const bytes =
                    double(size) * size *
                    double(std::max(source->GetLayout().GetPixelSize(), dest->GetLayout().GetPixelSize()));
                double const ratio = best / (MeasureMemcpy() * bytes / double(64 << 20));
                state.SetIterationTime(best);
                if (ratio > worst) {
                    worst = ratio;
                    worstName = std::to_string(s) + " to " + std::to_string(d);
                }
            }
    state.counters["worst/memcpy"] = worst;
    state.SetLabel(worstName);
}

#define RASTER_BENCHMARK(name, call)                                                                                   \
    void name(benchmark::State & state) { call; }                                                                      \
    BENCHMARK(name)->UseManualTime()->Unit(benchmark::kMillisecond)
// A scene on one thread, on two, and the one beside the other.
#define RASTER_SCENE(name, scene)                                                                                      \
    RASTER_BENCHMARK(name, Run(state, scene, 1));                                                                      \
    RASTER_BENCHMARK(name##_TwoThreads, Run(state, scene, 2));                                                         \
    void name##_Threads(benchmark::State & state) { CompareThreads(state, scene); }                                    \
    BENCHMARK(name##_Threads)->Iterations(1)->Unit(benchmark::kMillisecond)
}

RASTER_SCENE(Over_RGBA8_SoftOntoOpaque, MakeOver<RGBA8Tuple>(Alpha::Soft, Alpha::Full));
RASTER_SCENE(Over_RGBA8_SoftOntoSoft, MakeOver<RGBA8Tuple>(Alpha::Soft, Alpha::Soft));
RASTER_SCENE(Over_RGBA8_OpaqueOntoOpaque, MakeOver<RGBA8Tuple>(Alpha::Full, Alpha::Full));
RASTER_SCENE(Over_RGBA16_SoftOntoOpaque, MakeOver<RGBA16Tuple>(Alpha::Soft, Alpha::Full));
RASTER_SCENE(Over_RGBAUF_SoftOntoOpaque, MakeOver<RGBAUFTuple>(Alpha::Soft, Alpha::Full));
RASTER_SCENE(Over_AF_OntoRGBA8, (MakeOver<RGBA8Tuple, AFTuple>(Alpha::Soft, Alpha::Full)));
RASTER_SCENE(RotateAndScale, MakeTurned(thirtyDegrees, 0.9));
RASTER_SCENE(ScaleOnly, MakeTurned(0, 1.23));
RASTER_SCENE(MinifyThroughLevels, MakeMinified());
BENCHMARK(Stamp)
    ->Name("StampInCache")
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Arg(256)
    ->Threads(1)
    ->Threads(2);
BENCHMARK(Stamp)->Name("StampSmall")->UseManualTime()->Unit(benchmark::kMillisecond)->Arg(16)->Arg(64);
BENCHMARK(FillSmall)->Arg(1)->Arg(20)->Arg(300);
RASTER_BENCHMARK(Abort, AbortLatency(state))->Iterations(1);
RASTER_BENCHMARK(EveryPairWithoutLab, EveryPair(state, false))->Iterations(1);
RASTER_BENCHMARK(EveryPairWithLab, EveryPair(state, true))->Iterations(1);
}
