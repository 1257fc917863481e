#include "storage/TileGrid.h"

#include <algorithm>
#include <limits>

namespace Raster {
namespace {
constexpr std::int64_t longestSide = std::numeric_limits<int>::max();

/// One axis of an inflation, in 64 bits.
struct AxisInflation {
    std::int64_t tilesBefore, tiles, size, wholeBefore, wholeAfter;

    AxisInflation(std::int64_t oldSize, std::int64_t oldTiles, std::int64_t tileSize, int before, int after) {
        std::int64_t const askedBefore = std::max(before, 0), askedAfter = std::max(after, 0);
        auto const slack = std::max<std::int64_t>(askedAfter + oldSize - oldTiles * tileSize, 0);
        tilesBefore = TileGrid::DivideUp(askedBefore, tileSize);
        wholeBefore = tilesBefore * tileSize;
        wholeAfter = TileGrid::DivideUp(askedAfter, tileSize) * tileSize;
        tiles = tilesBefore + oldTiles + TileGrid::DivideUp(slack, tileSize);
        size = oldSize + wholeBefore + askedAfter;
    }
};

int Saturate(std::int64_t value) { return static_cast<int>(std::min(value, longestSide)); }
}

TileGridInflation TileGridInflation::Create(TileGrid const & present, Kernel::RectT<int> const & amounts, int planes) {
    AxisInflation const x(present.width, present.tilesAcross, present.tileWidth, amounts.left, amounts.right);
    AxisInflation const y(present.height, present.tilesDown, TileGrid::tileHeight, amounts.top, amounts.bottom);
    TileGridInflation result;
    result.grid = present;
    if (x.size > longestSide || y.size > longestSide)
        return result;
    TileGrid grown = present;
    grown.width = static_cast<int>(x.size);
    grown.height = static_cast<int>(y.size);
    grown.tilesAcross = static_cast<int>(x.tiles);
    grown.tilesDown = static_cast<int>(y.tiles);
    if (!grown.IsWithinLimit(planes))
        return result;
    result.grid = grown;
    result.tilesLeft = static_cast<int>(x.tilesBefore);
    result.tilesTop = static_cast<int>(y.tilesBefore);
    result.wholeTiles = {Saturate(x.wholeBefore), Saturate(y.wholeBefore), Saturate(x.wholeAfter),
                         Saturate(y.wholeAfter)};
    result.fits = true;
    return result;
}
}
