// Bitmaps that go from one document into another: with all that they refer to, and without being loaded.
#include "colour/ICCManager.h"
#include "kernel/ArchiveCheck.h"
#include "storage/DocumentEnvironment.h"

#include <set>

namespace Raster {
namespace {

class DocumentCopyTest : public DocumentTest {
protected:
    DocumentCopyTest() { Allow(RasterSerialisationStrategy::AllowByReference); }

    /// The ids of all items but streams.
    static std::set<std::pair<std::uint64_t, std::uint64_t>> GetIDs(Document const & document) {
        std::set<std::pair<std::uint64_t, std::uint64_t>> ids;
        for (auto const & item : document->GetInfo().items)
            if (item.type == Kernel::IDTag("DatI") || item.type == Kernel::IDTag("Data"))
                ids.insert({item.id.commit, item.id.number});
        return ids;
    }
    /// A painted bitmap, and a picture with a profile that is still in its file.
    Document MakeSource() {
        FillWith(painted, 3);
        placed.SetBackingData(Holder(placed.GetBackingData().Get()),
                              ICCManager::GetInstance().GetDefaultProfileForFormat(RGBA8));
        auto const document = Create("source.doc");
        SaveBoth(document, painted, placed);
        return Open("source.doc");
    }
    std::size_t CountProblems(char const * name) const {
        return Kernel::VerifyArchive(name, nullptr, nullptr, nullptr, disk).problems.size();
    }

    DynamicBitmap painted = MakeBitmap(1000, 600, RGBA8), placed = MakePending(7);
};
}

TEST_F(DocumentCopyTest, EverythingComesAlongAndNothingIsLoaded) {
    {
        auto const source = MakeSource();
        auto const usage = MemoryManager::Instance().GetPlanarUsage();
        auto const target = Create("target.doc");
        SaveBoth(target, Load(source), Load(source, "Other.dat"));
        EXPECT_EQ(MemoryManager::Instance().GetPlanarUsage(), usage);
        EXPECT_EQ(decodes, 0);
        EXPECT_EQ(GetIDs(target), GetIDs(source)) << "an item keeps its id";
    }
    disk = Kernel::MakeCounted<MemoryDisk>(MemoryDisk::Files{{"target.doc", disk->GetFiles().at("target.doc")}});
    EXPECT_EQ(CountProblems("target.doc"), 0u);
    auto const target = Open("target.doc");
    EXPECT_TRUE(BytesOf(Load(target)) == BytesOf(painted));
    auto const picture = Load(target, "Other.dat");
    EXPECT_EQ(picture.GetCore()->GetProfile(), ICCManager::GetInstance().GetDefaultProfileForFormat(RGBA8));
    picture.ForceDelayLoad(nullptr);
    placed.ForceDelayLoad(nullptr);
    EXPECT_TRUE(BytesOf(picture) == BytesOf(placed));
}

TEST_F(DocumentCopyTest, WhatComesBackIsTheSameItem) {
    auto const source = MakeSource(), target = Create("target.doc");
    SaveBoth(target, Load(source), Load(source, "Other.dat"));
    auto const opened = Open("target.doc");
    EXPECT_LE(SaveBoth(source, Load(opened), Load(opened, "Other.dat")), 1u) << "but for the profile, by its value";
    EXPECT_EQ(GetIDs(source), GetIDs(opened));
    EXPECT_EQ(CountProblems("source.doc"), 0u);
}

TEST_F(DocumentCopyTest, CopyThatIsPaintedOnLeavesTheOtherDocumentAlone) {
    auto const source = MakeSource(), target = Create("target.doc");
    auto copy = Load(source);
    auto const other = Load(source, "Other.dat");
    SaveBoth(target, copy, other);
    auto const untouched = disk->GetFiles().at("source.doc");
    FillTile(GetTile(copy, 2, 1), 50);
    EXPECT_EQ(SaveBoth(target, copy, other), 2u) << "the tile, and the stream";
    EXPECT_EQ(disk->GetFiles().at("source.doc"), untouched);
    EXPECT_TRUE(BytesOf(Load(Open("target.doc"))) == BytesOf(copy));
    EXPECT_TRUE(BytesOf(Load(Open("source.doc"))) == BytesOf(painted));
    // The bitmap that was saved into both goes on with either.
    FillTile(GetTile(copy, 1, 1), 51);
    SaveBoth(source, copy, other);
    EXPECT_TRUE(BytesOf(Load(Open("source.doc"))) == BytesOf(copy));
    EXPECT_EQ(CountProblems("source.doc"), 0u);
}

// The state that a bitmap was loaded from is read as long as the bitmap needs it, whatever becomes of its file.
TEST_F(DocumentCopyTest, BitmapOutlivesTheItemsOfItsDocument) {
    auto source = MakeSource();
    auto const old = Load(source);
    Save(source, MakeBitmap(1, 1, A8), Mode::Compact);
    EXPECT_EQ(CountItems(source, "DatI"), 0u);
    auto const target = Create("target.doc");
    Save(target, old);
    EXPECT_TRUE(BytesOf(Load(Open("target.doc"))) == BytesOf(painted));
    Save(source, old);
    EXPECT_TRUE(BytesOf(Load(Open("source.doc"))) == BytesOf(painted));
    EXPECT_TRUE(BytesOf(old) == BytesOf(painted));
}

TEST_F(DocumentCopyTest, KeptStreamKeepsTheTilesOfItsBitmap) {
    auto const source = MakeSource();
    SaveWith(source, [&](auto & session) {
        EXPECT_TRUE(session.KeepStream("Bitmap.dat"));
        EXPECT_FALSE(session.KeepStream("Nothing.dat"));
    });
    EXPECT_TRUE(BytesOf(Load(Open("source.doc"))) == BytesOf(painted));
    EXPECT_FALSE(source->HasStream("Other.dat"));
    SaveWith(
        source, [](auto & session) { session.KeepStream("Bitmap.dat"); }, Mode::Compact);
    EXPECT_TRUE(BytesOf(Load(Open("source.doc"))) == BytesOf(painted));
    EXPECT_EQ(CountItems(source, "Data"), 0u);
    EXPECT_EQ(CountProblems("source.doc"), 0u);
}
}
