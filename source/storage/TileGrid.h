#pragma once

#include "kernel/Export.h"
#include "kernel/Rect.h"

#include <cstddef>
#include <cstdint>

namespace Raster {
/// The most tiles that all planes of one bitmap may have together: a terabyte of pixels, and 256 MiB of handles.
inline constexpr std::uint64_t maximumTileCount = std::uint64_t(1) << 24;

/// How a plane is cut into tiles of 65536 bytes: 256 rows of 256 bytes, so their width in pixels depends on the sample.
/// The last column and row may be partly outside the plane.
struct TileGrid {
    static constexpr int rowBytes = 256;
    static constexpr int tileHeight = 256; ///< pixels
    static constexpr std::uint64_t tileBytes = 65536;

    int width = 0, height = 0; ///< pixels
    int tileWidth = rowBytes;  ///< pixels: 256, 128, 64 or 32
    int tilesAcross = 0, tilesDown = 0;

    /// Negative sizes count as 0. Any size is a grid; see `IsWithinLimit`.
    static constexpr TileGrid Create(int width, int height, int sampleSize) {
        TileGrid grid;
        grid.width = width > 0 ? width : 0;
        grid.height = height > 0 ? height : 0;
        grid.tileWidth = rowBytes / sampleSize;
        grid.tilesAcross = static_cast<int>(DivideUp(grid.width, grid.tileWidth));
        grid.tilesDown = static_cast<int>(DivideUp(grid.height, tileHeight));
        return grid;
    }

    constexpr std::uint64_t GetTileCount() const { return std::uint64_t(tilesAcross) * std::uint64_t(tilesDown); }
    /// The logical size, written or not.
    constexpr std::uint64_t GetVirtualBytes() const { return GetTileCount() * tileBytes; }
    constexpr bool IsWithinLimit(int planes) const {
        return GetTileCount() * std::uint64_t(planes) <= maximumTileCount;
    }
    constexpr std::size_t GetIndex(int column, int row) const {
        return std::size_t(row) * std::size_t(tilesAcross) + std::size_t(column);
    }
    constexpr Kernel::RectT<int> GetBounds() const { return {0, 0, width, height}; }

    /// @param numerator  not negative
    static constexpr std::int64_t DivideUp(std::int64_t numerator, std::int64_t divisor) {
        return (numerator + divisor - 1) / divisor;
    }
    constexpr bool operator==(TileGrid const &) const = default;
};

/// What growing a grid outward does to it. Left and top grow in whole tiles, so that no pixel moves within its tile;
/// right and bottom grow by what was asked for, first into the spare part of the last column and row.
struct TileGridInflation {
    TileGrid grid;                 ///< after growing; the present one if it doesn't fit
    int tilesLeft = 0;             ///< new columns before the present ones
    int tilesTop = 0;              ///< new rows above the present ones
    Kernel::RectT<int> wholeTiles; ///< the four amounts, each rounded up to whole tiles
    bool fits = false;             ///< no side gets longer than 2^31 - 1 and all planes stay within the limit

    /// @param amounts  pixels to add on each side; negative ones count as 0
    /// @param planes   how many planes of this shape share the limit
    static RASTER_API TileGridInflation Create(TileGrid const & present, Kernel::RectT<int> const & amounts,
                                               int planes);
};
}
