// What the entries of the engine tell of their progress.
#include "kernel/Dispatch.h"
#include "pixel/transfer/BitmapTransfer.h"
#include "pixel/transfer/Draw.h"
#include "pixel/transfer/TransferManaged.h"
#include "transfer/TransferPixels.h"

#include <algorithm>
#include <functional>
#include <mutex>
#include <set>
#include <thread>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;
float const opaque = 1.0f;

struct Report {
    unsigned count;
    double fraction;
    std::thread::id thread;
};

class Log {
public:
    explicit Log(bool hasContext = true) {
        params.progress = hasContext ? &WriteToContext : &WriteToLast;
        params.progressContext = hasContext ? this : nullptr;
        last = this;
    }
    void Add(unsigned count, double fraction) {
        std::lock_guard const lock(mutex);
        reports.push_back({count, fraction, std::this_thread::get_id()});
    }

    TransferParams params;
    std::vector<Report> reports;

private:
    static void WriteToContext(unsigned count, void * context, double fraction) {
        static_cast<Log *>(context)->Add(count, fraction);
    }
    static void WriteToLast(unsigned count, void * context, double fraction) {
        EXPECT_EQ(nullptr, context);
        last->Add(count, fraction);
    }
    static inline Log * last = nullptr;
    std::mutex mutex;
};

// Every entry that takes `TransferParams`, on pictures of 8-bit colour.
struct Entry {
    char const * name;
    std::function<void(DynamicBitmap & dest, DynamicBitmap const & source, TransferParams const *)> run;
};

class TransferProgressTest : public StorageTest {
protected:
    ~TransferProgressTest() override { Kernel::Dispatch::SetThreadCount(0); }

    static std::vector<Entry> MakeEntries() {
        static double const half[6]{1, 0, 0.5, 0, 1, 0.5}, far[6]{1, 0, 5000.5, 0, 1, 0};
        static double const moved[6]{1, 0, 30, 0, 1, -30};
        auto const transfer = [](double const * matrix) {
            return [matrix](DynamicBitmap & dest, DynamicBitmap const & source, TransferParams const * params) {
                Transfer(dest, source, params, &opaque, matrix);
            };
        };
        return {{"direct", transfer(nullptr)},
                {"moved", transfer(moved)},
                {"sampled", transfer(half)},
                {"sampled outside", transfer(far)},
                {"managed", [](DynamicBitmap & dest, DynamicBitmap const & source,
                               TransferParams const * params) { TransferManaged(dest, source, nullptr, params); }},
                {"drawn", [](DynamicBitmap & dest, DynamicBitmap const & source, TransferParams const * params) {
                     Draw(*dest.GetTyped<RGBA8Tuple>(), *source.GetTyped<RGBA8Tuple>(), params, &opaque, 0, 0);
                 }}};
    }

    static std::vector<Report> Run(Entry const & entry, int size, Rect const * clip, bool hasContext = true) {
        DynamicBitmap dest(size, size, RGBA8, MipmapModeNone, HardwareCachePolicy());
        DynamicBitmap const source(MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(size, size, 1)));
        Log log(hasContext);
        log.params.clip = clip;
        entry.run(dest, source, &log.params);
        return log.reports;
    }
};
}

TEST_F(TransferProgressTest, OneTileReportsRowsThatSixteenDividesOnTheCallingThread) {
    for (auto const & entry : MakeEntries())
        for (bool const hasContext : {true, false})
            for (Rect const & clip : {Rect{0, 0, 100, 100}, {3, 5, 90, 81}, {0, 16, 100, 17}, {0, 17, 100, 32}}) {
                auto const reports = Run(entry, 100, &clip, hasContext);
                std::vector<double> expected, actual;
                for (int y = clip.top; y < clip.bottom; ++y)
                    if (y % 16 == 0)
                        expected.push_back(double(y - clip.top) / double(clip.bottom - clip.top));
                for (auto const & report : reports) {
                    EXPECT_EQ(0u, report.count) << entry.name;
                    EXPECT_EQ(std::this_thread::get_id(), report.thread) << entry.name;
                    actual.push_back(report.fraction);
                }
                EXPECT_EQ(expected, actual) << entry.name << " from " << clip.top << " to " << clip.bottom;
            }
}

TEST_F(TransferProgressTest, TilesReportOnceEachUpToOne) {
    for (auto const & entry : MakeEntries())
        for (unsigned const threads : {1u, 2u, 8u}) {
            Kernel::Dispatch::SetThreadCount(threads);
            Rect const clip{250, 10, 700, 600}; // three columns and three rows of tiles
            auto reports = Run(entry, 700, &clip);
            ASSERT_EQ(9u, reports.size()) << entry.name;
            EXPECT_TRUE(threads > 1 || std::ranges::is_sorted(reports, {}, &Report::count)) << entry.name;
            std::ranges::sort(reports, {}, &Report::count);
            for (std::size_t i = 0; i < reports.size(); ++i) {
                EXPECT_EQ(i + 1, reports[i].count) << entry.name;
                EXPECT_EQ(double(float(i + 1) / 9.0f), reports[i].fraction) << entry.name;
            }
            EXPECT_EQ(1.0, reports.back().fraction);
        }
}

TEST_F(TransferProgressTest, TilesNeedAContext) {
    for (auto const & entry : MakeEntries())
        EXPECT_TRUE(Run(entry, 300, nullptr, /*hasContext=*/false).empty()) << entry.name;
}

TEST_F(TransferProgressTest, NothingToDoReportsNothing) {
    Rect const outside{400, 0, 500, 300};
    for (auto const & entry : MakeEntries())
        EXPECT_TRUE(Run(entry, 300, &outside).empty()) << entry.name;
}

TEST_F(TransferProgressTest, FeedingReportsAsWorkInLineHoweverLarge) {
    auto const source = MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(300, 600, 1));
    RGBA8Tuple::Apply<Buffer> sink(300, 600, nullptr);
    Log log;
    Feed(sink, *source, &log.params);
    ASSERT_EQ(38u, log.reports.size());
    for (std::size_t i = 0; i < log.reports.size(); ++i) {
        EXPECT_EQ(0u, log.reports[i].count);
        EXPECT_EQ(double(i * 16) / 600.0, log.reports[i].fraction);
        EXPECT_EQ(std::this_thread::get_id(), log.reports[i].thread);
    }
}

TEST_F(TransferProgressTest, AnAbortInLineStopsTheReports) {
    for (auto const & entry : MakeEntries()) {
        struct Stop {
            bool abort = false;
            int reports = 0;
        } stop;
        DynamicBitmap dest(200, 200, RGBA8, MipmapModeNone, HardwareCachePolicy());
        DynamicBitmap const source(MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(200, 200, 1)));
        TransferParams params;
        params.abort = &stop.abort;
        params.progressContext = &stop;
        params.progress = [](unsigned, void * context, double) {
            auto & self = *static_cast<Stop *>(context);
            if (++self.reports == 2)
                Kernel::RequestAbort(&self.abort);
        };
        entry.run(dest, source, &params);
        EXPECT_EQ(2, stop.reports) << entry.name;
    }
}
}
