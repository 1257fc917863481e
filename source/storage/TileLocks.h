#pragma once

#include "kernel/CriticalSectionSpin.h"
#include "kernel/ScopedLock.h"
#include "storage/Tile.h"

#include <cstddef>
#include <cstdint>

namespace Raster {
/// Locks of tile handles. Under one of them a handle's block is looked up, retained or replaced: a few nanoseconds, and
/// nothing else is taken or called. Sixteen neighbours share one, so that whole rows are copied under few.
class TileLocks {
public:
    static Kernel::CriticalSectionSpin & Of(Tile const * tile) {
        auto const group = reinterpret_cast<std::uintptr_t>(tile) / groupBytes;
        return locks[group * 0x9E3779B97F4A7C15u >> (64 - countBits)].lock;
    }
    // How many tiles from this one on have the same lock.
    static std::size_t CountInGroup(Tile const * tile) {
        return (groupBytes - reinterpret_cast<std::uintptr_t>(tile) % groupBytes + sizeof(Tile) - 1) / sizeof(Tile);
    }

    static constexpr std::size_t groupTiles = 16;

private:
    static constexpr std::size_t groupBytes = groupTiles * sizeof(Tile);
    static constexpr int countBits = 8;
    struct alignas(64) PaddedLock {
        Kernel::CriticalSectionSpin lock{Kernel::LockRank::Leaf};
    };
    static PaddedLock locks[std::size_t(1) << countBits];
};

using TileLock = Kernel::ScopedLock<Kernel::CriticalSectionSpin>;
}
