// Bitmaps in documents: what comes back is what was there, whatever their kind, and nothing is loaded before it is
// needed.
#include "kernel/MemoryInStream.h"
#include "kernel/TraceCapture.h"
#include "pixel/EnumSerialisers.h"
#include "storage/DocumentEnvironment.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <limits>

namespace Raster {
namespace {
using testing::SizeIs;

class BitmapPersistenceTest : public DocumentTest {
protected:
    static void SaveSize(Kernel::OutSerialiser & out, Format format, int width, int height) {
        out.SaveEnumI("Frmt", FormatEnumSerialiser::GetInstance(), static_cast<int>(format));
        out.SaveType("BmpW", width);
        out.SaveType("BmpH", height);
    }
    static void SaveEnum(Kernel::OutSerialiser & out, Kernel::IDTag tag, std::uint32_t entries, std::uint32_t index) {
        std::uint8_t const bytes[8] = {static_cast<std::uint8_t>(entries), 0, 0, 0, static_cast<std::uint8_t>(index)};
        out.SaveTypeI(tag, Kernel::PropType::Enum, bytes, sizeof bytes);
    }
    static bool TryToLoad(Document const & document, DynamicBitmap & bitmap) {
        auto const parsed = Parse(document);
        return bitmap.Load(*parsed, *document, 1);
    }
};
}

TEST_F(BitmapPersistenceTest, BringsBackEveryFormatWithoutLoadingAnything) {
    int formats = 0;
    for (std::uint32_t number = 0; number < formatCount; ++number) {
        auto bitmap = MakeBitmap(700, 500, static_cast<Format>(number), MipmapModeManual);
        if (bitmap.GetFormat() == NoFormat)
            continue;
        ++formats;
        FillWith(bitmap, 3);
        Save(Create(), bitmap);
        auto const before = MemoryManager::Instance().GetPlanarUsage();
        auto const loaded = Load(Open());
        EXPECT_EQ(MemoryManager::Instance().GetPlanarUsage(), before);
        EXPECT_EQ(loaded.GetFormat(), number);
        EXPECT_EQ(loaded.GetWidth(), 700);
        EXPECT_EQ(loaded.GetHeight(), 500);
        EXPECT_EQ(loaded.GetMipmapMode(), MipmapModeManual);
        EXPECT_EQ(AllocationOf(*loaded.GetCore()), AllocationOf(*bitmap.GetCore()));
        EXPECT_TRUE(BytesOf(loaded) == BytesOf(bitmap)) << "format " << number;
    }
    EXPECT_EQ(formats, 10);
}

TEST_F(BitmapPersistenceTest, WritesItsPropertiesUnderTheirTags) {
    Save(Create(), MakeBitmap(700, 500, IA16, MipmapModeImmediate));
    auto const parsed = Parse(Open());
    EXPECT_EQ(parsed->GetRootTag(), Kernel::IDTag("DyBm"));
    EXPECT_EQ(parsed->GetRootVersion(), 1);
    int width = 0, height = 0, left = -1, top = -1, mode = 0;
    bool isDelayed = false;
    EXPECT_TRUE(parsed->LoadType("BmpW", width) && parsed->LoadType("BmpH", height));
    EXPECT_TRUE(parsed->LoadType("LInf", left) && parsed->LoadType("TInf", top));
    EXPECT_TRUE(parsed->LoadType("DelA", isDelayed));
    EXPECT_TRUE(parsed->LoadEnumI("Mipm", MipmapModeEnumSerialiser::GetInstance(), mode));
    EXPECT_EQ((std::vector{width, height, left, top, mode, int(isDelayed)}),
              (std::vector{700, 500, 0, 0, int(MipmapModeImmediate), 1}));
    std::uint32_t bytes = 0;
    EXPECT_TRUE(parsed->LoadTypeI("BmpW", Kernel::PropType::Int32, &bytes, 4)) << "type 7";
    for (char channel = '1'; channel <= '5'; ++channel)
        EXPECT_EQ(parsed->HasProperty({'S', 't', 'a', channel}), channel <= '2') << "IA16 has two planes";
    for (auto const tag : {Kernel::IDTag("Bckg"), Kernel::IDTag("RPro"), Kernel::IDTag("DRc1"), Kernel::IDTag("IDR1")})
        EXPECT_FALSE(parsed->HasProperty(tag)) << tag.GetText().data();
}

TEST_F(BitmapPersistenceTest, SavingAgainWritesNothingAndOneTileWritesOne) {
    auto bitmap = MakeBitmap(1000, 1000, RGBA8, MipmapModeNone);
    FillWith(bitmap, 3);
    auto const document = Create();
    EXPECT_GT(Save(document, bitmap), 10u);
    EXPECT_EQ(Save(document, bitmap), 0u);
    auto const opened = Open();
    auto loaded = Load(opened);
    EXPECT_EQ(Save(opened, loaded), 0u);
    BytesOf(loaded);
    EXPECT_EQ(Save(opened, loaded), 0u) << "being read changes nothing";
    EvictEverything();
    EXPECT_EQ(Save(opened, loaded), 0u) << "nor does having been on disk";
    FillTile(GetTile(loaded, 1, 5), 99);
    EXPECT_EQ(Save(opened, loaded), 2u); // the tile, and the stream
    EXPECT_TRUE(BytesOf(Load(Open())) == BytesOf(loaded));
}

TEST_F(BitmapPersistenceTest, SavesLevelsUpToTheSizeThatIsAsked) {
    auto bitmap = MakeBitmap(1200, 600, RGBA8);
    FillWith(bitmap, 3);
    Allow(RasterSerialisationStrategy::SaveMipmaps, {0, 512});
    auto const document = Create();
    Save(document, bitmap);
    EXPECT_FALSE(HasProperty(document, {'M', 'T', '1', '1'})) << "600 by 300";
    EXPECT_TRUE(HasProperty(document, {'M', 'T', '2', '1'})) << "300 by 150";
    EXPECT_TRUE(HasProperty(document, {'M', 'I', '2', '4'}));
    auto const loaded = Load(Open());
    EXPECT_FALSE(loaded.GetMipmap(1)) << "built when it is needed";
    ASSERT_TRUE(loaded.GetMipmap(2));
    EXPECT_TRUE(BytesOf(*loaded.GetMipmap(2)) == BytesOf(*bitmap.GetMipmap(2)));
    loaded.UpdateMipmaps(0, nullptr);
    EXPECT_TRUE(BytesOf(*loaded.GetMipmap(1)) == BytesOf(*bitmap.GetMipmap(1)));
}

TEST_F(BitmapPersistenceTest, OnlyTheLastSizeLimitsLevelsAndNoneIsNoLimit) {
    auto bitmap = MakeBitmap(1200, 600, A8);
    FillWith(bitmap, 3);
    auto const countLevels = [&](std::vector<int> sizes) {
        Allow(RasterSerialisationStrategy::SaveMipmaps, std::move(sizes));
        auto const document = Create();
        Save(document, bitmap);
        auto const parsed = Parse(document);
        int count = 0;
        for (char level = '1'; level <= '9'; ++level)
            count += parsed->HasProperty({'M', 'T', level, '1'});
        return count;
    };
    EXPECT_EQ(countLevels({}), 7); // 600, 300, 150, 75, 38, 19, 10
    EXPECT_EQ(countLevels({0}), 7);
    EXPECT_EQ(countLevels({1, 2, 600}), 7);
    EXPECT_EQ(countLevels({600, 599}), 6);
    EXPECT_EQ(countLevels({9}), 0);
}

TEST_F(BitmapPersistenceTest, BitmapWithoutLevelsNeverSavesAny) {
    auto bitmap = MakeBitmap(1200, 600, RGBA8, MipmapModeNone);
    FillWith(bitmap, 3);
    Allow(RasterSerialisationStrategy::SaveMipmaps);
    auto const document = Create();
    Save(document, bitmap);
    for (char level = '1'; level < '9'; ++level)
        EXPECT_FALSE(HasProperty(document, {'M', 'T', level, '1'}));
}

TEST_F(BitmapPersistenceTest, LevelThatLacksATileIsBuiltAnew) {
    auto bitmap = MakeBitmap(1200, 600, A8);
    FillWith(bitmap, 3);
    Allow(RasterSerialisationStrategy::SaveMipmaps);
    auto const document = Create();
    SaveProperties(document, [&](Kernel::OutSerialiser & out) {
        std::uint8_t const states[] = {2, 2};
        out.SaveTypeArrayI({'M', 'T', '1', '1'}, Kernel::PropType::UInt8, states, 1, 2); // of 6 tiles
        bitmap.Save(out);
    });
    auto const loaded = Load(document);
    EXPECT_FALSE(loaded.GetMipmap(1));
    EXPECT_TRUE(loaded.GetMipmap(2));
    loaded.UpdateMipmaps(0, nullptr);
    EXPECT_TRUE(BytesOf(*loaded.GetMipmap(1)) == BytesOf(*bitmap.GetMipmap(1)));
}

TEST_F(BitmapPersistenceTest, KeepsInflation) {
    auto bitmap = MakeBitmap(300, 300, RGBA8, MipmapModeNone);
    FillWith(bitmap, 3);
    bitmap.InflateByPixels({10, 300, 5, 5}, true);
    Save(Create(), bitmap);
    auto const loaded = Load(Open());
    EXPECT_EQ(loaded.GetLeftInflationTiles(), 1);
    EXPECT_EQ(loaded.GetTopInflationTiles(), 2);
    EXPECT_TRUE(BytesOf(loaded) == BytesOf(bitmap));
}

TEST_F(BitmapPersistenceTest, InflationThatNoBitmapCanHaveIsCut) {
    auto const document = Create();
    for (int const claimed : {-1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        SaveProperties(document, [&](Kernel::OutSerialiser & out) {
            SaveSize(out, A8, 600, 300);
            out.SaveType("LInf", claimed);
            out.SaveType("TInf", claimed);
        });
        auto loaded = Load(document);
        EXPECT_EQ(loaded.GetLeftInflationTiles(), claimed < 0 ? 0 : 3);
        EXPECT_EQ(loaded.GetTopInflationTiles(), claimed < 0 ? 0 : 2);
        loaded.InflateByPixels({1, 1, 0, 0}, true);
        EXPECT_EQ(loaded.GetLeftInflationTiles(), claimed < 0 ? 1 : 4);
    }
}

TEST_F(BitmapPersistenceTest, BitmapWithoutFormatStaysWithout) {
    auto const document = Create();
    Save(document, DynamicBitmap());
    int width = -1;
    EXPECT_TRUE(Parse(document)->LoadType("BmpW", width));
    EXPECT_EQ(width, 0);
    EXPECT_FALSE(HasProperty(document, "DelA")) << "nothing further";
    EXPECT_EQ(Load(Open()).GetFormat(), NoFormat);
}

TEST_F(BitmapPersistenceTest, EmptySidesComeBackEmpty) {
    for (auto const & [width, height] : {std::pair(0, 0), std::pair(0, 7), std::pair(7, 0), std::pair(1, 1)}) {
        Save(Create(), MakeBitmap(width, height, RGBAUF));
        auto const loaded = Load(Open());
        EXPECT_EQ(loaded.GetWidth(), width);
        EXPECT_EQ(loaded.GetHeight(), height);
        EXPECT_EQ(loaded.GetFormat(), RGBAUF);
    }
}

TEST_F(BitmapPersistenceTest, SingleMissingPropertiesHaveTheirDefaults) {
    auto const document = Create();
    SaveProperties(document, [](Kernel::OutSerialiser & out) { SaveSize(out, A8, 600, 300); });
    auto const loaded = Load(document);
    EXPECT_EQ(loaded.GetMipmapMode(), MipmapModeOnDemandDefault);
    EXPECT_EQ(loaded.GetLeftInflationTiles(), 0);
    EXPECT_FALSE(loaded.IsPendingDelayLoad());
    EXPECT_EQ(loaded.GetAllocatedBoundingBox(), Kernel::RectT<int>());
    SaveProperties(document, [](Kernel::OutSerialiser &) {});
    EXPECT_EQ(Load(document).GetFormat(), NoFormat);
}

TEST_F(BitmapPersistenceTest, SizesThatNoBitmapCanHaveGiveNone) {
    TraceCapture capture;
    auto const document = Create();
    struct Case {
        Format format;
        int width, height;
        bool isPossible;
    };
    // 2^24 tiles over all planes is the most that a bitmap can have, made or loaded; A8 has 256 by 256 pixels a tile,
    // RGBA8 four planes of them.
    for (auto const & [format, width, height, isPossible] :
         {Case{A8, -1, 5, false}, Case{A8, 5, -1, false}, Case{A8, std::numeric_limits<int>::min(), 5, false},
          Case{A8, 1 << 30, 1 << 30, false}, Case{A8, (1 << 20) + 1, 1 << 20, false},
          Case{RGBA8, 1 << 20, (1 << 18) + 1, false}, Case{A8, 1 << 28, 256, true}}) {
        SaveProperties(document, [&, format = format, width = width, height = height](Kernel::OutSerialiser & out) {
            SaveSize(out, format, width, height);
        });
        DynamicBitmap bitmap;
        EXPECT_EQ(TryToLoad(document, bitmap), isPossible) << width << " by " << height;
        EXPECT_EQ(bitmap.GetCore() != nullptr, isPossible);
        EXPECT_FALSE(capture.Take().empty());
        if (width > 0 && height > 0) {
            EXPECT_EQ(MakeBitmap(width, height, format, MipmapModeNone).GetCore() != nullptr, isPossible);
        }
        capture.Take();
    }
}

// An enum tells the size of the table that its index is of. A table that isn't known is one of a later version.
TEST_F(BitmapPersistenceTest, EnumsAreReadByTheTableOfTheirVersion) {
    TraceCapture capture;
    auto const document = Create();
    auto const save = [&](std::uint32_t formats, std::uint32_t format, std::uint32_t modes, std::uint32_t mode) {
        SaveProperties(document, [&](Kernel::OutSerialiser & out) {
            SaveEnum(out, "Frmt", formats, format);
            out.SaveType("BmpW", 300);
            out.SaveType("BmpH", 200);
            SaveEnum(out, "Mipm", modes, mode);
        });
    };
    DynamicBitmap bitmap;
    save(11, RGBA16, 5, MipmapModeManual);
    EXPECT_TRUE(TryToLoad(document, bitmap));
    EXPECT_EQ(bitmap.GetFormat(), RGBA16);
    EXPECT_EQ(bitmap.GetMipmapMode(), MipmapModeManual);
    save(11, RGBA16, 6, 5); // a mode of a later version: that of a new bitmap stands in for it
    EXPECT_TRUE(TryToLoad(document, bitmap));
    EXPECT_EQ(bitmap.GetMipmapMode(), MipmapModeOnDemandDefault);
    save(11, RGBA16, 5, 5); // no mode at all
    EXPECT_TRUE(TryToLoad(document, bitmap));
    EXPECT_EQ(bitmap.GetMipmapMode(), MipmapModeOnDemandDefault);
    capture.Take();
    for (auto const & [formats, format] : {std::pair(12u, 11u), std::pair(12u, 1u), std::pair(11u, 11u)}) {
        save(formats, format, 5, 0);
        EXPECT_FALSE(TryToLoad(document, bitmap)) << "an empty bitmap in its place would be saved over the pixels";
        EXPECT_THAT(capture.Take(), SizeIs(1));
    }
}

TEST_F(BitmapPersistenceTest, UnknownPropertiesAndClassesAreSkipped) {
    struct Stranger final : Kernel::Serialisable {
        static Kernel::ClassProperties const & GetClassProperties() {
            static Kernel::ClassProperties const properties(
                "Alie", 7, [] { return Kernel::Counted<Kernel::Serialisable>(new Stranger); });
            return properties; // not registered
        }
        Kernel::ClassPropertiesBase const & GetObjectClassProperties() const override { return GetClassProperties(); }
        void Save(Kernel::OutSerialiser & out) const override { out.SaveType("Sta1", 5); }
        bool Load(Kernel::InSerialiser const &, Kernel::FileStore &, unsigned short) override { return true; }
    };
    auto bitmap = MakeBitmap(700, 500, RGBA8, MipmapModeNone);
    FillWith(bitmap, 3);
    auto const document = Create();
    SaveProperties(document, [&](Kernel::OutSerialiser & out) {
        out.SaveType("Newr", 1.5);
        out.SaveObject("Obje", Stranger());
        out.SaveRawData("DRc1", "reserved", 8);
        bitmap.Save(out);
        out.SaveType("Frmt", 17); // of two with one tag the first counts
        if (out.StartObjectArrayTestI("Arra")) {
            out.StartObjectArrayBeginI(1);
            out.SaveObjectI(Stranger());
        }
    });
    EXPECT_TRUE(BytesOf(Load(document)) == BytesOf(bitmap));
    SaveWith(document, [&](auto & session) {
        session.StoreProperties("Bitmap.dat", "Hold", 1, [&](Kernel::OutSerialiser & out) {
            out.SaveObject("Lay1", Stranger());
            out.SaveObject("Lay2", bitmap);
        });
    });
    Kernel::Counted<Kernel::Serialisable> object;
    EXPECT_FALSE(Parse(document)->LoadObjectI("Lay1", *document, object));
    ASSERT_TRUE(Parse(document)->LoadObjectI("Lay2", *document, object));
    EXPECT_TRUE(BytesOf(*Kernel::DynamicCast<DynamicBitmap>(object)) == BytesOf(bitmap));
}

TEST_F(BitmapPersistenceTest, DamagedTileIsEmptyAndTheOthersAreThere) {
    auto bitmap = MakeBitmap(256 * 4, 256, A8, MipmapModeNone);
    FillAll(bitmap, 1);
    Save(Create(), bitmap);
    auto files = disk->GetFiles();
    files.at(path)[Open()->GetInfo().items[1].offset + 300] ^= 1;
    disk = Kernel::MakeCounted<MemoryDisk>(files);
    TraceCapture capture;
    auto const document = Open();
    auto const loaded = Load(document);
    auto expected = BytesOf(bitmap);
    std::fill(expected[1].begin(), expected[1].end(), std::uint8_t(0));
    EXPECT_TRUE(BytesOf(loaded) == expected);
    EXPECT_THAT(capture.Take(), SizeIs(1));

    // It never becomes an empty item.
    EXPECT_EQ(Save(document, loaded), 0u) << "in place: what there is stays";
    auto const before = disk->GetFiles();
    EXPECT_THROW(Save(Create("second.doc"), loaded), Kernel::ArchiveError);
    EXPECT_THROW(Save(document, loaded, Mode::Compact), Kernel::ArchiveError);
    EXPECT_EQ(disk->GetFiles(), before);
    SaveWith(Create("second.doc"), [&](auto & session) {
        session.SetKeepDamaged(true);
        session.StoreObject("Bitmap.dat", loaded);
    });
    auto const second = Open("second.doc");
    EXPECT_EQ(CountItems(second, "DatI"), 4u);
    EXPECT_TRUE(BytesOf(Load(second)) == expected);
    EXPECT_THAT(capture.Take(), SizeIs(1)) << "still listed as damaged";
}

TEST_F(BitmapPersistenceTest, TileThatIsMissingFailsTheSaveUnlessDamageIsKept) {
    auto bitmap = MakeBitmap(256 * 2, 256, A8, MipmapModeNone);
    FillAll(bitmap, 1);
    auto const document = Create();
    Save(document, bitmap);
    auto const stream = document->OpenStream("Bitmap.dat");
    Bytes bytes(stream->GetSize());
    stream->ReadAll(bytes.data(), bytes.size());
    auto const tag = Kernel::IDTag("Data").GetValue();
    std::size_t at = 0;
    while (std::memcmp(&bytes[at], &tag, 4) != 0)
        ++at;
    bytes[at + 16] ^= 1; // the id of the first tile's item is that of none now
    auto const in = Kernel::MakeCounted<Kernel::MemoryInStream>(bytes.data(), bytes.size());
    TraceCapture capture;
    DynamicBitmap loaded;
    ASSERT_TRUE(loaded.Load(*Kernel::InSerialiserFile::ParseWithChecks(*in, *document, false), *document, 1));
    EXPECT_EQ(BytesOf(loaded)[0], Bytes(Tile::ByteCount, 0));
    EXPECT_EQ(BytesOf(loaded)[1], BytesOf(bitmap)[1]);
    EXPECT_THROW(Save(document, loaded), Kernel::ArchiveError);
    EXPECT_TRUE(BytesOf(Load(Open())) == BytesOf(bitmap)) << "the old document is untouched";
    SaveWith(document, [&](auto & session) {
        session.SetKeepDamaged(true);
        session.StoreObject("Bitmap.dat", loaded);
    });
    EXPECT_EQ(CountItems(document, "DatI"), 1u) << "the other stays a dangling reference";
    EXPECT_EQ(BytesOf(Load(Open()))[1], BytesOf(bitmap)[1]);
    EXPECT_THAT(LoadStates(document, "Sta1"), testing::ElementsAre(4, 4));
}

// Whatever a damaged document says, loading it and reading its pixels does no harm.
TEST_F(BitmapPersistenceTest, LoadsAnyDamagedDocument) {
    auto bitmap = MakeBitmap(700, 300, IA16);
    FillWith(bitmap, 3);
    Allow(RasterSerialisationStrategy::SaveMipmaps);
    auto const document = Create();
    Save(document, bitmap);
    auto const stream = document->OpenStream("Bitmap.dat");
    Bytes whole(stream->GetSize());
    stream->ReadAll(whole.data(), whole.size());
    std::mt19937 random(5);
    for (int i = 0; i < 300; ++i) {
        auto bytes = whole;
        for (unsigned n = 1 + random() % 4; n > 0; --n)
            bytes[random() % std::min<std::size_t>(bytes.size(), i % 2 ? 400 : bytes.size())] =
                static_cast<std::uint8_t>(random());
        auto const in = Kernel::MakeCounted<Kernel::MemoryInStream>(bytes.data(), bytes.size());
        try {
            auto const parsed = Kernel::InSerialiserFile::ParseWithChecks(*in, *document, true);
            DynamicBitmap loaded;
            if (loaded.Load(*parsed, *document, 1) && loaded.GetCore() && loaded.GetWidth() < 5000 &&
                loaded.GetHeight() < 5000)
                BytesOf(loaded);
        } catch (std::runtime_error const &) {
        }
    }
}
}
