#include "kernel/Abort.h"
#include "kernel/Archive.h"
#include "kernel/ArchiveCheck.h"
#include "kernel/ArchiveSession.h"
#include "kernel/DelayLoadHolder.h"
#include "kernel/Dispatch.h"
#include "kernel/InSerialiserFile.h"
#include "kernel/MemoryDisk.h"
#include "kernel/MemoryInStream.h"
#include "kernel/MemoryOutStream.h"
#include "kernel/OutSerialiserFile.h"
#include "kernel/ScopedLock.h"
#include "pixel/MemoryManager.h"
#include "storage/Block.h"
#include "storage/CompressedRasterData.h"
#include "storage/DynamicBitmap.h"
#include "storage/RasterSerialisationStrategy.h"
#include "storage/StoredClasses.h"
#include "storage/Tile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>

using namespace Raster;
using Kernel::Archive;
using Kernel::ArchiveError;
using Kernel::ArchiveSaveMode;
using Kernel::Counted;
using Kernel::MakeCounted;
using testing::Each;
using testing::IsEmpty;

namespace {
constexpr char const * path = "picture.doc";

class Persistence : public testing::Test {
protected:
    Persistence() {
        RegisterStoredClasses();
        Tile::InitStaticTiles();
        codecBefore = SetCompressedDataCodec(&testCodec);
    }
    ~Persistence() override {
        SetCompressedDataCodec(codecBefore);
        MemoryManager::Instance().SetDRAMLimit(4096);
    }

    // A "file" here is its width, its height, and a seed of its pixels.
    static void Decode(Counted<CompressedRasterData const> const & data, DynamicBitmap & bitmap,
                       Kernel::Consolidated<ICCProfile> &, bool * abort) {
        ++decodes;
        if (data->GetSize() != 3 || Kernel::IsAborted(abort))
            return;
        bitmap = DynamicBitmap(data->GetData()[0] * 4, data->GetData()[1] * 4, RGBA8, MipmapModeOnDemandDefault,
                               HardwareCachePolicy::Default);
        FillWith(bitmap, data->GetData()[2]);
    }
    static void Invert(DynamicBitmap &, bool *) {}
    static void Convert(DynamicBitmap &, DynamicBitmap const &, Kernel::Consolidated<ICCProfile> const &,
                        Kernel::Consolidated<ICCProfile> const &, bool *) {}
    static inline CompressedDataCodec const testCodec{Decode, Invert, Convert};
    static inline int decodes = 0;

    template<class Function>
    static void ForEachTile(DynamicBitmap const & bitmap, Function && function) {
        auto & core = const_cast<BitmapCore &>(*bitmap.GetCore());
        for (int plane = 0; plane < core.GetPlaneCount(); ++plane)
            for (std::size_t i = 0; i < core.GetPlane(plane).GetTileCount(); ++i)
                function(core.GetPlane(plane).GetTile(i), plane, i);
    }

    static void FillTile(Tile & tile, unsigned seed) {
        tile.IncrementRefCountMutable();
        std::mt19937 random(seed);
        auto * const words = tile.GetMutableBuffer();
        for (std::size_t i = 0; i < Tile::ByteCount / 4; ++i)
            words[i] = static_cast<unsigned>(i / 3) * 0x01010101u + random() % 3;
        tile.DecrementRefCountMutable();
    }

    // Tiles of every kind: empty, zero, full, and with bytes of their own.
    static void FillWith(DynamicBitmap & bitmap, unsigned seed) {
        ForEachTile(bitmap, [&](Tile & tile, int plane, std::size_t i) {
            switch ((seed + i + static_cast<unsigned>(plane)) % 5) {
            case 0:
                break;
            case 1:
                tile = *Tile::GetZeroTile();
                break;
            case 2:
                tile = *Tile::GetFullTile();
                break;
            default:
                FillTile(tile, seed * 1000 + static_cast<unsigned>(plane) * 100 + static_cast<unsigned>(i));
            }
        });
    }

    static std::vector<std::vector<std::uint8_t>> BytesOf(DynamicBitmap const & bitmap) {
        std::vector<std::vector<std::uint8_t>> bytes;
        ForEachTile(bitmap, [&](Tile & tile, int, std::size_t) {
            tile.IncrementRefCountConst();
            auto const * const first = reinterpret_cast<std::uint8_t const *>(tile.GetConstBuffer());
            bytes.emplace_back(first, first + Tile::ByteCount);
            tile.DecrementRefCountConst();
        });
        return bytes;
    }

    static std::vector<bool> AllocationOf(DynamicBitmap const & bitmap) {
        std::vector<bool> allocated;
        ForEachTile(bitmap, [&](Tile & tile, int, std::size_t) { allocated.push_back(tile.IsAllocated()); });
        return allocated;
    }

    std::uint64_t Save(Counted<Archive> const & archive, DynamicBitmap const & bitmap,
                       ArchiveSaveMode mode = ArchiveSaveMode::Update) const {
        auto session = archive->CreateSession(mode);
        if (strategy)
            session->AddStrategy(strategy);
        session->StoreObject("Bitmap.dat", bitmap);
        return archive->CloseSession(std::move(session)).itemsAdded;
    }
    static DynamicBitmap Load(Counted<Archive> const & archive) {
        auto const stream = archive->OpenStream("Bitmap.dat");
        auto const parsed = Kernel::InSerialiserFile::ParseWithChecks(*stream, *archive, false);
        DynamicBitmap bitmap;
        EXPECT_TRUE(bitmap.Load(*parsed, *archive, parsed->GetRootVersion()));
        return bitmap;
    }
    static std::vector<std::uint8_t> LoadStates(Counted<Archive> const & archive, Kernel::IDTag tag) {
        auto const stream = archive->OpenStream("Bitmap.dat");
        std::vector<std::uint8_t> states;
        Kernel::InSerialiserFile::ParseWithChecks(*stream, *archive, false)
            ->LoadTypeArrayI(tag, Kernel::PropType::UInt8, 1, states);
        return states;
    }
    static bool HasProperty(Counted<Archive> const & archive, Kernel::IDTag tag) {
        auto const stream = archive->OpenStream("Bitmap.dat");
        return Kernel::InSerialiserFile::ParseWithChecks(*stream, *archive, false)->HasProperty(tag);
    }

    static Counted<Kernel::DelayLoadHolder> MakeFile(unsigned char width4, unsigned char height4, unsigned char seed) {
        auto const file = MakeCounted<CompressedRasterData>();
        unsigned char const bytes[] = {width4, height4, seed};
        file->CopyFrom(bytes, 3);
        return Kernel::DelayLoadHolder::Create(CompressedRasterData::GetTypeFileStoreItemType(), file);
    }
    static DynamicBitmap MakePending(unsigned char seed) {
        DynamicBitmap bitmap(600, 600, RGBA8, MipmapModeOnDemandDefault, HardwareCachePolicy::Default);
        bitmap.GetCore()->SetPendingBacking(MakeFile(150, 150, seed));
        return bitmap;
    }

    void Allow(unsigned flags, std::vector<int> sizes = {}) {
        strategy = MakeCounted<RasterSerialisationStrategy>(std::move(sizes), flags);
    }

    Counted<MemoryDisk> const disk = MakeCounted<MemoryDisk>();
    Counted<Archive> Create() const { return Archive::Create(path, "Test", disk); }
    Counted<Archive> Open() const { return Archive::Open(path, "Test", disk); }

private:
    Counted<RasterSerialisationStrategy> strategy;
    CompressedDataCodec const * codecBefore;
};
}

TEST_F(Persistence, BringsBackEveryFormatWithoutLoadingAnything) {
    for (std::uint32_t format = 0; format < 11; ++format) {
        if (format == NoFormat)
            continue;
        DynamicBitmap bitmap(700, 500, static_cast<Format>(format), MipmapModeManual, HardwareCachePolicy::Default);
        if (bitmap.GetFormat() == NoFormat)
            continue;
        FillWith(bitmap, 3);
        auto const archive = Create();
        Save(archive, bitmap);
        auto const before = MemoryManager::Instance().GetPlanarUsage();
        auto const loaded = Load(Open());
        EXPECT_EQ(MemoryManager::Instance().GetPlanarUsage(), before);
        EXPECT_EQ(loaded.GetFormat(), format);
        EXPECT_EQ(loaded.GetWidth(), 700);
        EXPECT_EQ(loaded.GetHeight(), 500);
        EXPECT_EQ(loaded.GetMipmapMode(), MipmapModeManual);
        EXPECT_EQ(AllocationOf(loaded), AllocationOf(bitmap));
        EXPECT_EQ(BytesOf(loaded), BytesOf(bitmap)) << "format " << format;
    }
}

TEST_F(Persistence, WritesAStateForEveryTile) {
    DynamicBitmap bitmap(256 * 5, 1, A8, MipmapModeNone, HardwareCachePolicy::Default);
    FillWith(bitmap, 0);
    auto const archive = Create();
    Save(archive, bitmap);
    EXPECT_THAT(LoadStates(archive, "Sta1"), testing::ElementsAre(0, 1, 2, 4, 4));
    DynamicBitmap floats(64, 1, AF, MipmapModeNone, HardwareCachePolicy::Default);
    floats.GetCore()->GetPlane(0).GetTile(0) = *Tile::GetFullFloatTile();
    Save(archive, floats);
    EXPECT_THAT(LoadStates(archive, "Sta1"), testing::ElementsAre(3));
    EXPECT_TRUE(Load(archive).GetCore()->GetPlane(0).GetTile(0).IsFullFloatTileBuffer());
}

TEST_F(Persistence, KeepsRectsOfBlocks) {
    DynamicBitmap bitmap(256, 256, A8, MipmapModeNone, HardwareCachePolicy::Default);
    auto & tile = bitmap.GetCore()->GetPlane(0).GetTile(0);
    tile.IncrementRefCountMutable();
    reinterpret_cast<std::uint8_t *>(tile.GetMutableBuffer())[256 * 7 + 9] = 255;
    tile.DecrementRefCountMutable();
    Save(Create(), bitmap);
    auto const loaded = Load(Open());
    EXPECT_EQ(loaded.GetNonZeroBoundingBox(), (Kernel::RectT<int>{9, 7, 10, 8}));
    EXPECT_TRUE(loaded.GetCore()->GetPlane(0).GetTile(0).IsPendingDelayLoad()) << "no pixel was needed for that";
}

TEST_F(Persistence, SavingAgainWritesNothingAndOneTileWritesOne) {
    DynamicBitmap bitmap(1000, 1000, RGBA8, MipmapModeNone, HardwareCachePolicy::Default);
    FillWith(bitmap, 3);
    auto const archive = Create();
    EXPECT_GT(Save(archive, bitmap), 10u);
    EXPECT_EQ(Save(archive, bitmap), 0u);
    auto const opened = Open();
    auto loaded = Load(opened);
    EXPECT_EQ(Save(opened, loaded), 0u);
    auto & tile = loaded.GetCore()->GetPlane(1).GetTile(5);
    FillTile(tile, 99);
    EXPECT_EQ(Save(opened, loaded), 2u); // the tile, and the stream
    EXPECT_EQ(BytesOf(Load(Open())), BytesOf(loaded));
    EXPECT_THAT(Kernel::VerifyArchive(path, nullptr, nullptr, nullptr, disk).problems, IsEmpty());
}

TEST_F(Persistence, CopiesOfATileAreStoredOnce) {
    DynamicBitmap bitmap(256, 256, A8, MipmapModeNone, HardwareCachePolicy::Default);
    FillTile(bitmap.GetCore()->GetPlane(0).GetTile(0), 1);
    auto const archive = Create();
    Save(archive, bitmap);
    auto const first = Load(archive);
    auto second = Load(archive); // another bitmap on the same item
    EXPECT_EQ(BytesOf(first), BytesOf(second));
    EXPECT_EQ(Save(archive, second), 0u);
    FillTile(second.GetCore()->GetPlane(0).GetTile(0), 2);
    EXPECT_EQ(Save(archive, second), 2u);
    EXPECT_EQ(BytesOf(first), BytesOf(bitmap)) << "the other one keeps its own";
    EXPECT_EQ(BytesOf(Load(Open())), BytesOf(second));
}

// Whichever of two bitmaps on one item is written, it is the one that is saved.
TEST_F(Persistence, SavesTheBlockThatWasWrittenNotTheOneThatSharesItsItem) {
    DynamicBitmap bitmap(256, 256, A8, MipmapModeNone, HardwareCachePolicy::Default);
    FillTile(bitmap.GetCore()->GetPlane(0).GetTile(0), 1);
    auto const archive = Create();
    Save(archive, bitmap);
    auto first = Load(archive), second = Load(archive);
    BytesOf(first); // the first owns the item, the second has a copy
    BytesOf(second);
    FillTile(first.GetCore()->GetPlane(0).GetTile(0), 2);
    FillTile(second.GetCore()->GetPlane(0).GetTile(0), 3);
    Save(archive, second);
    EXPECT_EQ(BytesOf(Load(Open())), BytesOf(second));
    Save(archive, first);
    EXPECT_EQ(BytesOf(Load(Open())), BytesOf(first));
    EXPECT_NE(BytesOf(first), BytesOf(second));
}

TEST_F(Persistence, WorksUnderASmallMemoryLimit) {
    MemoryManager::Instance().SetDRAMLimit(1);
    DynamicBitmap bitmap(1500, 1500, RGBA8, MipmapModeNone, HardwareCachePolicy::Default);
    FillWith(bitmap, 3);
    auto const archive = Create();
    Save(archive, bitmap);
    auto loaded = Load(Open());
    EXPECT_EQ(BytesOf(loaded), BytesOf(bitmap));
    ForEachTile(loaded, [](Tile & tile, int, std::size_t i) {
        if (i % 7 == 0)
            FillTile(tile, static_cast<unsigned>(i));
    });
    auto const second = Archive::Create("second.doc", "Test", disk);
    Save(second, loaded);
    EXPECT_EQ(BytesOf(Load(Archive::Open("second.doc", "Test", disk))), BytesOf(loaded));
}

TEST_F(Persistence, UneditedPictureIsStoredAsItsFile) {
    auto bitmap = MakePending(7);
    bitmap.ForceDelayLoad(nullptr);
    Allow(RasterSerialisationStrategy::AllowByReference);
    auto const archive = Create();
    EXPECT_EQ(Save(archive, bitmap), 2u); // the file and the stream
    EXPECT_TRUE(HasProperty(archive, "Bckg"));
    EXPECT_THAT(LoadStates(archive, "Sta1"), Each(testing::AnyOf(1, 2, 5))) << "solid ones, and those of the file";
    EXPECT_THAT(LoadStates(archive, "Sta4"), Each(testing::AnyOf(1, 2, 5))) << "solid ones, and those of the file";
    auto const loaded = Load(Open());
    EXPECT_TRUE(loaded.IsPendingDelayLoad());
    loaded.ForceDelayLoad(nullptr);
    EXPECT_EQ(BytesOf(loaded), BytesOf(bitmap));
}

TEST_F(Persistence, EditedPictureIsStoredByItsTiles) {
    auto bitmap = MakePending(7);
    bitmap.ForceDelayLoad(nullptr);
    FillTile(bitmap.GetCore()->GetPlane(0).GetTile(0), 5);
    Allow(RasterSerialisationStrategy::AllowByReference);
    auto const archive = Create();
    Save(archive, bitmap);
    EXPECT_FALSE(HasProperty(archive, "Bckg"));
    EXPECT_EQ(BytesOf(Load(Open())), BytesOf(bitmap));
}

TEST_F(Persistence, PendingPictureIsStoredWithoutBeingLoaded) {
    auto const bitmap = MakePending(7);
    Allow(RasterSerialisationStrategy::AllowByReference);
    auto const archive = Create();
    Save(archive, bitmap);
    EXPECT_TRUE(bitmap.IsPendingDelayLoad());
    EXPECT_TRUE(HasProperty(archive, "Bckg"));
    EXPECT_FALSE(HasProperty(archive, "Sta1"));
    EXPECT_FALSE(HasProperty(archive, "Idx1"));
}

TEST_F(Persistence, PendingPictureIsLoadedWhereReferencesAreNotAllowed) {
    auto const bitmap = MakePending(7);
    auto const archive = Create();
    Save(archive, bitmap);
    EXPECT_FALSE(bitmap.IsPendingDelayLoad());
    EXPECT_FALSE(HasProperty(archive, "Bckg"));
    EXPECT_EQ(BytesOf(Load(Open())), BytesOf(bitmap));
}

TEST_F(Persistence, FileThatNobodyCanDecodeIsNeverLost) {
    DynamicBitmap bitmap(600, 600, RGBA8, MipmapModeNone, HardwareCachePolicy::Default);
    auto const file = MakeCounted<CompressedRasterData>();
    file->CopyFrom(reinterpret_cast<unsigned char const *>("what is this?"), 13);
    auto const holder = Kernel::DelayLoadHolder::Create(CompressedRasterData::GetTypeFileStoreItemType(), file);
    bitmap.GetCore()->SetPendingBacking(holder);
    for (bool const isForced : {false, true}) {
        if (isForced)
            bitmap.ForceDelayLoad(nullptr);
        auto const archive = Create();
        Save(archive, bitmap);
        ASSERT_TRUE(HasProperty(archive, "Bckg"));
        auto const loaded = Load(Open());
        Kernel::DelayLoadHolder::TempLoadItem const item(loaded.GetBackingData().Get());
        ASSERT_NE(item.GetItemAs<CompressedRasterData>(), nullptr);
        EXPECT_EQ(item.GetItemAs<CompressedRasterData>()->GetSize(), 13u);
    }
}

TEST_F(Persistence, TwoBitmapsOnOneFileDecodeOnce) {
    Allow(RasterSerialisationStrategy::AllowByReference);
    auto const archive = Create();
    Save(archive, MakePending(9));
    auto const opened = Open();
    auto const first = Load(opened), second = Load(opened);
    decodes = 0;
    first.ForceDelayLoad(nullptr);
    second.ForceDelayLoad(nullptr);
    EXPECT_EQ(decodes, 1);
    EXPECT_EQ(BytesOf(first), BytesOf(second));
    EXPECT_TRUE(first.GetBackingData() == second.GetBackingData());
}

TEST_F(Persistence, SavesLevelsUpToTheSizeThatIsAsked) {
    DynamicBitmap bitmap(1200, 600, RGBA8, MipmapModeOnDemandDefault, HardwareCachePolicy::Default);
    FillWith(bitmap, 3);
    Allow(RasterSerialisationStrategy::SaveMipmaps, {0, 512});
    auto const archive = Create();
    Save(archive, bitmap);
    EXPECT_FALSE(HasProperty(archive, {'M', 'T', '1', '1'})) << "600 by 300";
    EXPECT_TRUE(HasProperty(archive, {'M', 'T', '2', '1'})) << "300 by 150";
    auto loaded = Load(Open());
    EXPECT_FALSE(loaded.GetMipmap(1));
    ASSERT_TRUE(loaded.GetMipmap(2));
    EXPECT_EQ(BytesOf(*loaded.GetMipmap(2)), BytesOf(*bitmap.GetMipmap(2)));
    loaded.UpdateMipmaps(0, nullptr);
    EXPECT_EQ(BytesOf(*loaded.GetMipmap(1)), BytesOf(*bitmap.GetMipmap(1)));
}

TEST_F(Persistence, BitmapWithoutLevelsNeverSavesAny) {
    DynamicBitmap bitmap(1200, 600, RGBA8, MipmapModeNone, HardwareCachePolicy::Default);
    FillWith(bitmap, 3);
    Allow(RasterSerialisationStrategy::SaveMipmaps);
    auto const archive = Create();
    Save(archive, bitmap);
    for (char level = '1'; level < '9'; ++level)
        EXPECT_FALSE(HasProperty(archive, {'M', 'T', level, '1'}));
}

TEST_F(Persistence, KeepsInflation) {
    DynamicBitmap bitmap(300, 300, RGBA8, MipmapModeNone, HardwareCachePolicy::Default);
    FillWith(bitmap, 3);
    bitmap.InflateByPixels({10, 300, 5, 5}, true);
    Save(Create(), bitmap);
    auto const loaded = Load(Open());
    EXPECT_EQ(loaded.GetLeftInflationTiles(), bitmap.GetLeftInflationTiles());
    EXPECT_EQ(loaded.GetTopInflationTiles(), bitmap.GetTopInflationTiles());
    EXPECT_EQ(BytesOf(loaded), BytesOf(bitmap));
}

// Of a number that is not true, further inflations would make one that no integer holds.
TEST_F(Persistence, TakesNoMoreInflationThanThereAreTiles) {
    auto const archive = Create();
    auto session = archive->CreateSession();
    session->StoreProperties("Bitmap.dat", "DyBm", 1, [](Kernel::OutSerialiser & serialiser) {
        serialiser.SaveType("LInf", std::numeric_limits<int>::max()); // of two with one tag the first counts
        serialiser.SaveType("TInf", -5);
        DynamicBitmap(300, 600, A8, MipmapModeNone, HardwareCachePolicy::Default).Save(serialiser);
    });
    archive->CloseSession(std::move(session));
    auto loaded = Load(Open());
    EXPECT_EQ(loaded.GetLeftInflationTiles(), 2);
    EXPECT_EQ(loaded.GetTopInflationTiles(), 0);
    loaded.InflateByPixels({1, 1, 0, 0}, true);
    EXPECT_EQ(loaded.GetLeftInflationTiles(), 3);
    EXPECT_EQ(loaded.GetTopInflationTiles(), 1);
}

// A few bytes could say that they are a bitmap as large as can be.
TEST_F(Persistence, MakesNothingButBlocksWhereBlocksStand) {
    class Probe final : public Kernel::Serialisable {
    public:
        static Kernel::ClassProperties const & GetClassProperties() {
            static Kernel::ClassProperties const properties("Prob", 1, [] {
                ++GetMadeCount();
                return Counted<Kernel::Serialisable>(new Probe);
            });
            return properties;
        }
        static int & GetMadeCount() {
            static int made = 0;
            return made;
        }
        Kernel::ClassPropertiesBase const & GetObjectClassProperties() const override { return GetClassProperties(); }
        void Save(Kernel::OutSerialiser &) const override {}
        bool Load(Kernel::InSerialiser const &, Kernel::FileStore &, unsigned short) override { return true; }
    };
    Probe::GetClassProperties().Init();
    auto const archive = Create();
    auto session = archive->CreateSession();
    session->StoreProperties("Bitmap.dat", "DyBm", 1, [](Kernel::OutSerialiser & serialiser) {
        ASSERT_TRUE(serialiser.StartObjectArrayTestI("Idx1"));
        serialiser.StartObjectArrayBeginI(1);
        serialiser.SaveObjectI(*MakeCounted<Probe>());
        serialiser.SaveTypeArrayI("Sta1", Kernel::PropType::UInt8, "\4", 1, 1);
        DynamicBitmap(1, 1, A8, MipmapModeNone, HardwareCachePolicy::Default).Save(serialiser);
    });
    archive->CloseSession(std::move(session));
    auto const loaded = Load(Open());
    EXPECT_EQ(Probe::GetMadeCount(), 0);
    EXPECT_THAT(AllocationOf(loaded), Each(false));
}

TEST_F(Persistence, BitmapWithoutFormatStaysWithout) {
    Save(Create(), DynamicBitmap());
    EXPECT_EQ(Load(Open()).GetFormat(), NoFormat);
}

TEST_F(Persistence, DamagedTileIsEmptyAndTheOthersAreThere) {
    DynamicBitmap bitmap(256 * 4, 256, A8, MipmapModeNone, HardwareCachePolicy::Default);
    ForEachTile(bitmap, [](Tile & tile, int, std::size_t i) { FillTile(tile, static_cast<unsigned>(i)); });
    Save(Create(), bitmap);
    auto files = disk->GetFiles();
    auto const items = Open()->GetInfo().items;
    files.at(path)[items[1].offset + 300] ^= 1;
    auto const damaged = MakeCounted<MemoryDisk>(files);
    auto const loaded = Load(Archive::Open(path, "Test", damaged));
    auto expected = BytesOf(bitmap);
    std::fill(expected[1].begin(), expected[1].end(), std::uint8_t(0));
    EXPECT_EQ(BytesOf(loaded), expected);
}

TEST_F(Persistence, OlderFormOfATileIsRead) {
    auto const stream = MakeCounted<Kernel::MemoryOutStream>();
    std::vector<std::uint8_t> bytes(Tile::ByteCount);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 7);
    auto const archive = Create();
    auto const session = archive->CreateSession();
    for (std::size_t const size : {bytes.size(), bytes.size() - 1, std::size_t(0)}) {
        auto const out = MakeCounted<Kernel::MemoryOutStream>();
        Kernel::OutSerialiserFile serialiser(*out, *session, "DatI", 1);
        serialiser.SaveRawData("DatI", bytes.data(), size);
        serialiser.Close();
        auto const stored = out->TakeData();
        auto const in = MakeCounted<Kernel::MemoryInStream>(stored.data(), stored.size());
        auto const data = MakeCounted<Data>();
        ASSERT_EQ(data->Load(*in, *archive), size == bytes.size()) << size;
        if (size == bytes.size()) {
            EXPECT_EQ(std::memcmp(data->GetBuffer(), bytes.data(), bytes.size()), 0);
        }
    }
}

// Whatever a damaged document says, loading it and reading its pixels does no harm.
TEST_F(Persistence, LoadsAnyDamagedDocument) {
    DynamicBitmap bitmap(700, 300, IA16, MipmapModeOnDemandDefault, HardwareCachePolicy::Default);
    FillWith(bitmap, 3);
    Allow(RasterSerialisationStrategy::SaveMipmaps);
    auto const archive = Create();
    Save(archive, bitmap);
    auto const stream = archive->OpenStream("Bitmap.dat");
    std::vector<std::uint8_t> const whole = [&] {
        std::vector<std::uint8_t> bytes(stream->GetSize());
        stream->ReadAll(bytes.data(), bytes.size());
        return bytes;
    }();
    std::mt19937 random(5);
    for (int i = 0; i < 300; ++i) {
        auto bytes = whole;
        for (unsigned n = 1 + random() % 4; n > 0; --n)
            bytes[random() % std::min<std::size_t>(bytes.size(), i % 2 ? 400 : bytes.size())] =
                static_cast<std::uint8_t>(random());
        auto const in = MakeCounted<Kernel::MemoryInStream>(bytes.data(), bytes.size());
        try {
            auto const parsed = Kernel::InSerialiserFile::ParseWithChecks(*in, *archive, true);
            DynamicBitmap loaded;
            if (loaded.Load(*parsed, *archive, 1) && loaded.GetCore() && loaded.GetWidth() < 5000 &&
                loaded.GetHeight() < 5000)
                BytesOf(loaded);
        } catch (std::runtime_error const &) {
        }
    }
}
