#include "geometry/Spline.h"

#include "kernel/HashAccumulator.h"
#include "kernel/InSerialiser.h"
#include "kernel/OutSerialiser.h"
#include "kernel/PropertyValue.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace Geometry {
namespace {
constexpr Kernel::IDTag pointsTag("Pnts");

// Within these every width, slope and height below is a finite number.
constexpr double farthest = 1e9, leastWidth = 1e-9;

// Not a number is not.
bool IsUsable(Spline::Point const & point) { return std::fabs(point.x) <= farthest && std::fabs(point.y) <= farthest; }

double GetSign(double value) { return value > 0 ? 1.0 : value < 0 ? -1.0 : 0.0; }

// Slopes after M. Steffen, "A simple method for monotonic interpolation in one dimension", 1990. `before` and `behind`
// are the rises of the two spans that meet, `left` and `right` their widths.
double GetInnerSlope(double before, double behind, double left, double right) {
    double const mean = (before * right + behind * left) / (left + right);
    double const least = std::min({std::fabs(before), std::fabs(behind), 0.5 * std::fabs(mean)});
    return (GetSign(before) + GetSign(behind)) * least;
}

double GetEndSlope(double nearest, double next, double nearestWidth, double nextWidth) {
    double const share = nearestWidth / (nearestWidth + nextWidth);
    double const slope = nearest * (1 + share) - next * share;
    if (slope * nearest <= 0)
        return 0;
    return std::fabs(slope) > 2 * std::fabs(nearest) ? 2 * nearest : slope;
}
}

Spline::Spline(std::vector<Point> const & curvePoints) {
    for (auto const & point : curvePoints)
        if (IsUsable(point) && (points.empty() || point.x - points.back().x >= leastWidth) &&
            points.size() < mostPoints)
            points.push_back(point);
    FindSlopes();
}

void Spline::FindSlopes() {
    std::size_t const count = points.size();
    slopes.assign(count, 0);
    if (count < 2)
        return;
    auto const width = [&](std::size_t i) { return points[i + 1].x - points[i].x; };
    auto const rise = [&](std::size_t i) { return (points[i + 1].y - points[i].y) / width(i); };
    slopes.front() = slopes.back() = rise(0);
    if (count == 2)
        return;
    for (std::size_t i = 1; i + 1 < count; ++i)
        slopes[i] = GetInnerSlope(rise(i - 1), rise(i), width(i - 1), width(i));
    slopes.front() = GetEndSlope(rise(0), rise(1), width(0), width(1));
    slopes.back() = GetEndSlope(rise(count - 2), rise(count - 3), width(count - 2), width(count - 3));
}

Kernel::Counted<Spline const> Spline::GetDefaultProfile(int profile) {
    static std::array<Kernel::Counted<Spline const>, 6> const profiles = [] {
        auto const make = [](std::vector<Point> const & curvePoints) {
            return Kernel::Counted<Spline const>(new Spline(curvePoints));
        };
        return std::array{make({{0, 0}, {1, 1}}),
                          make({{0, 1}, {1, 0}}),
                          make({{0, 1}, {1, 1}}),
                          make({{0, 0}, {0.25, 0.1}, {0.75, 0.9}, {1, 1}}),
                          make({{0, 0}, {0.5, 0.25}, {1, 1}}),
                          make({{0, 0}, {0.5, 0.75}, {1, 1}})};
    }();
    bool const isKnown = profile >= 0 && static_cast<std::size_t>(profile) < profiles.size();
    return profiles[isKnown ? static_cast<std::size_t>(profile) : 0];
}

Spline::Interpolator::Interpolator(Spline const & curve) : spline(&curve) {
    if (curve.GetCount() < 2)
        return;
    width = curve.GetX(1) - curve.GetX(0);
    reciprocal = 1 / width;
}

double Spline::Interpolate(double x, Interpolator * interpolator) {
    auto const & points = interpolator->spline->points;
    if (points.empty())
        return x;
    if (!(x > points.front().x)) // not a number is not
        return points.front().y;
    if (x >= points.back().x)
        return points.back().y;
    if (!(x >= points[interpolator->span - 1].x && x < points[interpolator->span].x)) {
        auto const right = std::upper_bound(points.begin(), points.end(), x,
                                            [](double value, Point const & point) { return value < point.x; });
        interpolator->span = static_cast<std::size_t>(right - points.begin());
        interpolator->width = right->x - std::prev(right)->x;
        interpolator->reciprocal = 1 / interpolator->width;
    }
    std::size_t const end = interpolator->span, begin = end - 1;
    auto const & slopes = interpolator->spline->slopes;
    // The cubic with the heights and slopes of both ends; t runs from 0 to 1.
    double const t = (x - points[begin].x) * interpolator->reciprocal, u = 1 - t;
    double const leftSlope = slopes[begin] * interpolator->width, rightSlope = slopes[end] * interpolator->width;
    double const height = points[begin].y * (u * u * (1 + 2 * t)) + points[end].y * (t * t * (1 + 2 * u)) +
                          leftSlope * (t * u * u) - rightSlope * (t * t * u);
    return std::clamp(height, std::min(points[begin].y, points[end].y), std::max(points[begin].y, points[end].y));
}

double Spline::Interpolate(double x) const {
    Interpolator interpolator(*this);
    return Interpolate(x, &interpolator);
}

Kernel::ClassProperties const & Spline::GetClassProperties() {
    static Kernel::ClassProperties const properties("Spln", /*version=*/1,
                                                    [] { return Kernel::Counted<Kernel::Serialisable>(new Spline); });
    return properties;
}

void Spline::Save(Kernel::OutSerialiser & serialiser) const {
    std::vector<std::uint8_t> bytes;
    for (auto const & point : points) {
        auto const pointBytes = Kernel::ToPropertyBytes(point);
        bytes.insert(bytes.end(), pointBytes.begin(), pointBytes.end());
    }
    serialiser.SaveTypeArrayI(pointsTag, Kernel::PropType::PointDouble, bytes.data(), Kernel::propertyBytes<Point>,
                              points.size());
}

bool Spline::Load(Kernel::InSerialiser const & serialiser, Kernel::FileStore &, unsigned short) {
    constexpr auto pointBytes = Kernel::propertyBytes<Point>;
    std::vector<std::uint8_t> bytes;
    if (!serialiser.LoadTypeArrayI(pointsTag, Kernel::PropType::PointDouble, pointBytes, bytes) ||
        bytes.size() / pointBytes > mostPoints)
        return false;
    std::vector<Point> loaded;
    for (std::size_t at = 0; at < bytes.size(); at += pointBytes)
        loaded.push_back(Kernel::FromPropertyBytes<Point>(bytes.data() + at));
    Spline const curve(loaded);
    if (curve.points.size() != loaded.size())
        return false;
    points = curve.points;
    slopes = curve.slopes;
    return true;
}

void Spline::AccumulateHash(Kernel::HashAccumulator & accumulator) const {
    for (auto const & point : points) {
        accumulator.AddToHash(point.x);
        accumulator.AddToHash(point.y);
    }
}

bool Spline::CompareMembers(Kernel::Serialisable const & other) const {
    auto const * const spline = dynamic_cast<Spline const *>(&other);
    return spline && *spline == *this;
}
}
