// Planes in documents: a byte for each tile, and blocks for those that have bytes of their own.
#include "kernel/MemoryInStream.h"
#include "kernel/TraceCapture.h"
#include "storage/DocumentEnvironment.h"

#include <gmock/gmock.h>

namespace Raster {
namespace {
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class PlanePersistenceTest : public DocumentTest {
protected:
    /// Ten tiles in two rows.
    static PlaneCore MakePlane(ChannelKind kind = ChannelKind::Integer) { return PlaneCore(256 * 5, 512, 1, kind); }

    static void SaveStates(Kernel::OutSerialiser & out, Bytes const & states) {
        out.SaveTypeArrayI("Sta1", Kernel::PropType::UInt8, states.data(), 1, states.size());
    }
    static void SaveBlocks(Kernel::OutSerialiser & out, std::size_t count) {
        if (out.StartObjectArrayTestI("Idx1"))
            out.StartObjectArrayBeginI(count);
        for (unsigned i = 0; i < count; ++i)
            out.SaveObjectI(*MakeBlock(i));
    }
    static Kernel::Counted<Block> MakeBlock(unsigned seed) {
        Tile tile;
        FillTile(tile, seed);
        return tile.GetDirectInner();
    }
    static Bytes BytesOfBlock(unsigned seed) {
        Tile tile;
        FillTile(tile, seed);
        return BytesOf(tile);
    }

    void LoadInto(PlaneCore & plane, std::function<void(Kernel::OutSerialiser &)> const & write) const {
        auto const document = Create();
        SaveProperties(document, write);
        EXPECT_TRUE(plane.LoadInline(*Parse(document), *document, "Idx1", "Sta1", 1));
    }
    TraceCapture capture;
};
}

TEST_F(PlanePersistenceTest, WritesAStateForEveryTile) {
    auto bitmap = MakeBitmap(256 * 5, 1, A8, MipmapModeNone);
    FillWith(bitmap, 0);
    auto const document = Create();
    Save(document, bitmap);
    EXPECT_THAT(LoadStates(document, "Sta1"), ElementsAre(0, 1, 2, 4, 4));
    auto floats = MakeBitmap(64, 1, AF, MipmapModeNone);
    GetTile(floats, 0, 0) = *Tile::GetFullFloatTile();
    Save(document, floats);
    EXPECT_THAT(LoadStates(document, "Sta1"), ElementsAre(3));
    auto loaded = Load(document);
    EXPECT_TRUE(GetTile(loaded, 0, 0).IsFullFloatTileBuffer());
}

// The order of the tests is part of the form: what is solid is that first, also where it is backed.
TEST_F(PlanePersistenceTest, SolidComesBeforeBackedAndBackedBeforeOwn) {
    auto plane = MakePlane();
    auto const backing = MakeFileHolder({1}), another = MakeFileHolder({2});
    plane.GetTile(0) = *Tile::GetZeroTile();
    plane.GetTile(1) = *Tile::GetFullTile();
    plane.GetTile(2) = *Tile::GetFullFloatTile();
    for (std::size_t i : {3u, 4u, 5u})
        FillTile(plane.GetTile(i), 1);
    for (std::size_t i : {0u, 1u, 2u, 3u, 6u})
        plane.GetTile(i).SetBacking(backing);
    plane.GetTile(4).SetBacking(another);
    plane.GetTile(7).SetBacking(another);
    auto const document = Create();
    SaveProperties(document, [&](Kernel::OutSerialiser & out) { plane.SaveInline(out, "Idx1", "Sta1", backing); });
    EXPECT_THAT(LoadStates(document, "Sta1"), ElementsAre(1, 2, 3, 5, 4, 4, 5, 0, 0, 0));
    SaveProperties(document, [&](Kernel::OutSerialiser & out) { plane.SaveInline(out, "Idx1", "Sta1", nullptr); });
    EXPECT_THAT(LoadStates(document, "Sta1"), ElementsAre(1, 2, 3, 4, 4, 4, 0, 0, 0, 0));
}

TEST_F(PlanePersistenceTest, BlockThatWasLookedAtAndNeverWrittenIsUnallocated) {
    auto plane = MakePlane();
    plane.GetTile(0).GetConstInner(); // a block that holds nothing
    auto const document = Create();
    SaveProperties(document, [&](Kernel::OutSerialiser & out) { plane.SaveInline(out, "Idx1", "Sta1", nullptr); });
    EXPECT_EQ(LoadStates(document, "Sta1")[0], 0);
    EXPECT_EQ(CountItems(document, "DatI"), 0u);
}

TEST_F(PlanePersistenceTest, LoadingWritesOverWhatWasThereButWhatIsAsItsBacking) {
    auto const backing = MakeFileHolder({1});
    auto plane = MakePlane();
    for (std::size_t i = 0; i < 10; ++i) {
        FillTile(plane.GetTile(i), 9);
        plane.GetTile(i).SetBacking(backing);
    }
    LoadInto(plane, [](Kernel::OutSerialiser & out) {
        SaveBlocks(out, 2);
        SaveStates(out, {5, 4, 0, 1, 2, 3, 4, 5, 5, 5});
    });
    EXPECT_THAT(capture.Take(), IsEmpty());
    for (std::size_t i : {0u, 7u, 8u, 9u}) {
        EXPECT_TRUE(plane.GetTile(i).IsBackedBy(backing));
        EXPECT_TRUE(BytesOf(plane.GetTile(i)) == BytesOfBlock(9));
    }
    for (std::size_t i : {1u, 2u, 3u, 4u, 5u, 6u})
        EXPECT_FALSE(plane.GetTile(i).IsBackedBy(backing)) << i;
    EXPECT_TRUE(BytesOf(plane.GetTile(1)) == BytesOfBlock(0));
    EXPECT_FALSE(plane.GetTile(2).IsAllocated());
    EXPECT_TRUE(plane.GetTile(3).IsZeroTileBuffer());
    EXPECT_TRUE(plane.GetTile(4).IsFullTileBuffer());
    EXPECT_TRUE(plane.GetTile(5).IsFullFloatTileBuffer());
    EXPECT_TRUE(BytesOf(plane.GetTile(6)) == BytesOfBlock(1));
}

// What is missing or makes no sense leaves its tile unallocated, and the others as they are.
TEST_F(PlanePersistenceTest, StatesAndBlocksThatDoNotAgreeHarmOnlyTheirTiles) {
    struct Case {
        Bytes states;
        std::size_t blocks;
        std::vector<bool> allocated;
        std::size_t messages;
    };
    std::vector<bool> const none(10, false);
    auto const only = [&](std::vector<std::size_t> const & tiles) {
        auto allocated = none;
        for (auto const i : tiles)
            allocated[i] = true;
        return allocated;
    };
    Bytes const sixes(10, 6);
    for (auto const & [states, blocks, allocated, messages] :
         {Case{{4, 4, 4, 0, 0, 0, 0, 0, 0, 0}, 2, only({0, 1}), 1},    // a block is missing
          Case{{4, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 5, only({0}), 0},       // blocks that nobody takes
          Case{{4, 6, 255, 4, 0, 0, 0, 0, 0, 0}, 2, only({0, 3}), 1},  // states that aren't known
          Case{{4, 1}, 1, only({0, 1}), 1},                            // fewer states than tiles
          Case{{4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4, 4}, 3, only({0}), 0}, // more states than tiles
          Case{{5, 5, 5, 5, 5, 5, 5, 5, 5, 5}, 0, none, 1},            // as a backing that there isn't
          Case{sixes, 1, none, 1}, Case{{}, 4, none, 1}}) {
        auto plane = MakePlane();
        LoadInto(plane, [&, states = states, blocks = blocks](Kernel::OutSerialiser & out) {
            SaveBlocks(out, blocks);
            SaveStates(out, states);
        });
        std::vector<bool> actual;
        for (std::size_t i = 0; i < 10; ++i)
            actual.push_back(plane.GetTile(i).IsAllocated());
        EXPECT_EQ(actual, allocated);
        EXPECT_THAT(capture.Take(), SizeIs(messages));
    }
}

TEST_F(PlanePersistenceTest, WhatIsOfAnotherTypeCountsAsAbsent) {
    auto plane = MakePlane();
    LoadInto(plane, [](Kernel::OutSerialiser & out) {
        SaveBlocks(out, 1);
        out.SaveRawData("Sta1", "\4\1\1\1\1\1\1\1\1\1", 10);
    });
    EXPECT_FALSE(plane.GetTile(0).IsAllocated());
    EXPECT_THAT(capture.Take(), SizeIs(1));
    LoadInto(plane, [](Kernel::OutSerialiser & out) {
        out.SaveObject("Idx1", *MakeBlock(1)); // one object, no array
        SaveStates(out, {4, 2, 0, 0, 0, 0, 0, 0, 0, 0});
    });
    EXPECT_FALSE(plane.GetTile(0).IsAllocated());
    EXPECT_TRUE(plane.GetTile(1).IsFullTileBuffer());
}

TEST_F(PlanePersistenceTest, ObjectsThatAreNoBlocksKeepTheirPlace) {
    auto plane = MakePlane();
    LoadInto(plane, [](Kernel::OutSerialiser & out) {
        if (out.StartObjectArrayTestI("Idx1"))
            out.StartObjectArrayBeginI(3);
        out.SaveObjectI(DynamicBitmap());
        out.SaveObjectI(*Kernel::MakeCounted<Block>()); // without bytes
        out.SaveObjectI(*MakeBlock(2));
        SaveStates(out, {4, 4, 4, 0, 0, 0, 0, 0, 0, 0});
    });
    EXPECT_FALSE(plane.GetTile(0).IsAllocated());
    EXPECT_FALSE(plane.GetTile(1).IsAllocated());
    EXPECT_TRUE(BytesOf(plane.GetTile(2)) == BytesOfBlock(2));
    EXPECT_THAT(capture.Take(), ElementsAre(testing::HasSubstr("lacks 2 of its tiles")));
}

/// Counts how many of it are made.
class Probe final : public Kernel::Serialisable {
public:
    static inline int made = 0;
    Probe() { ++made; }
    static Kernel::ClassProperties const & GetClassProperties() {
        static Kernel::ClassProperties const properties(
            "Prob", 1, [] { return Kernel::Counted<Kernel::Serialisable>(new Probe); });
        return properties;
    }
    Kernel::ClassPropertiesBase const & GetObjectClassProperties() const override { return GetClassProperties(); }
    void Save(Kernel::OutSerialiser &) const override {}
    bool Load(Kernel::InSerialiser const &, Kernel::FileStore &, unsigned short) override { return true; }
};

// A few bytes could say that they are a bitmap as large as can be.
TEST_F(PlanePersistenceTest, NothingButBlocksIsMadeWhereBlocksStand) {
    Probe::GetClassProperties().Init();
    auto plane = MakePlane();
    LoadInto(plane, [](Kernel::OutSerialiser & out) {
        if (out.StartObjectArrayTestI("Idx1"))
            out.StartObjectArrayBeginI(1);
        out.SaveObjectI(*Kernel::MakeCounted<Probe>());
    });
    EXPECT_EQ(Probe::made, 1) << "the one that was saved";
    capture.Take();
}

// A stream that says of an array that it is longer than the stream. Each of its lengths in turn.
TEST_F(PlanePersistenceTest, LengthsThatAreNotThereTakeNoMemory) {
    auto bitmap = MakeBitmap(700, 300, A8, MipmapModeNone);
    FillAll(bitmap, 1);
    auto const document = Create();
    Save(document, bitmap);
    auto const stream = document->OpenStream("Bitmap.dat");
    Bytes whole(stream->GetSize());
    stream->ReadAll(whole.data(), whole.size());
    int loads = 0, refusals = 0;
    for (std::size_t i = 16; i + 8 < whole.size(); ++i) {
        auto bytes = whole;
        std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(i), 7, std::uint8_t(0xff));
        auto const in = Kernel::MakeCounted<Kernel::MemoryInStream>(bytes.data(), bytes.size());
        try {
            auto const parsed = Kernel::InSerialiserFile::ParseWithChecks(*in, *document, true);
            PlaneCore plane(700, 300, 1, ChannelKind::Integer);
            EXPECT_TRUE(plane.LoadInline(*parsed, *document, "Idx1", "Sta1", 1));
            ++loads;
        } catch (Kernel::PropertyStreamError const &) {
            ++refusals;
        }
    }
    EXPECT_GT(loads, 0);
    EXPECT_GT(refusals, 0);
}

TEST_F(PlanePersistenceTest, TilesOfAPlaneAreItsLimitWhetherMadeGrownOrLoaded) {
    EXPECT_THROW(PlaneCore(1 << 21, 1 << 20, 1, ChannelKind::Integer), std::length_error);
    PlaneCore plane(1 << 20, 1 << 20, 1, ChannelKind::Integer); // 2^24 tiles
    plane.InflateByPixels({1, 0, 0, 0}, true);
    EXPECT_EQ(plane.GetWidth(), 1 << 20) << "one more column is too many";
}

// Only the paths: for a copy of an object the store learns which items it refers to, and nothing is written.
TEST_F(PlanePersistenceTest, EnumeratingGivesEveryItemToTheStoreAndWritesNothing) {
    auto plane = MakePlane();
    for (unsigned i = 0; i < 3; ++i)
        FillTile(plane.GetTile(i), i);
    auto const document = Create();
    SaveWith(document, [&](auto & session) {
        Enumerator enumerator(session);
        EXPECT_FALSE(enumerator.IsFullSave());
        plane.SaveInline(enumerator, "Idx1", "Sta1", nullptr);
        EXPECT_EQ(enumerator.written, 0u);
    });
    EXPECT_EQ(CountItems(document, "DatI"), 3u);
}
}
