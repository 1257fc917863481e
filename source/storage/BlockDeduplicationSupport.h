#pragma once

#include "kernel/Counted.h"
#include "kernel/Export.h"

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Raster {
class Block;

/// A block that one pass of deduplication has seen, with the CRC-32 of its bytes.
struct BlockRecord {
    Block const * block;
    std::uint32_t hash;
};

/// The memory of one deduplication pass over any number of bitmaps. Keep the bitmaps alive for as long as it lives.
/// Threads: one at a time.
class RASTER_API BlockDeduplicationSupport {
public:
    BlockDeduplicationSupport();
    BlockDeduplicationSupport(BlockDeduplicationSupport const &) = delete;
    BlockDeduplicationSupport & operator=(BlockDeduplicationSupport const &) = delete;
    virtual ~BlockDeduplicationSupport();
    // Called around every replacement of a tile's block, with no lock held: here the caller can keep readers of the
    // tile's handle out. Neither may throw.
    virtual void BeginReplace() {}
    virtual void EndReplace() {}

    /// In the order in which blocks were met. The first one with equal bytes is the one that later tiles share.
    std::vector<BlockRecord> records;

private:
    friend class Tile;

    static constexpr std::size_t none = ~std::size_t(0);
    struct Chain {
        std::size_t first, last;
    };

    void UpdateIndex();
    bool Contains(Block const * block) const { return seen.contains(block); }
    Kernel::Counted<Block> FindEqual(void const * bytes, std::uint32_t hash) const;
    void Append(Block const * block, std::uint32_t hash);

    // The index over records[0 .. nextOfHash.size()): for each CRC the chain of its records in rising order.
    std::unordered_map<std::uint32_t, Chain> chains;
    std::vector<std::size_t> nextOfHash;
    std::unordered_set<Block const *> seen;
    // A reference to each recorded block: whoever writes one meanwhile writes into a copy, so what was hashed stays.
    std::vector<Kernel::Counted<Block>> kept;
};
}
