// A document of the first version of the format, which was recorded when it was new: it is read for ever.
#include "storage/RecordedDocument.h"

#include "colour/ICCManager.h"
#include "colour/ICCProfileSet.h"
#include "geometry/Spline.h"
#include "kernel/Album.h"
#include "kernel/Archive.h"
#include "kernel/ArchiveCheck.h"
#include "kernel/ArchiveSession.h"
#include "kernel/InSerialiserFile.h"
#include "kernel/MetadataInterface.h"
#include "kernel/TemporaryDirectory.h"
#include "storage/StoredClasses.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

using namespace Kernel;
using namespace RecordedDocument;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {
std::string const recorded = RASTER_TEST_DATA "/version-1.doc";

struct Layer {
    StringUtf8 name;
    PointT<int> offset{};
    float opacity = 0;
    double dpi = 0;
    ICCManager::Profile profile;
    Counted<DelayLoadHolder> placedFile;
    DynamicBitmap bitmap;
    std::uint32_t levelChecksum = 0;
};

class RecordedDocumentTest : public testing::Test {
protected:
    RecordedDocumentTest() {
        RegisterStoredClasses();
        Tile::InitStaticTiles();
        archive = Archive::Open(recorded, archiveTag);
    }

    Counted<InSerialiserFile const> Parse(std::string const & name, unsigned short version = 1) const {
        auto const stream = archive->OpenStream(name);
        return stream ? InSerialiserFile::ParseWithChecks(*stream, *archive, false, version) : nullptr;
    }

    Layer LoadLayer(int number) const {
        Layer layer;
        auto const in = Parse("Layer-000" + std::to_string(number) + ".dat");
        if (!in)
            return layer;
        EXPECT_EQ(in->GetRootTag(), IDTag("Layr"));
        EXPECT_TRUE(in->LoadType("Name", layer.name));
        EXPECT_TRUE(in->LoadType("Offs", layer.offset));
        EXPECT_TRUE(in->LoadType("Opac", layer.opacity));
        EXPECT_TRUE(in->LoadType("Dpi ", layer.dpi));
        in->LoadType("LvlC", layer.levelChecksum);
        in->LoadSharedObject("Prof", *archive, layer.profile);
        in->LoadDelayLoadObject("File", *archive, CompressedRasterData::GetTypeFileStoreItemType(), layer.placedFile);
        Counted<Serialisable> loaded;
        EXPECT_TRUE(in->LoadObjectI("Bmap", *archive, loaded));
        if (auto const bitmap = DynamicCast<DynamicBitmap>(loaded))
            layer.bitmap = *bitmap;
        return layer;
    }

    void ExpectSame(int number, char const * name, DynamicBitmap const & drawn) const {
        auto const layer = LoadLayer(number);
        EXPECT_EQ(layer.name, name);
        EXPECT_EQ(layer.dpi, 300);
        ASSERT_TRUE(layer.bitmap.GetCore()) << name;
        EXPECT_EQ(layer.bitmap.GetFormat(), drawn.GetFormat()) << name;
        ASSERT_EQ(layer.bitmap.GetWidth(), drawn.GetWidth()) << name;
        ASSERT_EQ(layer.bitmap.GetHeight(), drawn.GetHeight()) << name;
        EXPECT_TRUE(GetPixels(layer.bitmap) == GetPixels(drawn)) << name;
    }

    Counted<Archive> archive;
};

template<class T>
void ExpectValue(InSerialiser const & in, IDTag tag, T const & expected) {
    T value{};
    EXPECT_TRUE(in.LoadType(tag, value)) << tag.GetText().data();
    EXPECT_TRUE(value == expected) << tag.GetText().data();
}
}

TEST_F(RecordedDocumentTest, IsWholeAndHoldsWhatWasPutIn) {
    auto const report = VerifyArchive(recorded);
    EXPECT_THAT(report.problems, IsEmpty());
    EXPECT_EQ(report.bytesChecked, std::filesystem::file_size(recorded));
    auto const info = archive->GetInfo();
    EXPECT_EQ(info.commitNumber, 2u);
    EXPECT_GT(info.deadBytes, 0u) << "what the first commit alone had";
    auto const count = [&](IDTag type) {
        return std::count_if(info.items.begin(), info.items.end(),
                             [&](auto const & item) { return item.type == type; });
    };
    EXPECT_EQ(count("Strm"), 10);
    EXPECT_EQ(count("ShOb"), 1);
    EXPECT_EQ(count("Data"), 1) << "three layers have one file";
    EXPECT_EQ(count("Blob"), 4);
    EXPECT_GT(count("DatI"), 20);
}

TEST_F(RecordedDocumentTest, HasThePixelsThatWereDrawn) {
    ExpectSame(1, "By value, with levels", MakeDrawn(300, 280, RGBA8));
    ExpectSame(2, "Sixteen bits", MakeDrawn(150, 100, RGBA16));
    ExpectSame(3, "gr\xc3\xbc\xc3\x9f Gott", MakeDrawn(70, 90, IA8));
    ExpectSame(4, "Solid", MakeSolid());
    ExpectSame(5, "Placed", MakePlaced());
    ExpectSame(6, "Placed and seen", MakePlaced());
    auto painted = MakePlaced();
    PaintOn(painted);
    ExpectSame(7, "Placed and painted", painted);
    EXPECT_FALSE(archive->HasStream("Layer-0008.dat"));
}

TEST_F(RecordedDocumentTest, KeepsWhatLayersAre) {
    auto const first = LoadLayer(1), second = LoadLayer(2), solid = LoadLayer(4), placed = LoadLayer(5),
               seen = LoadLayer(6), painted = LoadLayer(7);
    EXPECT_TRUE((second.offset == PointT<int>{10, -20}));
    EXPECT_EQ(second.opacity, 0.5f);
    EXPECT_EQ(painted.opacity, 0.0f);
    EXPECT_FALSE(second.profile);
    ASSERT_TRUE(first.profile);
    EXPECT_EQ(first.profile->GetProfileName(),
              ICCManager::GetInstance().GetDefaultProfileForFormat(RGBA8)->GetProfileName());
    EXPECT_EQ(first.profile, placed.profile) << "it is stored once";

    auto const & tiles = solid.bitmap.GetCore()->GetPlane(0);
    EXPECT_TRUE(tiles.GetTile(0, 0).IsZeroTileBuffer());
    EXPECT_TRUE(tiles.GetTile(1, 0).IsFullTileBuffer());
    EXPECT_TRUE(tiles.GetTile(2, 0).IsFullFloatTileBuffer());
    EXPECT_TRUE(tiles.GetTile(3, 1).IsAllocated());
    EXPECT_FALSE(tiles.GetTile(4, 1).IsAllocated());

    EXPECT_TRUE(placed.bitmap.IsPendingDelayLoad());
    ASSERT_TRUE(placed.placedFile);
    EXPECT_EQ(placed.placedFile, seen.placedFile);
    EXPECT_EQ(placed.placedFile, painted.placedFile);
    EXPECT_TRUE(placed.bitmap.GetBackingData());
    EXPECT_FALSE(painted.bitmap.IsPendingDelayLoad());
    DelayLoadHolder::TempLoadItem const file(placed.placedFile);
    auto const * const bytes = file.GetItemAs<CompressedRasterData>();
    ASSERT_TRUE(bytes);
    ASSERT_GT(bytes->GetSize(), 8u);
    EXPECT_EQ(std::memcmp(bytes->GetData(), "\x89PNG\r\n\x1a\n", 8), 0);
}

// Levels may be left out by whoever reads; who takes them takes what was stored.
TEST_F(RecordedDocumentTest, HasTheLevelsThatWereStored) {
    auto const layer = LoadLayer(1);
    auto const level = layer.bitmap.GetMipmap(1);
    ASSERT_TRUE(level);
    EXPECT_EQ(level->GetWidth(), 150);
    EXPECT_EQ(level->GetHeight(), 140);
    EXPECT_EQ(GetChecksum(*level), layer.levelChecksum);
}

TEST_F(RecordedDocumentTest, HasItsProfiles) {
    auto const root = Parse("Document.dat");
    ASSERT_TRUE(root);
    ExpectValue(*root, "Widt", 700);
    ExpectValue(*root, "Heig", 500);
    ExpectValue(*root, "Laye", std::uint32_t(7));
    ICCManager::ICCProfileSet profiles;
    EXPECT_TRUE(root->LoadClassI("Prfs", profiles.GetClassProperties().GetClassUID(),
                                 [&](InSerialiser const & nested, unsigned short version) {
                                     EXPECT_TRUE(profiles.Load(nested, *archive, version));
                                 }));
    EXPECT_EQ(profiles.GetProfileForFormat(RGBA8), LoadLayer(1).profile);
    EXPECT_FALSE(profiles.GetProfileForFormat(CMYKA8));
    EXPECT_EQ(profiles.GetIntent(), Intent::Saturation);
    EXPECT_TRUE(profiles.GetBlackPointCompensation());
}

TEST_F(RecordedDocumentTest, HasAPropertyOfEachType) {
    auto const in = Parse("Types.dat", 7);
    ASSERT_TRUE(in);
    EXPECT_EQ(in->GetRootVersion(), 7);
    ExpectValue(*in, "Ui8 ", std::uint8_t(200));
    ExpectValue(*in, "Ui16", std::uint16_t(60000));
    ExpectValue(*in, "Ui32", std::uint32_t(4000000000u));
    ExpectValue(*in, "Ui64", std::uint64_t(1) << 63);
    ExpectValue(*in, "In8 ", std::int8_t(-100));
    ExpectValue(*in, "In16", std::int16_t(-30000));
    ExpectValue(*in, "In32", -2000000000);
    ExpectValue(*in, "In64", std::int64_t(-1) << 62);
    ExpectValue(*in, "Flt ", 0.1f);
    ExpectValue(*in, "Dbl ", 0.1);
    ExpectValue(*in, "Bool", true);
    ExpectValue(*in, "Utf8", StringUtf8("\xe2\x82\xac"));
    ExpectValue(*in, "Ut16", StringUtf16(u"\u00e4\U0001f600"));
    ExpectValue(*in, "PntI", PointT<int>{-1, 2});
    ExpectValue(*in, "Size", SizeT<int>{640, 480});
    ExpectValue(*in, "Rect", RectT<int>{-4, 3, 2, 1});
    ExpectValue(*in, "PntD", PointT<double>{-0.5, 1e300});
    std::vector<std::uint8_t> values;
    EXPECT_TRUE(in->LoadTypeArrayI("Arra", PropType::UInt16, 2, values));
    EXPECT_THAT(values, ElementsAre(1, 0, 2, 0, 3, 0));
    std::span<std::uint8_t const> raw;
    EXPECT_TRUE(in->LoadRawData("Raw ", raw));
    EXPECT_THAT(std::vector(raw.begin(), raw.end()), ElementsAre(0, 1, 2));
    EXPECT_TRUE(in->HasProperty("Late"));
    int late = 5;
    EXPECT_FALSE(in->LoadType("Late", late));

    Counted<Serialisable> curve;
    ASSERT_TRUE(in->LoadObjectI("Crve", *archive, curve));
    Geometry::Spline const expected({{0, 0}, {0.5, 0.25}, {1, 1}});
    EXPECT_EQ(dynamic_cast<Geometry::Spline const &>(*curve), expected);
    std::vector<Counted<Serialisable>> curves;
    ASSERT_TRUE(in->LoadObjectsI("Crvs", *archive, curves));
    ASSERT_EQ(curves.size(), 2u);
    EXPECT_EQ(dynamic_cast<Geometry::Spline const &>(*curves[0]).GetCount(), 2u);
    EXPECT_EQ(dynamic_cast<Geometry::Spline const &>(*curves[1]).GetCount(), 0u);
    MetadataInterface metadata;
    EXPECT_TRUE(metadata.Load(*in, *archive));
    EXPECT_EQ(metadata.GetMetadataText("Author"), "nobody");
}

TEST_F(RecordedDocumentTest, HasItemsOfEveryForm) {
    auto const in = Parse("Types.dat", 7);
    ASSERT_TRUE(in);
    auto const load = [&](IDTag tag) {
        Counted<DelayLoadHolder> holder;
        EXPECT_TRUE(in->LoadDelayLoadObject(tag, *archive, AlbumForTests::Blob::GetType(), holder));
        return holder ? AlbumForTests::BytesOf(holder) : std::vector<std::uint8_t>();
    };
    std::vector<std::uint8_t> rising(65536);
    for (std::size_t i = 0; i < rising.size(); ++i)
        rising[i] = static_cast<std::uint8_t>((i / 8 * 0x10203040506u) >> 8 * (i % 8));
    EXPECT_TRUE(load("Pred") == rising);
    EXPECT_EQ(load("Cmpr"), std::vector<std::uint8_t>(5000, 7));
    EXPECT_THAT(load("RawI"), ElementsAre(1, 2, 3, 4, 5));
    EXPECT_THAT(load("Empt"), IsEmpty());
    auto const note = archive->OpenStream("Notes/\xc3\xa9t\xc3\xa9");
    ASSERT_TRUE(note);
    std::string text(26, ' ');
    EXPECT_TRUE(note->ReadAll(text.data(), text.size()));
    EXPECT_EQ(text, "not a stream of properties");
}

// A program of today goes on where that of then has stopped.
TEST_F(RecordedDocumentTest, CanBeSavedOnAndCompacted) {
    TemporaryDirectory const directory;
    auto const path = directory.GetPath("copy.doc");
    std::filesystem::copy_file(recorded, path);
    for (auto const mode : {ArchiveSaveMode::Update, ArchiveSaveMode::Compact}) {
        archive = Archive::Open(path, archiveTag);
        auto const before = archive->GetInfo();
        auto session = archive->CreateSession(mode);
        for (auto const & item : before.items)
            if (item.type == IDTag("Strm")) {
                EXPECT_TRUE(session->KeepStream(item.name));
            }
        archive->CloseSession(std::move(session));
        EXPECT_EQ(archive->GetInfo().items.size(), before.items.size());
        EXPECT_THAT(VerifyArchive(path).problems, IsEmpty());
        ExpectSame(1, "By value, with levels", MakeDrawn(300, 280, RGBA8));
        ExpectSame(5, "Placed", MakePlaced());
    }
}
