#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace Raster {
/// Neighbouring buffers of a slab: as many as fill a huge page, or fewer where address space is scarce. Buffer `i` is
/// bit `i` of the sets.
struct SlabUnit {
    static constexpr std::size_t MostBuffers = 32;
    using Set = std::uint32_t;
    static constexpr Set Most = ~Set(0);

    unsigned char * begin = nullptr;
    Set all = 0;
    Set free = 0; ///< to be given out: not those that are used, warm, or on their way to or from the system
    Set zero = 0; ///< of these, what is known to be zero
    /// Lies in one huge page: what is free is in memory. Otherwise it is given back. Changes while nothing is free.
    bool isHuge = false;

    class SlabUnitList * list = nullptr; ///< that it is in
    SlabUnit * previous = nullptr;
    SlabUnit * next = nullptr;
};

/// Links units without owning them.
class SlabUnitList {
public:
    SlabUnit * GetFirst() const { return first; }
    SlabUnit * GetLast() const { return last; }
    void Append(SlabUnit & unit);
    void Remove(SlabUnit & unit);

private:
    SlabUnit * first = nullptr;
    SlabUnit * last = nullptr;
};

/// The units of all slabs and what is free in them. Slabs are never unmapped.
/// Threads: one at a time.
class SlabUnits {
public:
    static constexpr std::size_t BufferBytes = 65536;
    static constexpr std::size_t UnitBytes = SlabUnit::MostBuffers * BufferBytes;

    /// Maps one more slab: all of it is free. Throws `std::bad_alloc` when the system has no more.
    void Map();

    // A unit with free buffers, or null. The one that got into this state last: its tables of pages are still there.
    SlabUnit * GetEmpty() const { return empty.GetLast(); }     ///< all free, and could become huge
    SlabUnit * GetPartial() const { return partial.GetLast(); } ///< other small ones
    SlabUnit * GetKept() const { return kept.GetLast(); }       ///< huge ones
    SlabUnit * GetLongestKept() const { return kept.GetFirst(); }
    std::size_t GetKeptCount() const { return keptCount; } ///< buffers that are free and in memory

    /// The unit that holds the address, which is one of a slab.
    SlabUnit & Find(void const * address) const;
    /// @return the set of the one buffer of `unit` that begins there.
    static SlabUnit::Set GetSet(SlabUnit const & unit, void const * buffer);

    /// `set` becomes free. Never fails.
    void Add(SlabUnit & unit, SlabUnit::Set set, bool isZero);
    /// `set`, which is free, isn't any longer.
    void Remove(SlabUnit & unit, SlabUnit::Set set);

private:
    struct Slab {
        unsigned char * begin;
        std::unique_ptr<SlabUnit[]> units;
    };
    SlabUnitList * GetHome(SlabUnit const & unit);
    void Link(SlabUnit & unit);

    std::vector<Slab> slabs; // by address
    SlabUnitList empty, partial, kept;
    std::size_t keptCount = 0;
};
}
