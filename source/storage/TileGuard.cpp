#include "storage/TileGuard.h"

#include "storage/Block.h"
#include "storage/TileLocks.h"

namespace Raster {
ConstTileGuard::ConstTileGuard() noexcept = default;

ConstTileGuard::ConstTileGuard(Tile const & tile) {
    TileLock guard(TileLocks::Of(&tile));
    block = Kernel::Counted<Block const>(tile.inner.Get());
    if (!block)
        return;
    block->Reserve();
    guard.Release();
    block->CompletePin();
}

ConstTileGuard::ConstTileGuard(ConstTileGuard && other) noexcept = default;

ConstTileGuard & ConstTileGuard::operator=(ConstTileGuard && other) noexcept {
    Reset();
    block = std::move(other.block);
    return *this;
}

ConstTileGuard::~ConstTileGuard() { Reset(); }

void ConstTileGuard::Reset() noexcept {
    if (block)
        block->DecrementRefCountConst();
    block.Reset();
}

unsigned int const * ConstTileGuard::GetBuffer() const {
    return block ? block->GetConstBuffer() : Block::GetStaticBlock(false, false);
}

MutableTileGuard::MutableTileGuard(Tile & tile) : block(tile.PinMutable()) {}

MutableTileGuard & MutableTileGuard::operator=(MutableTileGuard && other) noexcept {
    Reset();
    block = std::exchange(other.block, nullptr);
    return *this;
}

MutableTileGuard::~MutableTileGuard() { Reset(); }

void MutableTileGuard::Reset() noexcept {
    if (block)
        std::exchange(block, nullptr)->DecrementRefCountMutable();
}

unsigned int * MutableTileGuard::GetBuffer() const { return block->GetMutableBuffer(); }
}
