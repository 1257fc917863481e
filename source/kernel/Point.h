#pragma once

namespace Kernel {
template<class T>
struct PointT {
    T x{}, y{};

    constexpr PointT operator+(PointT const & other) const { return {x + other.x, y + other.y}; }
    constexpr PointT operator-(PointT const & other) const { return {x - other.x, y - other.y}; }
    constexpr PointT operator-() const { return {-x, -y}; }
    constexpr PointT operator*(T factor) const { return {x * factor, y * factor}; }
    constexpr PointT & operator+=(PointT const & other) { return *this = *this + other; }
    constexpr PointT & operator-=(PointT const & other) { return *this = *this - other; }
    constexpr bool operator==(PointT const &) const = default;
};
}
