#include "pixel/MemoryManager.h"

#include "kernel/LockOrder.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <limits>
#include <list>
#include <stdexcept>
#include <thread>

namespace Raster {
namespace {
constexpr std::uint64_t block = MemoryManager::BlockBytes;

/// Stands in for the block of a tile.
class FakeBlock final : public Evictable {
public:
    FakeBlock() { Attach(); }
    ~FakeBlock() override {
        Ledger().Detach(this);
        if (isOnDisk)
            Ledger().TileRecovered();
    }

    Eviction TryEvict() const override {
        if (onEvict)
            onEvict();
        if (!isPresent || isPinned)
            return Eviction::Busy;
        if (isDiskFailing)
            return Eviction::Failed;
        isPresent = false;
        isOnDisk = true;
        Ledger().UnsafeDetach(this);
        Ledger().TileDisposed();
        return Eviction::Done;
    }
    bool IsAllocatedAndPresent() const override { return isPresent; }

    void Attach() {
        Ledger().Attach(this);
        isPresent = true;
    }
    static MemoryManager & Ledger() { return MemoryManager::Instance(); }

    bool isPinned = false, isDiskFailing = false;
    void (*onEvict)() = nullptr;
    bool mutable isPresent = false, isOnDisk = false;
};

class MemoryManagerTest : public testing::Test {
protected:
    MemoryManagerTest() {
        EXPECT_EQ(ledger.CountListedBlocks(), 0);
        EXPECT_EQ(ledger.GetPlanarUsage(), 0);
    }
    ~MemoryManagerTest() override {
        blocks.clear();
        ledger.SetDRAMLimit(1024);
        ledger.SetDiskWarningLimit(4096);
        EXPECT_EQ(ledger.CountListedBlocks(), 0);
        EXPECT_EQ(ledger.GetPlanarUsage(), 0);
        EXPECT_EQ(ledger.GetBackstoreUsage(), 0);
        ledger.ShouldWarnAboutDiskUsage();
    }
    FakeBlock & Add() { return blocks.emplace_back(); }
    void Add(int count) {
        while (count-- > 0)
            Add();
    }
    FakeBlock & operator[](int index) { return *std::next(blocks.begin(), index); }
    std::string Present() {
        std::string result;
        for (auto const & each : blocks)
            result += each.isPresent ? '1' : '0';
        return result;
    }

    MemoryManager & ledger = MemoryManager::Instance();
    std::list<FakeBlock> blocks;
};

TEST_F(MemoryManagerTest, EvictsFromTheOldestDownToElevenTenthsUnderTheLimit) {
    ledger.SetDRAMLimit(1);
    Add(16);
    EXPECT_EQ(ledger.GetPlanarUsage(), 16 * block);
    EXPECT_EQ(Present(), "1111111111111111");
    Add(); // 15 * 1.1 is not below 16, 14 * 1.1 is
    EXPECT_EQ(Present(), "00111111111111111");
    EXPECT_EQ(ledger.GetPlanarUsage(), 15 * block);
    EXPECT_EQ(ledger.GetBackstoreUsage(), 2 * block);
    EXPECT_EQ(ledger.CountListedBlocks(), 15);
}

TEST_F(MemoryManagerTest, SkipsAPinnedOldestBlock) {
    ledger.SetDRAMLimit(1);
    Add(16);
    (*this)[0].isPinned = true;
    Add();
    EXPECT_EQ(Present(), "10011111111111111");
}

TEST_F(MemoryManagerTest, GoesAboveTheLimitWhenEverythingIsPinned) {
    ledger.SetDRAMLimit(1);
    for (int i = 0; i < 20; ++i)
        Add().isPinned = true;
    EXPECT_EQ(ledger.GetPlanarUsage(), 20 * block);
    EXPECT_EQ(ledger.GetBackstoreUsage(), 0);
}

TEST_F(MemoryManagerTest, StopsTheWalkWhenTheDiskRefuses) {
    ledger.SetDRAMLimit(1);
    Add(16);
    (*this)[0].isDiskFailing = true;
    Add();
    EXPECT_EQ(Present(), "11111111111111111") << "the second could have gone, but asking would have been in vain";
    EXPECT_EQ(ledger.GetPlanarUsage(), 17 * block);
}

TEST_F(MemoryManagerTest, ADiskThatEndsAWalkIsReportedOnceTheLedgerIsFree) {
    static int reports;
    reports = 0;
    ledger.SetFailureReporter([] {
        ++reports;
        EXPECT_EQ(Kernel::LockOrder::GetHeldCount(), 0);
        std::thread([] { MemoryManager::Instance().CountListedBlocks(); }).join(); // waits for the main lock
    });
    Add(32);
    (*this)[0].isDiskFailing = true;
    ledger.SetDRAMLimit(1);
    EXPECT_EQ(reports, 1);
    ledger.AttachInterleaved(0);
    EXPECT_EQ(reports, 2);
    EXPECT_FALSE(ledger.Evict(&(*this)[0]));
    EXPECT_EQ(reports, 3);
    Add();
    EXPECT_EQ(reports, 3) << "who attaches reports when his own locks are released";
    (*this)[1].isPinned = true;
    EXPECT_FALSE(ledger.Evict(&(*this)[1]));
    (*this)[0].isDiskFailing = false;
    ledger.AttachInterleaved(0);
    EXPECT_EQ(reports, 3) << "neither a busy block nor success is news";
    ledger.SetFailureReporter(nullptr);
    (*this)[2].isDiskFailing = true;
    ledger.SetDRAMLimit(0);
}

TEST_F(MemoryManagerTest, NeverEvictsTheBlockThatIsAttached) {
    ledger.SetDRAMLimit(0);
    Add();
    EXPECT_EQ(Present(), "1");
    auto & first = (*this)[0];
    ledger.Attach(&first); // over the limit, and the only one
    EXPECT_EQ(Present(), "1");
    EXPECT_EQ(ledger.GetPlanarUsage(), 2 * block);
    ledger.DetachPlanar(block);
}

TEST_F(MemoryManagerTest, ASecondAttachAddsAgainAndMovesTheBlockToTheEnd) {
    Add(2);
    ledger.Attach(&(*this)[0]);
    EXPECT_EQ(ledger.GetPlanarUsage(), 3 * block);
    EXPECT_EQ(ledger.CountListedBlocks(), 2);
    ledger.DetachPlanar(block);
    ledger.SetDRAMLimit(0);
    Add(); // 0 keeps nothing but the newest
    EXPECT_EQ(Present(), "001");
}

TEST_F(MemoryManagerTest, ARecoveredBlockGoesToTheEnd) {
    ledger.SetDRAMLimit(1);
    Add(17);
    ASSERT_EQ(Present(), "00111111111111111");
    auto & first = (*this)[0];
    first.Attach();
    first.isOnDisk = false;
    ledger.TileRecovered();
    EXPECT_EQ(ledger.GetPlanarUsage(), 16 * block);
    Add();
    EXPECT_EQ(Present(), "100011111111111111");
}

TEST_F(MemoryManagerTest, RaisingTheLimitEvictsNothing) {
    ledger.SetDRAMLimit(1);
    for (int i = 0; i < 20; ++i)
        Add().isPinned = true;
    for (auto & each : blocks)
        each.isPinned = false;
    ledger.SetDRAMLimit(1);
    ledger.SetDRAMLimit(2);
    EXPECT_EQ(ledger.GetPlanarUsage(), 20 * block);
}

TEST_F(MemoryManagerTest, LoweringTheLimitEvictsToElevenTenthsUnderIt) {
    Add(32);
    ledger.SetDRAMLimit(2);
    EXPECT_EQ(ledger.GetPlanarUsage(), 32 * block) << "at the limit is not above it";
    ledger.SetDRAMLimit(1);
    EXPECT_EQ(ledger.GetPlanarUsage(), 14 * block) << "15 * 1.1 is above 16";
    EXPECT_EQ(Present().find('1'), 18);
}

TEST_F(MemoryManagerTest, InterleavedBytesPushTilesOutToJustBelowTheLimit) {
    ledger.SetDRAMLimit(1);
    Add(15);
    ledger.AttachInterleaved(block - 1);
    EXPECT_EQ(ledger.GetPlanarUsage(), 15 * block);
    ledger.AttachInterleaved(1);
    EXPECT_EQ(ledger.GetPlanarUsage(), 14 * block);
    ledger.DetachInterleaved(block);
    EXPECT_EQ(ledger.GetInterleavedUsage(), 0);
}

TEST_F(MemoryManagerTest, PlanarBytesOfTheApplicationEvictNothing) {
    ledger.SetDRAMLimit(1);
    Add(4);
    ledger.AttachPlanar(100 * block);
    EXPECT_EQ(Present(), "1111");
    EXPECT_EQ(ledger.GetPlanarUsage(), 104 * block);
    ledger.DetachPlanar(100 * block);
}

TEST_F(MemoryManagerTest, DetachOfWhatIsNotResidentChangesNothing) {
    Add(2);
    (*this)[0].isPresent = false;
    ledger.Detach(&(*this)[0]);
    EXPECT_EQ(ledger.GetPlanarUsage(), 2 * block);
    EXPECT_EQ(ledger.CountListedBlocks(), 2);
    (*this)[0].isPresent = true;
}

TEST_F(MemoryManagerTest, UnsafeDetachOfAnUnlistedBlockStillSubtractsButNotBelowZero) {
    Add(2);
    auto & first = (*this)[0];
    ledger.UnsafeDetach(&first);
    EXPECT_EQ(ledger.GetPlanarUsage(), block);
    ledger.UnsafeDetach(&first);
    EXPECT_EQ(ledger.GetPlanarUsage(), 0);
    ledger.UnsafeDetach(&first);
    EXPECT_EQ(ledger.GetPlanarUsage(), 0);
    first.isPresent = false;
}

TEST_F(MemoryManagerTest, LimitsAreSetInMebibytesAndTwoOfThemReadInBytes) {
    EXPECT_EQ(ledger.GetDRAMLimit(), 0x40000000);
    EXPECT_EQ(ledger.GetHardwareLimit(), 0x40000000);
    EXPECT_EQ(ledger.GetDiskWarningLimit(), 4096);
    ledger.SetDRAMLimit(2048);
    EXPECT_EQ(ledger.GetDRAMLimit(), 2147483648);
    ledger.SetHardwareLimit(2048);
    EXPECT_EQ(ledger.GetHardwareLimit(), 2147483648);
    ledger.SetHardwareLimit(1024);
    ledger.SetDiskWarningLimit(2048);
    EXPECT_EQ(ledger.GetDiskWarningLimit(), 2048);
}

TEST_F(MemoryManagerTest, LimitsSaturateInsteadOfWrapping) {
    auto const most = std::numeric_limits<std::uint64_t>::max();
    for (std::uint64_t const mebibytes : {most, most >> 19, (most >> 20) + 1}) {
        ledger.SetDRAMLimit(mebibytes);
        EXPECT_EQ(ledger.GetDRAMLimit(), most) << mebibytes;
        ledger.SetDiskWarningLimit(mebibytes);
        EXPECT_EQ(ledger.GetDiskWarningLimit(), most >> 20) << mebibytes;
    }
    ledger.SetDRAMLimit(most >> 20);
    EXPECT_EQ(ledger.GetDRAMLimit(), most >> 20 << 20);
}

TEST_F(MemoryManagerTest, WarnsOncePerRiseAboveTheDiskLimit) {
    ledger.SetDiskWarningLimit(1);
    for (int i = 0; i < 16; ++i)
        ledger.TileDisposed();
    EXPECT_FALSE(ledger.ShouldWarnAboutDiskUsage()) << "at the limit is not above it";
    ledger.TileDisposed();
    EXPECT_TRUE(ledger.ShouldWarnAboutDiskUsage());
    EXPECT_FALSE(ledger.ShouldWarnAboutDiskUsage());
    ledger.TileDisposed();
    EXPECT_FALSE(ledger.ShouldWarnAboutDiskUsage());
    ledger.TileRecovered();
    ledger.TileRecovered();
    EXPECT_FALSE(ledger.ShouldWarnAboutDiskUsage()) << "rearms, but doesn't warn";
    ledger.TileDisposed();
    EXPECT_TRUE(ledger.ShouldWarnAboutDiskUsage());
    for (int i = 0; i < 17; ++i)
        ledger.TileRecovered();
}

TEST_F(MemoryManagerTest, EveryKindOfMemoryIsCountedByItselfAndKeepsItsPeak) {
    // Plain functions: GCC 12 with the undefined sanitizer loses `this` around calls through pointers to members.
    struct Kind {
        void (*attach)(std::uint64_t);
        void (*detach)(std::uint64_t);
        std::uint64_t (*usage)();
        std::uint64_t (*peak)();
    };
#define RASTER_KIND(Name)                                                                                              \
    Kind {                                                                                                             \
        [](std::uint64_t bytes) { MemoryManager::Instance().Attach##Name(bytes); },                                    \
            [](std::uint64_t bytes) { MemoryManager::Instance().Detach##Name(bytes); },                                \
            [] { return MemoryManager::Instance().Get##Name##Usage(); },                                               \
            [] { return MemoryManager::Instance().Get##Name##PeakUsage(); }                                            \
    }
    Kind const kinds[] = {RASTER_KIND(Planar),     RASTER_KIND(Virtual),  RASTER_KIND(Interleaved),
                          RASTER_KIND(Compressed), RASTER_KIND(Hardware), RASTER_KIND(FrontEndHardware)};
#undef RASTER_KIND
    for (auto const & kind : kinds) {
        auto const high = kind.peak() + 1000;
        kind.attach(high);
        EXPECT_EQ(kind.usage(), high);
        EXPECT_EQ(kind.peak(), high);
        for (auto const & other : kinds)
            EXPECT_EQ(other.usage(), &other == &kind ? high : 0);
        kind.detach(high - 1);
        EXPECT_EQ(kind.usage(), 1);
        EXPECT_EQ(kind.peak(), high);
        kind.detach(2); // more than there is
        EXPECT_EQ(kind.usage(), 0);
    }
    ledger.AttachDelayed();
    EXPECT_EQ(ledger.GetDelayedUsage(), block);
    EXPECT_GE(ledger.GetDelayedPeakUsage(), block);
    ledger.DetachDelayed();
    EXPECT_EQ(ledger.GetDelayedUsage(), 0);
}

TEST_F(MemoryManagerTest, DestroyForgetsTheBlocksAndLaterAttachesWork) {
    Add(4);
    ledger.Destroy();
    EXPECT_EQ(ledger.CountListedBlocks(), 0);
    EXPECT_EQ(ledger.GetPlanarUsage(), 4 * block);
    ledger.SetDRAMLimit(0);
    Add();
    EXPECT_EQ(Present(), "11111") << "what is forgotten is not evicted";
    EXPECT_EQ(ledger.CountListedBlocks(), 1);
}

TEST_F(MemoryManagerTest, ReadersOfCountersDoNotWaitForAnEviction) {
    static std::atomic<bool> hasRead;
    hasRead = false;
    ledger.SetDRAMLimit(1);
    Add(16);
    (*this)[0].onEvict = [] {
        std::thread reader([] {
            auto & manager = MemoryManager::Instance();
            manager.GetPlanarUsage();
            manager.GetDRAMLimit();
            manager.ShouldWarnAboutDiskUsage();
            manager.AttachVirtual(1);
            manager.DetachVirtual(1);
            hasRead = true;
        });
        reader.join(); // would never return if any of these waited
    };
    Add();
    EXPECT_TRUE(hasRead);
    (*this)[0].onEvict = nullptr;
}

TEST_F(MemoryManagerTest, AnExceptionOfAnEvictionLeavesTheLedgerUsable) {
    ledger.SetDRAMLimit(1);
    Add(16);
    (*this)[0].onEvict = [] { throw std::runtime_error("disk"); };
    EXPECT_THROW(ledger.AttachInterleaved(0), std::runtime_error);
    (*this)[0].onEvict = nullptr;
    std::thread([&] { Add(); }).join();
    EXPECT_EQ(Present(), "00111111111111111");
}
}
}
