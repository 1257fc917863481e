#pragma once

#include "kernel/Rect.h"
#include "pixel/Transform.h"

#include <cstdint>
#include <limits>

namespace Raster {
/// Where a predicate that changes at most once along the integers becomes true: the first such position in [low, high],
/// or `high` if there is none below it.
template<class Predicate>
constexpr std::int64_t FirstPosition(std::int64_t low, std::int64_t high, Predicate predicate) {
    while (low < high) {
        std::int64_t const middle = low + (high - low) / 2;
        if (predicate(middle))
            high = middle;
        else
            low = middle + 1;
    }
    return low;
}

/// The range of positions that a transform maps into [low, high) of the model. Searched rather than solved: every
/// transform is monotonic, rounding included, so the search is exact where an inverse in floating point is not.
template<class Map>
constexpr void FindSafeRange(int low, int high, Map map, int & first, int & end) {
    constexpr std::int64_t lowest = std::numeric_limits<int>::min(), highest = std::numeric_limits<int>::max();
    auto const at = [&](std::int64_t position) { return map(CentreOf(position)); };
    bool const falls = at(highest) < at(lowest);
    std::int64_t const begin = FirstPosition(
        lowest, highest, [&](std::int64_t position) { return falls ? at(position) < high : at(position) >= low; });
    std::int64_t const stop = FirstPosition(
        begin, highest, [&](std::int64_t position) { return falls ? !(at(position) >= low) : !(at(position) < high); });
    first = static_cast<int>(begin);
    end = static_cast<int>(stop);
}

/// The rectangle of positions that a pair of monotonic maps takes into `bounds`; the zero rectangle if there are none.
template<class MapX, class MapY>
constexpr Kernel::RectT<int> FindSafeRect(Kernel::RectT<int> const & bounds, MapX mapX, MapY mapY) {
    Kernel::RectT<int> result;
    FindSafeRange(bounds.left, bounds.right, mapX, result.left, result.right);
    FindSafeRange(bounds.top, bounds.bottom, mapY, result.top, result.bottom);
    return result.IsEmpty() ? Kernel::RectT<int>{} : result;
}
}
