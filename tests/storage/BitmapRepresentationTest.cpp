// The picture that the bytes of an image file show: decoded once, shared by all bitmaps of the file.
#include "kernel/MemoryInStream.h"
#include "kernel/MemoryOutStream.h"
#include "kernel/OutSerialiserFile.h"
#include "storage/Bitmap.h"
#include "storage/DocumentEnvironment.h"

#include <thread>

namespace Raster {
namespace {
using File = Kernel::Counted<CompressedRasterData>;
using RGBA8Bitmap = BitmapOf<RGBA8Tuple>;
using A8Bitmap = BitmapOf<A8Tuple>;

class BitmapRepresentationTest : public DocumentTest {
protected:
    static File MakeFile(Bytes const & bytes) {
        auto const file = Kernel::MakeCounted<CompressedRasterData>();
        file->CopyFrom(bytes.data(), bytes.size());
        return file;
    }
    template<class Kind>
    static std::unique_ptr<Kind> Fill(File const & file, Format format, int width, int height) {
        auto bitmap = std::make_unique<Kind>(width, height, MipmapModeNone, HardwareCachePolicy::Default);
        file->SetPlanesIntoInternalBitmap(format, nullptr, bitmap.get(), width, height, nullptr);
        return bitmap;
    }
    static Bytes Store(CompressedRasterData const & file, Kernel::FileStoreOut & store) {
        auto const out = Kernel::MakeCounted<Kernel::MemoryOutStream>();
        file.Save(*out, store);
        return out->TakeData();
    }
    static bool LoadFrom(CompressedRasterData & file, Bytes const & stored) {
        auto const in = Kernel::MakeCounted<Kernel::MemoryInStream>(stored.data(), stored.size());
        auto const store = Kernel::MakeCounted<Kernel::EmptyFileStore>();
        return file.Load(*in, *store);
    }
    /// A stream of the item's form, with any content.
    Bytes WriteForm(std::function<void(Kernel::OutSerialiser &)> const & write) const {
        auto const out = Kernel::MakeCounted<Kernel::MemoryOutStream>();
        auto const document = Create("any.doc");
        auto session = document->CreateSession();
        Kernel::OutSerialiserFile serialiser(*out, *session, "Blck", 1);
        write(serialiser);
        serialiser.Close();
        return out->TakeData();
    }
};
}

TEST_F(BitmapRepresentationTest, IsDecodedOnceInTheFormatAndSizeOfTheFile) {
    auto const file = MakeFile({10, 20, 3});
    auto const picture = file->GetBitmapRepresentation(A8, 7, 7, nullptr);
    EXPECT_EQ(picture->GetFormat(), RGBA8);
    EXPECT_EQ(picture->GetWidth(), 40);
    EXPECT_EQ(picture->GetHeight(), 80);
    EXPECT_EQ(picture->GetMipmapMode(), MipmapModeOnDemandDefault);
    EXPECT_EQ(file->GetBitmapRepresentation(RGBA16, 1, 1, nullptr), picture);
    EXPECT_EQ(decodes, 1);
}

TEST_F(BitmapRepresentationTest, FileWithoutBytesShowsAsEmptyInTheSizeThatIsAsked) {
    auto const file = Kernel::MakeCounted<CompressedRasterData>();
    auto const picture = file->GetBitmapRepresentation(IA16, 70, 30, nullptr);
    EXPECT_EQ(picture->GetFormat(), IA16);
    EXPECT_EQ(picture->GetWidth(), 70);
    EXPECT_EQ(picture->GetHeight(), 30);
    EXPECT_EQ(decodes, 0);
    EXPECT_EQ(file->GetBitmapRepresentation(RGBA8, 1, 1, nullptr), picture) << "which is kept too";
}

TEST_F(BitmapRepresentationTest, BytesThatNobodyRecognisesStayAndShowAnEmptyPicture) {
    auto const file = MakeFile({1, 2, 3, 4});
    auto const picture = file->GetBitmapRepresentation(A8, 70, 30, nullptr);
    EXPECT_EQ(picture->GetFormat(), A8);
    EXPECT_EQ(picture->GetAllocatedBoundingBox(), Kernel::RectT<int>());
    EXPECT_EQ(file->GetSize(), 4u);
}

TEST_F(BitmapRepresentationTest, IsScrubbedAndInverted) {
    auto const file = MakeFile({100, 100, 1});
    auto const picture = file->GetBitmapRepresentation(RGBA8, 400, 400, nullptr);
    bool hasStatic = false;
    ForEachTile(*picture->GetCore(), [&](Tile & tile, int, std::size_t) { hasStatic |= tile.IsZeroTileBuffer(); });
    EXPECT_TRUE(hasStatic);
    file->SetInvert(true); // what was decoded doesn't show that
    auto const inverted = file->GetBitmapRepresentation(RGBA8, 400, 400, nullptr);
    EXPECT_EQ(inversions, 1);
    EXPECT_FALSE(BytesOf(*inverted) == BytesOf(*picture));
    file->SetInvert(true);
    EXPECT_EQ(file->GetBitmapRepresentation(RGBA8, 400, 400, nullptr), inverted) << "nothing has changed";
}

TEST_F(BitmapRepresentationTest, AnAbortKeepsNothing) {
    auto const file = MakeFile({10, 10, 3});
    bool abort = true;
    RGBA8Bitmap target(40, 40, MipmapModeNone, HardwareCachePolicy::Default);
    file->SetPlanesIntoInternalBitmap(RGBA8, nullptr, &target, 40, 40, &abort);
    EXPECT_EQ(target.GetAllocatedBoundingBox(), Kernel::RectT<int>());
    EXPECT_TRUE(file->GetBitmapRepresentation(RGBA8, 40, 40, &abort));
    EXPECT_EQ(decodes, 2);
    abort = false;
    auto const picture = file->GetBitmapRepresentation(RGBA8, 40, 40, &abort);
    EXPECT_EQ(file->GetBitmapRepresentation(RGBA8, 40, 40, &abort), picture);
    EXPECT_EQ(decodes, 3);
}

TEST_F(BitmapRepresentationTest, BitmapsOfItsOwnSizeShareItsTiles) {
    auto const file = MakeFile({100, 100, 3});
    auto const first = Fill<RGBA8Bitmap>(file, RGBA8, 400, 400);
    auto const usage = MemoryManager::Instance().GetPlanarUsage();
    auto const second = Fill<RGBA8Bitmap>(file, RGBA8, 400, 400);
    EXPECT_EQ(MemoryManager::Instance().GetPlanarUsage(), usage);
    auto const expected = BytesOf(*first);
    FillTile(second->GetPlane(0).GetTile(0), 9);
    EXPECT_TRUE(BytesOf(*first) == expected) << "until one is written";
    EXPECT_TRUE(BytesOf(*file->GetBitmapRepresentation(RGBA8, 400, 400, nullptr)) == expected);
    EXPECT_EQ(decodes, 1);
    EXPECT_EQ(conversions, 0);
}

TEST_F(BitmapRepresentationTest, AnotherSizeOrFormatIsConvertedEveryTime) {
    auto const file = MakeFile({100, 100, 3});
    for (int i = 1; i <= 2; ++i) {
        EXPECT_EQ(Fill<RGBA8Bitmap>(file, RGBA8, 399, 400)->GetNonZeroBoundingBox(),
                  (Kernel::RectT<int>{0, 0, 399, 400}));
        EXPECT_EQ(conversions, 3 * i - 2);
        Fill<RGBA8Bitmap>(file, RGBA8, 400, 401);
        EXPECT_EQ(conversions, 3 * i - 1);
        Fill<A8Bitmap>(file, A8, 400, 400);
        EXPECT_EQ(conversions, 3 * i);
    }
    EXPECT_EQ(decodes, 1);
}

TEST_F(BitmapRepresentationTest, BytesThatChangeOrGoTakeThePictureAlong) {
    auto const file = MakeFile({10, 10, 3});
    auto const usage = MemoryManager::Instance().GetCompressedUsage();
    file->GetBitmapRepresentation(RGBA8, 1, 1, nullptr);
    auto const block = file->RelinquishOwnership();
    EXPECT_EQ(block.GetSize(), 3u);
    EXPECT_EQ(file->GetSize(), 0u);
    EXPECT_EQ(MemoryManager::Instance().GetCompressedUsage(), usage - 3);
    EXPECT_EQ(file->GetBitmapRepresentation(A8, 5, 6, nullptr)->GetFormat(), A8) << "that of no bytes";
    file->CopyFrom(block.GetData(), 3);
    EXPECT_EQ(file->GetBitmapRepresentation(A8, 5, 6, nullptr)->GetWidth(), 40);
    file->SetSize(2);
    EXPECT_EQ(file->GetBitmapRepresentation(A8, 5, 6, nullptr)->GetWidth(), 5);
}

TEST_F(BitmapRepresentationTest, ThreadsThatAskAtOnceGetOnePicture) {
    for (int round = 0; round < 20; ++round) {
        auto const file = MakeFile({20, 20, 3});
        Kernel::Counted<DynamicBitmap const> pictures[4];
        std::vector<std::thread> threads;
        for (auto & picture : pictures)
            threads.emplace_back([&] { picture = file->GetBitmapRepresentation(RGBA8, 1, 1, nullptr); });
        for (auto & thread : threads)
            thread.join();
        for (auto const & picture : pictures)
            EXPECT_EQ(picture, pictures[0]);
    }
}

TEST_F(BitmapRepresentationTest, ItemGoesThroughAStreamOfProperties) {
    auto const document = Create("any.doc");
    auto session = document->CreateSession();
    for (Bytes const & bytes : {Bytes(), Bytes{1}, Bytes(70000, 9)}) {
        auto const file = MakeFile(bytes);
        file->SetInvert(bytes.size() == 1);
        auto const stored = Store(*file, *session);
        CompressedRasterData loaded;
        ASSERT_TRUE(LoadFrom(loaded, stored));
        EXPECT_EQ(Bytes(loaded.GetData(), loaded.GetData() + loaded.GetSize()), bytes);
        EXPECT_EQ(loaded.GetInvert(), bytes.size() == 1);
    }
}

TEST_F(BitmapRepresentationTest, ItemWhoseSizeIsNotThatOfItsBytesIsOfNoUse) {
    auto const write = [this](std::uint64_t size, std::size_t bytes, bool hasBytes = true) {
        return WriteForm([=](Kernel::OutSerialiser & out) {
            out.SaveType("Size", size);
            out.SaveType("Invr", false);
            if (hasBytes)
                out.SaveRawData("Data", Bytes(bytes, 1).data(), bytes);
        });
    };
    auto const usage = MemoryManager::Instance().GetCompressedUsage();
    for (auto const & stored :
         {write(4, 3), write(2, 3), write(~std::uint64_t(0), 3), write(0, 3), write(3, 0, false)}) {
        CompressedRasterData file;
        EXPECT_FALSE(LoadFrom(file, stored));
        EXPECT_EQ(file.GetSize(), 0u);
    }
    EXPECT_EQ(MemoryManager::Instance().GetCompressedUsage(), usage);
    CompressedRasterData file;
    EXPECT_TRUE(LoadFrom(file, write(0, 0, false)));
    EXPECT_TRUE(LoadFrom(file, write(3, 3)));
    EXPECT_EQ(MemoryManager::Instance().GetCompressedUsage(), usage + 3);
    EXPECT_TRUE(LoadFrom(file, WriteForm([](Kernel::OutSerialiser &) {}))) << "no property at all is no bytes";
    EXPECT_FALSE(LoadFrom(file, {})) << "no stream";
    for (std::size_t const versionAt : {4, 6}) { // of the stream, and of the item
        auto future = write(3, 3);
        future[versionAt] = 9;
        EXPECT_FALSE(LoadFrom(file, future)) << "of a later version";
    }
}
}
