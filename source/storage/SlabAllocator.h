#pragma once

#include "kernel/CriticalSectionSpin.h"
#include "kernel/Export.h"
#include "storage/SlabUnits.h"

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace Raster {
/// Buffers of 65536 bytes, aligned to their size, from large mappings that never move. The last 16 MiB that were freed
/// stay in memory, and the most recent of them is given out first: it is still in the cache. What is pushed out of
/// these goes back to the system, and is zero when it returns, as is what was never given out. Memory is taken 2 MiB
/// at a time where that is quicker, so up to 16 MiB more are kept: parts of huge pages that wait for their other parts.
/// Threads: any. Freeing never fails and never allocates.
class RASTER_API SlabAllocator {
public:
    static constexpr std::size_t BufferBytes = SlabUnits::BufferBytes;
    static constexpr std::size_t WarmBuffers = 256, KeptBuffers = 256;

    /// Never destroyed: buffers may be freed later than any static object goes.
    static SlabAllocator & Instance();
    SlabAllocator(SlabAllocator const &) = delete;
    SlabAllocator & operator=(SlabAllocator const &) = delete;

    enum class Content : std::uint8_t {
        Any, ///< and it may never be touched: no memory is taken for it
        Zero,
        Overwritten ///< any, and all of it is written right away: the system is asked for the memory in one call
    };
    /// Throws `std::bad_alloc` when the system has no more.
    unsigned int * Allocate(Content content);
    /// Null is allowed.
    void Free(unsigned int * buffer) noexcept;

    std::size_t GetUsedCount() const;
    std::size_t GetWarmCount() const;
    /// Free ones in memory that aren't warm, those that are being taken included. Never above `KeptBuffers`.
    std::size_t GetKeptCount() const;

private:
    struct Taken {
        unsigned int * buffer;
        bool isZero, isInMemory;
        SlabUnit * unitToPopulate; // null, or the one that the buffer is the first of; nobody else knows of it
    };
    struct Leaving {
        SlabUnit * unit;
        SlabUnit::Set set; // may be empty
        bool isPartOfHuge;
    };

    SlabAllocator() = default;
    ~SlabAllocator() = delete;

    Taken Take(Content content);
    Taken TakeFrom(SlabUnit & unit);
    bool IsWorthPopulating(Content content) const;
    bool Populate(SlabUnit & unit);
    unsigned int * PushWarm(unsigned int * buffer);
    Leaving LetGo(unsigned int * buffer);
    Leaving LetGoOfAllFree(SlabUnit & unit);

    // A leaf: guards everything below. Never held over a call of the system but the mapping of a new slab.
    mutable Kernel::CriticalSectionSpin lock{Kernel::LockRank::Leaf};
    unsigned int * warm[WarmBuffers] = {}; // a ring: the newest at (warmBegin + warmCount - 1)
    std::size_t warmBegin = 0, warmCount = 0;
    SlabUnits units;
    std::size_t usedCount = 0;
    std::size_t comingCount = 0;                           // will be kept when the calls that populate units return
    std::chrono::steady_clock::time_point populateAfter{}; // not before
};
}
