/// The split of work on pixels into tiles, for everything that writes a model in parallel.
#pragma once

#include "kernel/Abort.h"
#include "kernel/Export.h"
#include "kernel/Rect.h"
#include "pixel/ModelBase.h"
#include "pixel/TransferParams.h"

#include <memory>
#include <type_traits>

namespace Raster {
/// How a destination is cut: tasks never share a cell, so they write without locks.
struct TileSplit {
    Kernel::RectT<int> bounds;             ///< of the destination
    int tileWidth = 256, tileHeight = 256; ///< pixels
};

/// One cell's part of the work.
struct TileTask {
    Kernel::RectT<int> rect;
    bool isInline; ///< the only task, on the calling thread
    TransferParams params;

    bool IsAborted() const { return Kernel::IsAborted(params.abort); }
    /// To be called after row `y`: tells the progress of work that runs in line.
    void ReportRow(int y) const {
        if (isInline && params.progress && y % 16 == 0)
            params.progress(0, params.progressContext, double(y - rect.top) / double(rect.bottom - rect.top));
    }
};

using TileBody = void (*)(TileTask const & task, void * context);

/// Runs `body` once for each tile that `rect`, clipped to the destination, touches, each with its part of the rect: in
/// line if there is one, else in parallel, in any order. Tasks that have not begun when the abort flag is set are
/// skipped. Returns when all have ended. What a body throws arrives here.
/// @param params  may be null; its clip is not looked at.
/// @return false if there was nothing to do or the abort flag was set in the end.
RASTER_API bool ForEachTile(TileSplit const & split, Kernel::RectT<int> const & rect, TransferParams const * params,
                            TileBody body, void * context);

/// How a model is cut: a bitmap by its tiles, memory in one piece by squares of 256 by 256.
template<class Model>
TileSplit GetTileSplit(Model const & model) {
    TileSplit split{{0, 0, model.GetWidth(), model.GetHeight()}};
    if constexpr (requires { model.GetGrid(); }) {
        split.tileWidth = model.GetGrid().tileWidth;
        split.tileHeight = model.GetGrid().tileHeight;
    }
    return split;
}

/// The same for any model and anything that can be called with a `TileTask const &`. It is shared by all threads.
template<class Model, class Body>
bool ForEachTile(Model const & model, Kernel::RectT<int> const & rect, TransferParams const * params, Body && body) {
    using Callable = std::remove_reference_t<Body>;
    auto * const context = const_cast<void *>(static_cast<void const *>(std::addressof(body)));
    return ForEachTile(
        GetTileSplit(model), rect, params,
        [](TileTask const & task, void * shared) { (*static_cast<Callable *>(shared))(task); }, context);
}
}
