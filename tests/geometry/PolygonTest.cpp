#include "geometry/PolyPolygon.h"

#include "kernel/Counted.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <random>

namespace {
using Polygon = Geometry::PolygonType<double>;
using PolyPolygon = Geometry::PolyPolygonType<double>;
using Box = Geometry::BoundingBoxT<double>;
using Point = Kernel::PointT<double>;
using Points = std::vector<Point>;
using Rect = Kernel::RectT<double>;

constexpr double NoNumber = std::numeric_limits<double>::quiet_NaN();
#ifdef RASTER_SANITIZED
constexpr std::size_t Many = 20'000;
#else
constexpr std::size_t Many = 300'000; // splits one by one would take hours
#endif

Polygon MakePolygon(Points const & points, bool closed) {
    Polygon polygon;
    for (auto const & point : points)
        polygon.AddPoint(point);
    polygon.SetClosed(closed);
    return polygon;
}

Points GetSimplified(Points const & points, bool closed, double tolerance) {
    auto polygon = MakePolygon(points, closed);
    polygon.Simplify(tolerance);
    EXPECT_EQ(closed, polygon.IsClosed());
    return polygon.GetPoints();
}

double GetDistanceToLine(Point const & point, Point const & from, Point const & to) {
    double const x = to.x - from.x, y = to.y - from.y, square = x * x + y * y;
    double const along = square > 0 ? ((point.x - from.x) * x + (point.y - from.y) * y) / square : 0.0;
    double const nearest = std::clamp(along, 0.0, 1.0);
    return std::hypot(point.x - from.x - nearest * x, point.y - from.y - nearest * y);
}

// Each point of the original must be near the line that replaces its stretch, and the kept ones must be a subsequence.
// Random points are all different, so that a kept point is found by its value.
void ExpectSound(Points const & original, Points const & kept, bool closed, double tolerance) {
    ASSERT_FALSE(kept.empty());
    std::vector<std::size_t> indices;
    for (std::size_t i = 0; i < original.size(); ++i)
        if (indices.size() < kept.size() && original[i] == kept[indices.size()])
            indices.push_back(i);
    ASSERT_EQ(kept.size(), indices.size());
    if (!closed) {
        EXPECT_EQ(0u, indices.front());
        EXPECT_EQ(original.size() - 1, indices.back());
    }
    for (std::size_t k = 0; k + (closed ? 0 : 1) < indices.size(); ++k) {
        auto const first = indices[k], last = k + 1 < indices.size() ? indices[k + 1] : indices[0] + original.size();
        for (auto i = first + 1; i < last; ++i)
            EXPECT_LE(
                GetDistanceToLine(original[i % original.size()], original[first], original[last % original.size()]),
                tolerance * (1 + 1e-9) + 1e-12);
    }
}

// The textbook's form, for runs without ties.
void SimplifySlowly(Points const & points, std::size_t first, std::size_t last, double tolerance, Points & kept) {
    std::size_t farthest = first;
    double distance = tolerance;
    for (auto i = first + 1; i < last; ++i)
        if (auto const here = GetDistanceToLine(points[i], points[first], points[last]); here > distance) {
            farthest = i;
            distance = here;
        }
    if (farthest == first)
        return;
    SimplifySlowly(points, first, farthest, tolerance, kept);
    kept.push_back(points[farthest]);
    SimplifySlowly(points, farthest, last, tolerance, kept);
}

Points MakeRandomWalk(std::mt19937 & random, std::size_t count) {
    std::normal_distribution<double> step;
    Points points;
    for (Point point; points.size() < count; point += {step(random), step(random)})
        points.push_back(point);
    return points;
}

TEST(BoundingBox, IsEmptyUntilAPointIsAdded) {
    Box box;
    EXPECT_TRUE(box.IsEmpty());
    EXPECT_EQ(Rect(), box.GetRect());
    EXPECT_FALSE(box.Contains({0, 0}));
    box.Add(Point{3, 4});
    EXPECT_FALSE(box.IsEmpty());
    EXPECT_EQ((Rect{3, 4, 3, 4}), box.GetRect());
    box.Add(Point{-1, 10});
    EXPECT_EQ((Rect{-1, 4, 3, 10}), box.GetRect());
    EXPECT_EQ(4, box.GetWidth());
    EXPECT_EQ(6, box.GetHeight());
    EXPECT_TRUE(box.Contains({3, 10}));
}

TEST(BoundingBox, UnitesBoxesAndIgnoresEmptyOnesAndNoNumbers) {
    Box box(Rect{0, 0, 2, 2});
    box.Add(Box());
    box.Add(Box(Rect{5, 5, 5, 9}));
    box.Add(Point{NoNumber, NoNumber});
    EXPECT_EQ(Box(Rect{0, 0, 2, 2}), box);
    box.Add(Box(Rect{1, -1, 4, 1}));
    EXPECT_EQ((Rect{0, -1, 4, 2}), box.GetRect());
    Geometry::BoundingBoxT<int> ints;
    EXPECT_TRUE(ints.IsEmpty());
    ints.Add(Kernel::PointT<int>{std::numeric_limits<int>::max(), std::numeric_limits<int>::lowest()});
    EXPECT_FALSE(ints.IsEmpty());
}

TEST(Polygon, OfARectangleHasItsFourCorners) {
    Polygon const polygon(Rect{1, 2, 4, 7}, true);
    EXPECT_EQ((Points{{1, 2}, {4, 2}, {4, 7}, {1, 7}}), polygon.GetPoints());
    EXPECT_TRUE(polygon.IsClosed());
    EXPECT_EQ(15.0, polygon.GetSignedArea());
    EXPECT_EQ((Rect{1, 2, 4, 7}), polygon.GetBoundingBox().GetRect());
    EXPECT_FALSE(Polygon(Rect{1, 2, 4, 7}, false).IsClosed());
    EXPECT_FALSE(Polygon().IsClosed());
    EXPECT_TRUE(Polygon().GetBoundingBox().IsEmpty());
}

TEST(Polygon, ScalesAndTranslates) {
    Polygon polygon(Rect{1, 2, 4, 7}, true);
    auto const copy = polygon;
    polygon.Scale(2, -1);
    polygon.Translate(10, 20);
    EXPECT_EQ((Rect{12, 13, 18, 18}), polygon.GetBoundingBox().GetRect());
    EXPECT_EQ((Rect{1, 2, 4, 7}), copy.GetBoundingBox().GetRect());
}

TEST(Simplify, SmallRunsStay) {
    for (bool const closed : {false, true}) {
        EXPECT_EQ(Points(), GetSimplified({}, closed, 1));
        EXPECT_EQ((Points{{1, 2}}), GetSimplified({{1, 2}}, closed, 1));
        EXPECT_EQ((Points{{1, 2}, {9, 9}}), GetSimplified({{1, 2}, {9, 9}}, closed, 1));
    }
}

TEST(Simplify, AClosedPolygonLosesRepeatedEndsAndAStartOnALine) {
    Points const unitSteps{{1, 0}, {2, 0}, {2, 1}, {2, 2}, {1, 2}, {0, 2}, {0, 1}, {0, 0}, {1, 0}};
    EXPECT_EQ((Points{{2, 0}, {2, 2}, {0, 2}, {0, 0}}), GetSimplified(unitSteps, true, 1e-6));
    EXPECT_EQ((Points{{1, 0}, {2, 0}, {2, 2}, {0, 2}, {0, 0}, {1, 0}}), GetSimplified(unitSteps, false, 1e-6));
}

TEST(Simplify, RepeatedPointsCollapse) {
    EXPECT_EQ((Points{{5, 5}}), GetSimplified(Points(10, {5, 5}), true, 0));
    EXPECT_EQ((Points{{5, 5}, {5, 5}}), GetSimplified(Points(10, {5, 5}), false, 0));
}

TEST(Simplify, ATurnBackOnALineIsKept) {
    Points const there{{0, 0}, {4, 0}, {10, 0}, {6, 0}, {3, 0}};
    EXPECT_EQ((Points{{0, 0}, {10, 0}, {3, 0}}), GetSimplified(there, false, 1e-6));
}

TEST(Simplify, ToleranceIsTheLargestDistanceDropped) {
    Points const roof{{0, 0}, {5, 1}, {10, 0}};
    EXPECT_EQ(2u, GetSimplified(roof, false, 1.0).size());
    EXPECT_EQ(3u, GetSimplified(roof, false, 0.999).size());
    for (double const none : {0.0, -1.0, NoNumber})
        EXPECT_EQ(3u, GetSimplified(roof, false, none).size());
    EXPECT_EQ(2u, GetSimplified(roof, false, std::numeric_limits<double>::infinity()).size());
}

// The outline of a column chart, walked in unit steps: exactly its corners remain.
TEST(Simplify, OfUnitStepsKeepsExactlyTheCorners) {
    std::mt19937 random(1);
    for (int round = 0; round < 200; ++round) {
        Points steps, corners;
        Point here{0, 0};
        auto const go = [&](Point const & step, int count) {
            for (int i = 0; i < count; ++i)
                steps.push_back(here += step);
        };
        double height = 0;
        steps.push_back(here);
        for (int column = 0; column < 50; ++column) {
            double const next = 1.0 + random() % 4;
            go({0, next > height ? 1.0 : -1.0}, static_cast<int>(std::abs(next - height)));
            height = next;
            go({1, 0}, 1 + static_cast<int>(random() % 3));
        }
        go({0, -1}, static_cast<int>(height));
        go({-1, 0}, static_cast<int>(here.x));
        ASSERT_EQ(steps.front(), steps.back());
        steps.pop_back();
        for (std::size_t i = 0; i < steps.size(); ++i) {
            auto const before = steps[(i + steps.size() - 1) % steps.size()], after = steps[(i + 1) % steps.size()];
            if (steps[i] - before != after - steps[i])
                corners.push_back(steps[i]);
        }
        auto const shift = static_cast<std::ptrdiff_t>(random() % steps.size()); // the start may be anywhere
        std::rotate(steps.begin(), steps.begin() + shift, steps.end());
        auto simplified = GetSimplified(steps, true, 1e-6);
        auto const origin = std::find(simplified.begin(), simplified.end(), Point{0, 0});
        ASSERT_NE(simplified.end(), origin);
        std::rotate(simplified.begin(), origin, simplified.end());
        ASSERT_EQ(corners, simplified) << round;
    }
}

TEST(Simplify, OfRandomWalksIsSoundAndEqualsTheTextbook) {
    std::mt19937 random(2);
    for (int round = 0; round < 300; ++round) {
        auto const points = MakeRandomWalk(random, 3 + random() % 300);
        double const tolerance = std::pow(10.0, -2.0 + 0.01 * round);
        auto const open = GetSimplified(points, false, tolerance), closed = GetSimplified(points, true, tolerance);
        ExpectSound(points, open, false, tolerance);
        ExpectSound(points, closed, true, tolerance);
        Points expected{points.front()};
        SimplifySlowly(points, 0, points.size() - 1, tolerance, expected);
        expected.push_back(points.back());
        ASSERT_EQ(expected, open) << round;
    }
}

TEST(Simplify, OfACircleDropsMostOfIt) {
    Points circle;
    for (int i = 0; i < 10'000; ++i)
        circle.push_back({1000 * std::cos(i * 2e-4 * std::numbers::pi), 1000 * std::sin(i * 2e-4 * std::numbers::pi)});
    auto const simplified = GetSimplified(circle, true, 1.0);
    EXPECT_LT(simplified.size(), 200u);
    EXPECT_GT(simplified.size(), 50u);
    ExpectSound(circle, simplified, true, 1.0);
}

TEST(Simplify, LongStairsAreNotQuadratic) {
    Points stairs;
    for (std::size_t i = 0; i < Many; ++i)
        stairs.push_back({static_cast<double>(i / 2), static_cast<double>((i + 1) / 2)});
    EXPECT_EQ(stairs, GetSimplified(stairs, false, 1e-6));
    EXPECT_EQ(2u, GetSimplified(stairs, false, 1.0).size());
}

// The farthest point is always the one next to the start of its stretch.
TEST(Simplify, LopsidedSplitsAreNotQuadratic) {
    Points zigzag;
    for (std::size_t i = 0; i < Many; ++i)
        zigzag.push_back({static_cast<double>(i), (i % 2 ? 1 : -1) * std::exp(-0.3 * static_cast<double>(i) / Many)});
    EXPECT_EQ(zigzag.size(), GetSimplified(zigzag, false, 1e-6).size());
    EXPECT_GT(zigzag.size(), GetSimplified(zigzag, false, 0.9).size());
}

TEST(Simplify, HugeAndNonNumericCoordinatesAreHarmless) {
    constexpr double Huge = 1e300;
    EXPECT_EQ(3u, GetSimplified({{0, 0}, {Huge, Huge}, {2 * Huge, 0}}, false, 1.0).size());
    constexpr double Infinite = std::numeric_limits<double>::infinity();
    Points const wild{{0, 0}, {NoNumber, 1}, {2, 0}, {3, Infinite}, {4, 0}, {-Infinite, NoNumber}, {6, 0}};
    auto const isWild = [](Point const & point) { return !std::isfinite(point.x) || !std::isfinite(point.y); };
    for (bool const closed : {false, true}) {
        EXPECT_EQ(wild.size(), GetSimplified(wild, closed, 1.0).size());
        auto const kept = GetSimplified(wild, closed, 1e9);
        EXPECT_EQ(3, std::count_if(kept.begin(), kept.end(), isWild));
    }
    EXPECT_EQ(100u, GetSimplified(Points(100, {NoNumber, NoNumber}), true, 1.0).size());
}

TEST(PolyPolygon, CollectsScalesAndBoundsItsPolygons) {
    auto const shape = Kernel::MakeCounted<PolyPolygon>();
    EXPECT_TRUE(shape->IsEmpty());
    EXPECT_TRUE(shape->GetBoundingBox().IsEmpty());
    shape->AddPolygon(Polygon(Rect{0, 0, 4, 4}, true));
    shape->AddPolygon(Polygon(Rect{1, 1, 6, 3}, true));
    EXPECT_EQ(2u, shape->GetCount());
    shape->Scale(2, 4);
    shape->Translate(1, 0);
    EXPECT_EQ((Rect{1, 0, 13, 16}), shape->GetBoundingBox().GetRect());
    EXPECT_EQ((Point{3, 4}), shape->GetPolygon(1).GetPoint(0));
    EXPECT_TRUE(shape->GetPolygon(1).IsClosed());
}

TEST(PolyPolygon, SimplifiesEachPolygon) {
    PolyPolygon shape;
    shape.AddPolygon(MakePolygon({{0, 0}, {1, 0}, {2, 0}, {2, 2}}, true));
    shape.AddPolygon(MakePolygon({{0, 0}, {1, 1}, {2, 2}}, false));
    shape.Simplify(0);
    EXPECT_EQ(3u, shape.GetPolygon(0).GetCount());
    EXPECT_EQ(2u, shape.GetPolygon(1).GetCount());
}
}
