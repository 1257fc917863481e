#include "kernel/Matrix.h"
#include "kernel/Point.h"
#include "kernel/Rect.h"
#include "kernel/Size.h"
#include "kernel/ToolPoint.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {
using Kernel::Matrix;
using Kernel::ToolPoint;
using Rect = Kernel::RectT<int>;

TEST(Point, AddsSubtractsAndScalesByCoordinate) {
    Kernel::PointT<int> point{1, 2};
    point += {10, 20};
    EXPECT_EQ((Kernel::PointT<int>{11, 22}), point);
    point -= {1, 1};
    EXPECT_EQ((Kernel::PointT<int>{-10, -21}), -point);
    EXPECT_EQ((Kernel::PointT<int>{30, 63}), point * 3);
}

TEST(Size, IsEmptyWithoutArea) {
    EXPECT_TRUE(Kernel::SizeT<int>().IsEmpty());
    EXPECT_TRUE((Kernel::SizeT<int>{-1, 5}.IsEmpty()));
    EXPECT_TRUE((Kernel::SizeT<double>{5, 0}.IsEmpty()));
    EXPECT_FALSE((Kernel::SizeT<int>{1, 1}.IsEmpty()));
}

// Every pair of small rectangles, inverted ones too, against the cells that they contain.
TEST(Rect, IntersectAndUniteEqualTheirMeaningOnCells) {
    constexpr int Cells = 4;
    std::vector<Rect> rects;
    for (int left = 0; left < Cells; ++left)
        for (int right = 0; right < Cells; ++right)
            for (int top = 0; top < Cells; top += 2)
                rects.push_back({left, top, right, Cells - 1 - top});
    for (auto const & one : rects)
        for (auto const & other : rects) {
            auto const both = one.Intersect(other), around = one.Unite(other);
            for (int y = 0; y < Cells; ++y)
                for (int x = 0; x < Cells; ++x) {
                    EXPECT_EQ(one.Contains(x, y) && other.Contains(x, y), both.Contains(x, y));
                    EXPECT_TRUE(around.Contains(x, y) || !(one.Contains(x, y) || other.Contains(x, y)));
                }
            EXPECT_TRUE(!both.IsEmpty() || both == Rect());
            EXPECT_TRUE(one.IsEmpty() || around.Contains(one));
        }
}

TEST(ToolPoint, HoldsItsInputsAtBytes28To55) {
    ToolPoint point{.x = 1.5, .y = -2.5};
    for (std::size_t i = 0; i < ToolPoint::InputCount; ++i)
        point.inputs[i] = 0.125f * static_cast<float>(i + 1);
    float read[ToolPoint::InputCount];
    std::memcpy(read, reinterpret_cast<char const *>(&point) + 28, sizeof read);
    for (std::size_t i = 0; i < ToolPoint::InputCount; ++i)
        EXPECT_EQ(0.125f * static_cast<float>(i + 1), read[i]);
    Kernel::PointT<double> const position = point;
    EXPECT_EQ((Kernel::PointT<double>{1.5, -2.5}), position);
}

TEST(ToolPoint, NamesItsInputs) {
    ToolPoint point;
    point.SetInput(Kernel::ToolInput::Custom, 0.5f);
    EXPECT_EQ(0.5f, point.inputs[6]);
    point.inputs[0] = 0.25f;
    EXPECT_EQ(0.25f, point.GetInput(Kernel::ToolInput::Pressure));
}

TEST(Matrix, StartsAtZeroAndGivesItsRowsAsArrays) {
    Matrix matrix(2, 3);
    for (int row = 0; row < 2; ++row)
        for (int column = 0; column < 3; ++column) {
            EXPECT_EQ(0.0, matrix[row][column]);
            matrix[row][column] = 10 * row + column;
        }
    EXPECT_EQ(12.0, matrix[1][2]);
    EXPECT_EQ(&matrix[0][0] + 3, matrix[1]);
}

TEST(Matrix, CopiesAreIndependent) {
    Matrix first(1, 1);
    Matrix copy = first;
    copy[0][0] = 1.0;
    EXPECT_EQ(0.0, first[0][0]);
    first = copy;
    EXPECT_EQ(1.0, first[0][0]);
}

TEST(Matrix, NegativeSizesAreEmpty) {
    Matrix const matrix(-1, 5);
    EXPECT_EQ(0, matrix.GetRows());
    EXPECT_EQ(5, matrix.GetColumns());
}
}
