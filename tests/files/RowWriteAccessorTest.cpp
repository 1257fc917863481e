#include "files/RowWriteAccessor.h"

#include "files/TestFile.h"

#include <gtest/gtest.h>

#include <limits>

namespace Raster {
namespace {
using File = TestFileOf<A8Tuple>;
using Accessor = File::PixelAccessor<AllChannels>;
using PixelA8 = PixelOf<A8Tuple>;

PixelA8 Value(int value) { return {{static_cast<std::uint8_t>(value)}}; }

void Write(Accessor & accessor, int value) {
    auto pixel = Value(value);
    accessor.Write(pixel);
    accessor.Increment();
}

std::vector<int> GetValues(File const & file) {
    std::vector<int> values;
    for (auto const & pixel : file.picture.pixels)
        values.push_back(pixel[0]);
    return values;
}

TEST(RowWriteAccessor, EncodesARowWhenTheNextOneBegins) {
    File file(2, 3);
    {
        Accessor accessor(&file, nullptr, false);
        EXPECT_EQ(file.beginCount, 1);
        for (int y = 0; y < 3; ++y) {
            accessor.SetToXY(0, y);
            EXPECT_EQ(file.encodedRows, y);
            Write(accessor, y * 10);
            Write(accessor, y * 10 + 1);
        }
        EXPECT_EQ(file.encodedRows, 2);
        EXPECT_FALSE(file.isFinished);
    }
    EXPECT_EQ(file.encodedRows, 3);
    EXPECT_TRUE(file.isFinished);
    EXPECT_FALSE(file.HasFailed());
    EXPECT_EQ(GetValues(file), (std::vector<int>{0, 1, 10, 11, 20, 21}));
}

TEST(RowWriteAccessor, TheNumberOfARowIsNotChecked) {
    File file(1, 3);
    {
        Accessor accessor(&file);
        for (int const y : {0, 2, 1}) {
            accessor.SetToXY(0, y);
            Write(accessor, y + 1);
        }
        accessor.SetToXY(0, 0); // encodes nothing
        Write(accessor, 9);
    }
    EXPECT_EQ(GetValues(file), (std::vector<int>{1, 3, 9}));
}

TEST(RowWriteAccessor, PixelsOutsideAreIgnored) {
    File file(2, 2);
    {
        Accessor accessor(&file);
        for (auto const & [x, y] : {std::pair{-1, 0},
                                    {2, 0},
                                    {std::numeric_limits<int>::max(), 0},
                                    {0, -1},
                                    {std::numeric_limits<int>::min(), -5}}) {
            accessor.SetToXY(x, y);
            auto pixel = Value(7);
            accessor.Write(pixel);
            void const * const row = &pixel;
            accessor.WriteRow(1, &row);
        }
    }
    EXPECT_EQ(GetValues(file), (std::vector<int>{0, 0, 0, 0}));
}

TEST(RowWriteAccessor, RowsBelowTheLastAreDropped) {
    File file(1, 2);
    {
        Accessor accessor(&file);
        for (int y = 0; y < 100; ++y) {
            accessor.SetToXY(0, y);
            Write(accessor, y + 1);
        }
    }
    EXPECT_EQ(file.encodedRows, 2);
    EXPECT_EQ(GetValues(file), (std::vector<int>{1, 2}));
    EXPECT_TRUE(file.isFinished);
}

TEST(RowWriteAccessor, RunsAreCutAtTheRightAndMoveThePosition) {
    File file(5, 1);
    {
        Accessor accessor(&file);
        std::uint8_t const samples[] = {1, 2, 3, 4};
        void const * const row = samples;
        accessor.SetToXY(0, 0);
        accessor.WriteRow(3, &row);
        accessor.WriteRow(4, &row); // two of them fit
        accessor.WriteRow(4, &row);
    }
    EXPECT_EQ(GetValues(file), (std::vector<int>{1, 2, 3, 1, 2}));
}

TEST(RowWriteAccessor, WhatARowHasNoUseForDoesNothing) {
    File file(1, 1);
    {
        Accessor accessor(&file);
        accessor.SetToXY(0, 0);
        Write(accessor, 5);
        auto pixel = Value(1);
        accessor.Read(pixel);
        EXPECT_EQ(pixel, Value(1));
        accessor.Advance(-1);
        accessor.Flush();
        accessor.IncrementRow();
        accessor.Rewind(1);
        accessor.RewindRow(1);
        EXPECT_EQ(file.encodedRows, 0);
    }
    EXPECT_EQ(GetValues(file), (std::vector<int>{5}));
}

TEST(RowWriteAccessor, FinishingTwiceIsOnce) {
    File file(1, 2);
    {
        Accessor accessor(&file);
        accessor.SetToXY(0, 0);
        accessor.Finish();
        EXPECT_TRUE(file.isFinished);
        EXPECT_EQ(file.encodedRows, 1);
    }
    EXPECT_EQ(file.encodedRows, 1);
}

TEST(RowWriteAccessor, AbandoningLeavesTheFileUnfinished) {
    File file(1, 2);
    {
        Accessor accessor(&file);
        accessor.SetToXY(0, 0);
        accessor.Abandon();
    }
    EXPECT_TRUE(file.isAbandoned);
    EXPECT_FALSE(file.isFinished);
    EXPECT_EQ(file.encodedRows, 0);
    EXPECT_TRUE(file.HasFailed());
}

TEST(RowWriteAccessor, AnErrorInTheEndArrivesFromTheDestructor) {
    File file(1, 2);
    file.failAtRow = 0;
    EXPECT_THROW(
        {
            Accessor accessor(&file);
            accessor.SetToXY(0, 0);
        },
        std::runtime_error);
    EXPECT_TRUE(file.isAbandoned);
    EXPECT_TRUE(file.HasFailed());
}

TEST(RowWriteAccessor, WhileSomethingElseIsThrownTheFileIsAbandoned) {
    File file(1, 2);
    EXPECT_THROW(
        {
            Accessor accessor(&file);
            accessor.SetToXY(0, 0);
            throw 5;
        },
        int);
    EXPECT_TRUE(file.isAbandoned);
    EXPECT_FALSE(file.isFinished);
    EXPECT_EQ(file.encodedRows, 0);
}

// A file that is written by a destructor, which runs because something was thrown.
struct WritesWhenItGoes {
    explicit WritesWhenItGoes(File & target) : file(target) {}
    ~WritesWhenItGoes() {
        Accessor accessor(&file);
        accessor.SetToXY(0, 0);
        Write(accessor, 3);
    }
    File & file;
};

TEST(RowWriteAccessor, WritesWellWhileTheStackUnwindsForOthers) {
    File file(1, 1);
    try {
        WritesWhenItGoes const writer(file);
        throw 5;
    } catch (int) {
    }
    EXPECT_TRUE(file.isFinished);
    EXPECT_FALSE(file.isAbandoned);
    EXPECT_EQ(GetValues(file), (std::vector<int>{3}));
}
}
}
