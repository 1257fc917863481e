#include "storage/PlaneCore.h"

#include "kernel/Abort.h"
#include "kernel/DelayLoadHolder.h"
#include "pixel/MemoryManager.h"
#include "storage/BlockDeduplicationSupport.h"

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <utility>

namespace Raster {
namespace {
/// Rects of tiles in pixels; the last column and row may end beyond 2^31 - 1.
using WideRect = Kernel::RectT<std::int64_t>;

WideRect GetTileRect(TileGrid const & grid, int column, int row) {
    auto const left = std::int64_t(column) * grid.tileWidth, top = std::int64_t(row) * TileGrid::tileHeight;
    return {left, top, left + grid.tileWidth, top + TileGrid::tileHeight};
}

WideRect GetClippedTileRect(TileGrid const & grid, int column, int row) {
    return GetTileRect(grid, column, row).Intersect({0, 0, grid.width, grid.height});
}

Kernel::RectT<int> Saturate(WideRect const & rect) {
    auto const narrow = [](std::int64_t value) {
        return static_cast<int>(std::min<std::int64_t>(value, std::numeric_limits<int>::max()));
    };
    return {narrow(rect.left), narrow(rect.top), narrow(rect.right), narrow(rect.bottom)};
}

/// A rect in bytes of one tile as pixels of the plane, cut off at its edges.
WideRect ToPixels(TileGrid const & grid, Kernel::RectT<int> const & bytes, int column, int row) {
    if (bytes.IsEmpty())
        return {};
    int const sampleSize = TileGrid::rowBytes / grid.tileWidth;
    auto const tile = GetTileRect(grid, column, row);
    WideRect const pixels{tile.left + bytes.left / sampleSize, tile.top + bytes.top,
                          tile.left + (bytes.right + sampleSize - 1) / sampleSize, tile.top + bytes.bottom};
    return pixels.Intersect({0, 0, grid.width, grid.height});
}

bool IsFull(Tile const & tile) { return tile.IsFullTileBuffer() || tile.IsFullFloatTileBuffer(); }
bool IsEmpty(Tile const & tile) { return !tile.IsAllocated() || tile.IsZeroTileBuffer(); }

/// The part of the last column, in bytes, and of the last row that lies inside the plane.
int GetClipWidth(TileGrid const & grid) {
    return static_cast<int>((grid.width - std::int64_t(grid.tilesAcross - 1) * grid.tileWidth) * TileGrid::rowBytes /
                            grid.tileWidth);
}
int GetClipHeight(TileGrid const & grid) {
    return static_cast<int>(grid.height - std::int64_t(grid.tilesDown - 1) * TileGrid::tileHeight);
}

TileGrid CheckLimit(TileGrid const & grid) {
    if (!grid.IsWithinLimit(/*planes=*/1))
        throw std::length_error("a plane of more than 2^24 tiles");
    return grid;
}
}

PlaneCore::PlaneCore(int width, int height, int sampleSize, ChannelKind channelKind)
    : PlaneCore(TileGrid::Create(width, height, sampleSize), channelKind) {}

PlaneCore::PlaneCore(TileGrid const & shape, ChannelKind channelKind)
    : grid(CheckLimit(shape)), kind(channelKind), tiles(std::make_unique<Tile[]>(GetTileCount())) {
    MemoryManager::Instance().AttachVirtual(grid.GetVirtualBytes());
}

PlaneCore::PlaneCore(PlaneCore && other) noexcept
    : grid(std::exchange(other.grid, TileGrid())), kind(other.kind), tiles(std::move(other.tiles)) {}

PlaneCore & PlaneCore::operator=(PlaneCore && other) noexcept {
    std::swap(grid, other.grid);
    std::swap(kind, other.kind);
    std::swap(tiles, other.tiles);
    return *this;
}

PlaneCore::~PlaneCore() { DetachVirtual(); }

void PlaneCore::DetachVirtual() noexcept {
    if (tiles)
        MemoryManager::Instance().DetachVirtual(grid.GetVirtualBytes());
}

Tile const & PlaneCore::GetFullTileOfKind() const {
    assert(Tile::GetFullTile() && "Tile::InitStaticTiles comes before bitmaps");
    return kind == ChannelKind::Integer ? *Tile::GetFullTile() : *Tile::GetFullFloatTile();
}

void PlaneCore::Scrub(bool * abort) {
    for (std::size_t i = 0, count = GetTileCount(); i < count && !Kernel::IsAborted(abort); ++i)
        tiles[i].Scrub();
}

void PlaneCore::Deduplicate(BlockDeduplicationSupport & support, bool * abort) {
    for (std::size_t i = 0, count = GetTileCount(); i < count && !Kernel::IsAborted(abort); ++i)
        tiles[i].Deduplicate(support, abort);
}

template<class Function>
Kernel::RectT<int> PlaneCore::UniteOverTiles(Function && rectOfTile) const {
    WideRect box;
    Tile const * tile = tiles.get();
    for (int row = 0; row < grid.tilesDown; ++row)
        for (int column = 0; column < grid.tilesAcross; ++column, ++tile)
            box = box.Unite(rectOfTile(*tile, column, row));
    return Saturate(box);
}

Kernel::RectT<int> PlaneCore::GetAllocatedBoundingBox() const {
    return UniteOverTiles([&](Tile const & tile, int column, int row) {
        return tile.IsAllocated() ? GetTileRect(grid, column, row) : WideRect();
    });
}

Kernel::RectT<int> PlaneCore::GetDataBoundingBox() const {
    return UniteOverTiles([&](Tile const & tile, int column, int row) {
        if (IsEmpty(tile))
            return WideRect();
        if (IsFull(tile))
            return GetClippedTileRect(grid, column, row);
        // Only the last tile is clipped before its scan; elsewhere the cached rect serves and garbage beyond the edge
        // can make the box larger, but never larger than the plane.
        bool const isLast = column == grid.tilesAcross - 1 && row == grid.tilesDown - 1;
        auto const bytes =
            isLast ? tile.GetDataRectClipped(GetClipWidth(grid), GetClipHeight(grid)) : tile.GetDataRect();
        return ToPixels(grid, bytes, column, row);
    });
}

Kernel::RectT<int> PlaneCore::GetInverseDataBoundingBox() const {
    return UniteOverTiles([&](Tile const & tile, int column, int row) {
        if (IsEmpty(tile))
            return GetClippedTileRect(grid, column, row);
        if (IsFull(tile))
            return WideRect();
        return ToPixels(grid, GetInverseRectOf(tile, column, row), column, row);
    });
}

Kernel::RectT<int> PlaneCore::GetInverseRectOf(Tile const & tile, int column, int row) const {
    bool const isLastColumn = column == grid.tilesAcross - 1, isLastRow = row == grid.tilesDown - 1;
    int const clipWidth = isLastColumn ? GetClipWidth(grid) : TileGrid::rowBytes;
    int const clipHeight = isLastRow ? GetClipHeight(grid) : TileGrid::tileHeight;
    bool const isClipped = isLastColumn || isLastRow;
    if (kind == ChannelKind::Float)
        return isClipped ? tile.GetFloatInverseDataRectClipped(clipWidth, clipHeight) : tile.GetFloatInverseDataRect();
    return isClipped ? tile.GetInverseDataRectClipped(clipWidth, clipHeight) : tile.GetInverseDataRect();
}

void PlaneCore::InflateByPixels(Kernel::RectT<int> amounts, bool fillEmpty) {
    auto const inflation = TileGridInflation::Create(grid, amounts, /*planes=*/1);
    if (inflation.fits)
        CommitInflation(inflation, PrepareInflation(inflation, fillEmpty));
}

PlaneCore PlaneCore::PrepareInflation(TileGridInflation const & inflation, bool fillEmpty) const {
    PlaneCore grown(inflation.grid, kind);
    if (fillEmpty)
        return grown;
    auto const & full = GetFullTileOfKind();
    Kernel::RectT<int> const kept{inflation.tilesLeft, inflation.tilesTop, inflation.tilesLeft + grid.tilesAcross,
                                  inflation.tilesTop + grid.tilesDown};
    for (int row = 0; row < grown.grid.tilesDown; ++row)
        for (int column = 0; column < grown.grid.tilesAcross; ++column)
            if (!kept.Contains(column, row))
                grown.GetTile(column, row) = full;
    return grown;
}

void PlaneCore::CommitInflation(TileGridInflation const & inflation, PlaneCore && grown) noexcept {
    for (int row = 0; row < grid.tilesDown; ++row)
        for (int column = 0; column < grid.tilesAcross; ++column) {
            auto & tile = grown.GetTile(column + inflation.tilesLeft, row + inflation.tilesTop);
            tile = GetTile(column, row);
            tile.SetBacking(nullptr); // the plane no longer matches its source
        }
    *this = std::move(grown);
}

void PlaneCore::ShareTilesFrom(PlaneCore const & source) {
    if (!(grid == source.grid) || this == &source)
        return;
    Tile::CopyRange(tiles.get(), source.tiles.get(), GetTileCount());
}

void PlaneCore::ShareTilesIntoNew(PlaneCore const & source) {
    if (grid == source.grid && this != &source)
        Tile::CopyRangeToNew(tiles.get(), source.tiles.get(), GetTileCount());
}

void PlaneCore::SetBacking(Kernel::Counted<Kernel::DelayLoadHolder> const & backing) {
    for (std::size_t i = 0, count = GetTileCount(); i < count; ++i)
        tiles[i].SetBacking(backing);
}
}
