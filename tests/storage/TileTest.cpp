#include "storage/Tile.h"

#include "kernel/CRC32.h"
#include "storage/BlockDeduplicationSupport.h"
#include "storage/BlockEnvironment.h"
#include "storage/DocumentHolder.h"
#include "storage/TileGuard.h"

#include <algorithm>
#include <limits>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;
using Bytes = std::vector<unsigned char>;
Rect const whole{0, 0, 256, 256};

/// With static tiles, and what they cost known.
class TileTest : public BlockTest {
protected:
    TileTest() { Tile::InitStaticTiles(); }
    ~TileTest() override { Tile::DestroyStaticTiles(); }

    static void Fill(Tile & tile, std::uint32_t word) {
        MutableTileGuard const session(tile);
        std::fill_n(session.GetBuffer(), 16384, word);
    }
    static void Write(Tile & tile, Bytes const & content) {
        MutableTileGuard const session(tile);
        std::memcpy(session.GetBuffer(), content.data(), bytes);
    }
    static Bytes Read(Tile const & tile) {
        ConstTileGuard const session(tile);
        Bytes result(bytes);
        std::memcpy(result.data(), session.GetBuffer(), bytes);
        return result;
    }
    static Tile MakeNoiseTile(unsigned seed) {
        Tile tile;
        Write(tile, MakeNoise(seed));
        return tile;
    }
    static Kernel::Counted<Kernel::DelayLoadHolder> MakeHolder() {
        return Kernel::MakeCounted<DocumentHolder>(MakeNoise(99));
    }
    static bool Dispose(Tile & tile) { return tile.GetDirectInner()->DisposeIfPossible(); }
    static Tile MakePending(unsigned seed) {
        auto block = Kernel::MakeCounted<Block>();
        block->SetDelayLoad(Kernel::MakeCounted<DocumentHolder>(MakeNoise(seed)));
        Tile tile;
        tile.SetBlockDirect(std::move(block), nullptr);
        return tile;
    }
};

TEST_F(TileTest, ANewTileIsUnallocatedAndHasNoBuffer) {
    Tile const tile;
    EXPECT_FALSE(tile.IsAllocated() || tile.IsDisposed() || tile.IsPendingDelayLoad());
    EXPECT_FALSE(tile.IsZeroTileBuffer() || tile.IsFullTileBuffer() || tile.IsFullFloatTileBuffer());
    EXPECT_EQ(tile.GetDataRect(), Rect{});
    EXPECT_EQ(tile.GetInverseDataRect(), Rect{});
    EXPECT_EQ(tile.GetFloatInverseDataRect(), Rect{});
    EXPECT_EQ(tile.GetDataRectClipped(10, 10), Rect{});
    EXPECT_EQ(tile.GetInverseDataRectClipped(10, 10), Rect{});
    EXPECT_EQ(tile.GetFloatInverseDataRectClipped(10, 10), Rect{});
    EXPECT_FALSE(tile.GetBacking());
    EXPECT_EQ(Read(tile), Bytes(bytes, 0));
    EXPECT_FALSE(tile.IsAllocated());
}

TEST_F(TileTest, ABlockComesIntoBeingWhenSomebodyAsksForIt) {
    Tile tile;
    auto const block = tile.GetConstInner();
    ASSERT_TRUE(block);
    EXPECT_FALSE(block->IsAllocated());
    EXPECT_EQ(tile.GetConstInner(), block);
    EXPECT_EQ(tile.GetDirectInner().Get(), block);
    EXPECT_EQ(tile.GetMutableInner(), block) << "nobody else holds it";
    EXPECT_FALSE(tile.IsAllocated());
}

TEST_F(TileTest, WidthFollowsTheSizeOfTheSamples) {
    EXPECT_EQ(Tile::GetWidth(1), 256);
    EXPECT_EQ(Tile::GetWidth(2), 128);
    EXPECT_EQ(Tile::GetWidth(4), 64);
    EXPECT_EQ(Tile::GetWidth(8), 32);
}

TEST_F(TileTest, StaticTilesHoldTheirContentAndItsCRC) {
    struct Expected {
        Tile * tile;
        std::uint32_t word, hash;
    };
    for (auto const & each : {Expected{Tile::GetZeroTile(), 0, Tile::GetZeroTileHash()},
                              Expected{Tile::GetFullTile(), 0xFFFFFFFF, Tile::GetFullTileHash()},
                              Expected{Tile::GetFullFloatTile(), 0x3F800000, Tile::GetFullFloatTileHash()}}) {
        std::vector<std::uint32_t> const content(16384, each.word);
        ConstTileGuard const session(*each.tile);
        EXPECT_EQ(std::memcmp(session.GetBuffer(), content.data(), bytes), 0);
        EXPECT_EQ(each.hash, Kernel::CRC32::Instance().DataCRC32(content.data(), bytes));
        EXPECT_EQ(each.tile->GetHash(), each.hash);
        EXPECT_TRUE(each.tile->IsAllocated());
    }
    EXPECT_TRUE(Tile::GetZeroTile()->IsZeroTileBuffer());
    EXPECT_TRUE(Tile::GetFullTile()->IsFullTileBuffer());
    EXPECT_TRUE(Tile::GetFullFloatTile()->IsFullFloatTileBuffer());
}

TEST_F(TileTest, StaticTilesStayInMemoryAndAreCounted) {
    ExpectAtRest(3, 0, 0);
    ledger.SetDRAMLimit(0);
    ExpectAtRest(3, 0, 0);
}

TEST_F(TileTest, InitialisingStaticTilesTwiceDoesNothing) {
    auto const zero = Tile::GetZeroTile();
    Tile::InitStaticTiles();
    EXPECT_EQ(Tile::GetZeroTile(), zero);
    ExpectAtRest(3, 0, 0);
}

TEST_F(TileTest, WithoutStaticTilesTheIdentityTestsAreFalse) {
    Tile const zero = *Tile::GetZeroTile(), none;
    Tile::DestroyStaticTiles();
    EXPECT_EQ(Tile::GetZeroTile(), nullptr);
    EXPECT_FALSE(zero.IsZeroTileBuffer());
    EXPECT_FALSE(none.IsZeroTileBuffer() || none.IsFullTileBuffer());
    EXPECT_EQ(Read(zero), Bytes(bytes, 0));
    Tile scrubbed = zero;
    scrubbed.Scrub();
    EXPECT_FALSE(scrubbed.IsZeroTileBuffer());
    ExpectAtRest(1, 0, 0);
}

TEST_F(TileTest, ATileAssignedFromTheFullTileIsFullUntilItIsWritten) {
    Tile tile;
    tile = *Tile::GetFullTile();
    EXPECT_TRUE(tile.IsFullTileBuffer() && tile.IsAllocated());
    auto expected = Bytes(bytes, 255);
    EXPECT_EQ(Read(tile), expected);
    {
        MutableTileGuard const session(tile);
        reinterpret_cast<unsigned char *>(session.GetBuffer())[100] = expected[100] = 3;
    }
    EXPECT_FALSE(tile.IsFullTileBuffer());
    EXPECT_NE(tile.GetConstInner(), Tile::GetFullTile()->GetConstInner());
    EXPECT_EQ(Read(tile), expected);
    EXPECT_EQ(Read(*Tile::GetFullTile()), Bytes(bytes, 255));
}

TEST_F(TileTest, CopiesShareUntilOneIsWritten) {
    auto tile = MakeNoiseTile(1);
    Tile const copy = tile, second = copy;
    EXPECT_EQ(copy.GetConstInner(), tile.GetConstInner());
    ExpectAtRest(4, 0, 0);
    Write(tile, MakeNoise(2));
    EXPECT_EQ(copy.GetConstInner(), second.GetConstInner());
    EXPECT_NE(copy.GetConstInner(), tile.GetConstInner());
    EXPECT_EQ(Read(copy), MakeNoise(1));
    EXPECT_EQ(Read(tile), MakeNoise(2));
    ExpectAtRest(5, 0, 0);
    auto const own = tile.GetConstInner();
    Write(tile, MakeNoise(3));
    EXPECT_EQ(tile.GetConstInner(), own) << "what nobody else holds is written in place";
}

TEST_F(TileTest, AssigningATileToItselfOrToASharerKeepsTheBlock) {
    auto tile = MakeNoiseTile(1);
    auto const block = tile.GetConstInner();
    Tile other = tile;
    tile = other;
    EXPECT_EQ(tile.GetConstInner(), block);
    auto & same = tile;
    tile = same;
    EXPECT_EQ(tile.GetConstInner(), block);
    EXPECT_EQ(block->GetCount(), 2);
}

TEST_F(TileTest, RangesAreCopiedAsSingleTilesAre) {
    std::vector<Tile> source(50), dest(50);
    for (unsigned i = 0; i < 50; i += 3)
        Write(source[i], MakeNoise(i));
    source[7].SetBacking(MakeHolder());
    Write(dest[49], MakeNoise(1));
    for (std::size_t from = 0; from < 20; from += 3) {
        Tile::CopyRange(dest.data() + 1, source.data() + from, 49 - from);
        for (std::size_t i = 0; i < 49 - from; ++i) {
            ASSERT_EQ(dest[i + 1].IsAllocated(), source[from + i].IsAllocated()) << from << ", " << i;
            ASSERT_EQ(dest[i + 1].GetBacking(), source[from + i].GetBacking());
            if (source[from + i].IsAllocated()) {
                ASSERT_EQ(dest[i + 1].GetConstInner(), source[from + i].GetConstInner());
            }
        }
    }
}

TEST_F(TileTest, RangesAreCopiedToNewTilesToo) {
    std::vector<Tile> source(50);
    for (unsigned i = 0; i < 50; i += 3)
        Write(source[i], MakeNoise(i));
    auto const holder = MakeHolder();
    source[7].SetBacking(holder);
    source[9].SetBacking(holder);
    for (std::size_t from = 0; from < 50; from += 7) {
        std::vector<Tile> dest(51);
        Tile::CopyRangeToNew(dest.data() + 1, source.data() + from, 50 - from);
        EXPECT_FALSE(dest[0].IsAllocated());
        for (std::size_t i = 0; i < 50 - from; ++i) {
            ASSERT_EQ(dest[i + 1].IsAllocated(), source[from + i].IsAllocated()) << from << ", " << i;
            ASSERT_EQ(dest[i + 1].GetBacking(), source[from + i].GetBacking());
            ASSERT_EQ(dest[i + 1].GetConstBuffer(), source[from + i].GetConstBuffer());
        }
        for (std::size_t i = 50 - from; i < 50; ++i)
            EXPECT_FALSE(dest[i + 1].IsAllocated()) << "behind the range";
        EXPECT_EQ(source[48].GetConstInner()->GetCount(), from <= 48 ? 2 : 1)
            << "each tile holds a reference of its own";
    }
    EXPECT_EQ(source[48].GetConstInner()->GetCount(), 1);
}

TEST_F(TileTest, NullIsNobodysBacking) {
    Tile tile;
    auto const holder = MakeHolder();
    EXPECT_FALSE(tile.IsBackedBy(nullptr));
    EXPECT_FALSE(tile.IsBackedBy(holder));
    tile.SetBacking(holder);
    EXPECT_TRUE(tile.IsBackedBy(holder));
    EXPECT_FALSE(tile.IsBackedBy(nullptr));
    EXPECT_FALSE(tile.IsBackedBy(MakeHolder()));
    EXPECT_EQ(tile.GetBacking(), holder);
}

TEST_F(TileTest, AMutableSessionClearsTheBackingAlsoIfNothingIsWritten) {
    auto tile = MakeNoiseTile(1);
    auto const holder = MakeHolder();
    tile.SetBacking(holder);
    Tile const copy = tile;
    tile.IncrementRefCountMutable();
    tile.DecrementRefCountMutable();
    EXPECT_FALSE(tile.GetBacking());
    EXPECT_TRUE(copy.IsBackedBy(holder)) << "copies have backings of their own";
}

TEST_F(TileTest, AConstSessionKeepsTheBacking) {
    auto tile = MakeNoiseTile(1);
    auto const holder = MakeHolder();
    tile.SetBacking(holder);
    ConstTileGuard const session(tile);
    EXPECT_TRUE(tile.IsBackedBy(holder));
}

TEST_F(TileTest, UnallocateDropsBlockAndBacking) {
    auto tile = MakeNoiseTile(1);
    tile.SetBacking(MakeHolder());
    tile.Unallocate();
    EXPECT_FALSE(tile.IsAllocated() || tile.GetBacking());
    EXPECT_EQ(Read(tile), Bytes(bytes, 0));
    ExpectAtRest(3, 0, 0);
}

TEST_F(TileTest, SetBlockDirectReplacesBothAndCopyAndPreserveBackingOnlyTheBlock) {
    auto tile = MakeNoiseTile(1), other = MakeNoiseTile(2);
    auto const holder = MakeHolder();
    tile.SetBlockDirect(other.GetDirectInner(), holder);
    EXPECT_EQ(tile.GetConstInner(), other.GetConstInner());
    EXPECT_TRUE(tile.IsBackedBy(holder));
    auto third = MakeNoiseTile(3);
    tile.CopyAndPreserveBacking(&third);
    EXPECT_EQ(tile.GetConstInner(), third.GetConstInner());
    EXPECT_TRUE(tile.IsBackedBy(holder));
}

TEST_F(TileTest, TheFourCallsPinThePresentBlock) {
    auto tile = MakeNoiseTile(1);
    tile.IncrementRefCountConst();
    EXPECT_EQ(tile.GetConstInner()->GetPinCount(), 1);
    EXPECT_EQ(std::memcmp(tile.GetConstBuffer(), MakeNoise(1).data(), bytes), 0);
    EXPECT_FALSE(Dispose(tile));
    tile.DecrementRefCountConst();
    EXPECT_TRUE(Dispose(tile));
    EXPECT_TRUE(tile.IsDisposed());
    tile.IncrementRefCountMutable();
    EXPECT_FALSE(tile.IsDisposed());
    EXPECT_EQ(tile.GetConstInner()->GetPinCount(), 1);
    EXPECT_EQ(std::memcmp(tile.GetMutableBuffer(), MakeNoise(1).data(), bytes), 0);
    tile.DecrementRefCountMutable();
    EXPECT_EQ(tile.GetConstInner()->GetPinCount(), 0);
    EXPECT_FALSE(tile.GetConstInner()->HasMutableSession());
}

TEST_F(TileTest, TheBufferToWriteIsThatOfTheSessionAlsoWhenAReaderCame) {
    auto tile = MakeNoiseTile(1);
    tile.IncrementRefCountMutable();
    auto const block = tile.GetConstInner();
    {
        ConstTileGuard const reader(tile);
        EXPECT_EQ(tile.GetMutableBuffer(), block->GetConstBuffer());
    }
    EXPECT_EQ(tile.GetConstInner(), block);
    tile.DecrementRefCountMutable();
}

TEST_F(TileTest, AnOpenReaderKeepsItsPicture) {
    auto tile = MakeNoiseTile(1);
    ConstTileGuard const reader(tile);
    Write(tile, MakeNoise(2));
    EXPECT_EQ(std::memcmp(reader.GetBuffer(), MakeNoise(1).data(), bytes), 0);
    tile.Unallocate();
    EXPECT_EQ(std::memcmp(reader.GetBuffer(), MakeNoise(1).data(), bytes), 0);
}

TEST_F(TileTest, AReaderOfNothingKeepsReadingZeros) {
    Tile tile;
    ConstTileGuard const reader(tile);
    Write(tile, MakeNoise(2));
    EXPECT_EQ(std::memcmp(reader.GetBuffer(), Bytes(bytes, 0).data(), bytes), 0);
}

TEST_F(TileTest, GuardsMoveTheirSession) {
    auto tile = MakeNoiseTile(1);
    auto const block = tile.GetConstInner();
    {
        MutableTileGuard first(tile);
        MutableTileGuard second(std::move(first));
        first = std::move(second);
        EXPECT_EQ(block->GetPinCount(), 1);
        EXPECT_TRUE(first.GetBuffer());
        first.Reset();
        EXPECT_EQ(block->GetPinCount(), 0);
    }
    ConstTileGuard first(tile), third;
    ConstTileGuard second(std::move(first));
    third = std::move(second);
    EXPECT_EQ(block->GetPinCount(), 1);
    third = ConstTileGuard();
    EXPECT_EQ(block->GetPinCount(), 0);
    EXPECT_EQ(block->GetCount(), 1);
}

TEST_F(TileTest, AFailedReadLeavesNoSessionOpen) {
    auto tile = MakeNoiseTile(1);
    ASSERT_TRUE(Dispose(tile));
    Tile shared = tile;
    TestDisk::readFault = TestDisk::Fault::Error;
    EXPECT_ANY_THROW(ConstTileGuard{tile});
    EXPECT_ANY_THROW(MutableTileGuard{shared});
    EXPECT_ANY_THROW(tile.IncrementRefCountConst());
    EXPECT_ANY_THROW(tile.GetHash());
    EXPECT_ANY_THROW(tile.CompareBytes(Tile::GetZeroTile()));
    TestDisk::readFault = TestDisk::Fault::None;
    EXPECT_EQ(tile.GetConstInner()->GetPinCount(), 0);
    EXPECT_EQ(tile.GetConstInner(), shared.GetConstInner());
    EXPECT_EQ(Read(shared), MakeNoise(1));
}

TEST_F(TileTest, ComparesBytesInEveryState) {
    auto first = MakeNoiseTile(1), same = MakeNoiseTile(1), other = MakeNoiseTile(2), pending = MakePending(1);
    Tile unallocated, none;
    EXPECT_TRUE(first.CompareBytes(&first));
    ASSERT_TRUE(Dispose(same));
    EXPECT_TRUE(first.CompareBytes(&same));
    EXPECT_FALSE(first.CompareBytes(&other));
    EXPECT_TRUE(first.CompareBytes(&pending));
    EXPECT_TRUE(unallocated.CompareBytes(&none));
    EXPECT_TRUE(unallocated.CompareBytes(Tile::GetZeroTile()));
    EXPECT_FALSE(unallocated.CompareBytes(&first));
    for (std::size_t const at : {std::size_t(0), std::size_t(30000), std::size_t(65535)}) {
        auto content = MakeNoise(1);
        content[at] ^= 1;
        Write(other, content);
        EXPECT_FALSE(first.CompareBytes(&other)) << at;
    }
    EXPECT_EQ(first.GetConstInner()->GetPinCount(), 0);
}

TEST_F(TileTest, HashIsTheCRCOfTheBytesInEveryState) {
    auto const noise = MakeNoise(1);
    auto const expected = Kernel::CRC32::Instance().DataCRC32(noise.data(), bytes);
    auto tile = MakeNoiseTile(1), pending = MakePending(1);
    EXPECT_EQ(tile.GetHash(), expected);
    ASSERT_TRUE(Dispose(tile));
    EXPECT_EQ(tile.GetHash(), expected);
    EXPECT_EQ(pending.GetHash(), expected);
    EXPECT_EQ(Tile().GetHash(), Tile::GetZeroTileHash());
}

TEST_F(TileTest, ZerosByHandAreAZeroTileOnlyAfterAScrubWhichKeepsTheBacking) {
    Tile tile;
    Fill(tile, 0);
    auto const holder = MakeHolder();
    tile.SetBacking(holder);
    EXPECT_FALSE(tile.IsZeroTileBuffer());
    tile.Scrub();
    EXPECT_TRUE(tile.IsZeroTileBuffer());
    EXPECT_TRUE(tile.IsBackedBy(holder));
    ExpectAtRest(3, 0, 0);
}

TEST_F(TileTest, ScrubTellsTheThreeContentsApart) {
    Tile full, fullFloat, almost;
    Fill(full, 0xFFFFFFFF);
    Fill(fullFloat, 0x3F800000);
    for (auto const tile : {&full, &fullFloat})
        tile->Scrub();
    EXPECT_TRUE(full.IsFullTileBuffer() && !full.IsFullFloatTileBuffer());
    EXPECT_TRUE(fullFloat.IsFullFloatTileBuffer() && !fullFloat.IsFullTileBuffer());
    for (std::uint32_t const word : {0u, 0xFFFFFFFFu, 0x3F800000u})
        for (std::size_t const at : {0, 15, 16, 17, 8191, 16383}) {
            Fill(almost, word);
            {
                MutableTileGuard const session(almost);
                session.GetBuffer()[at] ^= 0x100;
            }
            auto const block = almost.GetConstInner();
            almost.Scrub();
            EXPECT_EQ(almost.GetConstInner(), block) << word << " at " << at;
        }
}

TEST_F(TileTest, ScrubLeavesAloneWhatIsNotInMemoryOrIsBeingWritten) {
    Tile unallocated, disposed, written, readBySomebody;
    auto pending = MakePending(1);
    Fill(disposed, 0);
    Fill(written, 0);
    Fill(readBySomebody, 0);
    ASSERT_TRUE(Dispose(disposed));
    BlockDeduplicationSupport support;
    MutableTileGuard writer(written);
    ConstTileGuard const reader(readBySomebody);
    for (auto const tile : {&unallocated, &disposed, &written, &readBySomebody, &pending}) {
        if (tile != &readBySomebody)
            tile->Deduplicate(support, nullptr);
        tile->Scrub();
    }
    EXPECT_FALSE(unallocated.IsAllocated());
    EXPECT_TRUE(disposed.IsDisposed());
    EXPECT_TRUE(pending.IsPendingDelayLoad());
    EXPECT_FALSE(written.IsZeroTileBuffer());
    EXPECT_TRUE(support.records.empty());
    EXPECT_TRUE(readBySomebody.IsZeroTileBuffer()) << "a reader is no hindrance";
    EXPECT_EQ(TestDisk::reads, 0);
    writer.Reset();
    written.Scrub();
    EXPECT_TRUE(written.IsZeroTileBuffer());
}

TEST_F(TileTest, RectsOfAFullFloatTile) {
    auto const & tile = *Tile::GetFullFloatTile();
    EXPECT_EQ(tile.GetFloatInverseDataRect(), Rect{});
    EXPECT_EQ(tile.GetInverseDataRect(), whole) << "1.0 has bytes below 255";
    EXPECT_EQ(tile.GetDataRect(), (Rect{2, 0, 256, 256}));
    EXPECT_EQ(tile.GetFloatInverseDataRectClipped(100, 100), Rect{});
}

TEST_F(TileTest, ANaNAmongOnesLeavesTheFloatRectEmpty) {
    Tile tile;
    Fill(tile, 0x3F800000);
    {
        MutableTileGuard const session(tile);
        float const nan = std::numeric_limits<float>::quiet_NaN();
        std::memcpy(session.GetBuffer() + 777, &nan, 4);
    }
    EXPECT_EQ(tile.GetFloatInverseDataRect(), Rect{});
    {
        MutableTileGuard const session(tile);
        session.GetBuffer()[64 * 9 + 3] = 0;
    }
    EXPECT_EQ(tile.GetFloatInverseDataRect(), (Rect{12, 9, 16, 10}));
}

class CountingSupport : public BlockDeduplicationSupport {
public:
    void BeginReplace() override {
        EXPECT_EQ(Kernel::LockOrder::GetHeldCount(), 0) << "called with no lock held";
        ++begun;
    }
    void EndReplace() override {
        ++ended;
        EXPECT_EQ(begun, ended);
    }
    int begun = 0, ended = 0;
};

TEST_F(TileTest, DeduplicationLetsEqualTilesShareTheFirstBlock) {
    CountingSupport support;
    std::vector<Tile> tiles;
    for (unsigned const seed : {1u, 2u, 1u, 3u, 2u, 1u})
        tiles.push_back(MakeNoiseTile(seed));
    auto const holder = MakeHolder();
    tiles[5].SetBacking(holder);
    for (auto & tile : tiles)
        tile.Deduplicate(support, nullptr);
    EXPECT_EQ(support.records.size(), 3);
    EXPECT_EQ(support.records[0].block, tiles[0].GetConstInner());
    EXPECT_EQ(support.records[0].hash, tiles[0].GetHash());
    EXPECT_EQ(support.begun, 3);
    for (int const sharer : {2, 5})
        EXPECT_EQ(tiles[sharer].GetConstInner(), tiles[0].GetConstInner());
    EXPECT_EQ(tiles[4].GetConstInner(), tiles[1].GetConstInner());
    EXPECT_TRUE(tiles[5].IsBackedBy(holder));
    ExpectAtRest(3 + 3, 0, 0);
    for (auto & tile : tiles)
        tile.Deduplicate(support, nullptr);
    EXPECT_EQ(support.records.size(), 3);
    EXPECT_EQ(support.begun, 3) << "known blocks are left alone";
}

TEST_F(TileTest, WhatIsRecordedIsNotHashedAgain) {
    CountingSupport support;
    auto tile = MakeNoiseTile(1);
    tile.Deduplicate(support, nullptr);
    // Behind everybody's back: whoever looked at the bytes again would find a hash that is not recorded.
    const_cast<unsigned int *>(tile.GetConstBuffer())[0] ^= 1;
    tile.Deduplicate(support, nullptr);
    EXPECT_EQ(support.records.size(), 1);
    EXPECT_EQ(support.begun, 0);
}

TEST_F(TileTest, DeduplicationFindsTheStaticContents) {
    CountingSupport support;
    Tile zero, full, fullFloat;
    Fill(zero, 0);
    Fill(full, 0xFFFFFFFF);
    Fill(fullFloat, 0x3F800000);
    for (auto const tile : {&zero, &full, &fullFloat})
        tile->Deduplicate(support, nullptr);
    EXPECT_TRUE(zero.IsZeroTileBuffer() && full.IsFullTileBuffer() && fullFloat.IsFullFloatTileBuffer());
    EXPECT_EQ(support.begun, 3);
    EXPECT_TRUE(support.records.empty());
    zero.Deduplicate(support, nullptr);
    EXPECT_EQ(support.begun, 3);
}

TEST_F(TileTest, AnEqualHashIsNotEnough) {
    CountingSupport support;
    auto first = MakeNoiseTile(1), second = MakeNoiseTile(2), third = MakeNoiseTile(2);
    support.records.push_back({first.GetConstInner(), second.GetHash()}); // as if the hashes collided
    support.records.push_back({second.GetConstInner(), second.GetHash()});
    third.Deduplicate(support, nullptr);
    EXPECT_EQ(third.GetConstInner(), second.GetConstInner());
    EXPECT_EQ(support.records.size(), 2);
    support.records.clear();
    auto fourth = MakeNoiseTile(2);
    fourth.Deduplicate(support, nullptr);
    EXPECT_EQ(support.records.size(), 1) << "the index follows the records";
    EXPECT_EQ(support.records[0].block, fourth.GetConstInner());
}

TEST_F(TileTest, AnAbortedDeduplicationDoesNothing) {
    CountingSupport support;
    bool abort = true;
    auto tile = MakeNoiseTile(1);
    tile.Deduplicate(support, &abort);
    EXPECT_TRUE(support.records.empty());
    abort = false;
    tile.Deduplicate(support, &abort);
    EXPECT_EQ(support.records.size(), 1);
}

TEST_F(TileTest, ARecordedTileMayBeWrittenWithoutHarm) {
    CountingSupport support;
    auto first = MakeNoiseTile(1), second = MakeNoiseTile(1);
    first.Deduplicate(support, nullptr);
    Write(first, MakeNoise(2));
    second.Deduplicate(support, nullptr);
    EXPECT_EQ(Read(first), MakeNoise(2));
    EXPECT_EQ(Read(second), MakeNoise(1));
    first.Unallocate();
    auto third = MakeNoiseTile(1);
    third.Deduplicate(support, nullptr);
    EXPECT_EQ(Read(third), MakeNoise(1));
}

TEST_F(TileTest, RecordedBlocksOnDiskAreComparedToo) {
    CountingSupport support;
    auto first = MakeNoiseTile(1), second = MakeNoiseTile(1);
    first.Deduplicate(support, nullptr);
    ASSERT_TRUE(Dispose(first));
    second.Deduplicate(support, nullptr);
    EXPECT_EQ(second.GetConstInner(), first.GetConstInner());
}

TEST_F(TileTest, EmptyTilesByTheMillionCostTheirHandlesAlone) {
    auto const blocksBefore = SlabAllocator::Instance().GetUsedCount();
    std::vector<Tile> tiles(1000000);
    std::vector<Tile> const copies(tiles);
    EXPECT_LE(sizeof(Tile), 16);
    for (std::size_t i = 0; i < tiles.size(); i += 1000)
        EXPECT_FALSE(copies[i].IsAllocated());
    EXPECT_EQ(SlabAllocator::Instance().GetUsedCount(), blocksBefore);
}
}
}
