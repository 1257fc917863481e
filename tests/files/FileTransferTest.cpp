#include "files/FileTransfer.h"

#include "files/TestFile.h"
#include "kernel/Dispatch.h"
#include "pixel/DynamicBase.inl"
#include "pixel/PixelMemory.h"
#include "pixel/transfer/BitmapTransfer.h"
#include "storage/TestHolder.h"
#include "transfer/TransferPixels.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;
using RGBA8Picture = Slow::Picture<RGBA8Tuple>;
using RGBA8File = TestFileOf<RGBA8Tuple>;

#ifdef RASTER_SANITIZED
constexpr int rounds = 3;
#else
constexpr int rounds = 12;
#endif

template<class Tuple>
Slow::Picture<Tuple> DrawSlowly(Slow::Picture<Tuple> dest, Slow::Picture<Tuple> const & source, Rect clip,
                                float opacity, int dx, int dy) {
    double const matrix[6]{1, 0, -double(dx), 0, 1, -double(dy)};
    int const tileWidth = 256 / Tuple::sampleSize;
    Slow::Transfer<Tuple, Tuple>(dest, source, {clip.left, clip.top, clip.right, clip.bottom}, tileWidth, opacity,
                                 matrix);
    return dest;
}

template<class Tuple>
Slow::Picture<Tuple> MakeOpaque(Slow::Picture<Tuple> picture) {
    for (auto & pixel : picture.pixels)
        pixel[Tuple::channelCount - 1] = typename Tuple::Storage(Tuple::First::maximum);
    return picture;
}

template<class Tuple>
Kernel::Counted<BitmapOf<Tuple>> MakeEmpty(int width, int height) {
    return Kernel::Counted<BitmapOf<Tuple>>(new BitmapOf<Tuple>(width, height, MipmapModeNone, HardwareCachePolicy()));
}

Kernel::Counted<RGBA8File> MakeFile(RGBA8Picture picture, bool opaque = false) {
    return Kernel::MakeCounted<RGBA8File>(std::move(picture), opaque);
}

class FileTransferTest : public StorageTest {
protected:
    ~FileTransferTest() override { Kernel::Dispatch::SetThreadCount(0); }
};

// Every way that a tile can be taken: over something or nothing, whole or in part, opaque or not.
template<class Tuple>
void CheckAgainstSlowWay(int width, int height) {
    std::mt19937 random(7);
    for (int round = 0; round < rounds; ++round) {
        bool const isOpaque = round % 2, isFresh = round / 2 % 2;
        float const opacity = round % 5 == 4 ? 0.37f : 1.0f;
        auto source = MakePicture<Tuple>(width + 60, height + 40, unsigned(round) + 1);
        if (isOpaque)
            source = MakeOpaque(source);
        auto const before =
            isFresh ? Slow::Picture<Tuple>(width, height) : MakePicture<Tuple>(width, height, unsigned(round) + 100);
        int const dx = round == 0 ? 0 : int(random() % 150) - 75, dy = round == 0 ? 0 : int(random() % 150) - 75;
        Rect const clip = round < 4 ? Rect{0, 0, width, height}
                                    : Rect{int(random() % 90), int(random() % 90), width - int(random() % 90),
                                           height - int(random() % 90)};
        auto const expected = DrawSlowly(before, source, clip, opacity, dx, dy);
        for (unsigned const threads : {1u, 8u}) {
            Kernel::Dispatch::SetThreadCount(threads);
            TransferParams params;
            params.clip = &clip;
            auto const bitmap = isFresh ? MakeEmpty<Tuple>(width, height) : MakeBitmap<Tuple>(before);
            TestFileOf<Tuple> const file(source, isOpaque);
            Draw(*bitmap, file, &params, &opacity, dx, dy);
            ASSERT_EQ(FindDifference<Tuple>(expected, *bitmap), "")
                << "round " << round << ", at " << dx << ", " << dy << ", threads " << threads;
        }
    }
}
}

template class DynamicBase<DynamicTestFile>;

#define RASTER_TEST_FORMAT(format, ...)                                                                                \
    TEST_F(FileTransferTest, AFileOf##format##OntoABitmapEqualsTheSlowWay) {                                           \
        CheckAgainstSlowWay<format##Tuple>(2 * 256 / format##Tuple::sampleSize + 40, 300);                             \
    }
RASTER_FOR_EACH_FORMAT(RASTER_TEST_FORMAT)
#undef RASTER_TEST_FORMAT

TEST_F(FileTransferTest, DecodesOnceOnTheCallingThread) {
    auto const file = MakeFile(MakePicture<RGBA8Tuple>(600, 600, 1));
    auto const bitmap = MakeEmpty<RGBA8Tuple>(600, 600);
    Draw(*bitmap, *file, nullptr, nullptr, 0, 0);
    EXPECT_EQ(file->decoder, std::this_thread::get_id());
    EXPECT_EQ(file->decodeCount, 1);
}

TEST_F(FileTransferTest, WholeTilesOfAnOpaqueFileShareTheFullTileAsAlpha) {
    auto const file = MakeFile(MakeOpaque(MakePicture<RGBA8Tuple>(600, 600, 1)), /*opaque=*/true);
    auto const bitmap = MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(600, 600, 2));
    Draw(*bitmap, *file, nullptr, nullptr, 0, 0);
    for (int row = 0; row < 3; ++row)
        for (int column = 0; column < 3; ++column)
            EXPECT_EQ(bitmap->GetPlane(3).GetTile(column, row).IsFullTileBuffer(), row < 2 && column < 2)
                << column << ", " << row;
}

TEST_F(FileTransferTest, WithoutStaticTilesAnOpaqueFileWritesItsAlpha) {
    Tile::DestroyStaticTiles();
    auto const picture = MakeOpaque(MakePicture<RGBA8Tuple>(600, 300, 1));
    auto const bitmap = MakeEmpty<RGBA8Tuple>(600, 300);
    Draw(*bitmap, *MakeFile(picture, /*opaque=*/true), nullptr, nullptr, 0, 0);
    EXPECT_EQ(FindDifference<RGBA8Tuple>(picture, *bitmap), "");
    Tile::InitStaticTiles();
}

TEST_F(FileTransferTest, ABitmapThatSharesItsTilesKeepsThem) {
    auto const before = MakePicture<RGBA8Tuple>(600, 300, 2);
    auto const bitmap = MakeBitmap<RGBA8Tuple>(before);
    Kernel::Counted<RGBA8Bitmap> const copy(bitmap->Clone());
    Draw(*bitmap, *MakeFile(MakeOpaque(before), /*opaque=*/true), nullptr, nullptr, 0, 0);
    EXPECT_EQ(FindDifference<RGBA8Tuple>(before, *copy), "");
}

TEST_F(FileTransferTest, WhatDoesNotShowTouchesNoTile) {
    auto picture = MakePicture<RGBA8Tuple>(600, 600, 1);
    for (int y = 0; y < 600; ++y)
        for (int x = 0; x < 600; ++x)
            if (x < 256 || y != 599)
                picture.At(x, y)[3] = 0;
    picture.At(300, 599) = {9, 8, 7, 6};
    auto const bitmap = MakeEmpty<RGBA8Tuple>(600, 600);
    Draw(*bitmap, *MakeFile(picture), nullptr, nullptr, 0, 0);
    EXPECT_FALSE(bitmap->GetPlane(0).GetTile(0, 0).IsAllocated());
    EXPECT_FALSE(bitmap->GetPlane(3).GetTile(0, 2).IsAllocated());
    EXPECT_FALSE(bitmap->GetPlane(3).GetTile(1, 1).IsAllocated());
    EXPECT_TRUE(bitmap->GetPlane(3).GetTile(1, 2).IsAllocated());
    auto const slow = DrawSlowly(RGBA8Picture(600, 600), picture, {0, 0, 600, 600}, 1.0f, 0, 0);
    EXPECT_EQ(FindDifference<RGBA8Tuple>(slow, *bitmap), "");
}

TEST_F(FileTransferTest, AFileThatFailsToDecodeDrawsNothing) {
    auto const before = MakePicture<RGBA8Tuple>(300, 300, 2);
    for (bool const opaque : {false, true}) {
        auto const file = MakeFile(MakePicture<RGBA8Tuple>(300, 300, 1), opaque);
        file->failsToDecode = true;
        auto const bitmap = MakeBitmap<RGBA8Tuple>(before);
        Draw(*bitmap, *file, nullptr, nullptr, 0, 0);
        EXPECT_EQ(FindDifference<RGBA8Tuple>(before, *bitmap), "");
        EXPECT_TRUE(file->HasFailed());
        EXPECT_EQ(file->GetFailure(), "damaged");
    }
}

TEST_F(FileTransferTest, AnAbortWhileDecodingDrawsNothingAndIsNotRepeated) {
    auto const picture = MakePicture<RGBA8Tuple>(300, 300, 1);
    auto const file = MakeFile(picture);
    file->abortAtRow = 99;
    bool abort = false;
    TransferParams params;
    params.abort = &abort;
    auto const bitmap = MakeEmpty<RGBA8Tuple>(300, 300);
    Draw(*bitmap, *file, &params, nullptr, 0, 0);
    EXPECT_TRUE(bitmap->GetAllocatedBoundingBox().IsEmpty());

    // The rows that were read stay, the rest is zero.
    Draw(*bitmap, *file, nullptr, nullptr, 0, 0);
    auto expected = picture;
    std::fill(expected.pixels.begin() + 100 * 300, expected.pixels.end(), PixelOf<RGBA8Tuple>{});
    expected = DrawSlowly(RGBA8Picture(300, 300), expected, {0, 0, 300, 300}, 1.0f, 0, 0);
    EXPECT_EQ(FindDifference<RGBA8Tuple>(expected, *bitmap), "");
    EXPECT_FALSE(file->HasFailed());
}

TEST_F(FileTransferTest, AFailingAllocationArrivesAndEverythingIsGivenBack) {
    auto const before = MemoryManager::Instance().GetInterleavedUsage();
    {
        auto const file = MakeFile(MakePicture<RGBA8Tuple>(300, 300, 1));
        auto const bitmap = MakeEmpty<RGBA8Tuple>(300, 300);
        PixelMemory::FailAllocation(1);
        EXPECT_THROW(Draw(*bitmap, *file, nullptr, nullptr, 0, 0), std::bad_alloc);
    }
    EXPECT_EQ(MemoryManager::Instance().GetInterleavedUsage(), before);
}

TEST_F(FileTransferTest, ATileThatCannotBeMadeStaysAsItWas) {
    auto const before = MakePicture<RGBA8Tuple>(256, 256, 2);
    auto const file = MakeFile(MakeOpaque(MakePicture<RGBA8Tuple>(256, 256, 1)), /*opaque=*/true);
    file->Decode(nullptr);
    auto const bitmap = MakeBitmap<RGBA8Tuple>(before);
    for (int plane = 1; plane <= 3; ++plane) {
        PixelMemory::FailAllocation(std::uint64_t(plane));
        EXPECT_THROW(Draw(*bitmap, *file, nullptr, nullptr, 0, 0), std::bad_alloc) << plane;
        EXPECT_EQ(FindDifference<RGBA8Tuple>(before, *bitmap), "") << plane;
    }
}

TEST_F(FileTransferTest, ADecodedBlockCountsAsInterleaved) {
    auto const before = MemoryManager::Instance().GetInterleavedUsage();
    {
        auto const file = MakeFile(MakePicture<RGBA8Tuple>(300, 200, 1));
        file->Decode(nullptr);
        EXPECT_EQ(MemoryManager::Instance().GetInterleavedUsage(), before + 300 * 200 * 4);
    }
    EXPECT_EQ(MemoryManager::Instance().GetInterleavedUsage(), before);
}

TEST_F(FileTransferTest, AccessorsOfManyThreadsDecodeOnce) {
    auto const picture = MakePicture<RGBA8Tuple>(300, 300, 1);
    auto const file = MakeFile(picture);
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&, i] {
            RGBA8File::ConstPixelAccessor<Safe, IdentityTransform> accessor(file.Get(), nullptr, nullptr);
            for (int y = i; y < 300; y += 8) {
                accessor.SetToXY(0, y);
                for (int x = 0; x < 300; ++x, accessor.Increment()) {
                    PixelOf<RGBA8Tuple> pixel;
                    accessor.Read(pixel);
                    wrong += pixel != picture.At(x, y);
                }
            }
        });
    for (auto & thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(file->decodeCount, 8); // asked by each, decoded by the first
}

TEST_F(FileTransferTest, ABitmapBecomesAFile) {
    auto const picture = MakePicture<RGBA8Tuple>(333, 270, 1);
    RGBA8File file(333, 270);
    EXPECT_TRUE(Feed(file, *MakeBitmap<RGBA8Tuple>(picture), nullptr));
    EXPECT_EQ(file.picture.pixels, picture.pixels);
    EXPECT_TRUE(file.isFinished);
    EXPECT_EQ(file.beginCount, 1);
    EXPECT_EQ(file.encodedRows, 270);
    EXPECT_FALSE(file.HasFailed());
}

TEST_F(FileTransferTest, AClipBeginsAtTheLeftOfTheFile) {
    auto const picture = MakePicture<RGBA8Tuple>(600, 300, 1);
    Rect const clip{250, 40, 530, 290};
    TransferParams params;
    params.clip = &clip;
    RGBA8File file(280, 250);
    EXPECT_TRUE(Feed(file, *MakeBitmap<RGBA8Tuple>(picture), &params));
    for (int y = 0; y < 250; ++y)
        for (int x = 0; x < 280; ++x)
            ASSERT_EQ(file.picture.At(x, y), picture.At(x + 250, y + 40)) << x << ", " << y;
}

TEST_F(FileTransferTest, AnyModelBecomesAFile) {
    auto const picture = MakePicture<RGBA8Tuple>(100, 70, 1);
    RGBA8File const source(picture);
    RGBA8File file(100, 70);
    EXPECT_TRUE(Feed(file, source, nullptr));
    EXPECT_EQ(file.picture.pixels, picture.pixels);
    EXPECT_TRUE(file.isFinished);
}

TEST_F(FileTransferTest, RowsAndColumnsBeyondTheFileAreDropped) {
    auto const picture = MakePicture<RGBA8Tuple>(333, 270, 1);
    RGBA8File file(300, 200);
    EXPECT_TRUE(Feed(file, *MakeBitmap<RGBA8Tuple>(picture), nullptr));
    EXPECT_EQ(file.encodedRows, 200);
    for (int y = 0; y < 200; ++y)
        for (int x = 0; x < 300; ++x)
            ASSERT_EQ(file.picture.At(x, y), picture.At(x, y)) << x << ", " << y;
}

TEST_F(FileTransferTest, AnAbortedFileIsUnfinishedAndHasFailed) {
    bool abort = false;
    TransferParams params;
    params.abort = &abort;
    params.progressContext = &abort;
    params.progress = [](unsigned, void * context, double fraction) {
        if (fraction > 0.5)
            Kernel::RequestAbort(static_cast<bool *>(context));
    };
    RGBA8File file(100, 100);
    EXPECT_FALSE(Feed(file, *MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(100, 100, 1)), &params));
    EXPECT_TRUE(file.isAbandoned);
    EXPECT_FALSE(file.isFinished);
    EXPECT_TRUE(file.HasFailed());

    RGBA8File late(100, 100); // aborted before it began
    EXPECT_FALSE(Feed(late, *MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(100, 100, 1)), &params));
    EXPECT_TRUE(late.HasFailed());
}

TEST_F(FileTransferTest, WhatAnEncoderThrowsArrives) {
    auto const bitmap = MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(300, 300, 1));
    for (int const row : {0, 123, 299}) { // the last one fails while the file is finished
        RGBA8File file(300, 300);
        file.failAtRow = row;
        EXPECT_THROW(Feed(file, *bitmap, nullptr), std::runtime_error) << row;
        EXPECT_TRUE(file.isAbandoned) << row;
        EXPECT_FALSE(file.isFinished) << row;
        EXPECT_TRUE(file.HasFailed()) << row;
    }
}

TEST_F(FileTransferTest, ProgressOfWritingRises) {
    std::vector<double> fractions;
    TransferParams params;
    params.progressContext = &fractions;
    params.progress = [](unsigned, void * context, double fraction) {
        static_cast<std::vector<double> *>(context)->push_back(fraction);
    };
    auto const file = Kernel::MakeCounted<TestFileOf<RGBA16Tuple>>(100, 700);
    auto const wrapper = DynamicTestFile::Make<RGBA16Tuple>(file);
    DynamicBitmap const bitmap(MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(100, 700, 1))); // another format
    EXPECT_TRUE(Feed(*wrapper, bitmap, &params));
    ASSERT_GT(fractions.size(), 40u);
    EXPECT_TRUE(std::is_sorted(fractions.begin(), fractions.end()));
    EXPECT_GT(fractions.back(), 0.9);
    EXPECT_LE(fractions.back(), 1.0);
}

TEST_F(FileTransferTest, AnErasedFileOfTheSameFormatIsDrawnWithAnOffset) {
    auto const picture = MakePicture<RGBA8Tuple>(150, 120, 1), before = MakePicture<RGBA8Tuple>(300, 290, 2);
    auto const wrapper = DynamicTestFile::Make<RGBA8Tuple>(MakeFile(picture));
    DynamicBitmap dest(MakeBitmap<RGBA8Tuple>(before));
    float const opacity = 0.4f;
    Draw(dest, *wrapper, nullptr, &opacity, 50, -13);
    auto const expected = DrawSlowly(before, picture, {0, 0, 300, 290}, 0.4f, 50, -13);
    EXPECT_EQ(FindDifference<RGBA8Tuple>(expected, *dest.GetTyped<RGBA8Tuple>()), "");
}

TEST_F(FileTransferTest, AnErasedFileOfAnotherFormatIsConvertedOnTheWay) {
    auto const picture = MakePicture<IA16Tuple>(150, 120, 1);
    auto const before = MakePicture<RGBA8Tuple>(300, 290, 2);
    auto const wrapper = DynamicTestFile::Make<IA16Tuple>(Kernel::MakeCounted<TestFileOf<IA16Tuple>>(picture));
    Rect const clip{60, 5, 280, 100};
    TransferParams params;
    params.clip = &clip;
    float const opacity = 0.7f;
    DynamicBitmap dest(MakeBitmap<RGBA8Tuple>(before)), expected(MakeBitmap<RGBA8Tuple>(before));
    Draw(dest, *wrapper, &params, &opacity, 50, -13);
    // What does not show in the file must not in the bitmap that it is compared with.
    DynamicBitmap source(MakeEmpty<IA16Tuple>(150, 120));
    Draw(source, *wrapper, nullptr, nullptr, 0, 0);
    double const matrix[6]{1, 0, -50, 0, 1, 13};
    Transfer(expected, source, &params, &opacity, matrix);
    EXPECT_EQ(ReadAll(*dest.GetTyped<RGBA8Tuple>()), ReadAll(*expected.GetTyped<RGBA8Tuple>()));
}

TEST_F(FileTransferTest, ErasedWritingConvertsBandByBand) {
    auto const picture = MakePicture<RGBA8Tuple>(150, 700, 1);
    Rect const clip{3, 100, 140, 690};
    TransferParams params;
    params.clip = &clip;
    auto const file = Kernel::MakeCounted<TestFileOf<IA16Tuple>>(137, 590);
    DynamicBitmap const source(MakeBitmap<RGBA8Tuple>(picture));
    EXPECT_TRUE(Feed(*DynamicTestFile::Make<IA16Tuple>(file), source, &params));
    DynamicBitmap converted(150, 700, IA16, MipmapModeNone, HardwareCachePolicy());
    Transfer(converted, source, nullptr, nullptr, nullptr);
    auto const pixels = ReadAll(*converted.GetTyped<IA16Tuple>());
    for (int y = 0; y < 590; ++y)
        for (int x = 0; x < 137; ++x)
            ASSERT_EQ(file->picture.At(x, y), pixels[std::size_t((y + 100) * 150 + x + 3)]) << x << ", " << y;
}

TEST_F(FileTransferTest, ABitmapThatMayStayUnloadedIsWrittenAsEmpty) {
    auto const pending = MakeEmpty<RGBA8Tuple>(100, 300);
    pending->SetPendingBacking(TestHolder::Create());
    TransferParams params;
    params.sourceMayStayUnloaded = true;
    auto const file = Kernel::MakeCounted<RGBA8File>(100, 300);
    file->picture = MakePicture<RGBA8Tuple>(100, 300, 1);
    EXPECT_TRUE(Feed(*DynamicTestFile::Make<RGBA8Tuple>(file), DynamicBitmap(pending), &params));
    EXPECT_TRUE(pending->IsPendingDelayLoad());
    EXPECT_EQ(RGBA8Picture(100, 300).pixels, file->picture.pixels);
}

TEST_F(FileTransferTest, LevelsAreToldOfADrawingThatThrew) {
    DynamicBitmap dest(MakeBitmap<RGBA8Tuple>(RGBA8Picture(600, 600), MipmapModeManual));
    dest.InvalidateMipmaps();
    dest.UpdateMipmaps(0, nullptr);
    ASSERT_TRUE(dest.GetMipmap(1));
    TransferParams params;
    params.progressContext = &params;
    params.progress = [](unsigned, void *, double) { throw std::runtime_error("no memory"); };
    auto const picture = MakeOpaque(MakePicture<RGBA8Tuple>(600, 600, 1));
    EXPECT_THROW(Draw(dest, *DynamicTestFile::Make<RGBA8Tuple>(MakeFile(picture)), &params, nullptr, 0, 0),
                 std::runtime_error);
    EXPECT_FALSE(dest.GetMipmap(1));
}

TEST_F(FileTransferTest, LevelsAreToldOfWhatIsDrawn) {
    auto const picture = MakeOpaque(MakePicture<RGBA8Tuple>(256, 256, 1));
    DynamicBitmap dest(MakeBitmap<RGBA8Tuple>(RGBA8Picture(256, 256), MipmapModeImmediate));
    Draw(dest, *DynamicTestFile::Make<RGBA8Tuple>(MakeFile(picture, /*opaque=*/true)), nullptr, nullptr, 0, 0);
    auto const level = dest.GetMipmap(1);
    ASSERT_TRUE(level);
    EXPECT_EQ(ReadAll(*level->GetTyped<RGBA8Tuple>())[0][3], 255);
}

TEST_F(FileTransferTest, EmptyEndsDoNothing) {
    auto const wrapper = DynamicTestFile::Make<RGBA8Tuple>(MakeFile(MakePicture<RGBA8Tuple>(20, 20, 1)));
    DynamicBitmap none;
    Draw(none, *wrapper, nullptr, nullptr, 0, 0);
    EXPECT_EQ(none.GetFormat(), NoFormat);
    DynamicTestFile const empty;
    DynamicBitmap dest(MakeEmpty<RGBA8Tuple>(20, 20));
    Draw(dest, empty, nullptr, nullptr, 0, 0);
    EXPECT_TRUE(dest.GetAllocatedBoundingBox().IsEmpty());
    DynamicTestFile writer;
    EXPECT_FALSE(Feed(writer, dest, nullptr));
    auto const file = Kernel::MakeCounted<RGBA8File>(20, 20);
    EXPECT_FALSE(Feed(*DynamicTestFile::Make<RGBA8Tuple>(file), none, nullptr));
    EXPECT_TRUE(file->HasFailed());
}

TEST_F(FileTransferTest, AWrapperTellsOfItsModelAndOfItself) {
    auto const file = MakeFile(MakePicture<RGBA8Tuple>(20, 20, 1));
    auto const wrapper = DynamicTestFile::Make<RGBA8Tuple>(file);
    EXPECT_FALSE(wrapper->HasFailed());
    EXPECT_EQ(wrapper->GetFailure(), "");
    file->SetFailure("torn");
    EXPECT_TRUE(wrapper->HasFailed());
    EXPECT_EQ(wrapper->GetFailure(), "torn");
    DynamicTestFile empty;
    EXPECT_FALSE(empty.HasFailed());
    empty.SetOpenFailure("not there");
    EXPECT_TRUE(empty.HasFailed());
    EXPECT_EQ(empty.GetFailure(), "not there");
}
}
