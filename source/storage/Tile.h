#pragma once

#include "kernel/Counted.h"
#include "kernel/Export.h"
#include "kernel/Rect.h"
#include "storage/AtomicCounted.h"

#include <cstddef>
#include <cstdint>

namespace Kernel {
class DelayLoadHolder;
}

namespace Raster {
using Kernel::RectT;

class Block;
class BlockDeduplicationSupport;

/// A copy-on-write handle to 65536 bytes of one channel: 256 rows of 256 bytes. Handles share their block until one of
/// them is written, so a copy costs two increments of counts, and empty space costs the handle alone: the `Block` of a
/// tile that was never written comes into being when somebody asks for it.
///
/// Threads: any number may read one tile at once, also while another one scrubs, deduplicates or copies it. A writer
/// needs the tile alone, as far as the bytes go; who holds a session on it keeps the bytes that it began with.
/// Sessions should be opened with the guards of TileGuard.h, which remember the block that they pinned. The four
/// `...RefCount...` calls act on the present block, so a tile must keep its block between a pair of them.
class RASTER_API Tile {
public:
    static constexpr int Stride = 256;              ///< Bytes from row to row, for every sample size.
    static constexpr int Height = 256;              ///< Rows.
    static constexpr std::size_t ByteCount = 65536; ///< Of one channel.
    /// Pixels across, for samples of 1, 2, 4 or 8 bytes.
    static constexpr int GetWidth(int bytesPerSample) { return Stride / bytesPerSample; }

    Tile() noexcept;                   ///< Unallocated, without backing. Allocates nothing.
    Tile(Tile const & other) noexcept; ///< Shares block and backing.
    Tile & operator=(Tile const & other) noexcept;
    ~Tile();
    /// As `count` assignments, at less cost. The ranges don't overlap.
    static void CopyRange(Tile * dest, Tile const * source, std::size_t count) noexcept;
    /// The same to tiles that were just made and that no other thread sees yet, at the cost of the increments.
    static void CopyRangeToNew(Tile * dest, Tile const * source, std::size_t count) noexcept;

    /// Makes the zero, full and full float tiles, which stay in memory until they are destroyed. Must run once before
    /// planes are used; a second time does nothing.
    static void InitStaticTiles();
    /// Without static tiles the three identity tests are false. Tiles that share their blocks keep them.
    static void DestroyStaticTiles();
    static Tile * GetZeroTile();      ///< All bytes 0. Null before `InitStaticTiles`, like the next two.
    static Tile * GetFullTile();      ///< All bytes 255.
    static Tile * GetFullFloatTile(); ///< 16384 floats of 1.0.
    // The CRC-32 of these three.
    static unsigned int GetZeroTileHash();
    static unsigned int GetFullTileHash();
    static unsigned int GetFullFloatTileHash();

    // Whether the tile shares the block of a static tile; bytes are never compared. One load and a comparison.
    bool IsZeroTileBuffer() const;
    bool IsFullTileBuffer() const;
    bool IsFullFloatTileBuffer() const;

    bool IsAllocated() const; ///< In memory, on disk, or still in a document. Static tiles are.
    bool IsDisposed() const;
    bool IsPendingDelayLoad() const;
    /// Whether the bytes are still those that this holder holds. False for null, also without a backing.
    bool IsBackedBy(Kernel::Counted<Kernel::DelayLoadHolder> const & holder) const;
    Kernel::Counted<Kernel::DelayLoadHolder const> GetBacking() const;

    /// 65536 bytes, for the duration of a const session. Zeros for an unallocated tile.
    unsigned int const * GetConstBuffer() const;
    Block const * GetConstInner() const;     ///< The block as it is; made now if there is none yet.
    Kernel::Counted<Block> GetDirectInner(); ///< The same, with a reference.

    // The bounding box of the bytes that aren't 0, of those below 255, and of the floats below 1.0 (NaN isn't below),
    // in byte columns and rows, right and bottom exclusive. Empty for an unallocated tile, whatever the kind. The
    // clipped forms look at so many bytes across and rows down; they leave the cache of the whole as it is.
    RectT<int> GetDataRect() const;
    RectT<int> GetInverseDataRect() const;
    RectT<int> GetFloatInverseDataRect() const;
    RectT<int> GetDataRectClipped(int width, int height) const;
    RectT<int> GetInverseDataRectClipped(int width, int height) const;
    RectT<int> GetFloatInverseDataRectClipped(int width, int height) const;

    bool CompareBytes(Tile const * other) const; ///< Loads or recovers both as needed.
    unsigned int GetHash();                      ///< The CRC-32 of the bytes.

    /// Opens a session for reading on the present block, which comes back from disk if it is there.
    /// Throws if memory or the disk fails; the session is then not open.
    void IncrementRefCountConst() const;
    void DecrementRefCountConst() const;
    /// Opens a session for writing: clears the backing, copies the block if anybody else holds it, and pins it.
    /// Throws as above, the backing then being cleared.
    void IncrementRefCountMutable();
    void DecrementRefCountMutable() const;
    /// 65536 bytes to write, for the duration of a mutable session. Allocated and zeroed on first use.
    unsigned int * GetMutableBuffer();
    Block * GetMutableInner(); ///< The block for writing: copied first if anybody else holds it.

    void Unallocate();
    void SetBacking(Kernel::Counted<Kernel::DelayLoadHolder> holder);
    void SetBlockDirect(Kernel::Counted<Block> block, Kernel::Counted<Kernel::DelayLoadHolder> holder);
    void CopyAndPreserveBacking(Tile const * other);

    /// Becomes the static tile that has the same bytes, if there is one. Does nothing to a tile that isn't in memory
    /// or that somebody is writing. Keeps the backing.
    void Scrub();
    /// Shares the block of the first tile with the same bytes that `support` has seen, else is recorded there. Does
    /// nothing to a tile that isn't in memory or that somebody is writing. Keeps the backing.
    /// @param abort  null, or a flag that stops the work.
    void Deduplicate(BlockDeduplicationSupport & support, bool * abort);

private:
    friend class ConstTileGuard;
    friend class MutableTileGuard;

    Kernel::Counted<Block> Share() const noexcept;
    Block * GetOrCreateInner() const;
    Block * PinMutable();
    static Kernel::Counted<Block> MakePinnedCopy(Block const * source);
    void ReplaceIfUnchanged(Block const * expected, Kernel::Counted<Block> block);
    RectT<int> GetRect(RectT<int> (Block::*get)() const) const;
    RectT<int> GetClippedRect(RectT<int> (Block::*get)(int, int) const, int width, int height) const;

    // What `Kernel::COW<Block>` is, but that others may look at it while it is replaced.
    // Null is an unallocated tile whose block nobody has asked for. Following the pointer, and replacing it or the
    // backing, are done under the striped lock of the tile's address; a block is let go of after that lock.
    mutable AtomicCounted<Block> inner;
    // The holder that still holds the bytes of this tile, or null: then a save must write the bytes.
    Kernel::Counted<Kernel::DelayLoadHolder> backing;
};

static_assert(sizeof(Tile) <= 32, "sparse images hold these by the million");
}
