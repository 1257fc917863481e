/// Equality of the bytes of profiles.
#pragma once

#include "kernel/HashAccumulator.h"

#include <algorithm>
#include <cstdint>
#include <span>

namespace Raster::ProfileBytes {
using Bytes = std::span<std::uint8_t const>;

/// Calls `visit` with each stretch that counts. Two stretches of the header don't: the time of creation, bytes 24 to
/// 35, and the digest that covers it, 84 to 99. A profile that is built anew in each process must stay the same one.
template<class Visit>
void ForEachStretchThatCounts(Bytes bytes, Visit && visit) {
    auto const cut = [&](std::size_t first, std::size_t end) {
        first = std::min(first, bytes.size());
        visit(first, std::min(end, bytes.size()) - first);
    };
    cut(0, 24);
    cut(36, 84);
    cut(100, bytes.size() < 100 ? 100 : bytes.size());
}

/// For profiles that are built here: no time, so that a file which one is written into is the same each time. The
/// format knows no word for that, so it is the start of a year.
inline void ForgetTime(std::span<std::uint8_t> bytes) {
    constexpr std::uint8_t time[12] = {2000 >> 8, 2000 & 0xFF, 0, 1, 0, 1};
    if (bytes.size() < 100)
        return;
    std::ranges::copy(time, bytes.begin() + 24);
    std::ranges::fill(bytes.subspan(84, 16), std::uint8_t(0)); // a digest need not be there
}

inline bool AreEqual(Bytes one, Bytes other) {
    if (one.size() != other.size())
        return false;
    bool areEqual = true;
    ForEachStretchThatCounts(one, [&](std::size_t first, std::size_t size) {
        areEqual = areEqual && std::ranges::equal(one.subspan(first, size), other.subspan(first, size));
    });
    return areEqual;
}

inline void AccumulateHash(Bytes bytes, Kernel::HashAccumulator & accumulator) {
    ForEachStretchThatCounts(
        bytes, [&](std::size_t first, std::size_t size) { accumulator.AddToHash(bytes.data() + first, size); });
}
}
