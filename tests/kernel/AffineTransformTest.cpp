#include "kernel/AffineTransform.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>
#include <random>

namespace {
using Kernel::AffineTransform;
using Params = AffineTransform::Params;
using Point = Kernel::PointT<double>;

void ExpectNear(Point const & expected, Point const & actual) {
    EXPECT_NEAR(expected.x, actual.x, 1e-9);
    EXPECT_NEAR(expected.y, actual.y, 1e-9);
}

TEST(AffineTransform, TheDefaultIsTheIdentity) {
    EXPECT_EQ((std::array<double, 6>{1, 0, 0, 0, 1, 0}), Params().ToArray());
    EXPECT_TRUE(Params().IsIdentity());
    EXPECT_EQ((Point{3, 4}), Params().Apply({3, 4}));
}

TEST(AffineTransform, TheSixNumbersMapAPointInTheirOrder) {
    double const six[] = {2, 3, 5, 7, 11, 13};
    auto const params = Params::FromArray(six);
    EXPECT_EQ((Point{2 * 10 + 3 * 100 + 5, 7 * 10 + 11 * 100 + 13}), params.Apply({10, 100}));
    EXPECT_EQ(2 * 11 - 3 * 7, params.GetDeterminant());
}

TEST(AffineTransform, IdentityIsTestedOnEachNumberWithATolerance) {
    for (int i = 0; i < 6; ++i) {
        auto values = Params().ToArray();
        values[static_cast<std::size_t>(i)] += 1e-3;
        auto const params = Params::FromArray(values.data());
        EXPECT_FALSE(params.IsIdentity(1e-6)) << i;
        EXPECT_TRUE(params.IsIdentity(1e-2)) << i;
    }
    EXPECT_FALSE((Params{1, 0, std::numeric_limits<double>::quiet_NaN(), 0, 1, 0}.IsIdentity(1.0)));
}

TEST(AffineTransform, ARotationTurnsTheXAxisToTheYAxis) {
    ExpectNear({0, 1}, AffineTransform::Rotate(std::numbers::pi / 2).Apply({1, 0}));
}

TEST(AffineTransform, AProductAppliesItsFirstFactorFirst) {
    auto const product = AffineTransform::Multiply(AffineTransform::Translate(1, 2), AffineTransform::Scale(10, 100));
    EXPECT_EQ((Point{10, 200}), product.Apply({0, 0}));
}

TEST(AffineTransform, AnInverseUndoesRandomMaps) {
    std::mt19937 random(1);
    std::uniform_real_distribution<double> number(-10, 10);
    for (int i = 0; i < 1000; ++i) {
        Params const params{number(random), number(random), number(random),
                            number(random), number(random), number(random)};
        if (std::abs(params.GetDeterminant()) < 1e-2)
            continue;
        auto const inverse = AffineTransform::Invert(params);
        Point const point{number(random), number(random)};
        ExpectNear(point, inverse.Apply(params.Apply(point)));
        EXPECT_TRUE(AffineTransform::Multiply(params, inverse).IsIdentity(1e-8));
    }
}

TEST(AffineTransform, AMapWithoutInverseGivesTheNegatedTranslation) {
    Params const expected{0, 0, -3, 0, 0, -4};
    EXPECT_EQ(expected, AffineTransform::Invert({1, 2, 3, 2, 4, 4}));
    EXPECT_EQ(expected, AffineTransform::Invert({1e-64, 0, 3, 0, 1e-64, 4}));
    EXPECT_EQ(expected, AffineTransform::Invert({std::numeric_limits<double>::quiet_NaN(), 0, 3, 0, 1, 4}));
    EXPECT_NE(0, AffineTransform::Invert({1e-63, 0, 3, 0, 1e-64, 4}).a);
}

TEST(AffineTransform, ARectIsMappedToTheBoxOfItsCorners) {
    Params const quarterTurn{0, -1, 0, 1, 0, 0};
    EXPECT_EQ((Kernel::RectT<double>{-4, 1, -2, 3}), AffineTransform::ApplyToRect(quarterTurn, {1, 2, 3, 4}));
}
}
