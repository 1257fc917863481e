#include "storage/Block.h"

#include "kernel/DelayLoadHolder.h"
#include "kernel/ScopedLock.h"
#include "kernel/Trace.h"
#include "storage/BackstoreFile.h"
#include "storage/BlockPin.h"
#include "storage/kernels/ScanRect.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace Raster {
namespace {
constexpr std::uint64_t noVersion = ~std::uint64_t(0);

// A buffer that is not yet anybody's.
class OwnedBuffer {
public:
    OwnedBuffer() : buffer(SlabAllocator::Instance().Allocate(SlabAllocator::Content::Overwritten)) {}
    OwnedBuffer(OwnedBuffer const &) = delete;
    OwnedBuffer & operator=(OwnedBuffer const &) = delete;
    ~OwnedBuffer() { SlabAllocator::Instance().Free(buffer); }
    unsigned int * Get() const { return buffer; }
    unsigned int * Release() { return std::exchange(buffer, nullptr); }

private:
    unsigned int * buffer;
};

void TraceFailedLoad(Kernel::DelayLoadHolder const & holder, char const * consequence) {
    std::string why;
    {
        Kernel::ScopedLock const guard(holder);
        why = holder.GetFailure();
    }
    Kernel::Trace("An item of type %1 can't be loaded: %2. %3\n", holder.GetItemType().GetTag().GetText().data(),
                  consequence, why.c_str());
}

void TraceLostItem(std::exception_ptr const & reason) noexcept try {
    std::rethrow_exception(reason);
} catch (std::exception const & exception) {
    Kernel::Trace("An item that is yet to be saved is lost: %1\n", exception.what());
}
}

Block::Block() {
    rects[int(RectKind::Data)] = {RectT<int>{}, 0};
    rects[int(RectKind::Inverse)] = {RectT<int>{0, 0, Stride, Height}, 0};
    rects[int(RectKind::FloatInverse)] = {RectT<int>{0, 0, Stride, Height}, 0};
}

Block::~Block() { GiveBackContent(); }

bool Block::IsAllocated() const { return IsDisposed() || data.Get() || delayLoad.Get(); }

bool Block::IsAllocatedAndPresent() const {
    auto const held = data.Get();
    return held && held->GetBuffer();
}

bool Block::IsPendingDelayLoad() const { return delayLoad.Get() && !data.Get(); }

void Block::Reserve() const noexcept { pinCount.fetch_add(1, std::memory_order_seq_cst); }

void Block::ReserveMutable() const noexcept {
    mutableSessions.fetch_add(1, std::memory_order_relaxed);
    Reserve();
}

// After `Reserve`. The usual case ends here: nothing is going on and no lock is needed.
void Block::CompletePin() const {
    if (place.load(std::memory_order_seq_cst) != Place::Memory)
        RecoverForPin();
}

void Block::CompleteMutablePin() const {
    try {
        CompletePin();
    } catch (...) {
        mutableSessions.fetch_sub(1, std::memory_order_release);
        throw;
    }
}

// Waits for an eviction that is under way, then brings the bytes back if it went through. Undoes the pin on failure.
void Block::RecoverForPin() const {
    try {
        Kernel::ScopedLock const guard(bufferLock);
        if (IsDisposed())
            Recover();
    } catch (...) {
        DecrementRefCountConst();
        throw;
    }
    BackstoreFile::Instance().ReportFailure();
}

void Block::IncrementRefCountConst() const {
    Reserve();
    CompletePin();
}

void Block::IncrementRefCountMutable() const {
    ReserveMutable();
    CompleteMutablePin();
}

// Release: what the session read or wrote comes before the eviction that sees the count at 0.
void Block::DecrementRefCountConst() const noexcept { pinCount.fetch_sub(1, std::memory_order_release); }

void Block::DecrementRefCountMutable() const noexcept {
    mutableSessions.fetch_sub(1, std::memory_order_release);
    DecrementRefCountConst();
}

// Under `bufferLock`, with the bytes on disk. Either everything happens or, with an exception, nothing.
void Block::Recover() const {
    OwnedBuffer buffer;
    BackstoreFile::Instance().ReadAndFreeSlot(*this, buffer.Get());
    data.Get()->SetBuffer(buffer.Release());
    MemoryManager::Instance().Attach(this);
    MemoryManager::Instance().TileRecovered();
    place.store(Place::Memory, std::memory_order_seq_cst);
}

bool Block::DisposeIfPossible() const { return MemoryManager::Instance().Evict(this); }

Eviction Block::TryEvict() const {
    if (pinCount.load(std::memory_order_relaxed) != 0)
        return Eviction::Busy;
    // Only tried: the thread that holds it may be waiting for the ledger.
    Kernel::ScopedLock const guard(bufferLock, std::try_to_lock);
    if (!guard || IsDisposed() || !IsAllocatedAndPresent())
        return Eviction::Busy;
    place.store(Place::Leaving, std::memory_order_seq_cst);
    auto result = Eviction::Busy;
    if (pinCount.load(std::memory_order_seq_cst) == 0) {
        auto const held = data.Get();
        auto & backstore = BackstoreFile::Instance();
        if (!backstore.WriteSlot(*this, held->GetBuffer())) {
            result = Eviction::Failed;
        } else if (pinCount.load(std::memory_order_seq_cst) != 0) {
            backstore.FreeSlot(*this); // somebody waits for it by now: spare him the reading
        } else {
            held->FreeBuffer();
            MemoryManager::Instance().UnsafeDetach(this);
            MemoryManager::Instance().TileDisposed();
            result = Eviction::Done;
        }
    }
    place.store(result == Eviction::Done ? Place::Disk : Place::Memory, std::memory_order_seq_cst);
    return result;
}

// The bytes are no longer a mere promise of a document.
void Block::ForgetDelayed() const {
    if (isCountedAsDelayed.exchange(false, std::memory_order_relaxed))
        MemoryManager::Instance().DetachDelayed();
}

// Another block has made the holder's item its own. Each counts and evicts its own bytes, so this one gets a copy: of
// what is stored, if the owner has changed the item since or may be changing it now. Null if that can't be had. Under
// the holder's lock, which the owner needs in order to go, and this block's `bufferLock`.
Kernel::Counted<Data> Block::CopyOfOwned(Data const & owned, Kernel::DelayLoadHolder & holder) {
    auto copy = Kernel::MakeCounted<Data>();
    if (owned.GetState().CanShare()) // then so is the copy what the document holds
        copy->GetState().MarkAsStored(copy->GetState().GetDirtyGeneration());
    auto const owner = owned.GetOwner();
    for (;;) {
        // The lock of another block may only be tried. Whoever has it waits for nothing that this thread has.
        Kernel::ScopedLock const guard(owner->bufferLock, std::try_to_lock);
        if (!guard) {
            std::this_thread::yield();
            continue;
        }
        // A writer that comes later waits for this lock in `GetMutableBuffer`.
        if (owner->HasMutableSession() || (!owned.GetState().CanShare() && holder.CanReload()))
            break;
        if (owner->IsDisposed())
            BackstoreFile::Instance().ReadSlot(*owner, copy->GetBuffer());
        else
            std::memcpy(copy->GetBuffer(), owned.GetBuffer(), ByteCount);
        return copy;
    }
    return Kernel::DynamicCast<Data>(holder.LoadStoredItem());
}

// Under `bufferLock`, without `data`. Makes the holder's item this block's own.
bool Block::LoadThroughHolder() const {
    auto const holder = delayLoad.Get();
    Kernel::ScopedLock const guard(*holder);
    if (!holder->LoadItemI())
        return false;
    auto loaded = Kernel::DynamicCast<Data>(holder->GetItem());
    if (loaded && loaded->GetOwner())
        loaded = CopyOfOwned(*loaded, *holder);
    if (!loaded || !loaded->GetBuffer()) // an item loses its buffer when the disk does
        return false;
    AdoptData(std::move(loaded));
    return true;
}

void Block::SetDelayLoad(Kernel::Counted<Kernel::DelayLoadHolder> holder) {
    bool const isLoaded = holder && holder->IsLoaded();
    bool const isPromise = holder && !isLoaded;
    delayLoad.Exchange(std::move(holder));
    if (delayLoad.Get()) { // the bytes are those of a document now; that all may be below full stays a true bound
        Kernel::ScopedLock const guard(rectLock);
        rects[int(RectKind::Data)].version = noVersion;
        rects[int(RectKind::Inverse)].version = noVersion;
    }
    if (isPromise) {
        isCountedAsDelayed.store(true, std::memory_order_relaxed);
        MemoryManager::Instance().AttachDelayed();
    }
    if (!isLoaded)
        return;
    {
        Kernel::ScopedLock const guard(bufferLock);
        LoadThroughHolder();
    }
    BackstoreFile::Instance().ReportFailure();
}

// Under `bufferLock`, without `data`: the change into the resident state.
void Block::AdoptData(Kernel::Counted<Data> made) const {
    made->Own(this);
    data.Exchange(std::move(made));
    ForgetDelayed();
    MemoryManager::Instance().Attach(this);
}

unsigned int const * Block::GetConstBuffer() const {
    if (auto const held = data.Get())
        return held->GetBuffer();
    if (!delayLoad.Get())
        return GetStaticBlock(false, false);
    Kernel::Counted<Kernel::DelayLoadHolder> failed;
    unsigned int const * buffer = nullptr;
    {
        Kernel::ScopedLock const guard(bufferLock);
        auto held = data.Get();
        if (!held && delayLoad.Get() && !LoadThroughHolder())
            failed = delayLoad.Get();
        held = data.Get();
        if (held)
            buffer = held->GetBuffer();
    }
    BackstoreFile::Instance().ReportFailure();
    if (failed)
        TraceFailedLoad(*failed, "its pixels read as zeros until it can");
    return buffer ? buffer : GetStaticBlock(false, false);
}

// Out of the way of the usual case: `GetMutableBuffer` of a block without a buffer in memory.
void Block::MakeBuffer() {
    Kernel::Counted<Kernel::DelayLoadHolder> failed;
    {
        Kernel::ScopedLock const guard(bufferLock);
        if (data.Get())
            return;
        if (!delayLoad.Get() || !LoadThroughHolder()) {
            auto made = Kernel::MakeCounted<Data>(SlabAllocator::Content::Zero);
            failed = delayLoad.Exchange(nullptr);
            AdoptData(std::move(made));
        }
    }
    BackstoreFile::Instance().ReportFailure();
    if (failed)
        TraceFailedLoad(*failed, "what was written now stands on zeros");
}

unsigned int * Block::GetMutableBuffer() {
    auto held = data.Get();
    if (!held) {
        MakeBuffer();
        held = data.Get();
    }
    if (delayLoad.Get()) { // another block of this item may be copying the bytes
        Kernel::ScopedLock const guard(bufferLock);
        held->GetState().MarkAsDirty();
    } else {
        held->GetState().MarkAsDirty();
    }
    version.fetch_add(1, std::memory_order_acq_rel);
    return held->GetBuffer();
}

// Puts the bytes of a block that goes while on disk back into its item, for those who still hold that, such as a save
// that has yet to write it. Returns why that failed, or null.
std::exception_ptr Block::RestoreShared(Data const & shared) const noexcept {
    try {
        OwnedBuffer buffer;
        BackstoreFile::Instance().ReadSlot(*this, buffer.Get());
        shared.SetBuffer(buffer.Release());
        return nullptr;
    } catch (std::exception const &) {
        return std::current_exception();
    }
}

// What remains in memory of an item without a block isn't counted, so the holder lets go of it if it can. Returns why
// bytes that are still wanted were lost, or null.
std::exception_ptr Block::GiveBackData(Data & held, Kernel::DelayLoadHolder * holder) const noexcept {
    std::optional<Kernel::ScopedLock<Kernel::DelayLoadHolder>> guard;
    if (holder)
        guard.emplace(*holder);
    if (holder && holder->GetItem().Get() == &held) {
        if (holder->GetSource()) // to other blocks of this holder it stands for what is stored, changed or not
            holder->AbandonItem();
        else
            holder->DropItem();
    }
    // Who else holds it: a save, which may have its bytes or be yet to ask for them.
    bool const isWanted = held.GetCount() > 1 && !held.GetState().IsTaken();
    auto const loss = IsDisposed() && isWanted ? RestoreShared(held) : nullptr;
    held.Disown();
    return loss;
}

// Back to unallocated, with everything that was counted taken back.
void Block::GiveBackContent() {
    if (data.Get())
        MemoryManager::Instance().Detach(this); // from here on no walk can reach this block
    auto const holder = delayLoad.Exchange(nullptr);
    if (auto const held = data.Exchange(nullptr))
        if (auto const loss = GiveBackData(*held, holder.Get()))
            TraceLostItem(loss);
    if (IsDisposed()) {
        BackstoreFile::Instance().FreeSlot(*this);
        MemoryManager::Instance().TileRecovered();
        place.store(Place::Memory, std::memory_order_seq_cst);
    }
    ForgetDelayed();
}

void Block::Copy(Block const & source) {
    if (&source == this)
        return;
    GiveBackContent();
    version.fetch_add(1, std::memory_order_acq_rel); // whatever was known of the old bytes, also if what follows throws
    ConstBlockPin const sourcePin(source);
    auto made = Kernel::MakeCounted<Data>();
    std::memcpy(made->GetBuffer(), source.GetConstBuffer(), ByteCount);
    {
        Kernel::ScopedLock const guard(bufferLock);
        AdoptData(std::move(made));
    }
    BackstoreFile::Instance().ReportFailure();
    version.fetch_add(1, std::memory_order_acq_rel);
    CopyRects(source);
}

void Block::CopyRects(Block const & source) {
    CachedRect copied[rectKinds];
    auto const present = version.load(std::memory_order_acquire);
    {
        Kernel::ScopedLock const guard(source.rectLock);
        auto const sourcePresent = source.version.load(std::memory_order_acquire);
        for (int i = 0; i < rectKinds; ++i)
            copied[i] = {source.rects[i].rect, source.rects[i].version == sourcePresent ? present : noVersion};
    }
    Kernel::ScopedLock const guard(rectLock);
    std::copy_n(copied, rectKinds, rects);
}

bool Block::IsRectValid(RectKind kind) const { return FindRect(kind).has_value(); }

std::optional<RectT<int>> Block::FindRect(RectKind kind) const {
    Kernel::ScopedLock const guard(rectLock);
    auto const & cached = rects[int(kind)];
    if (cached.version != version.load(std::memory_order_acquire))
        return std::nullopt;
    return cached.rect;
}

RectT<int> Block::GetRect(RectKind kind, int width, int height) const {
    static constexpr RectT<int> (*scans[rectKinds])(void const *, int, int) = {ScanNonZeroRect, ScanBelowFullRect,
                                                                               ScanBelowOneRect};
    width = std::clamp(width, 0, Stride);
    height = std::clamp(height, 0, Height);
    bool const isWhole = width == Stride && height == Height;
    if (auto const known = isWhole ? FindRect(kind) : std::nullopt)
        return *known;
    // Read before the bytes are: a writer that comes later raises it, which makes what is cached stale at once.
    auto const present = version.load(std::memory_order_acquire);
    // Before the lock: both may wait for the disk, and send messages.
    ConstBlockPin const pin(*this);
    auto const buffer = GetConstBuffer();
    // Zeros in place of what couldn't be loaded are no lasting answer either.
    bool const isLasting = !HasMutableSession() && !(delayLoad.Get() && buffer == GetStaticBlock(false, false));
    Kernel::ScopedLock const guard(rectLock);
    auto & cached = rects[int(kind)];
    if (isWhole && cached.version == version.load(std::memory_order_acquire))
        return cached.rect; // somebody else was here first
    auto const rect = scans[int(kind)](buffer, width, height);
    if (isWhole && isLasting)
        cached = {rect, present};
    return rect;
}

RectT<int> Block::GetDataRect() const { return GetRect(RectKind::Data, Stride, Height); }

RectT<int> Block::GetInverseDataRect() const { return GetRect(RectKind::Inverse, Stride, Height); }

RectT<int> Block::GetFloatInverseDataRect() const { return GetRect(RectKind::FloatInverse, Stride, Height); }

RectT<int> Block::GetDataRectClipped(int width, int height) const { return GetRect(RectKind::Data, width, height); }

RectT<int> Block::GetInverseDataRectClipped(int width, int height) const {
    return GetRect(RectKind::Inverse, width, height);
}

RectT<int> Block::GetFloatInverseDataRectClipped(int width, int height) const {
    return GetRect(RectKind::FloatInverse, width, height);
}

namespace {
std::atomic<unsigned int *> staticBlock{nullptr};

// Not of the slabs: it is one of a kind, and counted nowhere.
unsigned int * GetOrMakeStaticBlock() {
    auto present = staticBlock.load(std::memory_order_acquire);
    if (present)
        return present;
    auto const made = static_cast<unsigned int *>(std::aligned_alloc(64, Block::ByteCount));
    if (!made)
        throw std::bad_alloc();
    std::memset(made, 0, Block::ByteCount);
    if (staticBlock.compare_exchange_strong(present, made, std::memory_order_acq_rel))
        return made;
    std::free(made);
    return present;
}
}

unsigned int * Block::GetStaticBlock(bool init, bool destroy) {
    if (init)
        return static_cast<unsigned int *>(std::memset(GetOrMakeStaticBlock(), 0, ByteCount));
    if (!destroy)
        return GetOrMakeStaticBlock();
    std::free(staticBlock.exchange(nullptr, std::memory_order_acq_rel));
    return nullptr;
}

void Block::InitStaticBlock() { GetStaticBlock(true, false); }

void Block::DestroyStaticBlock() { GetStaticBlock(false, true); }

void Block::InitBackstore(Kernel::StringT<Kernel::TEncUtf8> const & directory) {
    BackstoreFile::Instance().Open(std::string(directory.GetView()));
}

Kernel::StringT<Kernel::TEncUtf8> Block::GetBackstorePath() { return BackstoreFile::Instance().GetPath().c_str(); }
}

template class RASTER_TEMPLATE_INSTANCE Kernel::COW<Raster::Block>;
