#pragma once

#include "kernel/COW.h"
#include "kernel/Countable.h"
#include "kernel/Counted.h"
#include "kernel/CriticalSectionSpin.h"
#include "kernel/Export.h"
#include "kernel/Rect.h"
#include "kernel/Serialisable.h"
#include "kernel/String.h"
#include "pixel/MemoryManager.h"
#include "storage/AtomicCounted.h"
#include "storage/BackstoreSlot.h"
#include "storage/Data.h"

#include <atomic>
#include <cstdint>
#include <exception>
#include <optional>

namespace Kernel {
class DelayLoadHolder;
}

namespace Raster {
using Kernel::RectT;

/// The 65536 bytes behind one or more tiles, wherever they are: in memory, on disk, still in a document, or nowhere
/// (then they read as zeros). Who pins the block gets a pointer and needs not know. The number of pins is apart from
/// the count of `Countable`, which tells how many tiles share the block.
///
/// Threads: any number may pin, read and query one block while the ledger evicts others. A writer needs it alone.
class RASTER_API Block final : public Kernel::Serialisable, public Evictable {
public:
    static constexpr int Stride = 256;
    static constexpr int Height = 256;
    static constexpr std::size_t ByteCount = 65536;

    Block(); ///< Unallocated. The cached rects are right for it.
    Block(Block const &) = delete;
    Block & operator=(Block const &) = delete;
    ~Block() override;

    // Lock-free.
    bool IsAllocated() const;
    bool IsAllocatedAndPresent() const override;
    bool IsDisposed() const { return place.load(std::memory_order_acquire) == Place::Disk; }
    bool IsPendingDelayLoad() const;
    /// Whether somebody is writing.
    bool HasMutableSession() const { return mutableSessions.load(std::memory_order_acquire) != 0; }
    std::uint32_t GetPinCount() const { return pinCount.load(std::memory_order_relaxed); }

    /// Opens a session: until it is closed the buffer stays in memory and in place. Brings the bytes back from disk if
    /// they are there; throws if memory is exhausted or the disk fails (`BackstoreReadError`), the session then not
    /// being open. Closing takes no lock. The mutable pair also keeps rects from being cached meanwhile.
    void IncrementRefCountConst() const;
    void IncrementRefCountMutable() const;
    void DecrementRefCountConst() const noexcept;
    void DecrementRefCountMutable() const noexcept;

    /// A session in two steps, for those who must look a block up under a lock of their own: reserving takes no lock,
    /// completing may wait for the disk. If completing throws, the session is closed. A reserved session may be closed
    /// without having been completed.
    void Reserve() const noexcept;
    void ReserveMutable() const noexcept;
    void CompletePin() const;
    void CompleteMutablePin() const;
    /// After `Reserve`: whether completing has nothing to do, and the buffer stays.
    bool IsPinnedInMemory() const { return place.load(std::memory_order_seq_cst) == Place::Memory; }

    /// The bytes, for the duration of a session; loaded from the document if they are still there. One shared buffer
    /// of zeros for an unallocated block, and for one that can't be loaded: the next reader tries again.
    unsigned int const * GetConstBuffer() const;
    /// The bytes to write, for the duration of a mutable session. An unallocated block gets a buffer of zeros, and so
    /// does one that can't be loaded, which then no longer is what the document holds. Cached rects become stale.
    unsigned int * GetMutableBuffer();
    /// Becomes equal to the source, in a buffer of its own, with the rects that the source has cached. What this
    /// block held before is given back. An unallocated source gives an allocated block of zeros.
    void Copy(Block const & source);

    /// Makes a block that was just made a promise: its bytes are those of the holder's item, which is loaded when
    /// somebody wants them. An item that is loaded already becomes the block's own at once.
    void SetDelayLoad(Kernel::Counted<Kernel::DelayLoadHolder> holder);

    /// Writes the rects, and the bytes as an item of their own, which may be written much later. An unallocated block
    /// has no item. A session that writes the block is waited for, though not for longer than a second, or for a
    /// second from when the save of its bitmap began: the bytes are saved as they are then, without rects, and what is
    /// written later is still to be saved.
    void Save(Kernel::OutSerialiser & serialiser) const override;
    /// For a block that was just made. The bytes are left in the document until somebody wants them.
    bool Load(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store, unsigned short version) override;
    static Kernel::ClassProperties const & GetClassProperties();
    Kernel::ClassPropertiesBase const & GetObjectClassProperties() const override { return GetClassProperties(); }

    /// Moves the buffer to disk.
    /// @return false, the buffer then being still in memory, if a session is open, nothing is in memory, or the disk
    ///         refuses it.
    bool DisposeIfPossible() const;

    // The bounding box of the bytes that aren't 0, of those below 255, and of the floats below 1.0, in byte columns
    // and rows. Computed when asked for, then kept until the block is written. The clipped forms look at so many bytes
    // across and rows down and leave the cache alone, unless they ask for the whole.
    RectT<int> GetDataRect() const;
    RectT<int> GetInverseDataRect() const;
    RectT<int> GetFloatInverseDataRect() const;
    RectT<int> GetDataRectClipped(int width, int height) const;
    RectT<int> GetInverseDataRectClipped(int width, int height) const;
    RectT<int> GetFloatInverseDataRectClipped(int width, int height) const;
    // Whether the next question is answered without looking at bytes.
    bool IsDataRectValid() const { return IsRectValid(RectKind::Data); }
    bool IsInverseDataRectValid() const { return IsRectValid(RectKind::Inverse); }
    bool IsFloatInverseDataRectValid() const { return IsRectValid(RectKind::FloatInverse); }

    /// The buffer of zeros that stands in for what isn't there. With `init` it is made, filled and returned; else with
    /// `destroy` freed, giving null; else it is returned, made first if necessary.
    static unsigned int * GetStaticBlock(bool init, bool destroy);
    static void InitStaticBlock();
    static void DestroyStaticBlock();

    /// Names the directory for what doesn't fit into memory. Must run before the first eviction: until then
    /// every eviction is a failed write.
    static void InitBackstore(Kernel::StringT<Kernel::TEncUtf8> const & directory);
    /// The file that is used there, for a program that has to end without the usual way out and take it along; empty if
    /// there is none.
    static Kernel::StringT<Kernel::TEncUtf8> GetBackstorePath();

private:
    friend class BackstoreFile;

    enum class Place : std::uint8_t {
        Memory,  // or nowhere, or in a document
        Leaving, // being written to disk; still in memory
        Disk,
    };
    enum class RectKind : std::uint8_t { Data, Inverse, FloatInverse };
    static constexpr int rectKinds = 3;

    struct CachedRect {
        RectT<int> rect;
        std::uint64_t version; // the rect is that of the bytes as long as this is the block's version
    };

    Eviction TryEvict() const override;
    void Recover() const;
    void RecoverForPin() const;
    bool LoadThroughHolder() const;
    static Kernel::Counted<Data> CopyOfOwned(Data const & owned, Kernel::DelayLoadHolder & holder);
    void AdoptData(Kernel::Counted<Data> made) const;
    void ForgetDelayed() const;
    void MakeBuffer();
    std::exception_ptr RestoreShared(Data const & shared) const noexcept;
    std::exception_ptr GiveBackData(Data & held, Kernel::DelayLoadHolder * holder) const noexcept;
    void GiveBackContent();
    void CopyRects(Block const & source);
    bool WaitForWriters(Kernel::OutSerialiser const & serialiser) const;
    Kernel::Counted<Kernel::DelayLoadHolder> GetHolderForSave() const;
    void SetLoadedRect(RectKind kind, RectT<int> const & rect);
    bool IsRectValid(RectKind kind) const;
    std::optional<RectT<int>> FindRect(RectKind kind) const;
    RectT<int> GetRect(RectKind kind, int width, int height) const;

    AtomicCounted<Kernel::DelayLoadHolder> mutable delayLoad; // where the bytes can be loaded from, or null
    AtomicCounted<Data> mutable data;                         // holds the buffer, or null
    std::atomic<std::uint32_t> mutable pinCount{0};
    std::atomic<std::uint32_t> mutable mutableSessions{0};
    // Guards every change of where the bytes are. A pin raises `pinCount` before it reads `place`; an eviction sets
    // `place` to Leaving before it reads `pinCount`: with sequentially consistent operations one of them sees the
    // other, so a pin takes the lock only if the buffer is gone or going.
    Kernel::CriticalSectionSpin mutable bufferLock{Kernel::LockRank::BlockBuffer};
    // Guards the cached rects. Held over the scan, so that the bytes are looked at once, but not while they are loaded.
    // Stands before `bufferLock`.
    Kernel::CriticalSectionSpin mutable rectLock{Kernel::LockRank::BlockRect};
    CachedRect mutable rects[rectKinds];
    std::atomic<std::uint64_t> version{0}; // raised before each change of the bytes
    BackstoreSlot mutable slot;            // where on disk, while `place` is Disk
    std::atomic<Place> mutable place{Place::Memory};
    std::atomic<bool> mutable isCountedAsDelayed{false}; // set when loaded as a promise, cleared once
};
}

/// Blocks hold locks and a place in the ledger: a copy is made by `Copy`, which brings the bytes back if need be.
template<>
struct Kernel::COWTraits<Raster::Block> {
    static Counted<Raster::Block> Create() { return MakeCounted<Raster::Block>(); }
    static Counted<Raster::Block> Copy(Raster::Block const & source) {
        auto copy = Create();
        copy->Copy(source);
        return copy;
    }
};

extern template class RASTER_EXTERN_TEMPLATE Kernel::COW<Raster::Block>;
