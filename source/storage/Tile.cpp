#include "storage/Tile.h"

#include "kernel/CRC32.h"
#include "kernel/DelayLoadHolder.h"
#include "storage/Block.h"
#include "storage/StaticTiles.h"
#include "storage/TileGuard.h"
#include "storage/TileLocks.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Raster {
TileLocks::PaddedLock TileLocks::locks[std::size_t(1) << TileLocks::countBits];

Tile::Tile() noexcept = default;

Tile::Tile(Tile const & other) noexcept {
    TileLock const guard(TileLocks::Of(&other));
    inner.Exchange(Kernel::Counted<Block>(other.inner.Get()));
    backing = other.backing;
}

Tile & Tile::operator=(Tile const & other) noexcept {
    Kernel::Counted<Block> block;
    Kernel::Counted<Kernel::DelayLoadHolder> holder;
    {
        TileLock const guard(TileLocks::Of(&other));
        block = Kernel::Counted<Block>(other.inner.Get());
        holder = other.backing;
    }
    SetBlockDirect(std::move(block), std::move(holder));
    return *this;
}

Tile::~Tile() = default;

void Tile::CopyRange(Tile * dest, Tile const * source, std::size_t count) noexcept {
    Kernel::Counted<Block> blocks[TileLocks::groupTiles];
    Kernel::Counted<Kernel::DelayLoadHolder> holders[TileLocks::groupTiles];
    while (count != 0) {
        auto const part = std::min({count, TileLocks::CountInGroup(source), TileLocks::CountInGroup(dest)});
        {
            TileLock const guard(TileLocks::Of(source));
            for (std::size_t i = 0; i < part; ++i) {
                blocks[i] = Kernel::Counted<Block>(source[i].inner.Get());
                holders[i] = source[i].backing;
            }
        }
        {
            TileLock const guard(TileLocks::Of(dest));
            for (std::size_t i = 0; i < part; ++i) {
                blocks[i] = dest[i].inner.Exchange(std::move(blocks[i]));
                std::swap(holders[i], dest[i].backing);
            }
        }
        for (std::size_t i = 0; i < part; ++i) { // with no lock held: this may delete blocks
            blocks[i].Reset();
            holders[i].Reset();
        }
        source += part;
        dest += part;
        count -= part;
    }
}

void Tile::CopyRangeToNew(Tile * dest, Tile const * source, std::size_t count) noexcept {
    for (auto const end = dest + count; dest != end;) {
        auto const part = std::min(static_cast<std::size_t>(end - dest), TileLocks::CountInGroup(source));
        TileLock const guard(TileLocks::Of(source));
        for (auto const partEnd = dest + part; dest != partEnd; ++dest, ++source) {
            dest->inner.Init(Kernel::Counted<Block>(source->inner.Get()));
            dest->backing = source->backing;
        }
    }
}

bool Tile::IsZeroTileBuffer() const { return StaticTiles::Is(inner.Get(), StaticTiles::Zero); }

bool Tile::IsFullTileBuffer() const { return StaticTiles::Is(inner.Get(), StaticTiles::Full); }

bool Tile::IsFullFloatTileBuffer() const { return StaticTiles::Is(inner.Get(), StaticTiles::FullFloat); }

bool Tile::IsAllocated() const {
    TileLock const guard(TileLocks::Of(this));
    auto const block = inner.Get();
    return block && block->IsAllocated();
}

bool Tile::IsDisposed() const {
    TileLock const guard(TileLocks::Of(this));
    auto const block = inner.Get();
    return block && block->IsDisposed();
}

bool Tile::IsPendingDelayLoad() const {
    TileLock const guard(TileLocks::Of(this));
    auto const block = inner.Get();
    return block && block->IsPendingDelayLoad();
}

bool Tile::IsBackedBy(Kernel::Counted<Kernel::DelayLoadHolder> const & holder) const {
    TileLock const guard(TileLocks::Of(this));
    return holder && backing == holder;
}

Kernel::Counted<Kernel::DelayLoadHolder const> Tile::GetBacking() const {
    TileLock const guard(TileLocks::Of(this));
    return backing;
}

// A reference to the present block; null if there is none.
Kernel::Counted<Block> Tile::Share() const noexcept {
    TileLock const guard(TileLocks::Of(this));
    return Kernel::Counted<Block>(inner.Get());
}

Block * Tile::GetOrCreateInner() const {
    if (auto const block = inner.Get())
        return block;
    auto made = Kernel::MakeCounted<Block>();
    TileLock const guard(TileLocks::Of(this));
    if (!inner.Get())
        inner.Exchange(std::move(made));
    return inner.Get();
}

unsigned int const * Tile::GetConstBuffer() const {
    auto const block = inner.Get();
    return block ? block->GetConstBuffer() : Block::GetStaticBlock(false, false);
}

Block const * Tile::GetConstInner() const { return GetOrCreateInner(); }

Kernel::Counted<Block> Tile::GetDirectInner() {
    GetOrCreateInner();
    return Share();
}

RectT<int> Tile::GetRect(RectT<int> (Block::*get)() const) const {
    auto const block = Share();
    return block && block->IsAllocated() ? (block.Get()->*get)() : RectT<int>{};
}

RectT<int> Tile::GetClippedRect(RectT<int> (Block::*get)(int, int) const, int width, int height) const {
    auto const block = Share();
    return block && block->IsAllocated() ? (block.Get()->*get)(width, height) : RectT<int>{};
}

RectT<int> Tile::GetDataRect() const { return GetRect(&Block::GetDataRect); }

RectT<int> Tile::GetInverseDataRect() const { return GetRect(&Block::GetInverseDataRect); }

RectT<int> Tile::GetFloatInverseDataRect() const { return GetRect(&Block::GetFloatInverseDataRect); }

RectT<int> Tile::GetDataRectClipped(int width, int height) const {
    return GetClippedRect(&Block::GetDataRectClipped, width, height);
}

RectT<int> Tile::GetInverseDataRectClipped(int width, int height) const {
    return GetClippedRect(&Block::GetInverseDataRectClipped, width, height);
}

RectT<int> Tile::GetFloatInverseDataRectClipped(int width, int height) const {
    return GetClippedRect(&Block::GetFloatInverseDataRectClipped, width, height);
}

bool Tile::CompareBytes(Tile const * other) const {
    ConstTileGuard const otherSession(*other);
    ConstTileGuard const session(*this);
    auto const otherBytes = otherSession.GetBuffer();
    auto const bytes = session.GetBuffer();
    return bytes == otherBytes || std::memcmp(bytes, otherBytes, ByteCount) == 0;
}

unsigned int Tile::GetHash() {
    ConstTileGuard const session(*this);
    return Kernel::CRC32::Instance().DataCRC32(session.GetBuffer(), ByteCount);
}

void Tile::IncrementRefCountConst() const {
    GetOrCreateInner();
    TileLock guard(TileLocks::Of(this));
    auto const block = inner.Get();
    block->Reserve();
    guard.Release();
    block->CompletePin();
}

void Tile::DecrementRefCountConst() const { inner.Get()->DecrementRefCountConst(); }

void Tile::IncrementRefCountMutable() { PinMutable(); }

void Tile::DecrementRefCountMutable() const { inner.Get()->DecrementRefCountMutable(); }

// The copy-on-write step: sees to it that nobody else holds the block, and opens a mutable session on it.
Block * Tile::PinMutable() {
    SetBacking(nullptr);
    Kernel::Counted<Block> shared, own; // `own` is a copy of `shared`, or a new block if there was none
    for (;;) {
        Kernel::Counted<Block> replaced; // outlives the lock
        TileLock guard(TileLocks::Of(this));
        auto const block = inner.Get();
        if (own && block == shared.Get()) {
            auto const result = own.Get();
            replaced = inner.Exchange(std::move(own));
            return result;
        }
        if (block && block->GetCount() < 2) {
            block->ReserveMutable();
            guard.Release();
            block->CompleteMutablePin();
            return block;
        }
        replaced =
            std::exchange(shared, Kernel::Counted<Block>(block)); // the old one may have become the last reference
        guard.Release();
        own = MakePinnedCopy(shared.Get());
    }
}

// A block of nobody yet, with a mutable session open.
Kernel::Counted<Block> Tile::MakePinnedCopy(Block const * source) {
    using Traits = Kernel::COWTraits<Block>;
    auto copy = source ? Traits::Copy(*source) : Traits::Create();
    copy->IncrementRefCountMutable();
    return copy;
}

Block * Tile::GetMutableInner() {
    auto const block = PinMutable();
    block->DecrementRefCountMutable();
    return block;
}

unsigned int * Tile::GetMutableBuffer() {
    auto const block = inner.Get();
    // Within a session the pinned block is the one to write, also if a reader holds it by now.
    return (block && block->HasMutableSession() ? block : GetMutableInner())->GetMutableBuffer();
}

void Tile::Unallocate() { SetBlockDirect(nullptr, nullptr); }

void Tile::SetBacking(Kernel::Counted<Kernel::DelayLoadHolder> holder) {
    TileLock const guard(TileLocks::Of(this));
    std::swap(backing, holder);
}

void Tile::SetBlockDirect(Kernel::Counted<Block> block, Kernel::Counted<Kernel::DelayLoadHolder> holder) {
    TileLock const guard(TileLocks::Of(this));
    block = inner.Exchange(std::move(block));
    std::swap(backing, holder);
}

void Tile::CopyAndPreserveBacking(Tile const * other) {
    auto block = other->Share();
    TileLock const guard(TileLocks::Of(this));
    block = inner.Exchange(std::move(block));
}

// Replaces the block, unless somebody else has done so or writes it. Who asks holds a reference to `expected`, so that
// no session for writing can have come and gone on it since.
void Tile::ReplaceIfUnchanged(Block const * expected, Kernel::Counted<Block> block) {
    TileLock const guard(TileLocks::Of(this));
    if (inner.Get() == expected && !expected->HasMutableSession())
        block = inner.Exchange(std::move(block));
}
}
