#pragma once

#include "kernel/Point.h"
#include "kernel/Rect.h"

#include <algorithm>
#include <limits>

namespace Geometry {
/// The smallest box around points, both ends included. Empty at first, which a box around a single point is not.
template<class T>
class BoundingBoxT {
public:
    constexpr BoundingBoxT() = default;
    /// Around the corners of a rectangle; empty if that has no area.
    constexpr explicit BoundingBoxT(Kernel::RectT<T> const & rect) {
        if (rect.IsEmpty())
            return;
        Add(Kernel::PointT<T>{rect.left, rect.top});
        Add(Kernel::PointT<T>{rect.right, rect.bottom});
    }

    /// A coordinate that is no number changes nothing.
    constexpr void Add(Kernel::PointT<T> const & point) {
        left = std::min(left, point.x);
        top = std::min(top, point.y);
        right = std::max(right, point.x);
        bottom = std::max(bottom, point.y);
    }
    constexpr void Add(BoundingBoxT const & other) {
        left = std::min(left, other.left);
        top = std::min(top, other.top);
        right = std::max(right, other.right);
        bottom = std::max(bottom, other.bottom);
    }

    constexpr bool IsEmpty() const { return !(left <= right && top <= bottom); }
    constexpr bool Contains(Kernel::PointT<T> const & point) const {
        return point.x >= left && point.x <= right && point.y >= top && point.y <= bottom;
    }
    /// The zero rectangle for an empty box. The box's last row and column are the rectangle's exclusive ends.
    constexpr Kernel::RectT<T> GetRect() const {
        return IsEmpty() ? Kernel::RectT<T>{} : Kernel::RectT<T>{left, top, right, bottom};
    }
    constexpr T GetWidth() const { return GetRect().GetWidth(); }
    constexpr T GetHeight() const { return GetRect().GetHeight(); }
    constexpr bool operator==(BoundingBoxT const &) const = default;

private:
    static constexpr T GetHighest() {
        return std::numeric_limits<T>::has_infinity ? std::numeric_limits<T>::infinity()
                                                    : std::numeric_limits<T>::max();
    }
    static constexpr T GetLowest() {
        return std::numeric_limits<T>::has_infinity ? -std::numeric_limits<T>::infinity()
                                                    : std::numeric_limits<T>::lowest();
    }

    T left = GetHighest(), top = GetHighest(), right = GetLowest(), bottom = GetLowest();
};
}
