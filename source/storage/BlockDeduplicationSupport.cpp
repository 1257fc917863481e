#include "storage/BlockDeduplicationSupport.h"

#include "storage/BlockPin.h"

#include <cstring>

namespace Raster {
BlockDeduplicationSupport::BlockDeduplicationSupport() = default;

BlockDeduplicationSupport::~BlockDeduplicationSupport() = default;

// Takes in what was appended to `records` since. Starts over if somebody shortened it.
void BlockDeduplicationSupport::UpdateIndex() {
    if (nextOfHash.size() > records.size()) {
        chains.clear();
        nextOfHash.clear();
        seen.clear();
        kept.clear();
    }
    for (auto i = nextOfHash.size(); i < records.size(); ++i) {
        auto const & record = records[i];
        // The caller handed out a tile's block; only the tile decides who may write it.
        kept.emplace_back(const_cast<Block *>(record.block));
        seen.insert(record.block);
        auto const [chain, isNew] = chains.try_emplace(record.hash, Chain{i, i});
        nextOfHash.push_back(none);
        if (!isNew) {
            nextOfHash[chain->second.last] = i;
            chain->second.last = i;
        }
    }
}

// The first recorded block with these bytes, or null. An equal hash is never enough.
Kernel::Counted<Block> BlockDeduplicationSupport::FindEqual(void const * bytes, std::uint32_t hash) const {
    auto const found = chains.find(hash);
    for (auto i = found == chains.end() ? none : found->second.first; i != none; i = nextOfHash[i]) {
        ConstBlockPin const pin(*kept[i]);
        if (std::memcmp(kept[i]->GetConstBuffer(), bytes, Block::ByteCount) == 0)
            return kept[i];
    }
    return nullptr;
}

void BlockDeduplicationSupport::Append(Block const * block, std::uint32_t hash) {
    records.push_back({block, hash});
    UpdateIndex();
}
}
