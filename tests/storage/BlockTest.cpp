#include "storage/Block.h"

#include "kernel/COW.h"
#include "kernel/MemoryInStream.h"
#include "kernel/MemoryOutStream.h"
#include "kernel/TraceCapture.h"
#include "pixel/PixelMemory.h"
#include "storage/BackstoreReadError.h"
#include "storage/BlockEnvironment.h"
#include "storage/BlockPin.h"
#include "storage/DocumentHolder.h"

#include <algorithm>
#include <csignal>
#include <sys/resource.h>
#include <thread>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;
using Bytes = std::vector<unsigned char>;
Bytes const zeros(65536, 0);

/// Items of tiles refer to nothing, so they never look at their store.
alignas(16) char standIn[16];
auto & noStoreOut = reinterpret_cast<Kernel::FileStoreOut &>(standIn);
auto & noStore = reinterpret_cast<Kernel::FileStore &>(standIn);

TEST_F(BlockTest, IsBornUnallocatedAndDescribedExactly) {
    auto const block = Kernel::MakeCounted<Block>();
    EXPECT_FALSE(block->IsAllocated());
    EXPECT_FALSE(block->IsAllocatedAndPresent());
    EXPECT_FALSE(block->IsDisposed());
    EXPECT_FALSE(block->IsPendingDelayLoad());
    EXPECT_TRUE(block->IsDataRectValid() && block->IsInverseDataRectValid() && block->IsFloatInverseDataRectValid());
    EXPECT_EQ(block->GetDataRect(), Rect{});
    EXPECT_EQ(block->GetInverseDataRect(), (Rect{0, 0, 256, 256}));
    EXPECT_EQ(block->GetFloatInverseDataRect(), (Rect{0, 0, 256, 256}));
}

TEST_F(BlockTest, ReadingWhatWasNeverWrittenGivesTheStaticZerosAndCostsNothing) {
    auto const block = Kernel::MakeCounted<Block>();
    ConstBlockPin const pin(*block);
    EXPECT_EQ(block->GetConstBuffer(), Block::GetStaticBlock(false, false));
    EXPECT_EQ(Read(*block), zeros);
    EXPECT_FALSE(block->IsAllocated());
    ExpectAtRest(0, 0, 0);
}

TEST_F(BlockTest, TheStaticBlockComesAndGoes) {
    auto const block = Block::GetStaticBlock(false, false);
    block[0] = 1;
    EXPECT_EQ(Block::GetStaticBlock(true, false), block);
    EXPECT_EQ(block[0], 0);
    EXPECT_EQ(Block::GetStaticBlock(false, true), nullptr);
    EXPECT_NE(Block::GetStaticBlock(false, false), nullptr);
}

TEST_F(BlockTest, TheFirstWriteAllocatesZerosAndIsCountedOnce) {
    auto const block = Kernel::MakeCounted<Block>();
    block->IncrementRefCountMutable();
    auto const buffer = block->GetMutableBuffer();
    EXPECT_EQ(block->GetMutableBuffer(), buffer);
    EXPECT_EQ(block->GetConstBuffer(), buffer);
    EXPECT_EQ(std::memcmp(buffer, zeros.data(), bytes), 0);
    block->DecrementRefCountMutable();
    EXPECT_TRUE(block->IsAllocatedAndPresent());
    ExpectAtRest(1, 0, 0);
}

TEST_F(BlockTest, AReusedBufferIsZeroAgainForTheNextBlock) {
    MakeNoiseBlock(1);
    auto const block = Kernel::MakeCounted<Block>();
    block->IncrementRefCountMutable();
    EXPECT_EQ(std::memcmp(block->GetMutableBuffer(), zeros.data(), bytes), 0);
    block->DecrementRefCountMutable();
}

TEST_F(BlockTest, CopyHasABufferOfItsOwnAndTheRectsWithoutAScan) {
    auto const source = MakeNoiseBlock(2);
    auto const rect = source->GetDataRect();
    auto const copy = Kernel::MakeCounted<Block>();
    copy->Copy(*source);
    EXPECT_TRUE(copy->IsDataRectValid());
    EXPECT_FALSE(copy->IsInverseDataRectValid()) << "nor had the source scanned that";
    EXPECT_EQ(copy->GetDataRect(), rect);
    EXPECT_EQ(Read(*copy), Read(*source));
    Write(*copy, zeros);
    EXPECT_EQ(Read(*source), MakeNoise(2));
    ExpectAtRest(2, 0, 0);
}

TEST_F(BlockTest, CopyOfAnUnallocatedBlockIsAllocatedZeros) {
    auto const copy = MakeNoiseBlock(3);
    copy->Copy(*Kernel::MakeCounted<Block>());
    EXPECT_TRUE(copy->IsAllocated());
    EXPECT_EQ(Read(*copy), zeros);
    EXPECT_EQ(copy->GetDataRect(), Rect{});
    EXPECT_EQ(copy->GetInverseDataRect(), (Rect{0, 0, 256, 256}));
}

TEST_F(BlockTest, CopyGivesBackWhatTheTargetHeldInEveryState) {
    auto const source = MakeNoiseBlock(4);
    auto const resident = MakeNoiseBlock(5), disposed = MakeNoiseBlock(6), pending = Kernel::MakeCounted<Block>();
    ASSERT_TRUE(disposed->DisposeIfPossible());
    pending->SetDelayLoad(Kernel::MakeCounted<DocumentHolder>(MakeNoise(7)));
    ExpectAtRest(2, 1, 1);
    for (auto const & target : {resident, disposed, pending}) {
        target->Copy(*source);
        EXPECT_EQ(Read(*target), MakeNoise(4));
    }
    ExpectAtRest(4, 0, 0);
    resident->Copy(*resident);
    EXPECT_EQ(Read(*resident), MakeNoise(4));
}

TEST_F(BlockTest, CopyOfABlockOnDiskBringsItBack) {
    auto const source = MakeNoiseBlock(8);
    ASSERT_TRUE(source->DisposeIfPossible());
    auto const copy = Kernel::MakeCounted<Block>();
    copy->Copy(*source);
    EXPECT_EQ(Read(*copy), MakeNoise(8));
    ExpectAtRest(2, 0, 0);
}

TEST_F(BlockTest, APinKeepsTheBufferInMemory) {
    auto const block = MakeNoiseBlock(9);
    block->IncrementRefCountConst();
    EXPECT_FALSE(block->DisposeIfPossible());
    EXPECT_TRUE(block->IsAllocatedAndPresent());
    block->DecrementRefCountConst();
    block->IncrementRefCountMutable();
    EXPECT_FALSE(block->DisposeIfPossible());
    block->DecrementRefCountMutable();
    EXPECT_TRUE(block->DisposeIfPossible());
    EXPECT_TRUE(block->IsDisposed() && block->IsAllocated() && !block->IsAllocatedAndPresent());
    EXPECT_FALSE(block->DisposeIfPossible()) << "there is nothing left to dispose of";
    ExpectAtRest(0, 1, 0);
}

TEST_F(BlockTest, ABlockFromADocumentFindsItsRectsAndKeepsTheFloatBound) {
    std::vector<unsigned char> stored(Block::ByteCount);
    stored[5 * 256 + 7] = 9;
    auto const pending = Kernel::MakeCounted<Block>();
    pending->SetDelayLoad(Kernel::MakeCounted<DocumentHolder>(stored));
    EXPECT_EQ((RectT<int>{7, 5, 8, 6}), pending->GetDataRect());
    EXPECT_EQ((RectT<int>{0, 0, 256, 256}), pending->GetInverseDataRect());

    std::vector<float> const ones(Block::ByteCount / sizeof(float), 1.0f);
    std::memcpy(stored.data(), ones.data(), stored.size());
    auto const full = Kernel::MakeCounted<Block>();
    full->SetDelayLoad(Kernel::MakeCounted<DocumentHolder>(stored));
    EXPECT_EQ((RectT<int>{0, 0, 256, 256}), full->GetFloatInverseDataRect()) << "a true bound, if not a tight one";
    full->IncrementRefCountMutable();
    full->GetMutableBuffer();
    full->DecrementRefCountMutable();
    EXPECT_EQ((RectT<int>{}), full->GetFloatInverseDataRect()) << "until it is written";
}

TEST_F(BlockTest, WhatIsNowhereOrPendingIsNotDisposedOf) {
    auto const nowhere = Kernel::MakeCounted<Block>(), pending = Kernel::MakeCounted<Block>();
    pending->SetDelayLoad(Kernel::MakeCounted<DocumentHolder>(MakeNoise(10)));
    EXPECT_FALSE(nowhere->DisposeIfPossible());
    EXPECT_FALSE(pending->DisposeIfPossible());
    ExpectAtRest(0, 0, 1);
}

TEST_F(BlockTest, ComesBackFromDiskWithTheSameBytesAndLeavesItsSlotToTheNext) {
    auto const first = MakeNoiseBlock(11), second = MakeNoiseBlock(12), third = MakeNoiseBlock(13);
    ASSERT_TRUE(first->DisposeIfPossible());
    ASSERT_TRUE(second->DisposeIfPossible());
    EXPECT_EQ(backstore.GetSlotCount(), 2);
    EXPECT_EQ(Read(*first), MakeNoise(11));
    EXPECT_EQ(backstore.GetFreeSlotCount(), 1);
    EXPECT_EQ(std::filesystem::file_size(backstore.GetPath()), 2 * bytes);
    ASSERT_TRUE(third->DisposeIfPossible());
    EXPECT_EQ(backstore.GetSlotCount(), 2);
    EXPECT_EQ(std::filesystem::file_size(backstore.GetPath()), 2 * bytes);
    EXPECT_EQ(Read(*third), MakeNoise(13));
    EXPECT_EQ(Read(*second), MakeNoise(12));
}

TEST_F(BlockTest, TheSlotFreedLastIsUsedFirst) {
    Kernel::Counted<Block> blocks[3];
    for (unsigned i = 0; i < 3; ++i) {
        blocks[i] = MakeNoiseBlock(i);
        ASSERT_TRUE(blocks[i]->DisposeIfPossible());
    }
    auto const slotHolds = [&](int slot, unsigned seed) {
        Bytes content(bytes);
        auto const file = std::fopen(backstore.GetPath().c_str(), "rb");
        std::fseek(file, slot * 65536, SEEK_SET);
        bool const isRead = std::fread(content.data(), 1, bytes, file) == bytes;
        std::fclose(file);
        return isRead && content == MakeNoise(seed);
    };
    EXPECT_TRUE(slotHolds(0, 0) && slotHolds(1, 1) && slotHolds(2, 2));
    blocks[0].Reset();
    blocks[2].Reset();
    auto const next = MakeNoiseBlock(50), afterNext = MakeNoiseBlock(51);
    ASSERT_TRUE(next->DisposeIfPossible());
    EXPECT_TRUE(slotHolds(2, 50));
    ASSERT_TRUE(afterNext->DisposeIfPossible());
    EXPECT_TRUE(slotHolds(0, 51));
}

TEST_F(BlockTest, DeletingABlockOnDiskReadsNothing) {
    auto block = MakeNoiseBlock(14);
    ASSERT_TRUE(block->DisposeIfPossible());
    EXPECT_EQ(ledger.GetBackstoreUsage(), bytes);
    block.Reset();
    EXPECT_EQ(ledger.GetBackstoreUsage(), 0);
    EXPECT_EQ(TestDisk::reads, 0);
    EXPECT_EQ(backstore.GetFreeSlotCount(), 1);
}

TEST_F(BlockTest, PeaksOfTheBackstoreStay) {
    auto block = MakeNoiseBlock(14);
    ASSERT_TRUE(block->DisposeIfPossible());
    block.Reset();
    EXPECT_GE(ledger.GetBackstorePeakUsage(), bytes);
}

TEST_F(BlockTest, TheWholeClippedFillsTheCacheAndAPartLeavesIt) {
    auto const block = MakeNoiseBlock(15);
    EXPECT_FALSE(block->IsDataRectValid());
    block->GetDataRectClipped(100, 100);
    EXPECT_FALSE(block->IsDataRectValid());
    EXPECT_EQ(block->GetDataRectClipped(256, 256), (Rect{0, 0, 256, 256}));
    EXPECT_TRUE(block->IsDataRectValid());
    EXPECT_LE(block->GetDataRectClipped(100, 100).right, 100);
    EXPECT_EQ(block->GetDataRectClipped(0, 100), Rect{});
    EXPECT_EQ(block->GetDataRectClipped(-5, 300), Rect{});
    EXPECT_EQ(block->GetDataRect(), (Rect{0, 0, 256, 256}));
}

TEST_F(BlockTest, WritingMakesAllRectsStaleAlsoWhenNothingChanges) {
    auto const block = MakeNoiseBlock(16);
    block->GetDataRect();
    block->GetInverseDataRect();
    block->GetFloatInverseDataRect();
    EXPECT_TRUE(block->IsDataRectValid() && block->IsInverseDataRectValid() && block->IsFloatInverseDataRectValid());
    block->IncrementRefCountMutable();
    EXPECT_TRUE(block->IsDataRectValid()) << "a session alone changes nothing";
    auto const buffer = block->GetMutableBuffer();
    buffer[0] = unsigned(buffer[0]);
    block->DecrementRefCountMutable();
    EXPECT_FALSE(block->IsDataRectValid() || block->IsInverseDataRectValid() || block->IsFloatInverseDataRectValid());
}

TEST_F(BlockTest, ARectTakenWhileSomebodyWritesIsNotKept) {
    auto const block = Kernel::MakeCounted<Block>();
    block->IncrementRefCountMutable();
    auto const buffer = block->GetMutableBuffer();
    EXPECT_EQ(block->GetDataRect(), Rect{});
    EXPECT_FALSE(block->IsDataRectValid());
    buffer[0] = 1;
    EXPECT_EQ(block->GetDataRect(), (Rect{0, 0, 1, 1}));
    block->DecrementRefCountMutable();
    EXPECT_EQ(block->GetDataRect(), (Rect{0, 0, 1, 1}));
    EXPECT_TRUE(block->IsDataRectValid());
}

TEST_F(BlockTest, RectsSurviveATripToDiskAndAreTakenFromThere) {
    auto const block = MakeNoiseBlock(17);
    block->GetDataRect();
    ASSERT_TRUE(block->DisposeIfPossible());
    EXPECT_EQ(block->GetDataRect(), (Rect{0, 0, 256, 256}));
    EXPECT_TRUE(block->IsDisposed()) << "what is cached needs no bytes";
    block->GetInverseDataRect();
    EXPECT_FALSE(block->IsDisposed());
}

TEST_F(BlockTest, PendingBytesAreLoadedAtTheFirstReading) {
    auto const holder = Kernel::MakeCounted<DocumentHolder>(MakeNoise(20));
    auto const block = Kernel::MakeCounted<Block>();
    block->SetDelayLoad(holder);
    EXPECT_TRUE(block->IsPendingDelayLoad() && block->IsAllocated() && !block->IsAllocatedAndPresent());
    ExpectAtRest(0, 0, 1);
    EXPECT_EQ(Read(*block), MakeNoise(20));
    EXPECT_FALSE(block->IsPendingDelayLoad());
    ExpectAtRest(1, 0, 0);
    EXPECT_EQ(holder->loads, 1);
    ASSERT_TRUE(block->DisposeIfPossible());
    EXPECT_EQ(Read(*block), MakeNoise(20));
    EXPECT_EQ(holder->loads, 1) << "it came back from the backstore";
}

TEST_F(BlockTest, AHolderThatWasLoadedAlreadyMakesTheBlockResident) {
    auto const holder = Kernel::MakeCounted<DocumentHolder>(MakeNoise(21));
    holder->LoadItemI();
    auto const block = Kernel::MakeCounted<Block>();
    block->SetDelayLoad(holder);
    ExpectAtRest(1, 0, 0);
    EXPECT_EQ(Read(*block), MakeNoise(21));
}

TEST_F(BlockTest, AFailedLoadReadsAsZerosAndIsTriedAgain) {
    TraceCapture trace;
    auto const holder = Kernel::MakeCounted<DocumentHolder>(MakeNoise(22));
    auto const block = Kernel::MakeCounted<Block>();
    block->SetDelayLoad(holder);
    holder->isBroken = true;
    EXPECT_EQ(Read(*block), zeros);
    EXPECT_EQ(trace.Take().size(), 1);
    EXPECT_TRUE(block->IsPendingDelayLoad());
    ExpectAtRest(0, 0, 1);
    holder->isBroken = false;
    EXPECT_EQ(Read(*block), MakeNoise(22));
    ExpectAtRest(1, 0, 0);
}

TEST_F(BlockTest, ZerosOfAFailedLoadAreNotRememberedInRects) {
    std::vector<unsigned char> stored(bytes);
    stored[3 * 256 + 4] = 1;
    auto const holder = Kernel::MakeCounted<DocumentHolder>(stored);
    auto const block = Kernel::MakeCounted<Block>();
    block->SetDelayLoad(holder);
    holder->isBroken = true;
    TraceCapture trace;
    EXPECT_EQ(block->GetDataRect(), Rect{});
    EXPECT_EQ(trace.Take().size(), 1);
    EXPECT_FALSE(block->IsDataRectValid());
    holder->isBroken = false;
    EXPECT_EQ(block->GetDataRect(), (Rect{4, 3, 5, 4}));
    EXPECT_TRUE(block->IsDataRectValid());
}

TEST_F(BlockTest, ARectThatMeetsAFailingDiskSendsItsMessageWithNoLockHeld) {
    ledger.SetDRAMLimit(0);
    auto const disposed = MakeNoiseBlock(34), resident = MakeNoiseBlock(35);
    ASSERT_TRUE(disposed->IsDisposed());
    TestDisk::writeFault = TestDisk::Fault::Error;
    TraceCapture trace; // looks at what is held
    disposed->GetDataRect();
    EXPECT_EQ(trace.Take().size(), 1);
    TestDisk::writeFault = TestDisk::Fault::None;
}

TEST_F(BlockTest, AnItemThatIsLostWithItsBlockIsToldOfAndNeverSaved) {
    auto const holder = Kernel::MakeCounted<DocumentHolder>(MakeNoise(29));
    auto block = Kernel::MakeCounted<Block>();
    block->SetDelayLoad(holder);
    Write(*block, MakeNoise(32));
    ASSERT_TRUE(block->DisposeIfPossible());
    TestDisk::readFault = TestDisk::Fault::Error;
    TraceCapture trace;
    block.Reset();
    EXPECT_EQ(trace.Take().size(), 1);
    TestDisk::readFault = TestDisk::Fault::None;
    Kernel::MemoryOutStream stream;
    EXPECT_THROW(holder->GetItem()->Save(stream, noStoreOut), Kernel::OutStream::WriteException);
    EXPECT_EQ(stream.GetSize(), 0);
}

TEST_F(BlockTest, AWriteToWhatCannotBeLoadedStandsOnZeros) {
    TraceCapture trace;
    auto const holder = Kernel::MakeCounted<DocumentHolder>(MakeNoise(23));
    auto const block = Kernel::MakeCounted<Block>();
    block->SetDelayLoad(holder);
    holder->isBroken = true;
    block->IncrementRefCountMutable();
    auto const buffer = block->GetMutableBuffer();
    EXPECT_EQ(std::memcmp(buffer, zeros.data(), bytes), 0);
    block->DecrementRefCountMutable();
    EXPECT_EQ(trace.Take().size(), 1);
    holder->isBroken = false;
    EXPECT_EQ(Read(*block), zeros) << "the holder is no longer asked";
    ExpectAtRest(1, 0, 0);
}

TEST_F(BlockTest, AWriteMarksTheItemOfADocumentAsChanged) {
    auto const holder = Kernel::MakeCounted<DocumentHolder>(MakeNoise(24));
    auto const block = Kernel::MakeCounted<Block>();
    block->SetDelayLoad(holder);
    Read(*block);
    EXPECT_TRUE(holder->GetItem()->GetState().CanShare());
    Write(*block, zeros);
    EXPECT_FALSE(holder->GetItem()->GetState().CanShare());
}

TEST_F(BlockTest, TwoBlocksOfOneItemHaveBytesOfTheirOwn) {
    auto const holder = Kernel::MakeCounted<DocumentHolder>(MakeNoise(25));
    auto const first = Kernel::MakeCounted<Block>(), second = Kernel::MakeCounted<Block>();
    auto const third = Kernel::MakeCounted<Block>();
    for (auto const & block : {first, second, third})
        block->SetDelayLoad(holder);
    EXPECT_EQ(Read(*first), MakeNoise(25));
    EXPECT_EQ(Read(*second), MakeNoise(25));
    ExpectAtRest(2, 0, 1);
    ASSERT_TRUE(first->DisposeIfPossible());
    EXPECT_EQ(Read(*third), MakeNoise(25)) << "also from an owner on disk";
    ExpectAtRest(2, 1, 0);
    Write(*second, zeros);
    EXPECT_EQ(Read(*first), MakeNoise(25));
    EXPECT_EQ(Read(*third), MakeNoise(25));
}

TEST_F(BlockTest, AnItemThatOutlivesItsBlockOnDiskKeepsItsBytes) {
    auto const holder = Kernel::MakeCounted<DocumentHolder>(MakeNoise(26));
    auto block = Kernel::MakeCounted<Block>();
    block->SetDelayLoad(holder);
    Write(*block, MakeNoise(27));
    ASSERT_TRUE(block->DisposeIfPossible());
    block.Reset();
    auto const item = Kernel::DynamicCast<Data>(holder->GetItem());
    ASSERT_TRUE(item && item->GetBuffer());
    EXPECT_EQ(std::memcmp(item->GetBuffer(), MakeNoise(27).data(), bytes), 0);
}

TEST_F(BlockTest, AnUnchangedItemOnDiskIsDroppedWithItsBlockAndLoadedAgain) {
    auto const holder = Kernel::MakeCounted<DocumentHolder>(MakeNoise(28));
    auto block = Kernel::MakeCounted<Block>();
    block->SetDelayLoad(holder);
    Read(*block);
    ASSERT_TRUE(block->DisposeIfPossible());
    block.Reset();
    EXPECT_EQ(TestDisk::reads, 0);
    block = Kernel::MakeCounted<Block>();
    block->SetDelayLoad(holder);
    EXPECT_EQ(Read(*block), MakeNoise(28));
    EXPECT_EQ(holder->loads, 2);
}

TEST_F(BlockTest, AnUnchangedItemInMemoryIsDroppedWithItsBlockToo) {
    auto const holder = Kernel::MakeCounted<DocumentHolder>(MakeNoise(28));
    auto block = Kernel::MakeCounted<Block>();
    block->SetDelayLoad(holder);
    Read(*block);
    block.Reset();
    ExpectAtRest(0, 0, 0); // the buffer is gone with what was counted
    EXPECT_FALSE(holder->IsLoaded());
}

TEST_F(BlockTest, AChangedItemInMemoryStaysWithItsHolderAndServesTheNextBlock) {
    auto holder = Kernel::MakeCounted<DocumentHolder>(MakeNoise(28));
    auto block = Kernel::MakeCounted<Block>();
    block->SetDelayLoad(holder);
    Write(*block, MakeNoise(29));
    block.Reset();
    EXPECT_EQ(SlabAllocator::Instance().GetUsedCount(), 1) << "that of the holder";
    block = Kernel::MakeCounted<Block>();
    block->SetDelayLoad(holder);
    EXPECT_EQ(Read(*block), MakeNoise(29));
    ExpectAtRest(1, 0, 0);
}

TEST_F(BlockTest, ACopyOfAnItemThatGoesLeavesTheItemOfItsOwner) {
    auto const holder = Kernel::MakeCounted<DocumentHolder>(MakeNoise(25));
    auto const owner = Kernel::MakeCounted<Block>();
    auto copy = Kernel::MakeCounted<Block>();
    owner->SetDelayLoad(holder);
    Read(*owner);
    copy->SetDelayLoad(holder);
    Read(*copy);
    auto const item = holder->GetItem();
    copy.Reset();
    EXPECT_EQ(holder->GetItem(), item);
    ExpectAtRest(1, 0, 0);
}

TEST_F(BlockTest, AnItemWithoutBytesIsNobodys) {
    auto const item = Kernel::MakeCounted<Data>();
    item->FreeBuffer(); // as a failed disk leaves it
    auto const holder = Kernel::DelayLoadHolder::Create(Data::GetItemType(), item);
    TraceCapture trace;
    {
        auto const block = Kernel::MakeCounted<Block>();
        block->SetDelayLoad(holder);
        EXPECT_EQ(Read(*block), zeros);
        EXPECT_EQ(item->GetOwner(), nullptr);
    }
    Kernel::MemoryOutStream stream;
    EXPECT_THROW(item->Save(stream, noStoreOut), Kernel::OutStream::WriteException);
}

TEST_F(BlockTest, WhatOneBlockChangesInAnItemAnotherLoadsAsItWasStored) {
    auto const holder = Kernel::MakeCounted<DocumentHolder>(MakeNoise(25));
    auto const first = Kernel::MakeCounted<Block>(), second = Kernel::MakeCounted<Block>(),
               third = Kernel::MakeCounted<Block>();
    for (auto const & block : {first, second, third})
        block->SetDelayLoad(holder);
    Write(*first, MakeNoise(26));
    EXPECT_EQ(Read(*second), MakeNoise(25));
    ASSERT_TRUE(first->DisposeIfPossible());
    EXPECT_EQ(Read(*third), MakeNoise(25));
    EXPECT_EQ(Read(*first), MakeNoise(26));
    EXPECT_EQ(Kernel::DynamicCast<Data>(holder->GetItem())->GetOwner(), first.Get());
    ExpectAtRest(3, 0, 0);
}

TEST_F(BlockTest, AnItemIsNotCopiedWhileItsOwnerIsWritten) {
    Bytes const ones(bytes, 1);
    for (int round = 0; round < 50; ++round) {
        auto const holder = Kernel::MakeCounted<DocumentHolder>(zeros);
        auto const owner = Kernel::MakeCounted<Block>(), other = Kernel::MakeCounted<Block>();
        owner->SetDelayLoad(holder);
        other->SetDelayLoad(holder);
        Read(*owner);
        std::atomic<bool> isWriting{false};
        std::thread writer([&] {
            isWriting = true;
            Write(*owner, ones);
        });
        while (!isWriting)
            std::this_thread::yield();
        EXPECT_TRUE(Read(*other) == zeros) << "round " << round;
        writer.join();
    }
}

TEST_F(BlockTest, WhatHoldsNoBytesGoesWithoutWaitingForAnEviction) {
    static std::atomic<int> gone;
    gone = 0;
    auto const block = MakeNoiseBlock(36);
    backstore.SetFileFunctions(nullptr, [](int file, void const * content, size_t count, off_t offset) {
        std::thread([] { // the ledger's lock is held by the thread that writes
            Kernel::MakeCounted<Block>().Reset();
            auto const pending = Kernel::MakeCounted<Block>();
            pending->SetDelayLoad(Kernel::MakeCounted<DocumentHolder>(zeros));
            ++gone;
        })
            .join();
        return pwrite(file, content, count, offset);
    });
    EXPECT_TRUE(block->DisposeIfPossible());
    EXPECT_EQ(gone, 1);
    TestDisk::Install();
}

TEST_F(BlockTest, ACopyOnWriteHolderCopiesWhatIsShared) {
    Kernel::COW<Block> const empty;
    EXPECT_FALSE(empty->IsAllocated());
    Kernel::COW<Block> first(MakeNoiseBlock(70)), second = first;
    auto const shared = first.GetConst();
    ASSERT_TRUE(shared->DisposeIfPossible());
    EXPECT_EQ(second.GetConst(), shared);
    Write(*second.GetMutable(), zeros);
    EXPECT_NE(second.GetConst(), shared);
    EXPECT_EQ(first.GetMutable(), shared) << "nobody else holds it now";
    EXPECT_EQ(Read(*first), MakeNoise(70));
}

TEST_F(BlockTest, AnItemIsStoredAsItsBytesAlsoFromDisk) {
    auto const block = Kernel::MakeCounted<Block>();
    auto const holder = Kernel::MakeCounted<DocumentHolder>(MakeNoise(71));
    block->SetDelayLoad(holder);
    Read(*block);
    auto const item = holder->GetItem();
    for (bool const isOnDisk : {true, false}) {
        EXPECT_EQ(block->IsDisposed() || block->DisposeIfPossible(), true);
        if (!isOnDisk)
            Read(*block);
        Kernel::MemoryOutStream stream;
        item->Save(stream, noStoreOut);
        ASSERT_EQ(stream.GetSize(), bytes);
        EXPECT_EQ(std::memcmp(stream.GetData(), MakeNoise(71).data(), bytes), 0);
        EXPECT_EQ(block->GetPinCount(), 0);
    }
    ASSERT_TRUE(block->DisposeIfPossible());
    TestDisk::readFault = TestDisk::Fault::Error;
    Kernel::MemoryOutStream stream;
    EXPECT_THROW(item->Save(stream, noStoreOut), BackstoreReadError) << "rather than storing garbage";
    EXPECT_EQ(stream.GetSize(), 0);
    TestDisk::readFault = TestDisk::Fault::None;
}

TEST_F(BlockTest, AnItemIsLoadedFromExactlyItsBytes) {
    auto const noise = MakeNoise(72);
    Bytes longer = noise;
    longer.push_back(0);
    Data item;
    Kernel::MemoryInStream shortStream(noise.data(), bytes - 1), longStream(longer.data(), bytes + 1), none(nullptr, 0);
    EXPECT_FALSE(item.Load(shortStream, noStore) || item.Load(longStream, noStore) || item.Load(none, noStore));
    Kernel::MemoryInStream stream(noise.data(), bytes);
    EXPECT_TRUE(item.Load(stream, noStore));
    EXPECT_EQ(std::memcmp(item.GetBuffer(), noise.data(), bytes), 0);
    EXPECT_EQ(item.GetObjectFileStoreItemType().GetTag(), Kernel::IDTag("DatI"));
    EXPECT_FALSE(item.GetObjectFileStoreItemType().IsNestable());
    EXPECT_TRUE(item.GetObjectFileStoreItemType().IsRecoverable());
}

TEST_F(BlockTest, ExhaustedMemoryUndoesWhatWasAskedFor) {
    auto const disposed = MakeNoiseBlock(73), source = MakeNoiseBlock(74), target = Kernel::MakeCounted<Block>();
    ASSERT_TRUE(disposed->DisposeIfPossible());
    PixelMemory::FailAllocation(1);
    EXPECT_THROW(disposed->IncrementRefCountConst(), std::bad_alloc);
    PixelMemory::FailAllocation(1);
    EXPECT_THROW(target->Copy(*source), std::bad_alloc);
    PixelMemory::FailAllocation(1);
    target->IncrementRefCountMutable();
    EXPECT_THROW(target->GetMutableBuffer(), std::bad_alloc);
    target->DecrementRefCountMutable();
    EXPECT_FALSE(target->IsAllocated());
    EXPECT_EQ(disposed->GetPinCount() + source->GetPinCount() + target->GetPinCount(), 0);
    ExpectAtRest(1, 1, 0);
    EXPECT_EQ(Read(*disposed), MakeNoise(73));
}

TEST_F(BlockTest, DestructionInEveryStateTakesBackWhatWasCounted) {
    auto nowhere = Kernel::MakeCounted<Block>(), pending = Kernel::MakeCounted<Block>();
    pending->SetDelayLoad(Kernel::MakeCounted<DocumentHolder>(zeros));
    auto resident = MakeNoiseBlock(30), disposed = MakeNoiseBlock(31);
    ASSERT_TRUE(disposed->DisposeIfPossible());
    ExpectAtRest(1, 1, 1);
    nowhere.Reset();
    ExpectAtRest(1, 1, 1);
    pending.Reset();
    ExpectAtRest(1, 1, 0);
    disposed.Reset();
    ExpectAtRest(1, 0, 0);
    resident.Reset();
}

class FailingDiskTest : public BlockTest, public testing::WithParamInterface<TestDisk::Fault> {};

TEST_P(FailingDiskTest, AFailedWriteLeavesTheBlockInMemoryAndTheSlotFree) {
    TraceCapture trace;
    auto const block = MakeNoiseBlock(40);
    TestDisk::writeFault = GetParam();
    EXPECT_FALSE(block->DisposeIfPossible());
    EXPECT_FALSE(block->DisposeIfPossible());
    EXPECT_EQ(trace.Take().size(), 1) << "said once";
    EXPECT_TRUE(block->IsAllocatedAndPresent());
    EXPECT_EQ(backstore.GetFreeSlotCount(), backstore.GetSlotCount());
    EXPECT_EQ(Read(*block), MakeNoise(40));
    ExpectAtRest(1, 0, 0);
    TestDisk::writeFault = TestDisk::Fault::None;
    EXPECT_TRUE(block->DisposeIfPossible());
    EXPECT_EQ(backstore.GetSlotCount(), 1) << "the slot was given back";
    EXPECT_EQ(Read(*block), MakeNoise(40));
    TestDisk::writeFault = GetParam();
    EXPECT_FALSE(block->DisposeIfPossible());
    EXPECT_EQ(trace.Take().size(), 1) << "another episode";
}

TEST_P(FailingDiskTest, AFailedWriteEndsTheWalkAndTheLimitGivesWay) {
    ledger.SetDRAMLimit(1);
    TestDisk::writeFault = GetParam();
    std::vector<Kernel::Counted<Block>> blocks;
    for (unsigned i = 0; i < 40; ++i)
        blocks.push_back(MakeNoiseBlock(i));
    ExpectAtRest(40, 0, 0);
    EXPECT_LE(TestDisk::writes, 2 * 24) << "one attempt for each block above the limit, of two calls at most";
    TestDisk::writeFault = TestDisk::Fault::None;
    blocks.push_back(MakeNoiseBlock(40));
    EXPECT_LE(ledger.GetPlanarUsage(), 1 << 20);
    for (unsigned i = 0; i < 41; ++i)
        EXPECT_EQ(Read(*blocks[i]), MakeNoise(i)) << i;
}

TEST_P(FailingDiskTest, AWalkThatBuffersOrANewLimitBeginSaysSoAtOnce) {
    TraceCapture trace;
    ledger.SetDRAMLimit(2);
    std::vector<Kernel::Counted<Block>> blocks;
    for (unsigned i = 0; i < 20; ++i)
        blocks.push_back(MakeNoiseBlock(i));
    TestDisk::writeFault = GetParam();
    ledger.SetDRAMLimit(1);
    EXPECT_EQ(trace.Take().size(), 1);
    TestDisk::writeFault = TestDisk::Fault::None;
    ASSERT_TRUE(blocks[0]->DisposeIfPossible()); // the episode is over
    TestDisk::writeFault = GetParam();
    ledger.AttachInterleaved(1);
    ledger.DetachInterleaved(1);
    EXPECT_EQ(trace.Take().size(), 1);
    TestDisk::writeFault = TestDisk::Fault::None;
}

INSTANTIATE_TEST_SUITE_P(Writes, FailingDiskTest, testing::Values(TestDisk::Fault::Error, TestDisk::Fault::Short));

TEST_F(BlockTest, AFailedReadThrowsAndLosesNothing) {
    auto const block = MakeNoiseBlock(41);
    ASSERT_TRUE(block->DisposeIfPossible());
    TestDisk::readFault = TestDisk::Fault::Error;
    EXPECT_THROW(block->IncrementRefCountConst(), BackstoreReadError);
    EXPECT_THROW(block->IncrementRefCountMutable(), BackstoreReadError);
    EXPECT_THROW(block->GetDataRect(), BackstoreReadError);
    EXPECT_THROW(Kernel::MakeCounted<Block>()->Copy(*block), BackstoreReadError);
    EXPECT_EQ(block->GetPinCount(), 0);
    EXPECT_FALSE(block->HasMutableSession());
    EXPECT_TRUE(block->IsDisposed());
    ExpectAtRest(0, 1, 0);
    TestDisk::readFault = TestDisk::Fault::None;
    EXPECT_EQ(Read(*block), MakeNoise(41));
    ExpectAtRest(1, 0, 0);
}

TEST_F(BlockTest, ShortReadsAreContinued) {
    auto const block = MakeNoiseBlock(42);
    ASSERT_TRUE(block->DisposeIfPossible());
    TestDisk::readFault = TestDisk::Fault::Short;
    EXPECT_EQ(Read(*block), MakeNoise(42));
    EXPECT_GE(TestDisk::reads, 16);
}

TEST_F(BlockTest, AFileThatWasCutShortBehindOurBackIsAFailedRead) {
    auto const block = MakeNoiseBlock(43);
    ASSERT_TRUE(block->DisposeIfPossible());
    std::filesystem::resize_file(backstore.GetPath(), 100);
    EXPECT_THROW(block->IncrementRefCountConst(), BackstoreReadError);
}

TEST_F(BlockTest, ADiskThatIsFullKeepsEveryByteInMemory) {
    TestDisk::Remove(); // the real one
    rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    rlimit const small{5 * bytes + 1000, before.rlim_max}; // the sixth slot doesn't fit whole
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    ledger.SetDRAMLimit(1);
    std::vector<Kernel::Counted<Block>> blocks;
    for (unsigned i = 0; i < 40; ++i)
        blocks.push_back(MakeNoiseBlock(i));
    setrlimit(RLIMIT_FSIZE, &before);
    ExpectAtRest(35, 5, 0);
    for (unsigned i = 0; i < 40; ++i)
        EXPECT_EQ(Read(*blocks[i]), MakeNoise(i)) << i;
    TestDisk::Install();
}

TEST_F(BlockTest, EvictionFollowsTheOrderOfAttachingThroughReadsAndWrites) {
    ledger.SetDRAMLimit(1);
    std::vector<Kernel::Counted<Block>> blocks;
    for (unsigned i = 0; i < 16; ++i)
        blocks.push_back(MakeNoiseBlock(i));
    Read(*blocks[0]);
    Write(*blocks[1], MakeNoise(1));
    blocks.push_back(MakeNoiseBlock(16));
    EXPECT_TRUE(blocks[0]->IsDisposed() && blocks[1]->IsDisposed()) << "use doesn't make young";
    EXPECT_FALSE(blocks[2]->IsDisposed());
    ExpectAtRest(15, 2, 0);
    Read(*blocks[0]); // 16 now, at the limit
    blocks.push_back(MakeNoiseBlock(17));
    EXPECT_FALSE(blocks[0]->IsDisposed()) << "coming back does";
    EXPECT_TRUE(blocks[2]->IsDisposed() && blocks[3]->IsDisposed());
}

// Every order of what can happen to a block, against a model that knows only bytes.
TEST_F(BlockTest, CountersEqualTheStatesAtRestInAnyOrderOfEvents) {
    std::mt19937 random(1);
    struct Model {
        Kernel::Counted<Block> block;
        Bytes content;
    };
    std::vector<Model> models(8);
    for (auto & model : models)
        model = {Kernel::MakeCounted<Block>(), zeros};
    int const steps = 3000;
    for (int step = 0; step < steps; ++step) {
        auto & model = models[random() % models.size()];
        auto & other = models[random() % models.size()];
        switch (random() % 8) {
        case 0:
            model = {Kernel::MakeCounted<Block>(), zeros};
            break;
        case 1: {
            auto const content = MakeNoise(unsigned(step));
            model = {Kernel::MakeCounted<Block>(), content};
            model.block->SetDelayLoad(Kernel::MakeCounted<DocumentHolder>(content));
            break;
        }
        case 2:
            model.content = MakeNoise(unsigned(step));
            Write(*model.block, model.content);
            break;
        case 3:
            model.block->Copy(*other.block);
            model.content = other.content;
            break;
        case 4:
            model.block->GetDataRect();
            break;
        case 5:
            ASSERT_EQ(Read(*model.block), model.content) << "step " << step;
            break;
        default:
            model.block->DisposeIfPossible();
        }
        auto const count = [&](auto state) {
            return std::uint64_t(
                std::count_if(models.begin(), models.end(), [&](auto & m) { return state(*m.block); }));
        };
        ExpectAtRest(count([](Block & b) { return b.IsAllocatedAndPresent(); }),
                     count([](Block & b) { return b.IsDisposed(); }),
                     count([](Block & b) { return b.IsPendingDelayLoad(); }));
        if (HasFailure())
            FAIL() << "step " << step;
    }
}

TEST_F(BlockTest, ManyThreadsPinWhatManyOthersEvict) {
    ledger.SetDRAMLimit(0); // whatever is not pinned goes at every attach
    std::vector<Kernel::Counted<Block>> blocks;
    for (unsigned i = 0; i < 8; ++i)
        blocks.push_back(MakeNoiseBlock(i));
    std::vector<Bytes> contents;
    for (unsigned i = 0; i < 8; ++i)
        contents.push_back(MakeNoise(i));
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 random(t);
            for (int i = 0; i < 200; ++i) {
                auto const chosen = random() % 8;
                if (random() % 4 == 0) {
                    blocks[chosen]->DisposeIfPossible();
                    continue;
                }
                ConstBlockPin const pin(*blocks[chosen]);
                mismatches += std::memcmp(blocks[chosen]->GetConstBuffer(), contents[chosen].data(), bytes) != 0;
            }
        });
    for (auto & thread : threads)
        thread.join();
    EXPECT_EQ(mismatches, 0);
    for (auto const & block : blocks)
        EXPECT_EQ(block->GetPinCount(), 0);
}
}
}
