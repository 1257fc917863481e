#pragma once

#include "kernel/Rect.h"

namespace Raster {
/// What a long operation on pixels takes besides its operands. A null pointer to it stands for all defaults.
struct TransferParams {
    /// In pixels of the destination; null is the whole of it. What lies outside the destination is ignored.
    Kernel::RectT<int> const * clip = nullptr;
    /// Read between tiles and rows while other threads may set it; null is never.
    bool * abort = nullptr;
    /// Told how far the work has come: `fraction` from 0 to 1. Work that is split into tiles reports after each tile
    /// that was done, with the number of those so far, on the thread that did it, and only if there is a context too.
    /// Work that runs in line reports every 16 rows on the calling thread, with a count of 0.
    void (*progress)(unsigned count, void * context, double fraction) = nullptr;
    void * progressContext = nullptr;
    /// A source whose pixels are still in its backing is taken as empty rather than loaded.
    bool sourceMayStayUnloaded = false;
};
}
