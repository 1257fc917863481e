#include "pixel/transfer/TransferTiles.h"

namespace Raster {
namespace {
std::size_t OffsetInTile(TileGrid const & grid, int x, int y) {
    auto const sampleSize = static_cast<std::size_t>(TileGrid::rowBytes / grid.tileWidth);
    return static_cast<std::size_t>(y % TileGrid::tileHeight) * TileGrid::rowBytes +
           static_cast<std::size_t>(x % grid.tileWidth) * sampleSize;
}
}

SourceTiles::Rows SourceTiles::GetRows(int x, int y) {
    if (pins.GetCount() >= mostPinned)
        pins.Reset();
    auto const index = grid.GetIndex(x / grid.tileWidth, y / TileGrid::tileHeight);
    auto const & buffers = pins.Pin(source, static_cast<std::uint32_t>(index));
    std::size_t const offset = OffsetInTile(grid, x, y);
    Rows rows{};
    for (int plane = 0; plane < source.GetPlaneCount(); ++plane)
        rows[std::size_t(plane)] = buffers[std::size_t(plane)] + offset;
    return rows;
}

DestTile::Rows DestTile::GetRows(int x, int y) {
    if (!isOpen)
        Open();
    std::size_t const offset = OffsetInTile(dest.GetGrid(), x, y);
    Rows rows{};
    for (int plane = 0; plane < dest.GetPlaneCount(); ++plane)
        rows[std::size_t(plane)] = buffers[std::size_t(plane)] + offset;
    return rows;
}

void DestTile::Open() {
    for (int plane = 0; plane < dest.GetPlaneCount(); ++plane) {
        MutableTileGuard guard(dest.GetPlane(plane).GetTile(column, row));
        buffers[std::size_t(plane)] = reinterpret_cast<std::byte *>(guard.GetBuffer());
        guards[std::size_t(plane)] = std::move(guard);
    }
    isOpen = true;
}

void DestTile::ShareFrom(BitmapCore const & source, int sourceColumn, int sourceRow) {
    for (int plane = 0; plane < dest.GetPlaneCount(); ++plane) {
        Tile & tile = dest.GetPlane(plane).GetTile(column, row);
        tile = source.GetPlane(plane).GetTile(sourceColumn, sourceRow);
        tile.SetBacking(nullptr); // the source's file is not the destination's
    }
}
}
