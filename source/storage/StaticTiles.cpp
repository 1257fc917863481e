#include "storage/StaticTiles.h"

#include "storage/Block.h"
#include "storage/TileGuard.h"

#include <algorithm>
#include <cstring>

namespace Raster {
namespace {
// Whether the bytes repeat this word throughout. Compares the buffer with itself, 64 bytes on: one stream is read.
bool IsFilledWith(void const * bytes, std::uint32_t word) {
    constexpr std::size_t beginBytes = 64;
    std::uint32_t begin[beginBytes / 4];
    std::fill(std::begin(begin), std::end(begin), word);
    auto const first = static_cast<unsigned char const *>(bytes);
    return std::memcmp(first, begin, beginBytes) == 0 &&
           std::memcmp(first, first + beginBytes, Tile::ByteCount - beginBytes) == 0;
}
}

std::atomic<Tile *> StaticTiles::tiles[KindCount];
std::atomic<Block const *> StaticTiles::blocks[KindCount];
std::atomic<std::uint32_t> StaticTiles::hashes[KindCount];

void StaticTiles::Init(Kind kind) {
    auto const tile = new Tile;
    {
        MutableTileGuard const session(*tile);
        std::fill_n(session.GetBuffer(), Tile::ByteCount / 4, words[kind]);
    }
    tile->IncrementRefCountConst(); // until it is destroyed: what everybody shares never goes to disk
    hashes[kind].store(tile->GetHash(), std::memory_order_relaxed);
    blocks[kind].store(tile->GetConstInner(), std::memory_order_relaxed);
    tiles[kind].store(tile, std::memory_order_release);
}

void StaticTiles::Destroy(Kind kind) {
    auto const tile = tiles[kind].exchange(nullptr, std::memory_order_acq_rel);
    if (!tile)
        return;
    blocks[kind].store(nullptr, std::memory_order_relaxed);
    tile->DecrementRefCountConst();
    delete tile;
}

Kernel::Counted<Block> StaticTiles::FindEqual(void const * bytes) {
    std::uint32_t first;
    std::memcpy(&first, bytes, sizeof first);
    for (int kind = 0; kind < KindCount; ++kind) {
        auto const tile = tiles[kind].load(std::memory_order_acquire);
        if (tile && first == words[kind] && IsFilledWith(bytes, words[kind]))
            return tile->GetDirectInner();
    }
    return nullptr;
}

Kernel::Counted<Block> StaticTiles::FindByHash(void const * bytes, std::uint32_t hash) {
    bool const isCandidate = std::any_of(std::begin(hashes), std::end(hashes), [&](auto const & each) {
        return each.load(std::memory_order_relaxed) == hash;
    });
    return isCandidate ? FindEqual(bytes) : nullptr;
}

void Tile::InitStaticTiles() {
    if (GetZeroTile())
        return;
    StaticTiles::Init(StaticTiles::Zero);
    StaticTiles::Init(StaticTiles::Full);
    StaticTiles::Init(StaticTiles::FullFloat);
}

void Tile::DestroyStaticTiles() {
    StaticTiles::Destroy(StaticTiles::Zero);
    StaticTiles::Destroy(StaticTiles::Full);
    StaticTiles::Destroy(StaticTiles::FullFloat);
}

Tile * Tile::GetZeroTile() { return StaticTiles::tiles[StaticTiles::Zero].load(std::memory_order_acquire); }

Tile * Tile::GetFullTile() { return StaticTiles::tiles[StaticTiles::Full].load(std::memory_order_acquire); }

Tile * Tile::GetFullFloatTile() { return StaticTiles::tiles[StaticTiles::FullFloat].load(std::memory_order_acquire); }

unsigned int Tile::GetZeroTileHash() { return StaticTiles::hashes[StaticTiles::Zero].load(std::memory_order_relaxed); }

unsigned int Tile::GetFullTileHash() { return StaticTiles::hashes[StaticTiles::Full].load(std::memory_order_relaxed); }

unsigned int Tile::GetFullFloatTileHash() {
    return StaticTiles::hashes[StaticTiles::FullFloat].load(std::memory_order_relaxed);
}
}
