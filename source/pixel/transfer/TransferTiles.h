/// The two sides of one tile's transfer: where pixels come from and where they go.
#pragma once

#include "storage/BitmapCore.h"
#include "storage/TileGuard.h"
#include "storage/TilePins.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace Raster {
/// Reads the tiles of a source. Those that it met stay pinned until it goes, at the end of a task, or until there are
/// too many: a matrix that shrinks far, without a level to take, leads one task over all of a picture.
class SourceTiles {
public:
    using Rows = std::array<void const *, 5>;
    /// More than a task meets as long as two pixels of the source lie beside one of the destination, however turned,
    /// and whichever of the two has the wider tiles.
    static constexpr std::size_t usualLimit = 128;

    /// @param limit  how many tiles are pinned at once, at most.
    explicit SourceTiles(BitmapCore const & bitmap, std::size_t limit = usualLimit)
        : source(bitmap), grid(bitmap.GetGrid()), mostPinned(limit) {}

    TileGrid const & GetGrid() const { return grid; }
    /// Whether the alpha of a whole tile is known to be 0, without a look at its pixels.
    bool IsTransparent(int column, int row) const {
        Tile const & tile = GetAlphaTile(column, row);
        return !tile.IsAllocated() || tile.IsZeroTileBuffer();
    }
    /// Whether the alpha of a whole tile is known to be full.
    bool IsOpaque(int column, int row) const {
        Tile const & tile = GetAlphaTile(column, row);
        return source.GetLayout().kind == ChannelKind::Integer ? tile.IsFullTileBuffer() : tile.IsFullFloatTileBuffer();
    }
    /// The samples from pixel (x, y) on, for each plane, as far as its tile reaches. They are there until the next
    /// call.
    Rows GetRows(int x, int y);
    /// Lets go of what is pinned.
    void Reset() noexcept { pins.Reset(); }

private:
    Tile const & GetAlphaTile(int column, int row) const {
        return source.GetPlane(source.GetLayout().alphaIndex - 1).GetTile(column, row);
    }

    BitmapCore const & source;
    TileGrid const & grid;
    std::size_t const mostPinned;
    TilePins<ConstTileGuard> pins;
};

/// Asks the processor for a piece of a row of each plane, `offset` bytes from `rows`. Pieces that lie below each other
/// come in an order that it does not foresee.
enum class PrefetchFor : std::uint8_t { Reading, Writing };
template<PrefetchFor purpose, class Rows>
void PrefetchRows(Rows const & rows, int planeCount, std::ptrdiff_t offset, std::size_t bytes) {
    for (int plane = 0; plane < planeCount; ++plane)
        for (std::size_t i = 0; i < bytes; i += 64)
            __builtin_prefetch(static_cast<std::byte const *>(rows[std::size_t(plane)]) + offset + i,
                               /*write=*/purpose == PrefetchFor::Writing, /*locality=*/2);
}

/// Writes one tile of a destination. It is pinned, and with that allocated and cut loose from its backing, when the
/// first pixels come.
class DestTile {
public:
    using Rows = std::array<void *, 5>;

    /// The tile that a task's rectangle lies in.
    DestTile(BitmapCore & bitmap, Kernel::RectT<int> const & rect)
        : dest(bitmap), column(rect.left / bitmap.GetGrid().tileWidth), row(rect.top / TileGrid::tileHeight) {}

    bool IsOpen() const { return isOpen; }
    /// The samples from pixel (x, y) of the bitmap on, for each plane.
    Rows GetRows(int x, int y);
    /// Takes the tiles of a source of the same format in place of its own.
    void ShareFrom(BitmapCore const & source, int sourceColumn, int sourceRow);

private:
    void Open();

    BitmapCore & dest;
    int const column, row;
    bool isOpen = false;
    std::array<MutableTileGuard, 5> guards;
    std::array<std::byte *, 5> buffers{};
};
}
