#pragma once

#include "kernel/Counted.h"
#include "kernel/Export.h"

#include <utility>

namespace Raster {
class Block;
class Tile;

/// A session for reading one tile. It holds a reference to the block that it pinned: who writes the tile meanwhile
/// writes into a copy, and this session keeps the bytes that it began with.
/// Threads: a guard belongs to one thread at a time.
class RASTER_API ConstTileGuard {
public:
    ConstTileGuard() noexcept;
    /// Brings the tile back from disk if it is there. Throws if memory or the disk fails.
    explicit ConstTileGuard(Tile const & tile);
    ConstTileGuard(ConstTileGuard && other) noexcept;
    ConstTileGuard & operator=(ConstTileGuard && other) noexcept;
    ~ConstTileGuard();
    /// Ends the session.
    void Reset() noexcept;

    /// 65536 bytes until the session ends; zeros for an unallocated tile.
    unsigned int const * GetBuffer() const;
    /// The pinned block; null if the tile had none.
    Block const * GetBlock() const noexcept { return block.Get(); }

private:
    Kernel::Counted<Block const> block;
};

/// A session for writing one tile, which clears its backing and makes its bytes its own. It holds no reference, so that
/// the tile stays the only holder; the tile must outlive the session and keep its block.
class RASTER_API MutableTileGuard {
public:
    MutableTileGuard() noexcept = default;
    /// Copies a shared block, and brings the tile back from disk if it is there. Throws if memory or the disk fails.
    explicit MutableTileGuard(Tile & tile);
    MutableTileGuard(MutableTileGuard && other) noexcept : block(std::exchange(other.block, nullptr)) {}
    MutableTileGuard & operator=(MutableTileGuard && other) noexcept;
    ~MutableTileGuard();
    /// Ends the session.
    void Reset() noexcept;

    /// 65536 bytes to write until the session ends. Allocated and zeroed on first use.
    unsigned int * GetBuffer() const;
    Block * GetBlock() const noexcept { return block; }

private:
    Block * block = nullptr;
};
}
