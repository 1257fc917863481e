#include "storage/DeduplicationPass.h"

#include "kernel/CriticalSection.h"
#include "kernel/ScopedLock.h"
#include "storage/DocumentEnvironment.h"

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

namespace Raster {
namespace {
using testing::ElementsAre;

class DeduplicationPassTest : public DocumentTest {
protected:
    /// Tiles with the bytes 0, 255, and two others, twice each, none of them known to be solid or equal.
    static DynamicBitmap MakeRepeating() {
        auto bitmap = MakeBitmap(256 * 8, 256, A8);
        for (std::size_t i = 0; i < 8; ++i) {
            MutableTileGuard const guard(GetTile(bitmap, 0, i));
            std::memset(guard.GetBuffer(), i % 4 == 0 ? 0 : i % 4 == 1 ? 255 : int(i % 4), Tile::ByteCount);
        }
        return bitmap;
    }
    static std::uint64_t GetUsage() { return MemoryManager::Instance().GetPlanarUsage(); }
};
}

TEST_F(DeduplicationPassTest, EqualTilesOfAllBitmapsShareOneBuffer) {
    auto const usage = GetUsage();
    auto first = MakeRepeating(), second = MakeRepeating();
    auto const expected = BytesOf(first);
    {
        DeduplicationPass pass;
        pass.Add(first);
        pass.Add(second);
        EXPECT_EQ(pass.GetReplacedCount(), 14u);
    }
    EXPECT_EQ(GetUsage(), usage + 2 * Tile::ByteCount) << "solid tiles cost nothing";
    EXPECT_TRUE(GetTile(first, 0, 0).IsZeroTileBuffer());
    EXPECT_TRUE(GetTile(second, 0, 5).IsFullTileBuffer());
    EXPECT_EQ(GetTile(first, 0, 2).GetConstInner(), GetTile(second, 0, 6).GetConstInner());
    FillTile(GetTile(first, 0, 2), 9);
    EXPECT_TRUE(BytesOf(second) == expected) << "until one is written";
}

TEST_F(DeduplicationPassTest, WhatIsSavedAfterwardsIsSmaller) {
    auto bitmap = MakeRepeating();
    auto const expected = BytesOf(bitmap);
    auto const document = Create();
    EXPECT_EQ(Save(document, bitmap), 5u); // four different tiles, and the stream
    EXPECT_THAT(LoadStates(document, "Sta1"), ElementsAre(4, 4, 4, 4, 4, 4, 4, 4));
    DeduplicationPass().Add(bitmap);
    EXPECT_EQ(Save(document, bitmap), 1u);
    EXPECT_THAT(LoadStates(document, "Sta1"), ElementsAre(1, 2, 4, 4, 1, 2, 4, 4));
    EXPECT_EQ(CountItems(document, "DatI"), 2u);
    EXPECT_TRUE(BytesOf(Load(Open())) == expected);
}

TEST_F(DeduplicationPassTest, NothingIsLoadedOrFetchedFromDisk) {
    auto const document = Create();
    Save(document, MakeRepeating());
    auto loaded = Load(document), onDisk = MakeRepeating(), pending = MakePending(7);
    EvictEverything();
    auto const usage = GetUsage();
    DeduplicationPass pass;
    for (auto * bitmap : {&loaded, &onDisk, &pending})
        pass.Add(*bitmap);
    DynamicBitmap none;
    pass.Add(none);
    pass.Add(Kernel::Counted<BitmapCore>());
    EXPECT_EQ(pass.GetReplacedCount(), 0u);
    EXPECT_EQ(GetUsage(), usage);
    EXPECT_TRUE(pending.IsPendingDelayLoad());
}

TEST_F(DeduplicationPassTest, BitmapsLiveAsLongAsThePass) {
    auto second = MakeRepeating();
    auto const expected = BytesOf(second);
    DeduplicationPass pass;
    {
        auto first = MakeRepeating();
        pass.Add(first);
    }
    pass.Add(second);
    EXPECT_EQ(pass.GetReplacedCount(), 14u);
    EXPECT_TRUE(BytesOf(second) == expected);
}

TEST_F(DeduplicationPassTest, AnAbortLeavesWhatWasDone) {
    auto bitmap = MakeRepeating();
    auto const expected = BytesOf(bitmap);
    bool abort = true;
    DeduplicationPass pass;
    pass.Add(bitmap, &abort);
    EXPECT_EQ(pass.GetReplacedCount(), 0u);
    abort = false;
    pass.Add(bitmap, &abort);
    EXPECT_EQ(pass.GetReplacedCount(), 6u);
    EXPECT_TRUE(BytesOf(bitmap) == expected);
}

// Who uses the plain session calls of tiles excludes a pass by a lock: between a pair the tile keeps its block.
TEST_F(DeduplicationPassTest, LockKeepsBlocksInPlaceDuringSessions) {
    Kernel::CriticalSection handleLock;
    auto bitmap = MakeRepeating();
    auto const expected = BytesOf(bitmap);
    std::atomic<bool> isOver{false};
    std::thread reader([&] {
        for (std::size_t i = 0; !isOver; i = (i + 1) % 8) {
            Kernel::ScopedLock const guard(handleLock);
            auto const & tile = GetTile(bitmap, 0, i);
            tile.IncrementRefCountConst();
            EXPECT_EQ(std::memcmp(tile.GetConstBuffer(), expected[i].data(), Tile::ByteCount), 0);
            tile.DecrementRefCountConst();
        }
    });
    for (int round = 0; round < 50; ++round) {
        DeduplicationPass pass(&handleLock);
        pass.Add(bitmap);
        if (round == 0) {
            EXPECT_EQ(pass.GetReplacedCount(), 6u);
        }
    }
    isOver = true;
    reader.join();
    EXPECT_EQ(GetTile(bitmap, 0, 2).GetConstInner()->GetPinCount(), 0u);
}
}
