#include "storage/SlabUnits.h"

#include "storage/SlabMemory.h"

#include <algorithm>
#include <bit>
#include <new>

namespace Raster {
namespace {
// 64 MiB: few mappings, and the table of pages of an unused one costs little.
constexpr std::size_t largestSlabBuffers = 1024;
}

void SlabUnitList::Append(SlabUnit & unit) {
    unit.list = this;
    unit.previous = last;
    unit.next = nullptr;
    (last ? last->next : first) = &unit;
    last = &unit;
}

void SlabUnitList::Remove(SlabUnit & unit) {
    (unit.previous ? unit.previous->next : first) = unit.next;
    (unit.next ? unit.next->previous : last) = unit.previous;
    unit.list = nullptr;
}

SlabUnitList * SlabUnits::GetHome(SlabUnit const & unit) {
    if (unit.free == 0)
        return nullptr;
    if (unit.isHuge)
        return &kept;
    return unit.free == SlabUnit::Most ? &empty : &partial;
}

void SlabUnits::Link(SlabUnit & unit) {
    auto * const home = GetHome(unit);
    if (home == unit.list)
        return;
    if (unit.list)
        unit.list->Remove(unit);
    if (home)
        home->Append(unit);
}

void SlabUnits::Add(SlabUnit & unit, SlabUnit::Set set, bool isZero) {
    unit.free |= set;
    if (isZero)
        unit.zero |= set;
    if (unit.isHuge)
        keptCount += static_cast<std::size_t>(std::popcount(set));
    Link(unit);
}

void SlabUnits::Remove(SlabUnit & unit, SlabUnit::Set set) {
    unit.free &= ~set;
    unit.zero &= ~set;
    if (unit.isHuge)
        keptCount -= static_cast<std::size_t>(std::popcount(set));
    Link(unit);
}

void SlabUnits::Map() {
    slabs.reserve(slabs.size() + 1);
    // Smaller slabs are tried so that a limit on the address space is used to the end.
    for (auto count = largestSlabBuffers; count != 0; count /= 4) {
        auto const unitBuffers = std::min(count, SlabUnit::MostBuffers), unitCount = count / unitBuffers;
        auto units = std::make_unique<SlabUnit[]>(unitCount);
        auto const begin = SlabMemory::Map(count * BufferBytes, unitBuffers * BufferBytes);
        if (!begin)
            continue;
        for (auto i = unitCount; i-- > 0;) { // the last one added is used first
            units[i].begin = begin + i * UnitBytes;
            units[i].all = SlabUnit::Most >> (SlabUnit::MostBuffers - unitBuffers);
            Add(units[i], units[i].all, /*isZero=*/true);
        }
        auto const place =
            std::upper_bound(slabs.begin(), slabs.end(), begin,
                             [](auto const * address, Slab const & slab) { return address < slab.begin; });
        slabs.insert(place, Slab{begin, std::move(units)});
        return;
    }
    throw std::bad_alloc();
}

SlabUnit & SlabUnits::Find(void const * address) const {
    auto const * const byte = static_cast<unsigned char const *>(address);
    auto const next = std::upper_bound(slabs.begin(), slabs.end(), byte,
                                       [](auto const * wanted, Slab const & slab) { return wanted < slab.begin; });
    auto const & slab = next[-1];
    return slab.units[static_cast<std::size_t>(byte - slab.begin) / UnitBytes];
}

SlabUnit::Set SlabUnits::GetSet(SlabUnit const & unit, void const * buffer) {
    auto const offset = static_cast<unsigned char const *>(buffer) - unit.begin;
    return SlabUnit::Set(1) << (static_cast<std::size_t>(offset) / BufferBytes);
}
}
