// Bitmaps that are image files in a document: stored as those files until somebody paints, and never without pixels.
#include "colour/ICCManager.h"
#include "kernel/FileStoreOutPathGenerator.h"
#include "kernel/TraceCapture.h"
#include "pixel/EnumSerialisers.h"
#include "storage/DocumentEnvironment.h"

#include <gmock/gmock.h>

namespace Raster {
namespace {
using testing::Each;
using testing::ElementsAreArray;

class CompressedBackingPersistenceTest : public DocumentTest {
protected:
    CompressedBackingPersistenceTest() { Allow(RasterSerialisationStrategy::AllowByReference); }

    static Bytes FileOf(DynamicBitmap const & bitmap) {
        Kernel::DelayLoadHolder::TempLoadItem const item(bitmap.GetBackingData().Get());
        auto const * const file = item.GetItemAs<CompressedRasterData>();
        return file ? Bytes(file->GetData(), file->GetData() + file->GetSize()) : Bytes();
    }
    static DynamicBitmap Decoded(std::uint8_t seed) {
        auto bitmap = MakePending(seed);
        bitmap.ForceDelayLoad(nullptr);
        return bitmap;
    }
    /// The properties that every bitmap has, for streams as older programs wrote them.
    static void SaveSize(Kernel::OutSerialiser & out) {
        out.SaveEnumI("Frmt", FormatEnumSerialiser::GetInstance(), RGBA8);
        out.SaveType("BmpW", 600);
        out.SaveType("BmpH", 600);
    }
    static void SaveBacking(Kernel::OutSerialiser & out, Bytes const & file) {
        out.SaveDelayLoadObject("Bckg", MakeFileHolder(file).Get(), Kernel::FileStoreOutIndexedPathGenerator("", "c/"),
                                nullptr);
    }
    static void SaveStates(Kernel::OutSerialiser & out, char plane, Bytes const & states) {
        out.SaveTypeArrayI({'S', 't', 'a', plane}, Kernel::PropType::UInt8, states.data(), 1, states.size());
    }
    static bool TryToLoad(Document const & document) {
        DynamicBitmap bitmap;
        bool const isLoaded = bitmap.Load(*Parse(document), *document, 1);
        EXPECT_EQ(bitmap.GetCore() != nullptr, isLoaded);
        return isLoaded;
    }
    void SaveKeepingDamage(Document const & document, DynamicBitmap const & bitmap) const {
        SaveWith(document, [&](auto & session) {
            session.SetKeepDamaged(true);
            session.StoreObject("Bitmap.dat", bitmap);
        });
    }
    /// The document, its picture file damaged.
    Document OpenDamaged() {
        auto files = disk->GetFiles();
        for (auto const & item : Open()->GetInfo().items)
            if (item.type == Kernel::IDTag("Data"))
                files.at(path)[item.offset + item.storedSize + 30] ^= 1;
        disk = Kernel::MakeCounted<MemoryDisk>(files);
        return Open();
    }
    TraceCapture capture{TraceCapture::Under::TheLockOfAModel};
};
}

TEST_F(CompressedBackingPersistenceTest, UneditedPictureIsStoredAsItsFile) {
    auto const bitmap = Decoded(7);
    auto const document = Create();
    EXPECT_EQ(Save(document, bitmap), 2u); // the file and the stream
    EXPECT_EQ(CountItems(document, "Data"), 1u);
    EXPECT_TRUE(HasProperty(document, "Bckg"));
    for (char plane = '1'; plane <= '4'; ++plane)
        EXPECT_THAT(LoadStates(document, {'S', 't', 'a', plane}), Each(testing::AnyOf(1, 2, 5))) << "solid, or backed";
    auto const loaded = Load(Open());
    EXPECT_TRUE(loaded.IsPendingDelayLoad());
    EXPECT_EQ(FileOf(loaded), (Bytes{150, 150, 7}));
    loaded.ForceDelayLoad(nullptr);
    EXPECT_TRUE(BytesOf(loaded) == BytesOf(bitmap));
}

TEST_F(CompressedBackingPersistenceTest, EveryTileOfAnUneditedPictureIsAsItsBacking) {
    auto bitmap = MakeBitmap(600, 600, RGBA8);
    FillAll(bitmap, 1);
    bitmap.SetBackingData(MakeFileHolder({150, 150, 1}), nullptr);
    auto const document = Create();
    Save(document, bitmap);
    for (char plane = '1'; plane <= '4'; ++plane)
        EXPECT_THAT(LoadStates(document, {'S', 't', 'a', plane}), ElementsAreArray(Bytes(9, 5)));
    EXPECT_EQ(CountItems(document, "DatI"), 0u) << "and no block is written";
}

TEST_F(CompressedBackingPersistenceTest, EditedPictureIsStoredByItsTiles) {
    auto bitmap = MakeBitmap(600, 600, RGBA8);
    FillAll(bitmap, 1);
    bitmap.SetBackingData(MakeFileHolder({150, 150, 1}), nullptr);
    FillTile(GetTile(bitmap, 0, 0), 5);
    auto const document = Create();
    Save(document, bitmap);
    EXPECT_FALSE(HasProperty(document, "Bckg"));
    for (char plane = '1'; plane <= '4'; ++plane)
        EXPECT_THAT(LoadStates(document, {'S', 't', 'a', plane}), ElementsAreArray(Bytes(9, 4)));
    EXPECT_EQ(CountItems(document, "DatI"), 36u);
    EXPECT_EQ(CountItems(document, "Data"), 0u);
    EXPECT_TRUE(BytesOf(Load(Open())) == BytesOf(bitmap));
}

TEST_F(CompressedBackingPersistenceTest, PictureIsStoredByItsTilesWhereReferencesAreNotAllowed) {
    auto const loaded = Decoded(7), pending = MakePending(7);
    for (auto const strategies : {0u, unsigned(RasterSerialisationStrategy::SaveMipmaps), ~0u}) {
        strategies == ~0u ? AllowNothing() : Allow(strategies);
        for (auto const * bitmap : {&loaded, &pending}) {
            auto const document = Create();
            Save(document, *bitmap);
            EXPECT_FALSE(bitmap->IsPendingDelayLoad());
            EXPECT_FALSE(HasProperty(document, "Bckg"));
            EXPECT_TRUE(BytesOf(Load(Open())) == BytesOf(loaded));
        }
    }
}

TEST_F(CompressedBackingPersistenceTest, PendingPictureIsStoredWithoutBeingLoaded) {
    auto const bitmap = MakePending(7);
    auto const document = Create();
    Save(document, bitmap);
    EXPECT_TRUE(bitmap.IsPendingDelayLoad());
    EXPECT_EQ(decodes, 0);
    EXPECT_TRUE(HasProperty(document, "Bckg"));
    for (char plane = '1'; plane <= '5'; ++plane) {
        EXPECT_FALSE(HasProperty(document, {'S', 't', 'a', plane}));
        EXPECT_FALSE(HasProperty(document, {'I', 'd', 'x', plane}));
    }
    // Opened, and saved again and elsewhere: still nobody has decoded it.
    auto const opened = Open();
    auto const loaded = Load(opened);
    EXPECT_EQ(Save(opened, loaded), 0u);
    EXPECT_EQ(Save(Create("second.doc"), loaded), 2u);
    EXPECT_EQ(FileOf(Load(Open("second.doc"))), (Bytes{150, 150, 7}));
    EXPECT_EQ(decodes, 0);
}

TEST_F(CompressedBackingPersistenceTest, EnumeratingAPendingPictureGivesItsFileAndDecodesNothing) {
    AllowNothing();
    auto const bitmap = MakePending(7);
    auto const document = Create();
    SaveWith(document, [&](auto & session) {
        Enumerator enumerator(session);
        enumerator.SaveObjectEnumeratePathsOnlyI(bitmap);
        EXPECT_EQ(enumerator.written, 0u);
    });
    EXPECT_EQ(CountItems(document, "Data"), 1u);
    EXPECT_EQ(CountItems(document, "DatI"), 0u);
    EXPECT_EQ(decodes, 0);
}

TEST_F(CompressedBackingPersistenceTest, ProfileOfThePictureComesAlong) {
    auto const profile = ICCManager::GetInstance().GetDefaultProfileForFormat(RGBA8);
    ASSERT_TRUE(profile);
    auto bitmap = MakePending(7);
    bitmap.SetBackingData(Holder(bitmap.GetBackingData().Get()), profile);
    auto const document = Create();
    Save(document, bitmap);
    EXPECT_TRUE(HasProperty(document, "RPro"));
    EXPECT_TRUE(Load(Open()).GetCore()->GetProfile() == profile);
}

TEST_F(CompressedBackingPersistenceTest, LevelsOfAPictureAreThereBeforeItIsDecoded) {
    auto const bitmap = Decoded(7);
    Allow(RasterSerialisationStrategy::AllowByReference | RasterSerialisationStrategy::SaveMipmaps);
    auto const document = Create();
    Save(document, bitmap);
    decodes = 0;
    auto const opened = Open();
    auto const loaded = Load(opened);
    ASSERT_TRUE(loaded.IsPendingDelayLoad());
    ASSERT_TRUE(loaded.GetMipmap(1));
    EXPECT_TRUE(BytesOf(*loaded.GetMipmap(1)) == BytesOf(*bitmap.GetMipmap(1)));
    EXPECT_EQ(Save(opened, loaded), 1u) << "the stream, which has no states now";
    EXPECT_EQ(Save(opened, loaded), 0u);
    EXPECT_TRUE(BytesOf(*Load(Open()).GetMipmap(1)) == BytesOf(*bitmap.GetMipmap(1)));
    EXPECT_EQ(decodes, 0);
}

TEST_F(CompressedBackingPersistenceTest, TwoBitmapsOnOneFileDecodeOnce) {
    auto const document = Create();
    SaveBoth(document, MakePending(9), MakePending(9)); // equal files, stored once
    EXPECT_EQ(CountItems(document, "Data"), 1u);
    auto const opened = Open();
    auto const first = Load(opened), second = Load(opened, "Other.dat");
    first.ForceDelayLoad(nullptr);
    second.ForceDelayLoad(nullptr);
    EXPECT_EQ(decodes, 1);
    EXPECT_TRUE(BytesOf(first) == BytesOf(second));
    EXPECT_TRUE(first.GetBackingData() == second.GetBackingData());
}

// --- No save ever writes a bitmap without its pixels ---

// Tiles are dropped by a save; a file stays, with the picture that it was decoded to.
TEST_F(CompressedBackingPersistenceTest, PictureIsNotDecodedAgainAfterASave) {
    auto const first = Decoded(7);
    Holder const file(first.GetBackingData().Get());
    auto second = MakeBitmap(600, 600, RGBA8);
    second.GetCore()->SetPendingBacking(file);
    auto const document = Create();
    for (auto const mode : {Mode::Update, Mode::Compact}) {
        Save(document, first, mode);
        EXPECT_TRUE(file->IsLoaded());
    }
    second.ForceDelayLoad(nullptr);
    EXPECT_EQ(decodes, 1);
    EXPECT_TRUE(BytesOf(second) == BytesOf(first));
}

TEST_F(CompressedBackingPersistenceTest, FileThatNobodyCanDecodeIsNeverLost) {
    Bytes const strange{'w', 'h', 'a', 't', '?'};
    auto bitmap = MakeBitmap(600, 600, RGBA8);
    bitmap.GetCore()->SetPendingBacking(MakeFileHolder(strange));
    for (bool const isAllowed : {true, false})
        for (bool const isForced : {false, true}) {
            isAllowed ? Allow(RasterSerialisationStrategy::AllowByReference) : AllowNothing();
            if (isForced)
                bitmap.ForceDelayLoad(nullptr);
            Save(Create(), bitmap);
            auto const opened = Open();
            auto const loaded = Load(opened);
            EXPECT_EQ(FileOf(loaded), strange);
            EXPECT_EQ(BytesOf(loaded)[0], Bytes(Tile::ByteCount, 0)) << "it shows as empty";
            Save(Create("second.doc"), loaded);
            EXPECT_EQ(FileOf(Load(Open("second.doc"))), strange);
        }
    FillTile(GetTile(bitmap, 0, 0), 5); // until it is edited
    auto const document = Create();
    Save(document, bitmap);
    EXPECT_FALSE(HasProperty(document, "Bckg"));
    EXPECT_TRUE(BytesOf(Load(document)) == BytesOf(bitmap));
}

TEST_F(CompressedBackingPersistenceTest, WithoutAnyDecoderEveryFileStays) {
    auto const before = SetCompressedDataCodec(nullptr);
    AllowNothing();
    Save(Create(), MakePending(7));
    SetCompressedDataCodec(before);
    auto const loaded = Load(Open());
    loaded.ForceDelayLoad(nullptr);
    EXPECT_TRUE(BytesOf(loaded) == BytesOf(Decoded(7)));
}

TEST_F(CompressedBackingPersistenceTest, DamagedFileStaysWhereItIsAndIsCopiedOnlyWhenAsked) {
    Save(Create(), MakePending(7));
    auto const damaged = OpenDamaged();
    auto const bitmap = Load(damaged);
    bitmap.ForceDelayLoad(nullptr);
    EXPECT_TRUE(bitmap.IsPendingDelayLoad());
    for (bool const isAllowed : {true, false}) {
        isAllowed ? Allow(RasterSerialisationStrategy::AllowByReference) : AllowNothing();
        EXPECT_EQ(Save(damaged, bitmap), 0u) << "in place: what there is stays";
        EXPECT_TRUE(HasProperty(damaged, "Bckg"));
        auto const before = disk->GetFiles();
        EXPECT_THROW(Save(Create("second.doc"), bitmap), Kernel::ArchiveError);
        EXPECT_THROW(Save(damaged, bitmap, Mode::Compact), Kernel::ArchiveError);
        EXPECT_EQ(disk->GetFiles(), before);
        SaveKeepingDamage(Create("second.doc"), bitmap);
        auto const second = Open("second.doc");
        EXPECT_TRUE(HasProperty(second, "Bckg"));
        EXPECT_EQ(CountItems(second, "Data"), 1u) << "as it was found";
        EXPECT_TRUE(Load(second).GetCore()->IsPendingDelayLoad());
    }
}

TEST_F(CompressedBackingPersistenceTest, ReferenceToAMissingFileStaysAReference) {
    auto const document = Create();
    std::uint8_t const id[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    auto const write = [&](Kernel::OutSerialiser & out) {
        SaveSize(out);
        out.SaveTypeI("Bckg", Kernel::PropType::DelayLoadObject, id, sizeof id);
        out.SaveType("DelA", true);
    };
    SaveProperties(document, write);
    auto const before = disk->GetFiles();
    for (bool const isAllowed : {true, false}) {
        isAllowed ? Allow(RasterSerialisationStrategy::AllowByReference) : AllowNothing();
        auto const bitmap = Load(document);
        bitmap.ForceDelayLoad(nullptr);
        EXPECT_TRUE(bitmap.IsPendingDelayLoad());
        EXPECT_THROW(Save(document, bitmap), Kernel::ArchiveError);
        EXPECT_EQ(disk->GetFiles(), before) << "the old file is untouched";
    }
    SaveKeepingDamage(document, Load(document));
    std::uint8_t stored[16] = {};
    EXPECT_TRUE(Parse(Open())->LoadTypeI("Bckg", Kernel::PropType::DelayLoadObject, stored, sizeof stored));
    EXPECT_EQ(std::memcmp(stored, id, sizeof id), 0);
    EXPECT_TRUE(Load(Open()).IsPendingDelayLoad());
}

TEST_F(CompressedBackingPersistenceTest, ReferenceToAnItemOfAnotherKindGivesNoBitmap) {
    auto const document = Create();
    auto tile = MakeBitmap(1, 1, A8, MipmapModeNone);
    FillAll(tile, 1);
    auto const item = Kernel::MakeCounted<Data>(SlabAllocator::Content::Zero);
    SaveProperties(document, [&](Kernel::OutSerialiser & out) {
        SaveSize(out);
        out.SaveDelayLoadObject("Bckg", Kernel::DelayLoadHolder::Create(Data::GetItemType(), item).Get(),
                                Kernel::FileStoreOutIndexedPathGenerator("", "c/"), nullptr);
        out.SaveType("DelA", true);
    });
    EXPECT_FALSE(TryToLoad(document)) << "an empty bitmap would be saved in its place";
}

// --- As older programs wrote ---

TEST_F(CompressedBackingPersistenceTest, WithoutTheDelayPropertyItIsDecodedAtOnce) {
    auto const document = Create();
    SaveProperties(document, [](Kernel::OutSerialiser & out) {
        SaveSize(out);
        SaveBacking(out, {150, 150, 7});
    });
    capture.Take();
    auto const loaded = Load(document);
    EXPECT_FALSE(loaded.IsPendingDelayLoad());
    EXPECT_EQ(decodes, 1);
    EXPECT_TRUE(BytesOf(loaded) == BytesOf(Decoded(7)));
    EXPECT_TRUE(loaded.GetCore()->GetPlane(3).GetTile(8).IsBackedBy(Holder(loaded.GetBackingData().Get())));
    EXPECT_THAT(capture.Take(), testing::IsEmpty()) << "tiles without a state are those of the file";
    EXPECT_EQ(Save(document, loaded), 1u) << "and is stored as its file again";
}

TEST_F(CompressedBackingPersistenceTest, StatesLieOverWhatWasDecoded) {
    auto const document = Create();
    auto const own = MakeBitmap(1, 1, A8, MipmapModeNone);
    FillTile(const_cast<BitmapCore *>(own.GetCore())->GetPlane(0).GetTile(0), 50);
    auto const write = [&](Bytes const & file) {
        return [&, file](Kernel::OutSerialiser & out) {
            SaveSize(out);
            SaveBacking(out, file);
            if (out.StartObjectArrayTestI("Idx1"))
                out.StartObjectArrayBeginI(1);
            out.SaveObjectI(*const_cast<BitmapCore *>(own.GetCore())->GetPlane(0).GetTile(0).GetDirectInner());
            SaveStates(out, '1', {5, 4, 0, 1, 2, 5, 5, 5, 5});
            for (char plane = '2'; plane <= '4'; ++plane)
                SaveStates(out, plane, Bytes(9, 5));
        };
    };
    SaveProperties(document, write({150, 150, 7}));
    auto const loaded = Load(document);
    auto expected = BytesOf(Decoded(7));
    expected[1] = BytesOf(own)[0];
    expected[2] = expected[3] = Bytes(Tile::ByteCount, 0);
    expected[4] = Bytes(Tile::ByteCount, 255);
    EXPECT_TRUE(BytesOf(loaded) == expected);
    Save(document, loaded);
    EXPECT_FALSE(HasProperty(document, "Bckg"));
    EXPECT_TRUE(BytesOf(Load(document)) == expected);

    // Where the file can't be had, what lies over it isn't taken for the picture.
    SaveProperties(document, write({150, 150, 8}));
    EXPECT_FALSE(TryToLoad(OpenDamaged()));
}

// --- The item itself ---

TEST_F(CompressedBackingPersistenceTest, ItemComesBackWithItsInversion) {
    for (bool const isInverted : {false, true}) {
        auto const holder = MakeFileHolder({150, 150, 7});
        Kernel::DynamicCast<CompressedRasterData>(holder->GetItem())->SetInvert(isInverted);
        auto bitmap = MakeBitmap(600, 600, RGBA8);
        bitmap.GetCore()->SetPendingBacking(holder);
        Save(Create(), bitmap);
        auto const loaded = Load(Open());
        loaded.ForceDelayLoad(nullptr);
        EXPECT_EQ(inversions, int(isInverted));
        Kernel::DelayLoadHolder::TempLoadItem const item(loaded.GetBackingData().Get());
        EXPECT_EQ(item.GetItemAs<CompressedRasterData>()->GetInvert(), isInverted);
    }
}

TEST_F(CompressedBackingPersistenceTest, ItemThatWasChangedIsStoredAgain) {
    Save(Create(), MakePending(7));
    using Change = void (*)(CompressedRasterData &);
    for (Change const change :
         {Change([](CompressedRasterData & file) { file.SetInvert(true); }),
          Change([](CompressedRasterData & file) { file.SetSize(2); }),
          Change([](CompressedRasterData & file) { file.SetSize(4); }), Change([](CompressedRasterData & file) {
              CompressedRasterDataOutStream stream{Kernel::Counted<CompressedRasterData>(&file)};
              stream.Write("12", 2);
          })}) {
        auto const document = Open();
        auto const bitmap = Load(document);
        auto const pictureOf = [](DynamicBitmap const & of) {
            Kernel::DelayLoadHolder::TempLoadItem const item(of.GetBackingData().Get());
            return std::pair(item.GetItemAs<CompressedRasterData>()->GetInvert(), FileOf(of));
        };
        {
            Kernel::DelayLoadHolder::TempLoadItem const item(bitmap.GetBackingData().Get());
            change(*item.GetItemAs<CompressedRasterData>());
        }
        EXPECT_EQ(Save(document, bitmap), 2u);
        EXPECT_EQ(pictureOf(Load(Open())), pictureOf(bitmap));
        EXPECT_EQ(Save(document, bitmap), 0u);
    }
}
}
