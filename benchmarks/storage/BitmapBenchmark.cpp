/// What bitmaps cost: sharing all tiles of one, walking it, and keeping one that is nearly empty. Each counter
/// `ratio...` is a time over that of plain code which does the same in this process, each the fastest of many rounds
/// that alternate. The large sizes take up to 2 GiB; RASTER_BENCHMARK_SMOKE in the environment leaves them out.
#include "pixel/MemoryManager.h"
#include "storage/Bitmap.h"
#include "storage/Block.h"
#include "storage/CompareTimes.h"
#include "storage/ResidentMemory.h"
#include "storage/TileGuard.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <malloc.h>
#include <memory>
#include <vector>

namespace Raster {
namespace {
double SecondsOf(auto && work) {
    auto const whole = [&] {
        work();
        benchmark::ClobberMemory();
    };
    return MeasureSeconds(whole);
}

/// The fastest round so far.
struct Fastest {
    double seconds = std::numeric_limits<double>::max();
    double Add(double round) {
        seconds = std::min(seconds, round);
        return round;
    }
};

void PrepareStorage() {
    Block::InitStaticBlock();
    Tile::InitStaticTiles();
    MemoryManager::Instance().SetDRAMLimit(4096);
}

void Sizes(benchmark::internal::Benchmark * benchmark, int small, int large) {
    benchmark->Arg(small);
    if (!std::getenv("RASTER_BENCHMARK_SMOKE"))
        benchmark->Arg(large);
}

template<class Tuple>
std::unique_ptr<BitmapOf<Tuple>> MakeResident(int side) {
    PrepareStorage();
    auto bitmap = std::make_unique<BitmapOf<Tuple>>(side, side, MipmapModeNone, HardwareCachePolicy::Default);
    for (int plane = 0; plane < bitmap->GetPlaneCount(); ++plane)
        for (std::size_t i = 0; i < bitmap->GetPlane(plane).GetTileCount(); ++i) {
            MutableTileGuard const guard(bitmap->GetPlane(plane).GetTile(i));
            auto * const bytes = reinterpret_cast<std::uint8_t *>(guard.GetBuffer());
            for (std::size_t n = 0; n < Tile::ByteCount; ++n)
                bytes[n] = static_cast<std::uint8_t>((n * 37 + i) >> 3 & 63); // small floats too
        }
    return bitmap;
}

// Against a loop over as many counted handles, which is the least that sharing can be.
void CloneAndDestroy(benchmark::State & state) {
    auto const bitmap = MakeResident<RGBA8Tuple>(static_cast<int>(state.range(0)));
    std::vector<Kernel::Counted<Block>> handles;
    for (int plane = 0; plane < bitmap->GetPlaneCount(); ++plane)
        for (std::size_t i = 0; i < bitmap->GetPlane(plane).GetTileCount(); ++i)
            handles.push_back(bitmap->GetPlane(plane).GetTile(i).GetDirectInner());
    auto const before = MemoryManager::Instance().GetPlanarUsage();
    Fastest clone, destroy, copy, release;
    for (auto _ : state) {
        std::vector<Kernel::Counted<Block>> copies;
        copies.reserve(handles.size());
        copy.Add(SecondsOf([&] {
            for (auto const & handle : handles)
                copies.push_back(handle);
        }));
        release.Add(SecondsOf([&] { copies.clear(); }));
        std::unique_ptr<BitmapOf<RGBA8Tuple>> cloned;
        state.SetIterationTime(clone.Add(SecondsOf([&] { cloned.reset(bitmap->Clone()); })));
        destroy.Add(SecondsOf([&] { cloned.reset(); }));
    }
    if (MemoryManager::Instance().GetPlanarUsage() != before)
        state.SkipWithError("a clone took pixel memory");
    auto const tiles = static_cast<double>(handles.size());
    state.counters["ratio_clone"] = clone.seconds / copy.seconds;
    state.counters["ratio_destroy"] = destroy.seconds / release.seconds;
    state.counters["clone_ns_a_tile"] = clone.seconds / tiles * 1e9;
    state.counters["handle_ns_a_tile"] = copy.seconds / tiles * 1e9;
}

template<class Storage>
std::uint64_t AddToHash(std::uint64_t hash, Storage sample) {
    if constexpr (sizeof(sample) == 4) {
        std::uint32_t bits;
        std::memcpy(&bits, &sample, sizeof bits);
        return hash * 31 + bits;
    } else
        return hash * 31 + sample;
}

template<class Tuple>
std::uint64_t WalkByAccessor(BitmapOf<Tuple> const & bitmap) {
    ModelConstAccessor<BitmapOf<Tuple>, Zero, IdentityTransform> accessor(&bitmap);
    PixelOf<Tuple> pixel;
    std::uint64_t hash = 0;
    for (int y = 0; y < bitmap.GetHeight(); ++y) {
        accessor.SetToXY(0, y);
        for (int x = 0; x < bitmap.GetWidth(); ++x, accessor.Increment()) {
            accessor.Read(pixel);
            for (auto const sample : pixel.channels)
                hash = AddToHash(hash, sample);
        }
        if (y % 256 == 255)
            accessor.Reset();
    }
    return hash;
}

/// The same over the same planes, as whoever knows their layout would write it.
template<class Tuple>
std::uint64_t WalkByPointer(BitmapOf<Tuple> const & bitmap) {
    using Storage = typename Tuple::Storage;
    constexpr std::size_t channels = Tuple::channelCount;
    auto const & grid = bitmap.GetGrid();
    std::uint64_t hash = 0;
    for (int row = 0; row < grid.tilesDown; ++row) {
        std::vector<ConstTileGuard> guards;
        std::vector<Storage const *> buffers; // channel by channel for each column
        for (int column = 0; column < grid.tilesAcross; ++column)
            for (std::size_t i = 0; i < channels; ++i)
                buffers.push_back(reinterpret_cast<Storage const *>(
                    guards.emplace_back(bitmap.GetPlane(static_cast<int>(i)).GetTile(column, row)).GetBuffer()));
        for (int y = 0; y < 256; ++y)
            for (int column = 0; column < grid.tilesAcross; ++column) {
                Storage const * samples[channels];
                for (std::size_t i = 0; i < channels; ++i)
                    samples[i] = buffers[static_cast<std::size_t>(column) * channels + i] + y * grid.tileWidth;
                for (int x = 0; x < grid.tileWidth; ++x)
                    for (std::size_t i = 0; i < channels; ++i)
                        hash = AddToHash(hash, samples[i][x]);
            }
    }
    return hash;
}

template<class Tuple>
void Walk(benchmark::State & state) {
    auto const bitmap = MakeResident<Tuple>(static_cast<int>(state.range(0)));
    if (WalkByAccessor<Tuple>(*bitmap) != WalkByPointer<Tuple>(*bitmap))
        state.SkipWithError("the two walks disagree");
    Fastest accessor, pointer;
    for (auto _ : state) {
        state.SetIterationTime(
            accessor.Add(SecondsOf([&] { benchmark::DoNotOptimize(WalkByAccessor<Tuple>(*bitmap)); })));
        pointer.Add(SecondsOf([&] { benchmark::DoNotOptimize(WalkByPointer<Tuple>(*bitmap)); }));
    }
    auto const pixels = static_cast<double>(state.range(0)) * static_cast<double>(state.range(0));
    state.counters["ratio"] = accessor.seconds / pointer.seconds;
    state.counters["accessor_ns"] = accessor.seconds / pixels * 1e9;
    state.counters["pointer_ns"] = pointer.seconds / pixels * 1e9;
}

/// Every pixel as planar spans, in columns of so many pixels.
template<class Tuple>
void ReadSpans(BitmapOf<Tuple> const & bitmap, int columnWidth) {
    PlanarPixelSpanOf<Tuple> span;
    for (int top = 0; top < bitmap.GetHeight(); top += 256)
        for (int left = 0; left < bitmap.GetWidth(); left += columnWidth) {
            ModelConstAccessor<BitmapOf<Tuple>, Safe, IdentityTransform> accessor(&bitmap);
            for (int y = top; y < top + 256; ++y) {
                accessor.SetToXY(left, y);
                for (int x = 0; x < columnWidth; x += spanLength, accessor.Increment()) {
                    accessor.SpanRead(span);
                    benchmark::DoNotOptimize(span);
                }
            }
        }
}

template<class Tuple>
void SpanRead(benchmark::State & state) {
    int const side = static_cast<int>(state.range(0));
    auto const bitmap = MakeResident<Tuple>(side);
    auto const bytes = static_cast<std::size_t>(side) * static_cast<std::size_t>(side) * Tuple::pixelSize;
    std::vector<char> from(bytes, 1), to(bytes, 2);
    Fastest byTiles, byRows, copy;
    for (auto _ : state) {
        state.SetIterationTime(byTiles.Add(SecondsOf([&] { ReadSpans<Tuple>(*bitmap, 256 / Tuple::sampleSize); })));
        byRows.Add(SecondsOf([&] { ReadSpans<Tuple>(*bitmap, side); }));
        copy.Add(SecondsOf([&] { std::memcpy(to.data(), from.data(), bytes); }));
    }
    state.counters["ratio_by_tiles"] = byTiles.seconds / copy.seconds;
    state.counters["ratio_by_rows"] = byRows.seconds / copy.seconds;
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes) * static_cast<std::int64_t>(state.iterations()));
}

// Against reading and writing as many handles as the grid has. The bytes of a tile are what the process grows by.
void SparseBitmap(benchmark::State & state) {
    PrepareStorage();
    int const side = static_cast<int>(state.range(0));
    Fastest open, boxes, clone, destroy, grid;
    std::size_t tiles = 0;
    double bytesATile = 0;
    for (auto _ : state) {
        using Type = BitmapOf<A8Tuple>;
        std::unique_ptr<Type> bitmap, cloned;
        malloc_trim(0); // or the grid may take what an earlier one has left
        auto const residentBefore = GetResidentBytes();
        open.Add(SecondsOf(
            [&] { bitmap = std::make_unique<Type>(side, side, MipmapModeNone, HardwareCachePolicy::Default); }));
        tiles = bitmap->GetPlane(0).GetTileCount();
        bytesATile = (static_cast<double>(GetResidentBytes()) - static_cast<double>(residentBefore)) /
                     static_cast<double>(tiles);
        for (std::size_t i = 1; i < 5; ++i)
            MutableTileGuard(bitmap->GetPlane(0).GetTile(tiles / 5 * i)).GetBuffer()[i] = 1;
        boxes.Add(SecondsOf([&] {
            benchmark::DoNotOptimize(bitmap->GetNonZeroBoundingBox());
            benchmark::DoNotOptimize(bitmap->GetNonFullBoundingBox());
            benchmark::DoNotOptimize(bitmap->GetAllocatedBoundingBox());
        }));
        state.SetIterationTime(clone.Add(SecondsOf([&] { cloned.reset(bitmap->Clone()); })));
        destroy.Add(SecondsOf([&] { cloned.reset(); }));
        bitmap.reset();
        std::vector<char> from(tiles * sizeof(Tile), 1);
        std::unique_ptr<char[]> to;
        grid.Add(SecondsOf([&] {
            to.reset(new char[from.size()]);
            std::memcpy(to.get(), from.data(), from.size());
        }));
    }
    if (bytesATile > 32)
        state.SkipWithError("an empty tile costs more than 32 bytes");
    state.counters["bytes_a_tile"] = bytesATile;
    state.counters["ratio_open"] = open.seconds / grid.seconds;
    state.counters["ratio_boxes"] = boxes.seconds / 3 / grid.seconds;
    state.counters["ratio_clone"] = clone.seconds / grid.seconds;
    state.counters["ratio_destroy"] = destroy.seconds / grid.seconds;
    state.counters["clone_ns_a_tile"] = clone.seconds / static_cast<double>(tiles) * 1e9;
}
}

BENCHMARK(CloneAndDestroy)->Apply([](auto * benchmark) { Sizes(benchmark, 4096, 16384); }) -> UseManualTime();
BENCHMARK_TEMPLATE(Walk, A8Tuple)->Arg(2048)->UseManualTime();
BENCHMARK_TEMPLATE(Walk, RGBA8Tuple)->Arg(2048)->UseManualTime();
BENCHMARK_TEMPLATE(Walk, CMYKA8Tuple)->Arg(2048)->UseManualTime();
BENCHMARK_TEMPLATE(Walk, RGBA16Tuple)->Arg(2048)->UseManualTime();
BENCHMARK_TEMPLATE(Walk, RGBAUFTuple)->Arg(2048)->UseManualTime();
BENCHMARK_TEMPLATE(SpanRead, RGBA8Tuple)
    ->Apply([](auto * benchmark) { Sizes(benchmark, 2048, 8192); }) -> UseManualTime();
BENCHMARK_TEMPLATE(SpanRead, RGBAUFTuple)
    ->Apply([](auto * benchmark) { Sizes(benchmark, 1024, 4096); }) -> UseManualTime();
BENCHMARK(SparseBitmap)->Apply([](auto * benchmark) { Sizes(benchmark, 100000, 1000000); }) -> UseManualTime();
}
