// Scrubbing and deduplication: tiles with equal bytes come to share one block.

#include "kernel/Abort.h"
#include "kernel/CRC32.h"
#include "storage/Block.h"
#include "storage/BlockDeduplicationSupport.h"
#include "storage/StaticTiles.h"
#include "storage/Tile.h"

namespace Raster {
namespace {
/// A block that is in memory, kept there and kept as it is: with the reference that this holds, writers of its tile
/// write into a copy. Tests false if tidying up should leave the block alone.
class QuietBlock {
public:
    explicit QuietBlock(Kernel::Counted<Block> shared) {
        if (!shared || !shared->IsAllocatedAndPresent())
            return; // nothing is read from disk or from a document for a mere tidy-up
        shared->Reserve();
        if (shared->IsPinnedInMemory() && !shared->HasMutableSession())
            block = std::move(shared);
        else
            shared->DecrementRefCountConst();
    }
    QuietBlock(QuietBlock const &) = delete;
    QuietBlock & operator=(QuietBlock const &) = delete;
    ~QuietBlock() {
        if (block)
            block->DecrementRefCountConst();
    }
    explicit operator bool() const { return static_cast<bool>(block); }
    Block const * Get() const { return block.Get(); }
    unsigned int const * GetBuffer() const { return block->GetConstBuffer(); }

private:
    Kernel::Counted<Block> block;
};

}

void Tile::Scrub() {
    QuietBlock const quiet(Share());
    if (!quiet || StaticTiles::IsAny(quiet.Get()))
        return;
    if (auto equal = StaticTiles::FindEqual(quiet.GetBuffer()))
        ReplaceIfUnchanged(quiet.Get(), std::move(equal));
}

void Tile::Deduplicate(BlockDeduplicationSupport & support, bool * abort) {
    QuietBlock const quiet(Share());
    if (!quiet || StaticTiles::IsAny(quiet.Get()))
        return;
    support.UpdateIndex();
    if (support.Contains(quiet.Get()) || Kernel::IsAborted(abort))
        return;
    auto const hash = Kernel::CRC32::Instance().DataCRC32(quiet.GetBuffer(), ByteCount);
    auto equal = StaticTiles::FindByHash(quiet.GetBuffer(), hash);
    if (!equal && Kernel::IsAborted(abort))
        return;
    if (!equal)
        equal = support.FindEqual(quiet.GetBuffer(), hash);
    if (!equal) {
        support.Append(quiet.Get(), hash);
        return;
    }
    support.BeginReplace();
    ReplaceIfUnchanged(quiet.Get(), std::move(equal));
    support.EndReplace();
}
}
