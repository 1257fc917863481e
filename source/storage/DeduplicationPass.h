#pragma once

#include "kernel/Counted.h"
#include "kernel/CriticalSection.h"
#include "storage/BitmapCore.h"
#include "storage/BlockDeduplicationSupport.h"

#include <cstdint>
#include <vector>

namespace Raster {
class DynamicBitmap;

/// Makes equal tiles of any number of bitmaps share their memory, and solid ones cost none: what a program does before
/// it saves, or when memory runs short. Tiles that are on disk, still in a document, or being written are left alone;
/// nothing is loaded for it. Others may read and paint meanwhile.
///
/// A pass is short-lived: as long as it is there it keeps the bitmaps, and who paints on a tile that it has seen paints
/// on a copy. Threads: one at a time.
class RASTER_API DeduplicationPass final : public BlockDeduplicationSupport {
public:
    /// @param handleLock  null, or a lock that is held whenever a tile's block is replaced: for programs that call the
    ///                    session calls of `Tile` themselves, rather than through the guards and accessors. Not owned.
    explicit DeduplicationPass(Kernel::CriticalSection * handleLock = nullptr);
    ~DeduplicationPass() override;

    /// Goes through the planes and the valid levels. The tiles of bitmaps that were added before come first: it is
    /// theirs that the later ones share.
    /// @param abort  null, or a flag that stops the work; what was done by then stays.
    void Add(Kernel::Counted<BitmapCore> const & bitmap, bool * abort = nullptr);
    /// The same; nothing for one without a format.
    void Add(DynamicBitmap & bitmap, bool * abort = nullptr);

    /// How many tiles gave up a buffer that others had already. Less memory is free than that makes if somebody else
    /// still has the old ones, such as a clone.
    std::uint64_t GetReplacedCount() const { return replaced; }

    void BeginReplace() override;
    void EndReplace() override;

private:
    Kernel::CriticalSection * const lock;
    std::uint64_t replaced = 0;
    std::vector<Kernel::Counted<BitmapCore>> bitmaps; // kept alive
};
}
