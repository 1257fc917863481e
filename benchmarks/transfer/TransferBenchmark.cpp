// Transfers beside the time M that a memcpy of 64 MiB takes in the same process. Destinations exist and were written
// once before timing; figures are taken on one thread unless the name says otherwise.
#include "kernel/Abort.h"
#include "kernel/Dispatch.h"
#include "pixel/transfer/BitmapTransfer.h"
#include "transfer/BenchmarkBitmaps.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <string>
#include <thread>
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
    auto const source = MakeBitmap<Tuple>(Side(4096), Side(4096), sourceAlpha, 1);
    auto const dest = MakeBitmap<Tuple>(Side(4096), Side(4096), destAlpha, 2);
    Run(state, *dest, *source, {nullptr, 1.0f, threads});
}

void Rotate(benchmark::State & state, double angle, double scale, unsigned threads) {
    auto const source = MakeBitmap<RGBA8Tuple>(Side(2048), Side(2048), Alpha::Soft, 1);
    int const size = angle != 0 ? Side(2518) : int(Side(2048) * scale);
    auto const dest = MakeBitmap<RGBA8Tuple>(size, size, Alpha::Full, 2);
    double const c = std::cos(angle) / scale, s = std::sin(angle) / scale, middle = size / 2.0,
                 centre = Side(2048) / 2.0;
    double const matrix[6]{c, s, centre - c * middle - s * middle, -s, c, centre + s * middle - c * middle};
    Run(state, *dest, *source, {matrix, 1.0f, threads});
}
double const thirtyDegrees = std::acos(-1.0) / 6;

// A tenth of the size, through levels that are there already.
void Minify(benchmark::State & state) {
    auto const source = MakeBitmap<RGBA8Tuple>(Side(4096), Side(4096), Alpha::Soft, 1, MipmapModeOnDemand);
    source->UpdateMipmaps(0, nullptr);
    auto const dest = MakeBitmap<RGBA8Tuple>(Side(4096) / 10, Side(4096) / 10, Alpha::Full, 2);
    double const matrix[6]{10, 0, 0, 0, 10, 0};
    Run(state, *dest, *source, {matrix, 1.0f, 1});
}

// A small picture over and over on pixels that lie in the cache, one destination for each thread.
void Stamp(benchmark::State & state) {
    int const count = Side(400), size = 256;
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
RASTER_BENCHMARK(Over_RGBA8_SoftOntoSoft_TwoThreads, Over<RGBA8Tuple>(state, Alpha::Soft, Alpha::Soft, 2));
RASTER_BENCHMARK(Over_RGBA16_SoftOntoOpaque_TwoThreads, Over<RGBA16Tuple>(state, Alpha::Soft, Alpha::Full, 2));
RASTER_BENCHMARK(Over_RGBAUF_SoftOntoOpaque_TwoThreads, Over<RGBAUFTuple>(state, Alpha::Soft, Alpha::Full, 2));
RASTER_BENCHMARK(MinifyThroughLevels, Minify(state));
RASTER_BENCHMARK(StampInCache, Stamp(state))->Threads(1)->Threads(2);
RASTER_BENCHMARK(Abort, AbortLatency(state))->Iterations(1);
RASTER_BENCHMARK(EveryPairWithoutLab, EveryPair(state, false))->Iterations(1);
RASTER_BENCHMARK(EveryPairWithLab, EveryPair(state, true))->Iterations(1);
}
