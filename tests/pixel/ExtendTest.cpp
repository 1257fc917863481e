#include "pixel/Extend.h"
#include "pixel/SafeRect.h"
#include "pixel/Transform.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

namespace Raster {
namespace {
constexpr int lowest = std::numeric_limits<int>::min(), highest = std::numeric_limits<int>::max();
constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
}

TEST(Truncate, GoesTowardsZeroAndSaturates) {
    EXPECT_EQ(0, Truncate(0.999));
    EXPECT_EQ(0, Truncate(-0.999));
    EXPECT_EQ(-1, Truncate(-1.0));
    EXPECT_EQ(7, Truncate(7.5));
    EXPECT_EQ(highest, Truncate(2147483647.0));
    EXPECT_EQ(highest, Truncate(1e300));
    EXPECT_EQ(highest, Truncate(infinity));
    EXPECT_EQ(lowest, Truncate(-2147483648.0));
    EXPECT_EQ(lowest, Truncate(-1e300));
    EXPECT_EQ(lowest, Truncate(-infinity));
    EXPECT_EQ(lowest + 1, Truncate(-2147483647.5));
    EXPECT_EQ(0, Truncate(notANumber));
}

TEST(Extend, ResolvesIntegersByPolicy) {
    for (int size : {0, 1, 2, 31, 64})
        for (std::int64_t position = -70; position < 140; ++position) {
            bool const inside = position >= 0 && position < size;
            int pixel = -1;
            ASSERT_EQ(inside, Safe::Resolve(position, 0, size, pixel)) << position << " of " << size;
            ASSERT_EQ(inside, Zero::Resolve(position, 0, size, pixel)) << position << " of " << size;
            if (inside) {
                ASSERT_EQ(position, pixel);
            }
            ASSERT_EQ(size > 0, Repeat::Resolve(position, 0, size, pixel)) << position << " of " << size;
            if (size > 0) {
                ASSERT_EQ(position < 0 ? 0 : position >= size ? size - 1 : position, pixel);
            }
        }
}

TEST(Extend, OutsideBeginsBelowZeroBeforeTruncationExceptForSafe) {
    int pixel = -1;
    EXPECT_TRUE(Safe::Resolve(-0.5, 0, 10, pixel));
    EXPECT_EQ(0, pixel);
    EXPECT_FALSE(Zero::Resolve(-0.5, 0, 10, pixel));
    EXPECT_FALSE(Zero::Resolve(-1e-300, 0, 10, pixel));
    EXPECT_TRUE(Zero::Resolve(-0.0, 0, 10, pixel));
    EXPECT_EQ(0, pixel);
    EXPECT_TRUE(Zero::Resolve(9.999, 0, 10, pixel));
    EXPECT_EQ(9, pixel);
    EXPECT_FALSE(Zero::Resolve(10.0, 0, 10, pixel));
    EXPECT_FALSE(Safe::Resolve(10.0, 0, 10, pixel));
    EXPECT_FALSE(Safe::Resolve(-1.0, 0, 10, pixel));
    EXPECT_TRUE(Repeat::Resolve(-0.5, 0, 10, pixel));
    EXPECT_EQ(0, pixel);
    EXPECT_TRUE(Repeat::Resolve(10.0, 0, 10, pixel));
    EXPECT_EQ(9, pixel);
}

TEST(Extend, NumbersThatAreNoCoordinatesAreAnsweredByThePolicy) {
    int pixel = -1;
    for (double value : {infinity, -infinity, 1e300, -1e300, notANumber}) {
        EXPECT_FALSE(Zero::Resolve(value, 0, 10, pixel)) << value;
        EXPECT_TRUE(Repeat::Resolve(value, 0, 10, pixel)) << value;
        EXPECT_EQ(value > 0 ? 9 : 0, pixel) << value;
        EXPECT_FALSE(Repeat::Resolve(value, 0, 0, pixel)) << value;
    }
}

TEST(Transform, TakesTheCentreInTheOrderOfTheFormula) {
    EXPECT_EQ(1.0, ScaleTransform::MapX({2, 3}, CentreOf(0)));
    EXPECT_EQ(1.5, ScaleTransform::MapY({2, 3}, CentreOf(0)));
    EXPECT_EQ(3.75, TranslateTransform::MapX({0.25, -8}, CentreOf(3)));
    EXPECT_EQ(-4.5, TranslateTransform::MapY({0.25, -8}, CentreOf(3)));
    EXPECT_EQ(7.5, TranslateScaleTransform::MapX({0.25, 1, 2, 10}, CentreOf(3)));
    EXPECT_EQ(45.0, TranslateScaleTransform::MapY({0.25, 1, 2, 10}, CentreOf(3)));
    EXPECT_EQ(7.0, IdentityScaleTransform::MapX({2, 1}, CentreOf(3)));
}

TEST(SafeRect, HoldsExactlyThePositionsThatMapIntoTheModel) {
    Kernel::RectT<int> const bounds{0, 0, 37, 3};
    for (double scale : {1.0, 2.0, 0.5, 0.3, 1.0 / 3, 7.7, -1.0, -2.5, -0.2})
        for (double shift : {0.0, 0.5, -0.5, 0.49, 100.25, -77.75}) {
            auto const map = [=](double centre) { return (centre + shift) * scale; };
            auto const rect = FindSafeRect(bounds, map, [](double centre) { return centre; });
            int first = highest, end = lowest;
            for (int x = -1000; x < 1000; ++x)
                if (double const v = map(CentreOf(x)); v >= 0 && v < 37) {
                    first = std::min(first, x);
                    end = x + 1;
                }
            EXPECT_EQ(first, rect.left) << scale << ' ' << shift;
            EXPECT_EQ(end, rect.right) << scale << ' ' << shift;
            EXPECT_EQ(0, rect.top);
            EXPECT_EQ(3, rect.bottom);
        }
}

TEST(SafeRect, IsEmptyWhereNothingMapsIntoTheModel) {
    auto const same = [](double centre) { return centre; };
    auto const find = [&](auto map, int width) { return FindSafeRect({0, 0, width, 5}, map, same); };
    Kernel::RectT<int> const none;
    EXPECT_EQ(none, find([](double centre) { return centre + 1e15; }, 10));
    EXPECT_EQ(none, find([](double) { return notANumber; }, 10));
    EXPECT_EQ(none, find([](double centre) { return centre * infinity; }, 10));
    EXPECT_EQ(none, find(same, 0));
    EXPECT_EQ((Kernel::RectT<int>{lowest, 0, highest, 5}), find([](double) { return 0.0; }, 10));
}
}
