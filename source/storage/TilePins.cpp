#include "storage/TilePins.h"

#include "storage/BitmapCore.h"

#include <algorithm>
#include <utility>

namespace Raster {
namespace {
// Up to here a scan is as fast as a hash, and most accessors never pin more: a task works on one tile or four.
constexpr std::size_t scannedTiles = 8;

/// Spreads neighbours, which is what walks meet, over the table.
std::size_t Hash(std::uint32_t tileIndex) { return std::size_t(tileIndex) * 0x9E3779B1u >> 7; }
}

template<class Guard>
auto TilePins<Guard>::Pin(Bitmap & bitmap, std::uint32_t tileIndex) -> Buffers const & {
    if (auto const * const pinned = Find(tileIndex))
        return pinned->buffers;
    if (tiles.size() == tiles.capacity()) // first, so that a tile that is pinned is also listed
        tiles.reserve(std::max(scannedTiles / 2, 2 * tiles.size()));
    PinnedTile tile{tileIndex, {}, {}};
    for (int i = 0; i < bitmap.GetPlaneCount(); ++i) {
        auto const plane = static_cast<std::size_t>(i);
        tile.guards[plane] = Guard(bitmap.GetPlane(i).GetTile(std::size_t(tileIndex)));
        tile.buffers[plane] = reinterpret_cast<Byte *>(tile.guards[plane].GetBuffer());
    }
    if (tiles.size() >= scannedTiles)
        AddToSlots(tileIndex, static_cast<std::uint32_t>(tiles.size()));
    return tiles.emplace_back(std::move(tile)).buffers;
}

template<class Guard>
void TilePins<Guard>::Reset() noexcept {
    tiles.clear();
    slots.clear();
}

template<class Guard>
auto TilePins<Guard>::Find(std::uint32_t tileIndex) -> PinnedTile * {
    if (slots.empty()) {
        for (auto & tile : tiles)
            if (tile.tileIndex == tileIndex)
                return &tile;
        return nullptr;
    }
    for (std::size_t slot = Hash(tileIndex);; ++slot) {
        std::uint32_t const entry = slots[slot & (slots.size() - 1)];
        if (entry == 0)
            return nullptr;
        if (tiles[entry - 1].tileIndex == tileIndex)
            return &tiles[entry - 1];
    }
}

template<class Guard>
void TilePins<Guard>::AddToSlots(std::uint32_t tileIndex, std::uint32_t position) {
    if (2 * (std::size_t(position) + 1) > slots.size())
        GrowSlots();
    auto slot = Hash(tileIndex);
    while (slots[slot & (slots.size() - 1)] != 0)
        ++slot;
    slots[slot & (slots.size() - 1)] = position + 1;
}

template<class Guard>
void TilePins<Guard>::GrowSlots() {
    slots.assign(std::max(4 * scannedTiles, 2 * slots.size()), 0);
    for (std::size_t i = 0; i < tiles.size(); ++i)
        AddToSlots(tiles[i].tileIndex, static_cast<std::uint32_t>(i));
}

template class RASTER_TEMPLATE_INSTANCE TilePins<ConstTileGuard>;
template class RASTER_TEMPLATE_INSTANCE TilePins<MutableTileGuard>;
}
