#include "pixel/ForEachTile.h"

#include "kernel/Dispatch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;

// A destination that only has a shape.
struct Shape {
    int width, height;
    int GetWidth() const { return width; }
    int GetHeight() const { return height; }
};

struct Report {
    std::mutex mutex;
    std::vector<unsigned> counts;
    std::vector<double> fractions;
    std::thread::id thread;
    static void Add(unsigned count, void * context, double fraction) {
        auto & report = *static_cast<Report *>(context);
        std::lock_guard const lock(report.mutex);
        report.counts.push_back(count);
        report.fractions.push_back(fraction);
        report.thread = std::this_thread::get_id();
    }
};
}

TEST(ForEachTile, CoversEveryPixelOfTheClippedRectOnce) {
    std::mt19937 random(1);
    for (int round = 0; round < 60; ++round) {
        TileSplit const split{{0, 0, 1 + int(random() % 700), 1 + int(random() % 700)}, 1 << (5 + random() % 4), 256};
        Rect const rect{int(random() % 800) - 50, int(random() % 800) - 50, int(random() % 900), int(random() % 900)};
        Rect const work = rect.Intersect(split.bounds);
        std::vector<int> hits(std::size_t(split.bounds.right * split.bounds.bottom));
        std::mutex mutex;
        int tasks = 0;
        auto const body = [&](TileTask const & task) {
            std::lock_guard const lock(mutex);
            ++tasks;
            EXPECT_FALSE(task.rect.IsEmpty());
            EXPECT_EQ(task.rect.left / split.tileWidth, (task.rect.right - 1) / split.tileWidth);
            EXPECT_EQ(task.rect.top / split.tileHeight, (task.rect.bottom - 1) / split.tileHeight);
            for (int y = task.rect.top; y < task.rect.bottom; ++y)
                for (int x = task.rect.left; x < task.rect.right; ++x)
                    ++hits[std::size_t(y * split.bounds.right + x)];
        };
        auto callable = body;
        bool const ran = ForEachTile(
            split, rect, nullptr,
            [](TileTask const & task, void * shared) { (*static_cast<decltype(callable) *>(shared))(task); },
            &callable);
        EXPECT_EQ(!work.IsEmpty(), ran);
        for (int y = 0; y < split.bounds.bottom; ++y)
            for (int x = 0; x < split.bounds.right; ++x)
                ASSERT_EQ(work.Contains(x, y) ? 1 : 0, hits[std::size_t(y * split.bounds.right + x)]) << x << ", " << y;
        EXPECT_EQ(ran, tasks > 0);
    }
}

TEST(ForEachTile, OneTileRunsOnTheCallingThread) {
    std::thread::id thread;
    bool isInline = false;
    ForEachTile(Shape{600, 600}, {256, 0, 512, 256}, nullptr, [&](TileTask const & task) {
        thread = std::this_thread::get_id();
        isInline = task.isInline;
    });
    EXPECT_EQ(std::this_thread::get_id(), thread);
    EXPECT_TRUE(isInline);
}

TEST(ForEachTile, InLineProgressComesEverySixteenRowsWithoutACount) {
    Report report;
    TransferParams params;
    params.progress = Report::Add;
    params.progressContext = &report;
    ForEachTile(Shape{100, 100}, {0, 0, 100, 40}, &params, [&](TileTask const & task) {
        for (int y = task.rect.top; y < task.rect.bottom; ++y)
            task.ReportRow(y);
    });
    EXPECT_EQ((std::vector<unsigned>{0, 0, 0}), report.counts);
    EXPECT_EQ((std::vector<double>{0.0, 16.0 / 40, 32.0 / 40}), report.fractions);
}

TEST(ForEachTile, TiledProgressComesOnceATileAndNeedsAContext) {
    for (bool const withContext : {true, false}) {
        Report report;
        TransferParams params;
        params.progress = Report::Add;
        params.progressContext = withContext ? &report : nullptr;
        ForEachTile(Shape{1000, 1000}, {0, 0, 1000, 1000}, &params, [&](TileTask const & task) { task.ReportRow(0); });
        std::sort(report.counts.begin(), report.counts.end());
        std::sort(report.fractions.begin(), report.fractions.end());
        ASSERT_EQ(withContext ? 16u : 0u, report.counts.size());
        for (unsigned i = 0; i < report.counts.size(); ++i) {
            EXPECT_EQ(i + 1, report.counts[i]);
            EXPECT_EQ(double(float(i + 1) / 16.0f), report.fractions[i]);
        }
    }
}

TEST(ForEachTile, AbortSkipsWhatHasNotBegun) {
    bool abort = true;
    TransferParams params;
    params.abort = &abort;
    int tasks = 0;
    EXPECT_FALSE(ForEachTile(Shape{1000, 1000}, {0, 0, 1000, 1000}, &params, [&](TileTask const &) { ++tasks; }));
    EXPECT_EQ(0, tasks);

    unsigned const threads = Kernel::Dispatch::GetThreadCount();
    Kernel::Dispatch::SetThreadCount(1);
    abort = false;
    EXPECT_FALSE(ForEachTile(Shape{1000, 1000}, {0, 0, 1000, 1000}, &params, [&](TileTask const & task) {
        if (++tasks == 3)
            Kernel::RequestAbort(task.params.abort);
    }));
    Kernel::Dispatch::SetThreadCount(threads);
    EXPECT_EQ(3, tasks);
}

TEST(ForEachTile, WhatABodyThrowsArrives) {
    EXPECT_THROW(ForEachTile(Shape{1000, 1000}, {0, 0, 1000, 1000}, nullptr,
                             [](TileTask const &) { throw std::runtime_error("no"); }),
                 std::runtime_error);
}

TEST(ForEachTile, EndsOfVeryLongSidesDoNotWrap) {
    int const longest = 2147483647;
    TileSplit const split{{0, 0, longest, 1}, 256, 256};
    std::vector<Rect> rects;
    ForEachTile(
        split, {longest - 10, 0, longest, 1}, nullptr,
        [](TileTask const & task, void * shared) { static_cast<std::vector<Rect> *>(shared)->push_back(task.rect); },
        &rects);
    ASSERT_EQ(1u, rects.size());
    EXPECT_EQ((Rect{longest - 10, 0, longest, 1}), rects.front());
}
}
