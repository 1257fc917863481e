#pragma once

#include "geometry/BoundingBox.h"
#include "kernel/Export.h"

#include <cstddef>
#include <vector>

namespace Geometry {
/// A run of points joined by straight lines, and from the last point to the first if it is closed. The first point of a
/// closed polygon may stand at its end once more.
template<class T>
class PolygonType {
public:
    using Point = Kernel::PointT<T>;

    PolygonType() = default;
    /// The corners of a rectangle, from left top to right top and on.
    PolygonType(Kernel::RectT<T> const & rect, bool closed)
        : points{{rect.left, rect.top}, {rect.right, rect.top}, {rect.right, rect.bottom}, {rect.left, rect.bottom}},
          isClosed(closed) {}

    void AddPoint(Point const & point) { points.push_back(point); }
    void AddPoint(T x, T y) { points.push_back({x, y}); }

    std::size_t GetCount() const { return points.size(); }
    Point const & GetPoint(std::size_t index) const { return points[index]; }
    std::vector<Point> const & GetPoints() const { return points; }
    BoundingBoxT<T> GetBoundingBox() const;

    bool IsClosed() const { return isClosed; }
    void SetClosed(bool closed) { isClosed = closed; }

    void Scale(T x, T y);
    void Translate(T x, T y);

    /// Positive if the points go round from the x axis towards the y axis. An open polygon counts as closed.
    double GetSignedArea() const;

    /// Drops points so that each one dropped lies within `tolerance` of the line that takes its place. The rest keep
    /// their order. An open polygon keeps its ends. A closed one keeps its leftmost point, of several the topmost, and
    /// loses a last point that repeats the first. A tolerance of 0, or below, or NaN, drops only repeated points and
    /// those exactly on a line. Points that are no numbers stay. Cost: n log n.
    void Simplify(double tolerance);

    bool operator==(PolygonType const &) const = default;

private:
    std::vector<Point> points;
    bool isClosed = false;
};

extern template class RASTER_EXTERN_TEMPLATE PolygonType<float>;
extern template class RASTER_EXTERN_TEMPLATE PolygonType<double>;
}
