#include "kernel/PositionTable.h"

#include "kernel/TableHash.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace Kernel {
std::uint32_t PositionTable::GetHash(std::uint64_t key, std::uint64_t moreOfTheKey) noexcept {
    return static_cast<std::uint32_t>(GetTableHash(key, moreOfTheKey));
}

void PositionTable::Reserve(std::size_t count) {
    if (count * 2 > slots.size())
        Resize(std::bit_ceil(count * 2));
}

void PositionTable::Resize(std::size_t count) {
    std::vector<Slot> before(std::max<std::size_t>(count, 16));
    std::swap(before, slots);
    for (auto const slot : before)
        if (slot.position != none)
            Put(slot);
}

void PositionTable::Put(Slot slot) noexcept {
    std::size_t i = GetFirst(slot.hash);
    while (slots[i].position != none)
        i = (i + 1) & (slots.size() - 1);
    slots[i] = slot;
}

void PositionTable::Add(std::uint64_t key, std::uint64_t moreOfTheKey, std::size_t position) {
    if (position >= none)
        throw std::length_error("more than 2^32 things in one table");
    if ((used + 1) * 2 > slots.size())
        Resize(slots.size() * 2);
    Put({GetHash(key, moreOfTheKey), static_cast<std::uint32_t>(position)});
    ++used;
}

void PositionTable::Clear() noexcept {
    slots.clear();
    used = 0;
}
}
