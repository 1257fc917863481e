#include "kernel/CriticalSection.h"
#include "kernel/CriticalSectionSpin.h"
#include "kernel/ScopedLock.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace Kernel;

namespace {
std::vector<std::string> violations;

class LockOrderTest : public testing::Test {
protected:
    void SetUp() override {
        if (!LockOrder::isChecked)
            GTEST_SKIP() << "this build does not check the order of locks";
        violations.clear();
        LockOrder::SetViolationHandler([](char const * message) { violations.emplace_back(message); });
    }
    void TearDown() override {
        LockOrder::SetViolationHandler(nullptr);
        EXPECT_EQ(LockOrder::GetHeldCount(), 0u);
    }
};

constexpr LockRank ranks[] = {
    LockRank::Bitmap,    LockRank::FileModel,   LockRank::ProfileRegistry, LockRank::Consolidation,
    LockRank::BlockRect, LockRank::BlockBuffer, LockRank::DelayLoadHolder, LockRank::MemoryManager,
    LockRank::Backstore, LockRank::Leaf};
}

TEST_F(LockOrderTest, AcceptsEveryRankInRisingOrder) {
    std::vector<std::unique_ptr<CriticalSectionSpin>> sections;
    for (LockRank const rank : ranks)
        sections.push_back(std::make_unique<CriticalSectionSpin>(rank));
    for (auto const & section : sections)
        section->AcquireLock();
    EXPECT_EQ(LockOrder::GetHeldCount(), sections.size());
    for (auto const & section : sections) // released in the order of taking: any order will do
        section->ReleaseLock();
    EXPECT_TRUE(violations.empty());
}

TEST_F(LockOrderTest, CatchesEveryPairThatDoesNotRise) {
    for (LockRank const outer : ranks)
        for (LockRank const inner : ranks) {
            violations.clear();
            CriticalSectionSpin first(outer);
            CriticalSection second(inner);
            {
                ScopedLock const outerLock(first);
                ScopedLock const innerLock(second);
            }
            EXPECT_EQ(violations.size(), inner > outer ? 0u : 1u)
                << static_cast<int>(outer) << " then " << static_cast<int>(inner);
        }
}

TEST_F(LockOrderTest, NamesTheRanksInAViolation) {
    CriticalSection bitmap(LockRank::Bitmap), manager(LockRank::MemoryManager), rect(LockRank::BlockRect);
    {
        ScopedLock const first(bitmap);
        ScopedLock const second(manager);
        ScopedLock const inverted(rect);
    }
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0], "lock order: out of order: BlockRect; held: Bitmap MemoryManager");
}

TEST_F(LockOrderTest, AllowsReentryOfAReentrantSectionUnderHigherRanks) {
    CriticalSection registry(LockRank::ProfileRegistry), leaf(LockRank::Leaf);
    {
        ScopedLock const first(registry);
        ScopedLock const second(leaf);
        ScopedLock const again(registry);
        EXPECT_EQ(LockOrder::GetHeldCount(), 2u);
    }
    EXPECT_TRUE(violations.empty());
}

TEST_F(LockOrderTest, NeverBlamesATryLockButRemembersIt) {
    CriticalSectionSpin own(LockRank::BlockBuffer), other(LockRank::BlockBuffer), rect(LockRank::BlockRect);
    CriticalSection manager(LockRank::MemoryManager), backstore(LockRank::Backstore);
    ScopedLock const first(own);
    ScopedLock second(manager);
    {
        ScopedLock const third(other, std::try_to_lock);
        ASSERT_TRUE(third);
        EXPECT_EQ(LockOrder::GetHeldCount(), 3u);
        ScopedLock const fourth(backstore);
        EXPECT_TRUE(violations.empty());
    }
    second.Release();
    ScopedLock const rectLock(rect);
    EXPECT_EQ(violations.size(), 1u);
}

TEST_F(LockOrderTest, DoesNotRecordATryLockThatFailed) {
    CriticalSection section(LockRank::FileModel);
    ScopedLock const lock(section);
    std::thread([&] {
        EXPECT_FALSE(section.TryAcquireLock());
        EXPECT_EQ(LockOrder::GetHeldCount(), 0u);
    }).join();
}

TEST_F(LockOrderTest, NestsBitmapsOnlyByTheMarker) {
    CriticalSection outer(LockRank::Bitmap), inner(LockRank::Bitmap), block(LockRank::BlockRect);
    {
        ScopedLock const first(outer);
        ScopedLock const second(inner, LockNesting::FromOuterBitmap);
    }
    EXPECT_TRUE(violations.empty());
    {
        ScopedLock const first(outer);
        ScopedLock const second(block);
        ScopedLock const third(inner, LockNesting::FromOuterBitmap);
    }
    EXPECT_EQ(violations.size(), 1u) << "the marker is for bitmaps within bitmaps, not within blocks";
    {
        CriticalSectionSpin manager(LockRank::MemoryManager), another(LockRank::MemoryManager);
        ScopedLock const first(manager);
        ScopedLock const second(another, LockNesting::FromOuterBitmap);
    }
    EXPECT_EQ(violations.size(), 2u) << "the marker is for bitmaps only";
}

TEST_F(LockOrderTest, IgnoresSectionsWithoutRank) {
    CriticalSection leaf(LockRank::Leaf);
    CriticalSectionSpin plain;
    ScopedLock const first(leaf);
    ScopedLock const second(plain);
    EXPECT_EQ(LockOrder::GetHeldCount(), 1u);
    EXPECT_TRUE(violations.empty());
}

TEST_F(LockOrderTest, ForbidsCallingOutUnderLocksOfTilesAndBelow) {
    for (auto rank = LockRank::Bitmap; rank <= LockRank::Leaf; rank = LockRank(int(rank) + 1)) {
        CriticalSection section(rank);
        ScopedLock const lock(section);
        LockOrder::WillCallOut();
        EXPECT_EQ(violations.size(), rank < LockRank::BlockRect ? 0u : 1u) << int(rank);
        violations.clear();
    }
}

TEST_F(LockOrderTest, KeepsAStackForEachThread) {
    CriticalSection leaf(LockRank::Leaf), bitmap(LockRank::Bitmap);
    ScopedLock const lock(leaf);
    std::thread([&] { ScopedLock const other(bitmap); }).join();
    EXPECT_TRUE(violations.empty());
}

TEST_F(LockOrderTest, CatchesAReleaseWithoutAcquisition) {
    CriticalSectionSpin section(LockRank::Leaf);
    section.ReleaseLock();
    EXPECT_EQ(violations.size(), 1u);
}

TEST(LockOrderDeathTest, AbortsWithTheHeldRanksByDefault) {
    if (!LockOrder::isChecked)
        GTEST_SKIP() << "this build does not check the order of locks";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    CriticalSection manager(LockRank::MemoryManager), rect(LockRank::BlockRect);
    EXPECT_DEATH(
        {
            ScopedLock const first(manager);
            ScopedLock const inverted(rect);
        },
        "lock order: out of order: BlockRect; held: MemoryManager");
}
