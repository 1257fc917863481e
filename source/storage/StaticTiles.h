#pragma once

#include "kernel/Counted.h"
#include "storage/Tile.h"

#include <atomic>
#include <cstdint>

namespace Raster {
/// The tiles whose content never changes, and their blocks for comparisons without looking into a tile.
struct StaticTiles {
    enum Kind { Zero, Full, FullFloat, KindCount };
    static constexpr std::uint32_t words[KindCount] = {0, 0xFFFFFFFF, 0x3F800000}; // 1.0 in the last

    static std::atomic<Tile *> tiles[KindCount];
    static std::atomic<Block const *> blocks[KindCount];
    static std::atomic<std::uint32_t> hashes[KindCount];

    static void Init(Kind kind);
    static void Destroy(Kind kind);
    /// One load and a comparison. False for null.
    static bool Is(Block const * block, Kind kind) {
        return block && block == blocks[kind].load(std::memory_order_relaxed);
    }
    static bool IsAny(Block const * block) { return Is(block, Zero) || Is(block, Full) || Is(block, FullFloat); }
    /// The block of the static tile with these bytes, or null.
    static Kernel::Counted<Block> FindEqual(void const * bytes);
    /// The same for bytes with this CRC, which alone is never enough.
    static Kernel::Counted<Block> FindByHash(void const * bytes, std::uint32_t hash);
};
}
