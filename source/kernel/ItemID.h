#pragma once

#include "kernel/TableHash.h"

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>

namespace Kernel {
/// Names an item of a file store for ever, in whatever document it lies: the random number of the save that first
/// stored it, and a number that runs within that save. Zero is no item.
struct ItemID {
    std::uint64_t commit = 0;
    std::uint64_t number = 0;

    explicit operator bool() const noexcept { return commit != 0 || number != 0; }
    auto operator<=>(ItemID const &) const noexcept = default;
};
}

template<>
struct std::hash<Kernel::ItemID> {
    std::size_t operator()(Kernel::ItemID const & id) const noexcept {
        return Kernel::GetTableHash(id.commit, id.number);
    }
};
