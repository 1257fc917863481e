/// Walking a buffer by `Read` and `Increment` against a loop over the same memory with a raw pointer. Both fold every
/// sample into one running hash, which neither can vectorise. The counter `ratio` is the accessor's time over the raw
/// loop's, each the fastest of many rounds that alternate in one process: what it should stay under is 1.5.
#include "pixel/Buffer.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>

namespace Raster {
namespace {
template<class PixelType>
std::uint64_t AddToHash(std::uint64_t hash, PixelType const & pixel) {
    for (auto const sample : pixel.channels)
        if constexpr (sizeof(sample) == 4) {
            std::uint32_t bits;
            std::memcpy(&bits, &sample, sizeof(bits));
            hash = hash * 31 + bits;
        } else
            hash = hash * 31 + sample;
    return hash;
}

template<class Type>
std::uint64_t WalkByAccessor(Type const & buffer) {
    typename Type::template ConstPixelAccessor<Zero, IdentityTransform> accessor(&buffer);
    typename Type::PixelType pixel;
    std::uint64_t hash = 0;
    for (int y = 0; y < buffer.GetHeight(); ++y) {
        accessor.SetToXY(0, y);
        for (int x = 0; x < buffer.GetWidth(); ++x, accessor.Increment()) {
            accessor.Read(pixel);
            hash = AddToHash(hash, pixel);
        }
    }
    return hash;
}

template<class Type>
std::uint64_t WalkByPointer(Type const & buffer) {
    auto const * pointer = reinterpret_cast<typename Type::PixelType const *>(buffer.GetData());
    std::uint64_t hash = 0;
    for (int y = 0; y < buffer.GetHeight(); ++y)
        for (int x = 0; x < buffer.GetWidth(); ++x)
            hash = AddToHash(hash, *pointer++);
    return hash;
}

double SecondsOf(auto && work) {
    auto const start = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(work());
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

template<class Tuple>
void WalkedBuffer(benchmark::State & state) {
    using Type = typename Tuple::template Apply<Buffer>;
    auto const side = static_cast<int>(state.range(0));
    Type buffer(side, side, nullptr);
    for (std::uint64_t i = 0; i < buffer.GetBufferSize(); ++i)
        buffer.GetData()[i] = static_cast<unsigned char>(i * 37 >> 3 & 63); // small floats too
    if (WalkByAccessor(buffer) != WalkByPointer(buffer))
        state.SkipWithError("the two walks disagree");
    double accessor = std::numeric_limits<double>::max(), pointer = accessor;
    for (auto _ : state) {
        double const seconds = SecondsOf([&] { return WalkByAccessor(buffer); });
        accessor = std::min(accessor, seconds);
        pointer = std::min(pointer, SecondsOf([&] { return WalkByPointer(buffer); }));
        state.SetIterationTime(seconds);
    }
    auto const pixels = double(side) * side;
    state.counters["ratio"] = accessor / pointer;
    state.counters["accessor_ns"] = accessor / pixels * 1e9;
    state.counters["pointer_ns"] = pointer / pixels * 1e9;
}
}

// 64 KiB and 16 MiB at four bytes a pixel: in cache, and beyond the second level.
BENCHMARK_TEMPLATE(WalkedBuffer, A8Tuple)->Arg(128)->Arg(2048)->UseManualTime();
BENCHMARK_TEMPLATE(WalkedBuffer, IA8Tuple)->Arg(128)->Arg(2048)->UseManualTime();
BENCHMARK_TEMPLATE(WalkedBuffer, RGBA8Tuple)->Arg(128)->Arg(2048)->UseManualTime();
BENCHMARK_TEMPLATE(WalkedBuffer, RGBA16Tuple)->Arg(128)->Arg(2048)->UseManualTime();
BENCHMARK_TEMPLATE(WalkedBuffer, CMYKA8Tuple)->Arg(128)->Arg(2048)->UseManualTime();
BENCHMARK_TEMPLATE(WalkedBuffer, RGBAUFTuple)->Arg(128)->Arg(2048)->UseManualTime();
}
