// Transforms as documents get them beside the colour library called directly, on pictures far beyond the cache, and
// what it costs to find a transform and to make one.
#include "colour/ICCManager.h"
#include "colour/SyntheticProfiles.h"
#include "kernel/Dispatch.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <random>

namespace Raster {
namespace {
namespace Synthetic = SyntheticProfiles;

constexpr std::size_t width = 2048, rowsPerTask = 16;

ICCManager::Profile Press() {
    static auto const press = [] {
        auto const bytes = Synthetic::Take(Synthetic::CreateCMYK("press"));
        return ICCManager::GetInstance().AddProfileFromMemory(bytes.data(), unsigned(bytes.size()), nullptr);
    }();
    return press;
}

ICCManager::Profile ProfileFor(Format format) {
    return format == CMYKA8 ? Press() : ICCManager::GetInstance().GetDefaultProfileForFormat(format);
}

std::size_t PixelBytes(Format format) { return format == RGBAUF ? 16 : format == CMYKA8 ? 5 : 4; }

/// A picture of smooth colours with a little noise, as photographs have it.
std::vector<unsigned char> MakePicture(std::size_t height) {
    std::vector<unsigned char> result(width * height * 4);
    std::mt19937 random(3);
    for (std::size_t y = 0; y < height; ++y)
        for (std::size_t x = 0; x < width; ++x) {
            unsigned const noise = unsigned(random() % 8);
            unsigned char const pixel[4] = {static_cast<unsigned char>(x / 8 + noise),
                                            static_cast<unsigned char>(y / 8 + noise),
                                            static_cast<unsigned char>((x + y) / 16 + noise), 255};
            std::memcpy(&result[(y * width + x) * 4], pixel, 4);
        }
    return result;
}

void * Get(Format to) {
    return ICCManager::GetInstance().GetTransformForProfiles(RGBA8, ProfileFor(RGBA8), to, ProfileFor(to),
                                                             Intent::RelativeColorimetric, true);
}

/// @param transformRow  transforms a row of `count` pixels.
template<class TransformRow>
void Measure(benchmark::State & state, Format to, unsigned threads, TransformRow const & transformRow) {
    auto const height = std::size_t(state.range(0));
    auto const in = MakePicture(height);
    std::vector<unsigned char> out(width * height * PixelBytes(to), 1);
    Kernel::Dispatch::SetThreadCount(threads);
    for (auto _ : state) {
        Kernel::Dispatch::ParallelFor(height / rowsPerTask, [&](std::uint64_t task) {
            for (std::size_t y = task * rowsPerTask; y < (task + 1) * rowsPerTask; ++y)
                transformRow(&in[y * width * 4], &out[y * width * PixelBytes(to)], int(width));
        });
        benchmark::ClobberMemory();
    }
    Kernel::Dispatch::SetThreadCount(0);
    state.SetItemsProcessed(std::int64_t(state.iterations() * width * height));
}

template<Format to, unsigned threads>
void Managed(benchmark::State & state) {
    auto * const transform = Get(to);
    Measure(state, to, threads, [=](unsigned char const * in, unsigned char * out, int count) {
        ICCManager::DoTransform(transform, in, out, count);
    });
}

/// The whole picture in one call of the library, with a transform of its own.
template<Format to>
void Direct(benchmark::State & state) {
    cmsHTRANSFORM const transform = cmsCreateTransform(ProfileFor(RGBA8)->GetHandle(), TYPE_RGBA_8,
                                                       ProfileFor(to)->GetHandle(), ICCManager::ICCTypeFromFormat(to),
                                                       INTENT_RELATIVE_COLORIMETRIC, cmsFLAGS_BLACKPOINTCOMPENSATION);
    auto const height = std::size_t(state.range(0));
    auto const in = MakePicture(height);
    std::vector<unsigned char> out(width * height * PixelBytes(to), 1);
    for (auto _ : state) {
        cmsDoTransform(transform, in.data(), out.data(), cmsUInt32Number(width * height));
        benchmark::ClobberMemory();
    }
    cmsDeleteTransform(transform);
    state.SetItemsProcessed(std::int64_t(state.iterations() * width * height));
}

void Find(benchmark::State & state) {
    for (std::int64_t i = 0; i < state.range(0); ++i) // others in the list before it
        ICCManager::GetInstance().GetTransformForProfiles(static_cast<Format>(RGBAUF), ProfileFor(RGBAUF), RGBA16,
                                                          ProfileFor(RGBA8), static_cast<Intent>(i % 4), i / 4 % 2);
    auto const sRGB = ProfileFor(RGBA8), press = Press();
    auto & manager = ICCManager::GetInstance();
    manager.GetTransformForProfiles(RGBA8, sRGB, CMYKA8, press, Intent::RelativeColorimetric, true);
    for (auto _ : state)
        benchmark::DoNotOptimize(
            manager.GetTransformForProfiles(RGBA8, sRGB, CMYKA8, press, Intent::RelativeColorimetric, true));
}

void Make(benchmark::State & state) {
    auto const sRGB = ProfileFor(RGBA8), press = Press();
    for (auto _ : state)
        ICCManager::DeleteTransform(ICCManager::CreateTransform(
            sRGB->GetHandle(), ICCManager::_TYPE_RGBA_8(), press->GetHandle(), ICCManager::_TYPE_CMYKA_8(),
            INTENT_RELATIVE_COLORIMETRIC, cmsFLAGS_BLACKPOINTCOMPENSATION));
}

// 2048 x 8192 are 16 Mi pixels; the small height is what ordinary test runs do.
#define RASTER_MEASURE(name) BENCHMARK(name)->UseRealTime()->Unit(benchmark::kMillisecond)->Arg(64)->Arg(8192)
RASTER_MEASURE((Managed<CMYKA8, 1>));
RASTER_MEASURE((Direct<CMYKA8>));
RASTER_MEASURE((Managed<CMYKA8, 2>));
RASTER_MEASURE((Managed<RGBAUF, 1>));
RASTER_MEASURE((Direct<RGBAUF>));
RASTER_MEASURE((Managed<RGBAUF, 2>));
BENCHMARK(Find)->Arg(0)->Arg(8);
BENCHMARK(Make)->Unit(benchmark::kMillisecond);
}
}
