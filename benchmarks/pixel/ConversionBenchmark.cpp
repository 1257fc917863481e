// Conversion of planar rows. Each figure is a ratio taken within one process: every round times the conversion, its
// scalar twin and memcpy one after the other, in time of the thread; the best round of each counts. So the ratios hold
// on a busy machine too.
//   nsPerCall  of one conversion; the time that the tool itself prints is that of a whole round
//   ofMemcpy   speed of the conversion over that of memcpy, both in bytes read and written
//   overTwin   times as fast as the scalar twin
// For figures: taskset -c 1 ConversionBenchmark --benchmark_repetitions=5
#include "pixel/Conversion.h"
#include "pixel/kernels/ConvertCMYK.h"
#include "pixel/kernels/ConvertDepth.h"
#include "pixel/kernels/ConvertGrey.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

namespace {
using namespace Raster;

/// The planes of some pixels, filled with ordinary values. Each begins at a cache line, as rows of tiles do.
template<class Tuple>
struct Planes {
    static constexpr std::size_t line = 64;
    using Sample = typename Tuple::Storage;

    std::size_t count;
    std::unique_ptr<void, decltype(&std::free)> memory{nullptr, &std::free};
    void * planes[Tuple::channelCount];

    explicit Planes(std::size_t pixels) : count(pixels) {
        std::size_t const planeBytes = (count * sizeof(Sample) + line - 1) / line * line;
        memory.reset(std::aligned_alloc(line, planeBytes * Tuple::channelCount));
        std::uint32_t random = 1;
        for (int channel = 0; channel < Tuple::channelCount; ++channel) {
            planes[channel] = static_cast<char *>(memory.get()) + std::size_t(channel) * planeBytes;
            for (std::size_t i = 0; i < count; ++i) {
                random = random * 1664525 + 1013904223;
                static_cast<Sample *>(planes[channel])[i] =
                    Rules::ConvertSample<Sample>(static_cast<std::uint16_t>(random >> 16));
            }
        }
    }
    std::size_t GetBytes() const { return count * Tuple::pixelSize; }
};

template<auto Kernel, class Dest, class Source>
void EachPlane(void * const * dest, void const * const * source, std::size_t count) {
    for (int channel = 0; channel < 4; ++channel)
        Kernel(static_cast<Dest *>(dest[channel]), static_cast<Source const *>(source[channel]), count);
}

void GreyTwin(void * const * dest, void const * const * source, std::size_t count) {
    Scalar::ConvertGrey8From8(static_cast<std::uint8_t *>(dest[0]), static_cast<std::uint8_t const *>(source[0]),
                              static_cast<std::uint8_t const *>(source[1]),
                              static_cast<std::uint8_t const *>(source[2]), count);
    std::memcpy(dest[1], source[3], count);
}

void ClampTwin(void * const * dest, void const * const * source, std::size_t count) {
    for (int channel = 0; channel < 3; ++channel)
        Scalar::ConvertDepthClamp(static_cast<float *>(dest[channel]), static_cast<float const *>(source[channel]),
                                  count);
    std::memcpy(dest[3], source[3], count * sizeof(float));
}

/// Any pair, pixel by pixel.
template<class D, class S>
void PixelTwin(void * const * dest, void const * const * source, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        PixelOf<S> from;
        PixelOf<D> to;
        for (int channel = 0; channel < S::channelCount; ++channel)
            from[channel] = static_cast<typename S::Storage const *>(source[channel])[i];
        ConvertPixel<D, S>(to, from);
        for (int channel = 0; channel < D::channelCount; ++channel)
            static_cast<typename D::Storage *>(dest[channel])[i] = to[channel];
    }
}

double ThreadSeconds() {
    timespec time;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return double(time.tv_sec) + 1e-9 * double(time.tv_nsec);
}

/// Lowers `best` to what one call takes now.
template<class Function>
void Measure(double & best, std::size_t repeats, Function && function) {
    double const start = ThreadSeconds();
    for (std::size_t i = 0; i < repeats; ++i) {
        function();
        benchmark::ClobberMemory();
    }
    best = std::min(best, (ThreadSeconds() - start) / double(repeats));
}

/// `state.range(0)` is the size of the source in KiB.
template<class D, class S, ConvertRows Twin>
void Convert(benchmark::State & state) {
    std::size_t const count = std::size_t(state.range(0)) * 1024 / S::pixelSize;
    std::size_t const repeats = std::max<std::size_t>(1, (1 << 20) / (count * S::pixelSize));
    Planes<D> dest(count);
    Planes<S> source(count);
    std::size_t const bytes = dest.GetBytes() + source.GetBytes();
    std::size_t const copied = std::min<std::size_t>(bytes / 2, 64 << 20);
    std::vector<char> copySource(copied, 1), copyDest(copied, 2);
    auto const convert = GetConvertRows(viewOf<D>, viewOf<S>);

    double converting = 1e9, twin = 1e9, copying = 1e9;
    for (auto _ : state) {
        Measure(converting, repeats, [&] { convert(dest.planes, source.planes, count); });
        Measure(twin, repeats, [&] { Twin(dest.planes, source.planes, count); });
        Measure(copying, repeats, [&] { std::memcpy(copyDest.data(), copySource.data(), copied); });
    }
    state.counters["nsPerCall"] = converting * 1e9;
    state.counters["ofMemcpy"] = (double(bytes) / converting) / (2 * double(copied) / copying);
    state.counters["overTwin"] = twin / converting;
}

/// One call per span of 32: what dispatch costs.
template<class D, class S>
void ConvertSpans(benchmark::State & state) {
    std::size_t const count = std::size_t(state.range(0)) * 1024 / sizeof(PlanarPixelSpanOf<S>);
    std::size_t const repeats = std::max<std::size_t>(1, (1 << 20) / (count * sizeof(PlanarPixelSpanOf<S>)));
    std::vector<PlanarPixelSpanOf<S>> source(count);
    std::vector<PlanarPixelSpanOf<D>> dest(count);
    std::size_t const bytes = count * (sizeof(source[0]) + sizeof(dest[0]));
    std::size_t const copied = std::min<std::size_t>(bytes / 2, 64 << 20);
    std::vector<char> copySource(copied, 1), copyDest(copied, 2);
    double converting = 1e9, copying = 1e9;
    for (auto _ : state) {
        Measure(converting, repeats, [&] {
            for (std::size_t i = 0; i < count; ++i)
                ConvertSpan<D, S>(dest[i], source[i]);
            benchmark::ClobberMemory();
        });
        Measure(copying, repeats, [&] { std::memcpy(copyDest.data(), copySource.data(), copied); });
    }
    state.counters["nsPerSpan"] = converting * 1e9 / double(count);
    state.counters["ofMemcpy"] = (double(bytes) / converting) / (2 * double(copied) / copying);
}

constexpr std::int64_t inCache = 64; // KiB
/// 64 MiB; less in the run that only shows that all of this still works.
std::int64_t BeyondCache() { return std::getenv("RASTER_BENCHMARK_SMOKE") ? 8 << 10 : 64 << 10; }

#define RASTER_BENCHMARK(D, S, ...)                                                                                    \
    BENCHMARK(Convert<D##Tuple, S##Tuple, __VA_ARGS__>)->Name(#S "_to_" #D)->Arg(inCache)
RASTER_BENCHMARK(RGBAUF, RGBA8, EachPlane<Scalar::ConvertDepth8ToFloat, float, std::uint8_t>)->Arg(BeyondCache());
RASTER_BENCHMARK(RGBA8, RGBAUF, EachPlane<Scalar::ConvertDepthFloatTo8, std::uint8_t, float>)->Arg(BeyondCache());
RASTER_BENCHMARK(RGBA16, RGBA8, EachPlane<Scalar::ConvertDepth8To16, std::uint16_t, std::uint8_t>)->Arg(BeyondCache());
RASTER_BENCHMARK(RGBA8, RGBA16, EachPlane<Scalar::ConvertDepth16To8, std::uint8_t, std::uint16_t>)->Arg(BeyondCache());
RASTER_BENCHMARK(IA8, RGBA8, GreyTwin)->Arg(BeyondCache());
// The other kernels, each of which has to be worth its lines; 4 KiB is about what lies between two steps of the pivot.
RASTER_BENCHMARK(RGBAUF, RGBA16, EachPlane<Scalar::ConvertDepth16ToFloat, float, std::uint16_t>)->Arg(4);
RASTER_BENCHMARK(RGBA16, RGBAUF, EachPlane<Scalar::ConvertDepthFloatTo16, std::uint16_t, float>);
RASTER_BENCHMARK(RGBAF, RGBAUF, ClampTwin);
RASTER_BENCHMARK(IA8, RGBAUF, PixelTwin<IA8Tuple, RGBAUFTuple>);
RASTER_BENCHMARK(IA16, RGBAUF, PixelTwin<IA16Tuple, RGBAUFTuple>);
RASTER_BENCHMARK(CMYKA8, RGBA8, PixelTwin<CMYKA8Tuple, RGBA8Tuple>);
RASTER_BENCHMARK(CMYKA8, RGBAUF, PixelTwin<CMYKA8Tuple, RGBAUFTuple>);
RASTER_BENCHMARK(RGBA8, CMYKA8, PixelTwin<RGBA8Tuple, CMYKA8Tuple>);
RASTER_BENCHMARK(RGBAUF, CMYKA8, PixelTwin<RGBAUFTuple, CMYKA8Tuple>);
#undef RASTER_BENCHMARK
#define RASTER_BENCHMARK(D, S)                                                                                         \
    BENCHMARK(ConvertSpans<D##Tuple, S##Tuple>)->Name("spans_" #S "_to_" #D)->Arg(inCache)->Arg(BeyondCache())
RASTER_BENCHMARK(RGBAUF, RGBA8);
RASTER_BENCHMARK(RGBA8, RGBAUF);
RASTER_BENCHMARK(RGBA16, RGBA8);
RASTER_BENCHMARK(RGBA8, RGBA16);
RASTER_BENCHMARK(IA8, RGBA8);
#undef RASTER_BENCHMARK
}
