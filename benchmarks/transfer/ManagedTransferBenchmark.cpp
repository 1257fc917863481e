// Transfers whose time is the colour library's, beside the library called directly on memory in one piece. Both go by
// turns, and the best of each counts: "speed" is how fast the transfer is, the library being 1.
#include "colour/ICCManager.h"
#include "colour/SyntheticProfiles.h"
#include "kernel/Dispatch.h"
#include "pixel/transfer/BitmapTransfer.h"
#include "pixel/transfer/TransferManaged.h"
#include "transfer/BenchmarkBitmaps.h"

#include <benchmark/benchmark.h>
#include <lcms2.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace Raster {
namespace {
namespace Synthetic = SyntheticProfiles;

ICCManager::Profile Press() {
    static auto const press = [] {
        auto const bytes = Synthetic::Take(Synthetic::CreateCMYK("press"));
        return ICCManager::GetInstance().AddProfileFromMemory(bytes.data(), unsigned(bytes.size()), nullptr);
    }();
    return press;
}
ICCManager::Profile SRGB() { return ICCManager::GetInstance().GetDefaultProfileForFormat(RGBA8); }
ICCManager::Profile Linear() { return ICCManager::GetInstance().GetDefaultProfileForFormat(RGBAUF); }

/// Colours that change smoothly with a little noise, as photographs have them, and soft alpha.
Kernel::Counted<BitmapOf<RGBA8Tuple>> MakePhotograph(int size) {
    auto const bitmap = MakeBitmap<RGBA8Tuple>(size, size, Alpha::Soft, 3);
    std::mt19937 random(3);
    for (int plane = 0; plane < 3; ++plane)
        for (int row = 0; row < bitmap->GetGrid().tilesDown; ++row)
            for (int column = 0; column < bitmap->GetGrid().tilesAcross; ++column) {
                MutableTileGuard guard(bitmap->GetPlane(plane).GetTile(column, row));
                auto * const samples = reinterpret_cast<std::uint8_t *>(guard.GetBuffer());
                for (unsigned i = 0; i < 65536; ++i) {
                    unsigned const x = unsigned(column) * 256 + i % 256, y = unsigned(row) * 256 + i / 256;
                    unsigned const slope = plane == 0 ? x / 8 : plane == 1 ? y / 8 : (x + y) / 16;
                    samples[i] = static_cast<std::uint8_t>(slope + random() % 8);
                }
            }
    return bitmap;
}

template<class Tuple>
std::vector<typename Tuple::Storage> ReadInterleaved(BitmapOf<Tuple> const & bitmap) {
    std::vector<typename Tuple::Storage> samples;
    samples.reserve(std::size_t(bitmap.GetWidth()) * std::size_t(bitmap.GetHeight()) * Tuple::channelCount);
    ModelConstAccessor<BitmapOf<Tuple>, Safe, IdentityTransform> accessor(&bitmap);
    for (int y = 0; y < bitmap.GetHeight(); ++y) {
        accessor.SetToXY(0, y);
        for (int x = 0; x < bitmap.GetWidth(); ++x, accessor.Increment()) {
            PixelOf<Tuple> pixel;
            accessor.Read(pixel);
            samples.insert(samples.end(), std::begin(pixel.channels), std::end(pixel.channels));
        }
    }
    return samples;
}

// Seconds on the clock, or of the calling thread's work: others on the machine disturb that less.
double Now(unsigned threads) {
    timespec now;
    clock_gettime(threads == 1 ? CLOCK_THREAD_CPUTIME_ID : CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) + 1e-9 * double(now.tv_nsec);
}

struct Race {
    unsigned threads;
    double transfer = 1e9, library = 1e9;

    template<class Transfer, class Library>
    double Run(Transfer const & transferOnce, Library const & libraryOnce) {
        double const start = Now(threads);
        transferOnce();
        double const middle = Now(threads);
        libraryOnce();
        double const end = Now(threads);
        transfer = std::min(transfer, middle - start);
        library = std::min(library, end - middle);
        return middle - start;
    }
};

// The picture in as many equal parts as there are threads.
void Transform(void * transform, std::byte const * in, std::size_t pixelIn, std::byte * out, std::size_t pixelOut,
               std::size_t count, unsigned threads) {
    std::size_t const part = count / threads;
    std::vector<std::thread> others;
    for (unsigned i = 1; i < threads; ++i)
        others.emplace_back([=] {
            cmsDoTransform(transform, in + i * part * pixelIn, out + i * part * pixelOut, cmsUInt32Number(part));
        });
    cmsDoTransform(transform, in, out, cmsUInt32Number(part));
    for (auto & other : others)
        other.join();
}

template<class D>
void Managed(benchmark::State & state, ICCManager::Profile const & profile, unsigned threads) {
    int const size = Side(4096);
    DynamicBitmap const source(MakePhotograph(size));
    DynamicBitmap dest(MakeBitmap<D>(size, size, Alpha::Full, 2));
    auto const flat = ReadInterleaved<RGBA8Tuple>(*source.GetTyped<RGBA8Tuple>());
    auto const count = std::size_t(size) * std::size_t(size);
    std::vector<std::byte> out(count * layoutOf<D>.GetPixelSize(), std::byte(1));
    void * const transform = ICCManager::GetInstance().GetTransformForProfiles(
        RGBA8, SRGB(), formatOf<D>, profile, Intent::RelativeColorimetric, /*blackPointCompensation=*/true);
    Kernel::Dispatch::SetThreadCount(threads);
    Race race{threads};
    for (auto _ : state)
        state.SetIterationTime(race.Run([&] { TransferManaged(dest, source, transform, nullptr); },
                                        [&] {
                                            Transform(transform, reinterpret_cast<std::byte const *>(flat.data()), 4,
                                                      out.data(), layoutOf<D>.GetPixelSize(), count, threads);
                                        }));
    Kernel::Dispatch::SetThreadCount(0);
    state.counters["ns/px"] = race.transfer * 1e9 / double(count);
    state.counters["library_ns/px"] = race.library * 1e9 / double(count);
    state.counters["speed"] = race.library / race.transfer;
}

// One pair into or out of Lab. The library gets the same colours as rows of floats, or gives them.
template<class D, class S>
void CompareLab(benchmark::State & state, double & worst) {
    constexpr bool isToLab = formatOf<D> == LABA16;
    using Other = std::conditional_t<isToLab, S, D>;
    int const size = Side(512);
    auto const count = std::size_t(size) * std::size_t(size), row = std::size_t(size);
    auto const source = MakeBitmap<S>(size, size, Alpha::Soft, 1);
    auto const dest = MakeBitmap<D>(size, size, Alpha::Full, 2);
    float const opacity = 1.0f;

    auto const real = Kernel::Counted<BitmapOf<RGBAUFTuple>>(
        new BitmapOf<RGBAUFTuple>(size, size, MipmapModeNone, HardwareCachePolicy()));
    Transfer(*real, *source, nullptr, &opacity, nullptr);
    auto floats = ReadInterleaved<RGBAUFTuple>(*real);
    std::vector<std::uint16_t> lab(count * 4, 1);
    if constexpr (!isToLab)
        lab = ReadInterleaved<LABA16Tuple>(*source);

    auto const & manager = ICCManager::GetInstance();
    Kernel::Dispatch::SetThreadCount(1);
    Race race{1};
    for (int i = 0; i < 5; ++i)
        race.Run([&] { Transfer(*dest, *source, nullptr, &opacity, nullptr); },
                 [&] {
                     for (std::size_t at = 0; at < count * 4; at += row * 4)
                         if (isToLab)
                             manager.DoRGBAFToLABA16Transform(floats.data() + at, lab.data() + at, size);
                         else
                             manager.DoLABA16ToRGBAFTransform(lab.data() + at, floats.data() + at, size);
                 });
    Kernel::Dispatch::SetThreadCount(0);
    double const ratio = race.transfer / race.library;
    state.counters[(isToLab ? "from" : "to") + std::to_string(formatOf<Other>)] = ratio;
    worst = std::max(worst, ratio);
}

template<class Other>
void CompareLabBothWays(benchmark::State & state, double & worst) {
    CompareLab<LABA16Tuple, Other>(state, worst);
    CompareLab<Other, LABA16Tuple>(state, worst);
}

// Each of the twelve pairs as a multiple of the library's time, by the number of the other format.
void LabPairs(benchmark::State & state) {
    double worst = 0;
    for (auto _ : state) {
        CompareLabBothWays<RGBA8Tuple>(state, worst);
        CompareLabBothWays<RGBA16Tuple>(state, worst);
        CompareLabBothWays<RGBAUFTuple>(state, worst);
        CompareLabBothWays<IA8Tuple>(state, worst);
        CompareLabBothWays<IA16Tuple>(state, worst);
        CompareLabBothWays<CMYKA8Tuple>(state, worst);
    }
    state.counters["worst"] = worst;
}

#define RASTER_BENCHMARK(name, call)                                                                                   \
    void name(benchmark::State & state) { call; }                                                                      \
    BENCHMARK(name)->Unit(benchmark::kMillisecond)
}

RASTER_BENCHMARK(ManagedToCMYK, Managed<CMYKA8Tuple>(state, Press(), 1))->UseManualTime();
RASTER_BENCHMARK(ManagedToCMYK_TwoThreads, Managed<CMYKA8Tuple>(state, Press(), 2))->UseManualTime();
RASTER_BENCHMARK(ManagedToLinear, Managed<RGBAUFTuple>(state, Linear(), 1))->UseManualTime();
RASTER_BENCHMARK(ManagedToLinear_TwoThreads, Managed<RGBAUFTuple>(state, Linear(), 2))->UseManualTime();
BENCHMARK(LabPairs)->Iterations(1)->Unit(benchmark::kMillisecond);
}
