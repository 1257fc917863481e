// The algorithm of Douglas and Peucker, on an explicit stack: a stretch between two kept points is dropped if all of it
// is near enough to the line between them, else it is split at the point farthest off.
//
// Splits at the farthest point can be as lopsided as one point a split, which is quadratic. Two things prevent that:
// - Of points equally far off, the middlemost is taken. Outlines of pixels are stairs with thousands of them.
// - Below a depth that balanced splits never reach, a stretch is split in the middle, whatever lies there. The kept
//   point may be superfluous, but the result is as near as it should be.
// Points exactly on the line of their neighbours go first, so that no split in the middle can keep one.

#include "geometry/SimplifyPoints.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

namespace Geometry {
namespace {
using Point = Kernel::PointT<double>;

// Balanced splits of 2^n points are n deep. Splits where the smaller part is a quarter are at most 2.5 n deep.
constexpr std::size_t DepthPerBit = 4;

double GetDot(Point const & one, Point const & other) { return one.x * other.x + one.y * other.y; }
double GetCross(Point const & one, Point const & other) { return one.x * other.y - one.y * other.x; }

// The stretch of line between two points. Distances are to its nearest point, its ends included, for a run that turns
// back is also left beyond them. With the direction normalised first, no coordinate below 1e307 overflows.
class Line {
public:
    Line(Point const & from, Point const & to)
        : first(from), last(to), length(std::hypot(to.x - from.x, to.y - from.y)), direction{(to.x - from.x) / length,
                                                                                             (to.y - from.y) / length} {
    }

    // A point that is no number is infinitely far.
    double GetDistance(Point const & point) const {
        auto const offset = point - first;
        double const along = GetDot(offset, direction);
        double distance = std::abs(GetCross(direction, offset));
        if (!(along > 0.0)) // also if the line has no length, and so no direction
            distance = std::hypot(offset.x, offset.y);
        else if (along >= length)
            distance = std::hypot(point.x - last.x, point.y - last.y);
        return std::isnan(distance) ? std::numeric_limits<double>::infinity() : distance;
    }

private:
    Point first, last;
    double length;
    Point direction;
};

// Whether going by `middle` is exactly the straight way from `first` to `last`.
bool IsOnTheWay(Point const & first, Point const & middle, Point const & last) {
    auto const there = middle - first, on = last - middle;
    return GetCross(there, on) == 0.0 && GetDot(there, on) >= 0.0;
}

class Simplifier {
public:
    // `order` names the points along the run; the first and the last of them are kept.
    Simplifier(PointRun const & run, PointIndices const & order, double largestDistance)
        : points(run), tolerance(largestDistance > 0.0 ? largestDistance : 0.0) {
        for (std::size_t i = 0; i < order.size(); ++i)
            if (i == 0 || i + 1 == order.size() ||
                !IsOnTheWay(points[way.back()], points[order[i]], points[order[i + 1]]))
                way.push_back(order[i]);
        isKept.assign(way.size(), false);
    }

    // The names kept, in the order of the way.
    PointIndices Run() {
        isKept.front() = isKept.back() = true;
        stack.push_back({0, way.size() - 1, 0});
        while (!stack.empty()) {
            auto const stretch = stack.back();
            stack.pop_back();
            Split(stretch);
        }
        PointIndices result;
        for (std::size_t i = 0; i < way.size(); ++i)
            if (isKept[i])
                result.push_back(way[i]);
        return result;
    }

private:
    struct Stretch {
        std::size_t first, last;
        std::size_t depth;
    };

    void Split(Stretch const & stretch) {
        if (stretch.last - stretch.first < 2)
            return;
        auto [distance, middle] = FindFarthest(stretch);
        if (distance <= tolerance)
            return;
        if (stretch.depth > DepthPerBit * static_cast<std::size_t>(std::bit_width(way.size())))
            middle = stretch.first + (stretch.last - stretch.first) / 2;
        isKept[middle] = true;
        stack.push_back({middle, stretch.last, stretch.depth + 1});
        stack.push_back({stretch.first, middle, stretch.depth + 1});
    }

    struct Farthest {
        double distance;
        std::size_t index;
    };
    Farthest FindFarthest(Stretch const & stretch) const {
        Line const line(points[way[stretch.first]], points[way[stretch.last]]);
        double const centre = 0.5 * (static_cast<double>(stretch.first) + static_cast<double>(stretch.last));
        auto const getOffCentre = [=](std::size_t index) { return std::abs(static_cast<double>(index) - centre); };
        Farthest result{-1.0, stretch.first};
        for (auto i = stretch.first + 1; i < stretch.last; ++i) {
            double const distance = line.GetDistance(points[way[i]]);
            // Distances that differ by rounding only count as equal.
            bool const isFarther = distance > result.distance * (1.0 + 1e-9);
            bool const isAsFar = !isFarther && distance >= result.distance * (1.0 - 1e-9);
            if (isFarther || (isAsFar && getOffCentre(i) < getOffCentre(result.index)))
                result = {std::max(distance, result.distance), i};
        }
        return result;
    }

    PointRun const & points;
    double const tolerance;
    PointIndices way;
    std::vector<bool> isKept;
    std::vector<Stretch> stack;
};
}

PointIndices SimplifyOpen(PointRun const & points, double tolerance) {
    PointIndices order(points.size());
    for (std::size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    return order.size() < 3 ? order : Simplifier(points, order, tolerance).Run();
}

PointIndices SimplifyClosed(PointRun const & points, double tolerance) {
    if (points.size() < 2)
        return SimplifyOpen(points, tolerance);
    // A corner of the hull is a corner of the ring, so the ring may begin and end there.
    auto const isBefore = [](Point const & one, Point const & other) {
        return one.x < other.x || (one.x == other.x && one.y < other.y);
    };
    auto const start = std::min_element(points.begin(), points.end(), isBefore) - points.begin();
    PointIndices order(points.size() + 1);
    for (std::size_t i = 0; i < order.size(); ++i)
        order[i] = (static_cast<std::size_t>(start) + i) % points.size();
    auto kept = Simplifier(points, order, tolerance).Run();
    kept.pop_back(); // the start again
    std::sort(kept.begin(), kept.end());
    return kept;
}
}
