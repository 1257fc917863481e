#include "storage/Tile.h"

#include "kernel/Abort.h"
#include "kernel/CRC32.h"
#include "kernel/DelayLoadHolder.h"
#include "kernel/ScopedLock.h"
#include "storage/Block.h"
#include "storage/BlockDeduplicationSupport.h"
#include "storage/TileGuard.h"

#include <algorithm>
#include <cstring>

namespace Raster {
namespace {
// Locks of tile handles. Under one of them a handle's block is looked up, retained or replaced: a few nanoseconds, and
// nothing else is taken or called. Sixteen neighbours share one, so that whole rows are copied under few.
class TileLocks {
public:
    static Kernel::CriticalSectionSpin & Of(Tile const * tile) {
        auto const group = reinterpret_cast<std::uintptr_t>(tile) / groupBytes;
        return locks[group * 0x9E3779B97F4A7C15u >> (64 - countBits)].lock;
    }
    // How many tiles from this one on have the same lock.
    static std::size_t CountInGroup(Tile const * tile) {
        return (groupBytes - reinterpret_cast<std::uintptr_t>(tile) % groupBytes + sizeof(Tile) - 1) / sizeof(Tile);
    }

    static constexpr std::size_t groupTiles = 16;

private:
    static constexpr std::size_t groupBytes = groupTiles * sizeof(Tile);
    static constexpr int countBits = 8;
    struct alignas(64) PaddedLock {
        Kernel::CriticalSectionSpin lock{Kernel::LockRank::Leaf};
    };
    static PaddedLock locks[std::size_t(1) << countBits];
};

TileLocks::PaddedLock TileLocks::locks[std::size_t(1) << TileLocks::countBits];

using TileLock = Kernel::ScopedLock<Kernel::CriticalSectionSpin>;

std::uint32_t HashOf(void const * bytes) { return Kernel::CRC32::Instance().DataCRC32(bytes, Tile::ByteCount); }

// Whether the bytes repeat this word throughout. Compares the buffer with itself, 64 bytes on: one stream is read.
bool IsFilledWith(void const * bytes, std::uint32_t word) {
    constexpr std::size_t beginBytes = 64;
    std::uint32_t begin[beginBytes / 4];
    std::fill(std::begin(begin), std::end(begin), word);
    auto const first = static_cast<unsigned char const *>(bytes);
    return std::memcmp(first, begin, beginBytes) == 0 &&
           std::memcmp(first, first + beginBytes, Tile::ByteCount - beginBytes) == 0;
}
}

/// A tile whose content never changes, and its block for comparisons without looking into the tile.
struct Tile::Static {
    enum Kind { Zero, Full, FullFloat, KindCount };
    static constexpr std::uint32_t words[KindCount] = {0, 0xFFFFFFFF, 0x3F800000}; // 1.0 in the last

    static std::atomic<Tile *> tiles[KindCount];
    static std::atomic<Block const *> blocks[KindCount];
    static std::atomic<std::uint32_t> hashes[KindCount];

    static void Init(Kind kind);
    static void Destroy(Kind kind);
    static bool Is(Block const * block, Kind kind) {
        return block && block == blocks[kind].load(std::memory_order_relaxed);
    }
    static bool IsAny(Block const * block) { return Is(block, Zero) || Is(block, Full) || Is(block, FullFloat); }
    static Kernel::Counted<Block> FindEqual(void const * bytes);
    static Kernel::Counted<Block> FindByHash(void const * bytes, std::uint32_t hash);
};

std::atomic<Tile *> Tile::Static::tiles[KindCount];
std::atomic<Block const *> Tile::Static::blocks[KindCount];
std::atomic<std::uint32_t> Tile::Static::hashes[KindCount];

void Tile::Static::Init(Kind kind) {
    auto const tile = new Tile;
    {
        MutableTileGuard const session(*tile);
        std::fill_n(session.GetBuffer(), ByteCount / 4, words[kind]);
    }
    tile->IncrementRefCountConst(); // until it is destroyed: what everybody shares never goes to disk
    hashes[kind].store(HashOf(tile->GetConstBuffer()), std::memory_order_relaxed);
    blocks[kind].store(tile->GetConstInner(), std::memory_order_relaxed);
    tiles[kind].store(tile, std::memory_order_release);
}

void Tile::Static::Destroy(Kind kind) {
    auto const tile = tiles[kind].exchange(nullptr, std::memory_order_acq_rel);
    if (!tile)
        return;
    blocks[kind].store(nullptr, std::memory_order_relaxed);
    tile->DecrementRefCountConst();
    delete tile;
}

// The block of the static tile with these bytes, or null.
Kernel::Counted<Block> Tile::Static::FindEqual(void const * bytes) {
    std::uint32_t first;
    std::memcpy(&first, bytes, sizeof first);
    for (int kind = 0; kind < KindCount; ++kind) {
        auto const tile = tiles[kind].load(std::memory_order_acquire);
        if (tile && first == words[kind] && IsFilledWith(bytes, words[kind]))
            return tile->Share();
    }
    return nullptr;
}

// The same for bytes with this CRC, which alone is never enough.
Kernel::Counted<Block> Tile::Static::FindByHash(void const * bytes, std::uint32_t hash) {
    bool const isCandidate = std::any_of(std::begin(hashes), std::end(hashes), [&](auto const & each) {
        return each.load(std::memory_order_relaxed) == hash;
    });
    return isCandidate ? FindEqual(bytes) : nullptr;
}

void Tile::InitStaticTiles() {
    if (GetZeroTile())
        return;
    Static::Init(Static::Zero);
    Static::Init(Static::Full);
    Static::Init(Static::FullFloat);
}

void Tile::DestroyStaticTiles() {
    Static::Destroy(Static::Zero);
    Static::Destroy(Static::Full);
    Static::Destroy(Static::FullFloat);
}

Tile * Tile::GetZeroTile() { return Static::tiles[Static::Zero].load(std::memory_order_acquire); }

Tile * Tile::GetFullTile() { return Static::tiles[Static::Full].load(std::memory_order_acquire); }

Tile * Tile::GetFullFloatTile() { return Static::tiles[Static::FullFloat].load(std::memory_order_acquire); }

unsigned int Tile::GetZeroTileHash() { return Static::hashes[Static::Zero].load(std::memory_order_relaxed); }

unsigned int Tile::GetFullTileHash() { return Static::hashes[Static::Full].load(std::memory_order_relaxed); }

unsigned int Tile::GetFullFloatTileHash() { return Static::hashes[Static::FullFloat].load(std::memory_order_relaxed); }

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

bool Tile::IsZeroTileBuffer() const { return Static::Is(inner.Get(), Static::Zero); }

bool Tile::IsFullTileBuffer() const { return Static::Is(inner.Get(), Static::Full); }

bool Tile::IsFullFloatTileBuffer() const { return Static::Is(inner.Get(), Static::FullFloat); }

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
    return HashOf(session.GetBuffer());
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
        shared = Kernel::Counted<Block>(block);
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
    if (!quiet || Static::IsAny(quiet.Get()))
        return;
    if (auto equal = Static::FindEqual(quiet.GetBuffer()))
        ReplaceIfUnchanged(quiet.Get(), std::move(equal));
}

void Tile::Deduplicate(BlockDeduplicationSupport & support, bool * abort) {
    QuietBlock const quiet(Share());
    if (!quiet || Static::IsAny(quiet.Get()))
        return;
    support.UpdateIndex();
    if (support.Contains(quiet.Get()) || Kernel::IsAborted(abort))
        return;
    auto const hash = HashOf(quiet.GetBuffer());
    auto equal = Static::FindByHash(quiet.GetBuffer(), hash);
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
