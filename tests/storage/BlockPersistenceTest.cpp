// Blocks in documents: their rects, and their bytes as an item of its own, taken whole.
#include "kernel/FileStoreOutPathGenerator.h"
#include "kernel/MemoryInStream.h"
#include "kernel/MemoryOutStream.h"
#include "kernel/OutSerialiserFile.h"
#include "kernel/ScopedLock.h"
#include "storage/DocumentEnvironment.h"

#include <atomic>
#include <chrono>
#include <optional>
#include <thread>

namespace Raster {
namespace {
class BlockPersistenceTest : public DocumentTest {
protected:
    static DynamicBitmap MakeOneTile(unsigned seed) {
        auto bitmap = MakeBitmap(256, 256, A8, MipmapModeNone);
        FillTile(GetTile(bitmap, 0, 0), seed);
        return bitmap;
    }
    /// A store that remembers the hint of what it is given.
    class HintStore final : public Kernel::FileStoreOut {
    public:
        Kernel::ItemID StoreItem(Kernel::DelayLoadHolder &, Kernel::FileStoreOutPathGenerator const & itemPath,
                                 Kernel::FileStoreCompressionHint const * hint) override {
            name = itemPath.GetPath(7);
            if (hint)
                given.emplace(hint->GetLevel(), hint->GetPredictor(), hint->GetStriping());
            return {1, 1};
        }
        Kernel::ItemID StoreSharedObject(Kernel::SharedSerialisable const &) override { return {1, 1}; }
        std::string name;
        std::optional<Kernel::FileStoreCompressionHintGeneral> given;
    };
    static Bytes WriteOlderForm(Kernel::FileStoreOut & store, Bytes const & bytes, unsigned short streamVersion) {
        auto const out = Kernel::MakeCounted<Kernel::MemoryOutStream>();
        Kernel::OutSerialiserFile serialiser(*out, store, "DatI", 1);
        serialiser.SaveType("Befo", 1);
        serialiser.SaveRawData("DatI", bytes.data(), bytes.size());
        serialiser.Close();
        auto stored = out->TakeData();
        stored[4] = static_cast<std::uint8_t>(streamVersion);
        return stored;
    }
    static bool LoadData(Data & data, Bytes const & stored) {
        auto const in = Kernel::MakeCounted<Kernel::MemoryInStream>(stored.data(), stored.size());
        auto const store = Kernel::MakeCounted<Kernel::EmptyFileStore>();
        return data.Load(*in, *store);
    }
};
}

TEST_F(BlockPersistenceTest, KeepsItsRects) {
    auto bitmap = MakeBitmap(256, 256, A8, MipmapModeNone);
    {
        MutableTileGuard const guard(GetTile(bitmap, 0, 0));
        reinterpret_cast<std::uint8_t *>(guard.GetBuffer())[256 * 7 + 9] = 255;
    }
    Save(Create(), bitmap);
    auto loaded = Load(Open());
    EXPECT_EQ(loaded.GetNonZeroBoundingBox(), (Kernel::RectT<int>{9, 7, 10, 8}));
    EXPECT_EQ(GetTile(loaded, 0, 0).GetInverseDataRect(), (Kernel::RectT<int>{0, 0, 256, 256}));
    EXPECT_EQ(GetTile(loaded, 0, 0).GetFloatInverseDataRect(), (Kernel::RectT<int>{0, 0, 256, 256}))
        << "not stored: what a new block has is a true bound";
    EXPECT_TRUE(GetTile(loaded, 0, 0).IsPendingDelayLoad()) << "no pixel was needed for that";
}

TEST_F(BlockPersistenceTest, RectsThatNoTileCanHaveAreNotBelieved) {
    auto const bitmap = MakeOneTile(1);
    auto const document = Create();
    Save(document, bitmap);
    auto const stream = document->OpenStream("Bitmap.dat");
    Bytes whole(stream->GetSize());
    stream->ReadAll(whole.data(), whole.size());
    auto const tag = Kernel::IDTag("Rect").GetValue();
    std::size_t at = 0;
    while (std::memcmp(&whole[at], &tag, 4) != 0)
        ++at;
    Kernel::RectT<int> const all{0, 0, 256, 256};
    for (auto const & rect :
         {Kernel::RectT<int>{-1, 0, 5, 5}, Kernel::RectT<int>{0, -1, 5, 5}, Kernel::RectT<int>{0, 0, 257, 5},
          Kernel::RectT<int>{0, 0, 5, 257}, Kernel::RectT<int>{9, 0, 5, 5}, Kernel::RectT<int>{0, 9, 5, 5}}) {
        int const sides[] = {rect.left, rect.top, rect.right, rect.bottom};
        std::memcpy(&whole[at + 16], sides, sizeof sides);
        auto const in = Kernel::MakeCounted<Kernel::MemoryInStream>(whole.data(), whole.size());
        DynamicBitmap loaded;
        EXPECT_TRUE(loaded.Load(*Kernel::InSerialiserFile::ParseWithChecks(*in, *document, false), *document, 1));
        EXPECT_FALSE(GetTile(loaded, 0, 0).GetConstInner()->IsDataRectValid());
        EXPECT_TRUE(GetTile(loaded, 0, 0).GetConstInner()->IsInverseDataRectValid());
        EXPECT_EQ(GetTile(loaded, 0, 0).GetDataRect(), all) << "computed, as for a file without rects";
    }
}

TEST_F(BlockPersistenceTest, HintTellsHowTheSamplesLie) {
    for (int const sampleSize : {1, 2, 4, 8}) {
        PlaneCore plane(1, 1, sampleSize, ChannelKind::Integer);
        FillTile(plane.GetTile(0), 1);
        HintStore store;
        Kernel::MemoryOutStream out;
        Kernel::OutSerialiserFile serialiser(out, store, "Test", 1);
        plane.SaveInline(serialiser, "Idx1", "Sta1", nullptr);
        EXPECT_FALSE(serialiser.GetStrategies().Find<Kernel::CompressionPredictorStrategy>()) << "it is popped";
        EXPECT_EQ(store.name, "d/7");
        ASSERT_TRUE(store.given);
        EXPECT_EQ(store.given->GetLevel(), 1);
        EXPECT_EQ(static_cast<int>(store.given->GetPredictor()), sampleSize);
        EXPECT_EQ(store.given->GetStriping(), Kernel::CompressionStriping::Rows256);
        HintStore without;
        Kernel::OutSerialiserFile alone(out, without, "Test", 1);
        plane.GetTile(0).GetDirectInner()->Save(alone);
        EXPECT_EQ(without.given->GetPredictor(), Kernel::CompressionPredictor::None);
        EXPECT_EQ(without.given->GetStriping(), Kernel::CompressionStriping::None);
    }
}

TEST_F(BlockPersistenceTest, UnallocatedBlockHasNoItem) {
    HintStore store;
    Kernel::MemoryOutStream out;
    Kernel::OutSerialiserFile serialiser(out, store, "Blck", 1);
    auto const block = Kernel::MakeCounted<Block>();
    block->Save(serialiser);
    EXPECT_FALSE(store.given);
    EXPECT_EQ(block->GetPinCount(), 0u);
}

TEST_F(BlockPersistenceTest, ItemOf65536BytesIsRawAndAnyOtherIsTheOlderForm) {
    Bytes bytes(Data::ByteCount);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 7);
    HintStore store;
    auto const data = Kernel::MakeCounted<Data>();
    auto const holds = [&] { return std::memcmp(data->GetBuffer(), bytes.data(), bytes.size()) == 0; };
    EXPECT_TRUE(LoadData(*data, bytes));
    EXPECT_TRUE(holds());
    std::memset(data->GetBuffer(), 0, Data::ByteCount);
    EXPECT_TRUE(LoadData(*data, WriteOlderForm(store, bytes, 1)));
    EXPECT_TRUE(holds());
    for (std::size_t const size : {std::size_t(0), std::size_t(1), Data::ByteCount - 1, Data::ByteCount + 1})
        EXPECT_FALSE(LoadData(*data, WriteOlderForm(store, Bytes(size, 1), 1))) << size;
    EXPECT_FALSE(LoadData(*data, WriteOlderForm(store, bytes, 9))) << "of a later version";
    EXPECT_FALSE(LoadData(*data, Bytes(100, 1))) << "no such stream at all";
    EXPECT_FALSE(LoadData(*data, {}));
    EXPECT_TRUE(holds()) << "what is of no use has changed nothing";
    // A stream of properties that happens to be as long as a tile is a tile.
    auto const misleading = WriteOlderForm(store, Bytes(Data::ByteCount - (WriteOlderForm(store, {}, 1).size()), 1), 1);
    ASSERT_EQ(misleading.size(), Data::ByteCount);
    EXPECT_TRUE(LoadData(*data, misleading));
    EXPECT_EQ(std::memcmp(data->GetBuffer(), misleading.data(), Data::ByteCount), 0);
}

TEST_F(BlockPersistenceTest, BlockOnDiskIsSavedFromThereAndSoIsOneThatIsGoneByThen) {
    auto bitmap = MakeOneTile(1);
    auto const expected = BytesOf(bitmap);
    auto const document = Create();
    EvictEverything();
    ASSERT_TRUE(GetTile(bitmap, 0, 0).IsDisposed());
    Save(document, bitmap);
    EXPECT_TRUE(BytesOf(Load(Open())) == expected);
    // An item that a store still has to write when its block goes from the disk.
    FillTile(GetTile(bitmap, 0, 0), 2);
    auto const changed = BytesOf(GetTile(bitmap, 0, 0));
    class ItemStore final : public Kernel::FileStoreOut {
    public:
        Kernel::ItemID StoreItem(Kernel::DelayLoadHolder & holder, Kernel::FileStoreOutPathGenerator const &,
                                 Kernel::FileStoreCompressionHint const *) override {
            Kernel::ScopedLock const guard(holder);
            item = holder.GetItem();
            return {1, 1};
        }
        Kernel::ItemID StoreSharedObject(Kernel::SharedSerialisable const &) override { return {1, 1}; }
        Kernel::Counted<Kernel::FileStoreItem> item;
    } store;
    Kernel::MemoryOutStream properties, bytes;
    Kernel::OutSerialiserFile serialiser(properties, store, "Blck", 1);
    GetTile(bitmap, 0, 0).GetDirectInner()->Save(serialiser);
    EvictEverything();
    ASSERT_TRUE(GetTile(bitmap, 0, 0).IsDisposed());
    GetTile(bitmap, 0, 0).Unallocate();
    store.item->Save(bytes, store);
    ASSERT_EQ(bytes.GetSize(), changed.size());
    EXPECT_EQ(std::memcmp(bytes.GetData(), changed.data(), changed.size()), 0);
}

// The store writes an item on one thread while the block that owns it goes on another.
TEST_F(BlockPersistenceTest, ItemIsWrittenWholeWhileItsBlockGoes) {
    for (int round = 0; round < 300; ++round) {
        HintStore store;
        Kernel::MemoryOutStream bytes;
        auto const item = Kernel::MakeCounted<Data>();
        std::memset(item->GetBuffer(), 5, Data::ByteCount);
        auto block = Kernel::MakeCounted<Block>();
        block->SetDelayLoad(Kernel::DelayLoadHolder::Create(Data::GetItemType(), item));
        ASSERT_EQ(item->GetOwner(), block.Get());
        if (round % 2) {
            ASSERT_TRUE(block->DisposeIfPossible());
        }
        std::atomic<bool> begun{false};
        std::thread writer([&] {
            begun = true;
            item->Save(bytes, store);
        });
        while (!begun)
            std::this_thread::yield();
        block.Reset();
        writer.join();
        ASSERT_EQ(bytes.GetSize(), Data::ByteCount);
        EXPECT_EQ(static_cast<std::uint8_t const *>(bytes.GetData())[Data::ByteCount - 1], 5);
        EXPECT_EQ(item->GetOwner(), nullptr);
    }
}

// One block of an item is saved while another one loads it, which means copying what the first has.
TEST_F(BlockPersistenceTest, BlockIsSavedWhileAnotherLoadsItsItem) {
    auto const document = Create();
    Save(document, MakeOneTile(1));
    auto const expected = BytesOf(MakeOneTile(1));
    for (int round = 0; round < 300; ++round) {
        auto const opened = Open();
        auto first = Load(opened), second = Load(opened);
        BytesOf(first); // it has the item now
        if (round % 2)
            FillTile(GetTile(first, 0, 0), 2);
        std::atomic<int> ready{0};
        std::thread loader([&] {
            for (++ready; ready != 2;) {
            }
            EXPECT_TRUE(BytesOf(second) == expected);
        });
        HintStore store;
        Kernel::MemoryOutStream out;
        Kernel::OutSerialiserFile serialiser(out, store, "Blck", 1);
        auto const block = GetTile(first, 0, 0).GetDirectInner();
        for (++ready; ready != 2;) {
        }
        block->Save(serialiser);
        loader.join();
    }
}

// Who writes while a save takes the bytes has marked the item before.
TEST_F(BlockPersistenceTest, WhatAnOpenSessionWritesAfterASaveIsStillToBeSaved) {
    auto bitmap = MakeOneTile(1);
    auto const document = Create();
    {
        MutableTileGuard const session(GetTile(bitmap, 0, 0));
        auto * const words = session.GetBuffer();
        words[0] = 1;
        Save(document, bitmap); // of the same thread: it can't be waited for
        words[0] = 2;
    }
    EXPECT_EQ(BytesOf(Load(document))[0][0], 1);
    EXPECT_EQ(Save(document, bitmap), 2u);
    EXPECT_EQ(BytesOf(Load(document))[0][0], 2);
    EXPECT_EQ(Save(document, bitmap), 0u);
}

TEST_F(BlockPersistenceTest, SessionsThatStayOpenHoldUpASaveOnce) {
    auto bitmap = MakeBitmap(256 * 3, 256 * 2, A8, MipmapModeNone);
    FillAll(bitmap, 1);
    auto const document = Create();
    std::vector<MutableTileGuard> sessions;
    for (std::size_t i = 0; i < 6; ++i)
        sessions.emplace_back(GetTile(bitmap, 0, i)).GetBuffer()[0] = 7;
    auto const begin = std::chrono::steady_clock::now();
    Save(document, bitmap);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3)) << "not a second for each tile";
    EXPECT_TRUE(BytesOf(Load(document)) == BytesOf(bitmap));
    sessions.clear();
    EXPECT_EQ(Save(document, bitmap), 1u) << "the stream, which has rects now: equal tiles are there already";
    EXPECT_EQ(Save(document, bitmap), 0u);
}

TEST_F(BlockPersistenceTest, ShortSessionsAreWaitedFor) {
    auto bitmap = MakeOneTile(1);
    auto const document = Create();
    std::atomic<bool> isOpen{false};
    std::thread writer([&] {
        MutableTileGuard const session(GetTile(bitmap, 0, 0));
        auto * const words = session.GetBuffer();
        words[0] = 1;
        isOpen = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        words[0] = 2;
    });
    while (!isOpen)
        std::this_thread::yield();
    Save(document, bitmap);
    writer.join();
    EXPECT_EQ(BytesOf(Load(document))[0][0], 2);
    EXPECT_EQ(Save(document, bitmap), 0u);
}
}
