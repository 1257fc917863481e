#pragma once

#include "kernel/CriticalSection.h"
#include "kernel/Export.h"

#include <atomic>
#include <cstdint>
#include <limits>

namespace Raster {
/// What came of an attempt to move a buffer out of memory.
enum class Eviction {
    Done,   ///< It is on disk; its bytes have left the planar usage.
    Busy,   ///< Somebody uses it, or it holds no buffer. The next candidate may do better.
    Failed, ///< The disk refused it. It is still in memory, and trying others now would be in vain.
};

/// What the ledger can evict: 65536 bytes that can go to disk and come back. Blocks of tiles are the only kind; the
/// ledger lies below them and knows no more of them than this. An object must be detached before it goes.
class RASTER_API Evictable {
public:
    Evictable() = default;
    Evictable(Evictable const &) = delete;
    Evictable & operator=(Evictable const &) = delete;

    /// Called by the ledger with its main lock held. On success the object has called `UnsafeDetach` and
    /// `TileDisposed`. Must not wait for a lock that a thread may hold while it attaches.
    virtual Eviction TryEvict() const = 0;
    /// Whether the bytes are in memory. Lock-free.
    virtual bool IsAllocatedAndPresent() const = 0;

protected:
    virtual ~Evictable() = default;

private:
    friend class MemoryManager;
    // Links of the ledger's list, guarded by its main lock. Intrusive, so that attaching never allocates.
    mutable Evictable const * older = nullptr;
    mutable Evictable const * newer = nullptr;
    mutable bool listed = false;
};

/// The process-wide ledger of pixel memory, and the place where eviction is decided. Planar bytes (tiles) and
/// interleaved bytes (buffers) share one limit; when they reach it, the oldest tiles that nobody uses go to disk, on
/// the thread that asked for memory. The limit is a target and never a refusal.
///
/// Threads: any thread may call any member. Readers of counters never wait, also while another thread evicts.
class RASTER_API MemoryManager {
public:
    static constexpr std::uint64_t BlockBytes = 65536;

    /// Made on first use. It outlives every static object, so that tiles may be released at any time.
    static MemoryManager & Instance();
    MemoryManager(MemoryManager const &) = delete;
    MemoryManager & operator=(MemoryManager const &) = delete;

    /// Makes room if the limit is reached, then lists the block as the newest and adds 65536 to the planar usage.
    /// Never evicts the block itself. To be called once per change of the block into the resident state; a second
    /// call still adds, and moves the block to the end of the list. Doesn't allocate.
    void Attach(Evictable const * block);
    /// Takes the block out if it is in memory; does nothing otherwise. For destructors.
    void Detach(Evictable const * block);
    /// Unlists the block, if it is listed, and subtracts 65536 in either case. The caller holds the main lock, that
    /// is: this is called from `TryEvict`.
    void UnsafeDetach(Evictable const * block);
    /// Asks the block to leave memory now, under the main lock.
    /// @return whether it did.
    bool Evict(Evictable const * block);
    /// Sets what says that the disk refuses tiles; null, as at the start, says nothing. Called with no lock of the
    /// ledger held, when the disk has ended what a member was doing, but for `Attach`: who attaches holds locks of its
    /// own, and says it when they are released.
    void SetFailureReporter(void (*reporter)()) { failureReporter.store(reporter, std::memory_order_release); }

    void AttachPlanar(std::uint64_t bytes); ///< Evicts nothing.
    void DetachPlanar(std::uint64_t bytes);
    /// Adds, then evicts until planar and interleaved bytes together are below the limit, as far as that is possible.
    void AttachInterleaved(std::uint64_t bytes);
    void DetachInterleaved(std::uint64_t bytes);
    void AttachVirtual(std::uint64_t bytes); ///< The size of a grid of tiles, allocated or not.
    void DetachVirtual(std::uint64_t bytes);
    void AttachCompressed(std::uint64_t bytes);
    void DetachCompressed(std::uint64_t bytes);
    void AttachDelayed(); ///< 65536 bytes that a document still holds.
    void DetachDelayed();
    void AttachHardware(std::uint64_t bytes);
    void DetachHardware(std::uint64_t bytes);
    void AttachFrontEndHardware(std::uint64_t bytes);
    void DetachFrontEndHardware(std::uint64_t bytes);
    void TileDisposed();  ///< 65536 bytes went to disk.
    void TileRecovered(); ///< 65536 bytes on disk were taken back or given up.

    // Bytes. Peaks never fall.
    std::uint64_t GetPlanarUsage() const { return planar.Get(); }
    std::uint64_t GetPlanarPeakUsage() const { return planar.GetPeak(); }
    std::uint64_t GetVirtualUsage() const { return virtualGrids.Get(); }
    std::uint64_t GetVirtualPeakUsage() const { return virtualGrids.GetPeak(); }
    std::uint64_t GetInterleavedUsage() const { return interleaved.Get(); }
    std::uint64_t GetInterleavedPeakUsage() const { return interleaved.GetPeak(); }
    std::uint64_t GetCompressedUsage() const { return compressed.Get(); }
    std::uint64_t GetCompressedPeakUsage() const { return compressed.GetPeak(); }
    std::uint64_t GetDelayedUsage() const { return delayed.Get(); }
    std::uint64_t GetDelayedPeakUsage() const { return delayed.GetPeak(); }
    std::uint64_t GetHardwareUsage() const { return hardware.Get(); }
    std::uint64_t GetHardwarePeakUsage() const { return hardware.GetPeak(); }
    std::uint64_t GetFrontEndHardwareUsage() const { return frontEndHardware.Get(); }
    std::uint64_t GetFrontEndHardwarePeakUsage() const { return frontEndHardware.GetPeak(); }
    std::uint64_t GetBackstoreUsage() const { return backstore.Get(); }
    std::uint64_t GetBackstorePeakUsage() const { return backstore.GetPeak(); }

    // Limits. The setters take mebibytes and saturate.
    /// Of planar and interleaved bytes together. Lowering it evicts at once.
    void SetDRAMLimit(std::uint64_t mebibytes);
    /// @return bytes, although the setter takes mebibytes.
    std::uint64_t GetDRAMLimit() const { return dramLimit.load(std::memory_order_relaxed); }
    void SetHardwareLimit(std::uint64_t mebibytes); ///< Kept for the application; nothing is enforced with it.
    /// @return bytes, although the setter takes mebibytes.
    std::uint64_t GetHardwareLimit() const { return hardwareLimit.load(std::memory_order_relaxed); }
    void SetDiskWarningLimit(std::uint64_t mebibytes);
    /// @return mebibytes, unlike the two getters above.
    std::uint64_t GetDiskWarningLimit() const { return diskWarningLimit.load(std::memory_order_relaxed) >> 20; }
    /// True once for each time that the bytes on disk rise above the warning limit.
    bool ShouldWarnAboutDiskUsage();

    /// For shutdown: empties the list of blocks and leaves blocks and counters alone. Later attaches work.
    void Destroy();

    /// The number of blocks that could be evicted if nobody used them. Walks the list: for tests and checks at rest.
    std::uint64_t CountListedBlocks() const;

private:
    /// A count of bytes and the highest that it ever was. Neither wraps.
    class Usage {
    public:
        std::uint64_t Get() const { return bytes.load(std::memory_order_relaxed); }
        std::uint64_t GetPeak() const { return peak.load(std::memory_order_relaxed); }
        void Add(std::uint64_t amount);
        void Subtract(std::uint64_t amount);

    private:
        std::atomic<std::uint64_t> bytes{0};
        std::atomic<std::uint64_t> peak{0};
    };

    MemoryManager() = default;
    ~MemoryManager() = delete;

    std::uint64_t GetLimitedUsage() const;
    void Append(Evictable const * block);
    void Unlink(Evictable const * block);
    template<class Above>
    Eviction EvictWhile(Above above, Evictable const * skipped);
    void Report(Eviction result) const;

    // Guards the list of blocks and every eviction, the disk writes included. Taken under a block's own locks; under
    // it another block's `bufferLock` is only tried. Evicting a block by hand enters by the same door as the walk.
    mutable Kernel::CriticalSection mainLock{Kernel::LockRank::MemoryManager};
    // The resident blocks, oldest first.
    Evictable const * oldest = nullptr;
    Evictable const * newest = nullptr;

    Usage planar, virtualGrids, interleaved, compressed, delayed, hardware, frontEndHardware, backstore;
    std::atomic<std::uint64_t> dramLimit{std::uint64_t(1) << 30};
    std::atomic<std::uint64_t> hardwareLimit{std::uint64_t(1) << 30};
    std::atomic<std::uint64_t> diskWarningLimit{std::uint64_t(4) << 30};
    std::atomic<bool> diskWarningLatched{false};
    std::atomic<void (*)()> failureReporter{nullptr};
};
}
