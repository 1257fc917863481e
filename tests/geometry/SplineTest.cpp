#include "geometry/Spline.h"

#include "kernel/FileStore.h"
#include "kernel/FileStoreOut.h"
#include "kernel/HashAccumulator.h"
#include "kernel/InSerialiserFile.h"
#include "kernel/MemoryInStream.h"
#include "kernel/MemoryOutStream.h"
#include "kernel/OutSerialiserFile.h"
#include "kernel/PropertyValue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <random>

namespace {
using Geometry::Spline;
using Points = std::vector<Spline::Point>;
constexpr double noNumber = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

class NoItems final : public Kernel::FileStoreOut {
public:
    Kernel::ItemID StoreItem(Kernel::DelayLoadHolder &, Kernel::FileStoreOutPathGenerator const &,
                             Kernel::FileStoreCompressionHint const *) override {
        return {};
    }
    Kernel::ItemID StoreSharedObject(Kernel::SharedSerialisable const &) override { return {}; }
};

Kernel::Counted<Kernel::InSerialiserFile const>
WriteAndParse(std::function<void(Kernel::OutSerialiser &)> const & save) {
    auto const out = Kernel::MakeCounted<Kernel::MemoryOutStream>();
    auto const items = Kernel::MakeCounted<NoItems>();
    Kernel::OutSerialiserFile serialiser(*out, *items, "Root", 1);
    save(serialiser);
    serialiser.Close();
    auto const bytes = out->TakeData();
    auto const in = Kernel::MakeCounted<Kernel::MemoryInStream>(bytes.data(), bytes.size());
    auto const store = Kernel::MakeCounted<Kernel::EmptyFileStore>();
    return Kernel::InSerialiserFile::ParseWithChecks(*in, *store, false);
}

bool LoadPoints(Spline & spline, Points const & points) {
    auto const in = WriteAndParse([&](Kernel::OutSerialiser & out) {
        std::vector<std::uint8_t> bytes;
        for (auto const & point : points) {
            auto const pointBytes = Kernel::ToPropertyBytes(point);
            bytes.insert(bytes.end(), pointBytes.begin(), pointBytes.end());
        }
        out.SaveTypeArrayI("Pnts", Kernel::PropType::PointDouble, bytes.data(), 16, points.size());
    });
    return spline.Load(*in, in->GetStore(), 1);
}

Points MakeRandomPoints(std::mt19937 & random, std::size_t count) {
    std::uniform_real_distribution<double> step(0.001, 1), height(-2, 2);
    Points points;
    for (double x = -1; points.size() < count; x += step(random))
        points.push_back({x, height(random)});
    return points;
}
}

TEST(Spline, GoesThroughItsPoints) {
    std::mt19937 random(1);
    for (std::size_t count = 1; count < 30; ++count) {
        auto const points = MakeRandomPoints(random, count);
        Spline const spline(points);
        ASSERT_EQ(spline.GetCount(), count);
        for (std::size_t i = 0; i < count; ++i) {
            EXPECT_EQ(spline.GetX(i), points[i].x);
            EXPECT_EQ(spline.GetY(i), points[i].y);
            EXPECT_DOUBLE_EQ(spline.Interpolate(points[i].x), points[i].y) << i << " of " << count;
        }
    }
}

TEST(Spline, StaysBetweenTheHeightsOfNeighboursAndNeverTurnsBackBetweenThem) {
    std::mt19937 random(2);
    for (int attempt = 0; attempt < 200; ++attempt) {
        auto const points = MakeRandomPoints(random, 2 + random() % 12);
        Spline const spline(points);
        for (std::size_t i = 0; i + 1 < points.size(); ++i) {
            double const sign = points[i + 1].y >= points[i].y ? 1 : -1;
            double before = points[i].y;
            for (int step = 1; step <= 64; ++step) {
                double const x = points[i].x + (points[i + 1].x - points[i].x) * step / 64;
                double const y = spline.Interpolate(x);
                EXPECT_GE((y - before) * sign, -1e-12) << i << ", " << step;
                before = y;
            }
        }
    }
}

TEST(Spline, HasNoCorners) {
    std::mt19937 random(3);
    for (int attempt = 0; attempt < 50; ++attempt) {
        auto const points = MakeRandomPoints(random, 8);
        Spline const spline(points);
        constexpr double little = 1e-7;
        for (std::size_t i = 1; i + 1 < points.size(); ++i) {
            double const x = points[i].x, y = points[i].y;
            double const before = (y - spline.Interpolate(x - little)) / little;
            double const behind = (spline.Interpolate(x + little) - y) / little;
            EXPECT_NEAR(before, behind, 1e-2 * (1 + std::fabs(before) + std::fabs(behind))) << i;
        }
    }
}

TEST(Spline, TwoPointsAreAStraightLine) {
    Spline const spline(Points{{0, 0}, {1, 1}});
    for (int i = -10; i <= 1010; ++i)
        EXPECT_NEAR(spline.Interpolate(i / 1000.0), std::clamp(i / 1000.0, 0.0, 1.0), 1e-15);
}

TEST(Spline, IsLevelOutsideAndGivesBackWhatItGetsWithoutPoints) {
    Spline const spline(Points{{-1, 5}, {0, 2}, {2, 7}});
    EXPECT_EQ(spline.Interpolate(-infinity), 5);
    EXPECT_EQ(spline.Interpolate(-1.5), 5);
    EXPECT_EQ(spline.Interpolate(2), 7);
    EXPECT_EQ(spline.Interpolate(infinity), 7);
    EXPECT_EQ(spline.Interpolate(noNumber), 5);
    EXPECT_EQ(Spline(Points{{3, 4}}).Interpolate(-9), 4);
    EXPECT_EQ(Spline().Interpolate(0.3), 0.3);
    EXPECT_EQ(Spline::Interpolator(Spline()).width, 1);
}

// An interpolator only remembers where it was: what was asked before makes no difference, to the bit.
TEST(Spline, InterpolatorGivesTheSameWhereverItWas) {
    std::mt19937 random(4);
    Spline const spline(MakeRandomPoints(random, 20));
    Spline::Interpolator interpolator(spline);
    EXPECT_EQ(interpolator.span, 1u);
    EXPECT_EQ(interpolator.width, spline.GetX(1) - spline.GetX(0));
    EXPECT_EQ(interpolator.reciprocal, 1 / interpolator.width);
    std::uniform_real_distribution<double> place(-2, spline.GetX(19) + 1);
    for (int i = 0; i < 5000; ++i) {
        double const x = i % 7 == 0 ? spline.GetX(random() % 20) : place(random);
        EXPECT_EQ(Spline::Interpolate(x, &interpolator), spline.Interpolate(x)) << x;
    }
}

TEST(Spline, LeavesOutPointsThatNoCurveCanHave) {
    Spline const spline(
        Points{{0, 0}, {noNumber, 1}, {0.5, infinity}, {0, 3}, {-1, 3}, {1e-10, 3}, {2e9, 1}, {1, 1}, {2, -2e9}});
    ASSERT_EQ(spline.GetCount(), 2u);
    EXPECT_EQ(spline.GetX(1), 1);
    // The extremes of what is taken give finite heights.
    Spline const steep(Points{{-1e9, -1e9}, {0, 1e9}, {1e-9, -1e9}, {1e9, 1e9}});
    ASSERT_EQ(steep.GetCount(), 4u);
    for (double const x : {-1e9, -5e8, -1.0, 0.0, 5e-10, 1e-9, 1.0, 1e9})
        EXPECT_LE(std::fabs(steep.Interpolate(x)), 1e9) << x;
}

TEST(Spline, HasDefaultProfilesThatAreShared) {
    for (int profile = 0; profile < 6; ++profile) {
        auto const spline = Spline::GetDefaultProfile(profile);
        ASSERT_TRUE(spline);
        EXPECT_EQ(spline, Spline::GetDefaultProfile(profile));
        for (int i = 0; i <= 100; ++i) {
            double const y = spline->Interpolate(i / 100.0);
            EXPECT_TRUE(y >= 0 && y <= 1) << profile << " at " << i;
        }
    }
    EXPECT_NEAR(Spline::GetDefaultProfile(0)->Interpolate(0.375), 0.375, 1e-15);
    EXPECT_LT(Spline::GetDefaultProfile(4)->Interpolate(0.5), 0.5);
    EXPECT_GT(Spline::GetDefaultProfile(5)->Interpolate(0.5), 0.5);
    EXPECT_EQ(Spline::GetDefaultProfile(-1), Spline::GetDefaultProfile(0));
    EXPECT_EQ(Spline::GetDefaultProfile(6), Spline::GetDefaultProfile(0));
}

TEST(Spline, ComesBackFromAFile) {
    Spline::GetClassProperties().Init();
    std::mt19937 random(5);
    for (std::size_t const count : {0u, 1u, 2u, 9u}) {
        Spline const spline(MakeRandomPoints(random, count));
        auto const in = WriteAndParse([&](Kernel::OutSerialiser & out) { out.SaveObject("Spln", spline); });
        Kernel::Counted<Kernel::Serialisable> loaded;
        ASSERT_TRUE(in->LoadObjectI("Spln", in->GetStore(), loaded));
        auto const & same = dynamic_cast<Spline const &>(*loaded);
        EXPECT_EQ(same, spline);
        EXPECT_TRUE(same.CompareMembers(spline));
        EXPECT_EQ(same.Interpolate(0.37), spline.Interpolate(0.37));
        Kernel::HashAccumulator one, other;
        same.AccumulateHash(one);
        spline.AccumulateHash(other);
        EXPECT_EQ(one.GetHash(), other.GetHash());
    }
}

TEST(Spline, RefusesPointsOfAFileThatNoCurveCanHave) {
    Spline spline(Points{{0, 0}, {1, 1}});
    Spline const before = spline;
    for (auto const & points : {Points{{0, 0}, {0, 1}}, Points{{1, 0}, {0, 1}}, Points{{noNumber, 0}},
                                Points{{0, infinity}}, Points{{0, 0}, {1e10, 0}}})
        EXPECT_FALSE(LoadPoints(spline, points));
    Points many(Spline::mostPoints + 1);
    for (std::size_t i = 0; i < many.size(); ++i)
        many[i].x = static_cast<double>(i);
    EXPECT_FALSE(LoadPoints(spline, many));
    EXPECT_EQ(spline, before);
    many.pop_back();
    EXPECT_TRUE(LoadPoints(spline, many));
    EXPECT_EQ(spline.GetCount(), many.size());
}
