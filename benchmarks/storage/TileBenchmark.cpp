// What sessions, copies and tidying up of tiles cost. 10000 tiles are tidied, which are 640 MiB; 1000 where
// RASTER_BENCHMARK_SMOKE is set.

#include "kernel/CRC32.h"
#include "kernel/Countable.h"
#include "kernel/CriticalSectionSpin.h"
#include "storage/Block.h"
#include "storage/BlockDeduplicationSupport.h"
#include "storage/BlockPin.h"
#include "storage/CompareTimes.h"
#include "storage/Tile.h"
#include "storage/TileGuard.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

namespace Raster {
namespace {
constexpr std::size_t bytes = 65536;

void Init() {
    MemoryManager::Instance().SetDRAMLimit(4096);
    Block::InitStaticBlock();
    Tile::InitStaticTiles();
}

std::size_t GetTileCount() { return std::getenv("RASTER_BENCHMARK_SMOKE") ? 1000 : 10000; }

void Fill(Tile & tile, std::uint32_t word) {
    MutableTileGuard const session(tile);
    std::fill_n(session.GetBuffer(), bytes / 4, word);
}

/// The cheapest pin that there could be with a lock: a count up under a spin lock, and a count down.
struct PlainPin {
    std::atomic<std::uint32_t> count{0};
    Kernel::CriticalSectionSpin lock;

    void Do() {
        count.fetch_add(1);
        lock.AcquireLock();
        lock.ReleaseLock();
        count.fetch_sub(1);
    }
};

constexpr std::size_t pins = 100000;

void PinAndUnpinBlock(benchmark::State & state) {
    Init();
    auto const block = Kernel::MakeCounted<Block>();
    PlainPin plain;
    CompareTimes(
        state, pins,
        [&] {
            for (std::size_t i = 0; i < pins; ++i)
                ConstBlockPin const pin(*block);
        },
        [&] {
            for (std::size_t i = 0; i < pins; ++i)
                plain.Do();
        });
}
BENCHMARK(PinAndUnpinBlock)->UseManualTime();

template<class Guard>
void OpenAndCloseGuard(benchmark::State & state) {
    Init();
    Tile tile;
    Fill(tile, 1);
    PlainPin plain;
    CompareTimes(
        state, pins,
        [&] {
            for (std::size_t i = 0; i < pins; ++i)
                Guard const guard(tile);
        },
        [&] {
            for (std::size_t i = 0; i < pins; ++i)
                plain.Do();
        });
}
BENCHMARK_TEMPLATE(OpenAndCloseGuard, ConstTileGuard)->UseManualTime();
BENCHMARK_TEMPLATE(OpenAndCloseGuard, MutableTileGuard)->UseManualTime();

// The base copies between blocks in memory, in the same pattern.
void FirstWriteToASharedTile(benchmark::State & state) {
    Init();
    constexpr std::size_t count = 128; // 8 MiB, warm
    std::vector<Tile> source(count), copies(count), plain(count);
    for (std::size_t i = 0; i < count; ++i) {
        Fill(source[i], 1);
        Fill(plain[i], 2);
    }
    CompareTimes(
        state, count,
        [&] {
            for (auto & tile : copies)
                MutableTileGuard(tile).GetBuffer()[0] = 3;
        },
        [&] {
            for (std::size_t i = 0; i < count; ++i)
                std::memcpy(plain[i].GetMutableInner()->GetMutableBuffer(), source[i].GetConstBuffer(), bytes);
        },
        [&] { Tile::CopyRange(copies.data(), source.data(), count); });
}
BENCHMARK(FirstWriteToASharedTile)->UseManualTime();

void CopyHandles(benchmark::State & state) {
    Init();
    constexpr std::size_t count = 100000;
    struct Object : Kernel::Countable {};
    std::vector<Tile> source(count), dest;
    std::vector<Kernel::Counted<Object>> plainSource, plainDest;
    for (auto & tile : source) {
        tile.GetConstInner();
        plainSource.push_back(Kernel::MakeCounted<Object>());
    }
    CompareTimes(
        state, count, [&] { Tile::CopyRange(dest.data(), source.data(), count); },
        [&] {
            plainDest.clear();
            plainDest.resize(count);
            for (std::size_t i = 0; i < count; ++i)
                plainDest[i] = plainSource[i];
        },
        [&] {
            dest.clear();
            dest.resize(count);
        });
}
BENCHMARK(CopyHandles)->UseManualTime();

void DestroyHandles(benchmark::State & state) {
    Init();
    constexpr std::size_t count = 100000;
    struct Object : Kernel::Countable {};
    std::vector<Tile> source(count), copies;
    std::vector<Kernel::Counted<Object>> plainSource, plainCopies;
    for (auto & tile : source) {
        tile.GetConstInner();
        plainSource.push_back(Kernel::MakeCounted<Object>());
    }
    plainCopies = plainSource;
    CompareTimes(
        state, count, [&] { copies.clear(); }, [&] { plainCopies.clear(); },
        [&] {
            copies = source;
            plainCopies = plainSource;
        });
}
BENCHMARK(DestroyHandles)->UseManualTime();

/// Tiles that are zero but for their last byte, and that differ from each other there: nothing is found out early.
std::vector<Tile> MakeNearlyZeroTiles(std::size_t count) {
    std::vector<Tile> tiles(count);
    for (std::size_t i = 0; i < count; ++i) {
        Fill(tiles[i], 0);
        MutableTileGuard(tiles[i]).GetBuffer()[bytes / 4 - 1] = static_cast<unsigned int>(i + 1);
    }
    return tiles;
}

void ScrubAgainstMemcmp(benchmark::State & state) {
    Init();
    auto tiles = MakeNearlyZeroTiles(GetTileCount());
    ConstTileGuard const zero(*Tile::GetZeroTile());
    CompareTimes(
        state, tiles.size(),
        [&] {
            for (auto & tile : tiles)
                tile.Scrub();
        },
        [&] {
            int found = 0;
            for (auto const & tile : tiles)
                found += std::memcmp(tile.GetConstBuffer(), zero.GetBuffer(), bytes) == 0;
            benchmark::DoNotOptimize(found);
        });
}
BENCHMARK(ScrubAgainstMemcmp)->UseManualTime()->Unit(benchmark::kMillisecond);

void DeduplicateAgainstCRC(benchmark::State & state) {
    Init();
    auto tiles = MakeNearlyZeroTiles(GetTileCount());
    CompareTimes(
        state, tiles.size(),
        [&] {
            BlockDeduplicationSupport support;
            for (auto & tile : tiles)
                tile.Deduplicate(support, nullptr);
        },
        [&] {
            std::uint32_t sum = 0;
            for (auto const & tile : tiles)
                sum += Kernel::CRC32::Instance().DataCRC32(tile.GetConstBuffer(), bytes);
            benchmark::DoNotOptimize(sum);
        });
}
BENCHMARK(DeduplicateAgainstCRC)->UseManualTime()->Unit(benchmark::kMillisecond);
}
}
