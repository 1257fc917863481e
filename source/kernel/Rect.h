#pragma once

#include <algorithm>

namespace Kernel {
/// A rectangle with its sides parallel to the axes; `right` and `bottom` are exclusive. The default is the empty
/// rectangle (0, 0, 0, 0).
template<class T>
struct RectT {
    T left{}, top{}, right{}, bottom{};

    constexpr T GetWidth() const { return right - left; }
    constexpr T GetHeight() const { return bottom - top; }
    /// Without area, also when inverted.
    constexpr bool IsEmpty() const { return !(left < right && top < bottom); }
    constexpr bool Contains(T x, T y) const { return x >= left && x < right && y >= top && y < bottom; }
    constexpr bool Contains(RectT const & other) const {
        return other.left >= left && other.right <= right && other.top >= top && other.bottom <= bottom;
    }
    /// The common part, or the zero rectangle if there is none.
    constexpr RectT Intersect(RectT const & other) const {
        RectT const result{std::max(left, other.left), std::max(top, other.top), std::min(right, other.right),
                           std::min(bottom, other.bottom)};
        return result.IsEmpty() ? RectT{} : result;
    }
    /// The smallest rectangle around both. An empty one changes nothing.
    constexpr RectT Unite(RectT const & other) const {
        if (other.IsEmpty())
            return *this;
        if (IsEmpty())
            return other;
        return {std::min(left, other.left), std::min(top, other.top), std::max(right, other.right),
                std::max(bottom, other.bottom)};
    }
    constexpr bool operator==(RectT const &) const = default;
};
}
