#pragma once

#include "kernel/CriticalSectionSpin.h"
#include "kernel/Export.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Raster {
/// Buffers of 65536 bytes, aligned to their size, from large mappings that never move. The last 16 MiB that were freed
/// stay in memory, and the most recent of them is given out first: it is still in the cache. What is pushed out of
/// these goes back to the system at once and is zero when it returns, as is what was never given out.
/// Threads: any. Freeing never fails and never allocates.
class RASTER_API SlabAllocator {
public:
    static constexpr std::size_t BufferBytes = 65536;
    static constexpr std::size_t WarmBuffers = 256;

    /// Never destroyed: buffers may be freed later than any static object goes.
    static SlabAllocator & Instance();
    SlabAllocator(SlabAllocator const &) = delete;
    SlabAllocator & operator=(SlabAllocator const &) = delete;

    enum class Content : std::uint8_t {
        Any,
        Zero,
        Overwritten ///< any, and all of it is written right away: the system is asked for the memory in one call
    };
    /// Throws `std::bad_alloc` when the system has no more.
    unsigned int * Allocate(Content content);
    /// Null is allowed.
    void Free(unsigned int * buffer) noexcept;

    std::size_t GetUsedCount() const;
    std::size_t GetWarmCount() const;

private:
    SlabAllocator() = default;
    ~SlabAllocator() = delete;

    unsigned int * PopWarm();
    unsigned int * PopCold();
    unsigned int * CarveOrMap();

    // A leaf: guards everything below. Never held over a call of the system but the mapping of a new slab.
    mutable Kernel::CriticalSectionSpin lock{Kernel::LockRank::Leaf};
    unsigned int * warm[WarmBuffers] = {}; // a ring: the newest at (warmBegin + warmCount - 1)
    std::size_t warmBegin = 0, warmCount = 0;
    std::vector<unsigned int *> cold; // given back to the system; has room for every buffer that exists
    unsigned char * fresh = nullptr;  // the part of the newest slab that was never given out
    std::size_t freshCount = 0;
    std::size_t totalCount = 0, usedCount = 0;
};
}
