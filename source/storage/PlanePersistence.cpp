// How the tiles of a plane go into a document and come out of it.
#include "kernel/DelayLoadHolder.h"
#include "kernel/FileStoreCompressionHint.h"
#include "kernel/InSerialiser.h"
#include "kernel/OutSerialiser.h"
#include "kernel/Trace.h"
#include "storage/Block.h"
#include "storage/PlaneCore.h"
#include "storage/PushedStrategy.h"

#include <vector>

namespace Raster {
namespace {
TileState GetState(Tile const & tile, Kernel::Counted<Kernel::DelayLoadHolder> const & unchanged) {
    if (tile.IsZeroTileBuffer())
        return TileState::Zero;
    if (tile.IsFullTileBuffer())
        return TileState::Full;
    if (tile.IsFullFloatTileBuffer())
        return TileState::FullFloat;
    if (tile.IsBackedBy(unchanged))
        return TileState::SameAsBacking;
    return tile.IsAllocated() ? TileState::OwnBlock : TileState::Unallocated;
}

// Null for a state that has none.
Tile const * GetStaticTile(TileState state) {
    switch (state) {
    case TileState::Zero:
        return Tile::GetZeroTile();
    case TileState::Full:
        return Tile::GetFullTile();
    case TileState::FullFloat:
        return Tile::GetFullFloatTile();
    default:
        return nullptr;
    }
}
}

void PlaneCore::SaveInline(Kernel::OutSerialiser & serialiser, Kernel::IDTag blockTag, Kernel::IDTag stateTag,
                           Kernel::Counted<Kernel::DelayLoadHolder> const & unchanged) const {
    PushedStrategy const strategy(serialiser,
                                  Kernel::CompressionPredictorStrategy::CreateForByteSize64kStriped(GetSampleSize()));
    std::vector<TileState> states(GetTileCount());
    std::vector<Kernel::Counted<Block>> blocks;
    for (std::size_t i = 0; i < states.size(); ++i) {
        states[i] = GetState(tiles[i], unchanged);
        if (states[i] == TileState::OwnBlock)
            blocks.push_back(tiles[i].GetDirectInner());
    }
    if (serialiser.StartObjectArrayTestI(blockTag)) {
        serialiser.StartObjectArrayBeginI(blocks.size());
        for (auto const & block : blocks)
            serialiser.SaveObjectI(*block);
    } else {
        for (auto const & block : blocks)
            serialiser.SaveObjectEnumeratePathsOnlyI(*block);
    }
    serialiser.SaveTypeArrayI(stateTag, Kernel::PropType::UInt8, states.data(), 1, states.size());
}

bool PlaneCore::LoadInline(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store, Kernel::IDTag blockTag,
                           Kernel::IDTag stateTag, unsigned short) {
    if (auto const lost = LoadTiles(serialiser, store, blockTag, stateTag))
        Kernel::Trace("A plane of a document lacks %1 of its tiles: they are empty\n", lost);
    return true;
}

std::size_t PlaneCore::LoadTiles(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store,
                                 Kernel::IDTag blockTag, Kernel::IDTag stateTag) {
    Tile::InitStaticTiles();
    std::vector<Kernel::Counted<Kernel::Serialisable>> blocks;
    std::vector<std::uint8_t> states;
    serialiser.LoadObjectsI(blockTag, store, blocks, &Block::GetClassProperties());
    serialiser.LoadTypeArrayI(stateTag, Kernel::PropType::UInt8, 1, states);
    std::size_t lost = 0, nextBlock = 0;
    for (std::size_t i = 0; i < GetTileCount(); ++i) {
        auto const state = i < states.size() ? static_cast<TileState>(states[i]) : TileState::SameAsBacking;
        if (state == TileState::SameAsBacking) {
            lost += tiles[i].GetBacking() ? 0 : 1;
            continue;
        }
        tiles[i].Unallocate();
        if (auto const * const known = GetStaticTile(state)) {
            tiles[i] = *known;
        } else if (state == TileState::OwnBlock) {
            auto block = nextBlock < blocks.size() ? Kernel::DynamicCast<Block>(blocks[nextBlock]) : nullptr;
            ++nextBlock;
            lost += block && block->IsAllocated() ? 0 : 1;
            if (block)
                tiles[i].SetBlockDirect(std::move(block), nullptr);
        } else if (state != TileState::Unallocated) {
            ++lost;
        }
    }
    return lost;
}
}
