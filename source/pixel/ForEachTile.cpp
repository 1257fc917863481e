#include "pixel/ForEachTile.h"

#include "kernel/Dispatch.h"

#include <atomic>
#include <cstdint>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;

// The tiles that a rectangle touches: indices of columns and rows, right and bottom exclusive.
Rect FindTouchedTiles(TileSplit const & split, Rect const & work) {
    return {work.left / split.tileWidth, work.top / split.tileHeight, (work.right - 1) / split.tileWidth + 1,
            (work.bottom - 1) / split.tileHeight + 1};
}

// Positions are 64-bit: the last tile of a very long side ends beyond 2^31.
Rect FindPart(TileSplit const & split, Rect const & work, int column, int row) {
    auto const end = [](int index, int length, int limit) {
        return static_cast<int>(std::min<std::int64_t>((std::int64_t(index) + 1) * length, limit));
    };
    return {std::max(column * split.tileWidth, work.left), std::max(row * split.tileHeight, work.top),
            end(column, split.tileWidth, work.right), end(row, split.tileHeight, work.bottom)};
}
}

bool ForEachTile(TileSplit const & split, Rect const & rect, TransferParams const * params, TileBody body,
                 void * context) {
    TransferParams const own = params ? *params : TransferParams();
    Rect const work = rect.Intersect(split.bounds);
    if (work.IsEmpty() || Kernel::IsAborted(own.abort))
        return false;

    Rect const tiles = FindTouchedTiles(split, work);
    auto const columns = static_cast<std::uint64_t>(tiles.GetWidth());
    std::uint64_t const count = columns * static_cast<std::uint64_t>(tiles.GetHeight());
    if (count == 1) {
        body({work, true, own}, context);
        return !Kernel::IsAborted(own.abort);
    }

    std::atomic<unsigned> done{0};
    Kernel::Dispatch::ParallelFor(count, [&](std::uint64_t index) {
        if (Kernel::IsAborted(own.abort))
            return;
        auto const column = tiles.left + static_cast<int>(index % columns);
        auto const row = tiles.top + static_cast<int>(index / columns);
        body({FindPart(split, work, column, row), false, own}, context);
        if (own.progress && own.progressContext) {
            unsigned const finished = done.fetch_add(1, std::memory_order_relaxed) + 1;
            own.progress(finished, own.progressContext, static_cast<float>(finished) / static_cast<float>(count));
        }
    });
    return !Kernel::IsAborted(own.abort);
}
}
