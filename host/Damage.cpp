#include "host/Damage.h"

#include "host/Signals.h"
#include "kernel/Dispatch.h"
#include "storage/Tile.h"
#include "storage/TileGuard.h"

#include <fmt/format.h>

#include <atomic>

namespace Host {
namespace {
bool IsDamaged(Raster::Tile const & tile) {
    if (!tile.IsPendingDelayLoad())
        return false;
    Raster::ConstTileGuard const session(tile);
    static_cast<void>(session.GetBuffer()); // loads
    return tile.IsPendingDelayLoad();
}
}

std::size_t CountDamagedTiles(Raster::DynamicBitmap const & bitmap, Kernel::RectT<int> const & area) {
    auto const part = area.Intersect(bitmap.GetCore()->GetBounds());
    if (part.IsEmpty())
        return 0;
    auto const & core = *bitmap.GetCore();
    std::atomic<std::size_t> damaged{0};
    for (int i = 0; i < core.GetPlaneCount(); ++i) {
        auto const & plane = core.GetPlane(i);
        int const left = part.left / plane.GetTileWidth(), right = (part.right - 1) / plane.GetTileWidth();
        int const top = part.top / Raster::Tile::Height, bottom = (part.bottom - 1) / Raster::Tile::Height;
        Kernel::Dispatch::ParallelFor(static_cast<std::uint64_t>(bottom - top + 1), [&](std::uint64_t row) {
            for (int column = left; column <= right && !Signals::IsAborted(); ++column)
                damaged += IsDamaged(plane.GetTile(column, top + static_cast<int>(row)));
        });
        Signals::ThrowIfAborted();
    }
    return damaged;
}

std::size_t CountDamagedTiles(Raster::DynamicBitmap const & bitmap) {
    return CountDamagedTiles(bitmap, bitmap.GetCore()->GetBounds());
}

std::string SayHowManyTiles(std::size_t count) { return count == 1 ? "a tile" : fmt::format("{} tiles", count); }
}
