#include "pixel/transfer/Invert.h"

#include "kernel/Dispatch.h"
#include "pixel/transfer/Fill.h"
#include "storage/BackstoreReadError.h"
#include "storage/BlockEnvironment.h"
#include "storage/TileGuard.h"
#include "transfer/EveryFormat.h"
#include "transfer/PendingBitmaps.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>
#include <thread>

namespace Raster {
namespace {
template<class Tuple>
class InvertOfFormat : public StorageTest {
protected:
    ~InvertOfFormat() override { Kernel::Dispatch::SetThreadCount(0); }
};
TYPED_TEST_SUITE(InvertOfFormat, EveryTuple, FormatNames);

TYPED_TEST(InvertOfFormat, TurnsColoursAndLeavesAlphaAndTransparentPixels) {
    using Tuple = TypeParam;
    using Sample = typename Tuple::Storage;
    auto const before = MakePicture<Tuple>(300, 270, 6);
    auto expected = before;
    for (auto & pixel : expected.pixels)
        for (std::size_t channel = 0; channel + 1 < Tuple::channelCount; ++channel)
            if (pixel[Tuple::channelCount - 1] != Sample(0))
                pixel[channel] = Sample(Sample(Tuple::First::maximum) - pixel[channel]);
    for (unsigned const threads : {1u, 8u}) {
        Kernel::Dispatch::SetThreadCount(threads);
        DynamicBitmap bitmap(MakeBitmap<Tuple>(before));
        Invert(bitmap, nullptr);
        ASSERT_EQ("", FindDifference<Tuple>(expected, *bitmap.template GetTyped<Tuple>()));
    }
}

class InvertTest : public PendingBitmapTest {
protected:
    ~InvertTest() override { Kernel::Dispatch::SetThreadCount(0); }
    static auto ReadPixels(DynamicBitmap const & bitmap) { return ReadAll(*bitmap.GetTyped<RGBA8Tuple>()); }
};

TEST_F(InvertTest, FloatsAreNotClamped) {
    Slow::Picture<RGBAUFTuple> picture(2, 1);
    picture.pixels = {{{-3.0f, 5.0f, 0.25f, 1.0f}}, {{std::numeric_limits<float>::infinity(), 1.0f, 0.0f, 0.5f}}};
    DynamicBitmap bitmap(MakeBitmap<RGBAUFTuple>(picture));
    Invert(bitmap, nullptr);
    picture.pixels = {{{4.0f, -4.0f, 0.75f, 1.0f}}, {{-std::numeric_limits<float>::infinity(), 0.0f, 1.0f, 0.5f}}};
    EXPECT_EQ("", FindDifference<RGBAUFTuple>(picture, *bitmap.GetTyped<RGBAUFTuple>()));
}

TEST_F(InvertTest, LeavesTransparentTilesUnallocatedAndCopiesNone) {
    DynamicBitmap bitmap(512, 256, RGBA8, MipmapModeNone, HardwareCachePolicy());
    Fill(bitmap, {0, 0, 100, 100}, DynamicPixel(PixelOf<RGBA8Tuple>{{200, 0, 255, 200}}), 1.0f);
    auto & core = *bitmap.GetCore();
    Block const * blocks[4];
    for (int plane = 0; plane < 4; ++plane)
        blocks[plane] = core.GetPlane(plane).GetTile(0).GetConstInner();
    Invert(bitmap, nullptr);
    for (int plane = 0; plane < 4; ++plane) {
        EXPECT_EQ(blocks[plane], core.GetPlane(plane).GetTile(0).GetConstInner()) << plane;
        EXPECT_FALSE(core.GetPlane(plane).GetTile(1).IsAllocated()) << plane;
    }
    EXPECT_EQ((PixelOf<RGBA8Tuple>{{55, 255, 0, 200}}), ReadPixels(bitmap)[50]);
}

TEST_F(InvertTest, AlphaStaysSharedAndBacked) {
    DynamicBitmap bitmap(300, 256, RGBA8, MipmapModeNone, HardwareCachePolicy());
    Fill(bitmap, {0, 0, 256, 256}, DynamicPixel(PixelOf<RGBA8Tuple>{{1, 2, 3, 255}}), 1.0f);
    Fill(bitmap, {256, 0, 300, 256}, DynamicPixel(PixelOf<RGBA8Tuple>{{1, 2, 3, 128}}), 1.0f);
    std::unique_ptr<DynamicBitmap> const copy(bitmap.Clone());
    auto const holder = TestHolder::Create();
    bitmap.SetBackingData(holder, nullptr);
    auto & core = *bitmap.GetCore();
    ASSERT_TRUE(core.GetPlane(3).GetTile(0).IsFullTileBuffer());
    Invert(bitmap, nullptr);
    EXPECT_TRUE(core.GetPlane(3).GetTile(0).IsFullTileBuffer()) << "the static tile";
    EXPECT_EQ(copy->GetCore()->GetPlane(3).GetTile(1).GetConstInner(), core.GetPlane(3).GetTile(1).GetConstInner())
        << "shared with a copy";
    for (std::size_t tile : {0u, 1u}) {
        EXPECT_TRUE(core.GetPlane(3).GetTile(tile).IsBackedBy(holder)) << tile;
        EXPECT_FALSE(core.GetPlane(0).GetTile(tile).IsBackedBy(holder)) << tile;
    }
    EXPECT_EQ((PixelOf<RGBA8Tuple>{{254, 253, 252, 255}}), ReadPixels(bitmap)[7]);
    EXPECT_EQ((PixelOf<RGBA8Tuple>{{1, 2, 3, 255}}), ReadAll(*copy->GetTyped<RGBA8Tuple>())[7]);
}

TEST_F(InvertTest, UnallocatedColoursBecomeFull) {
    DynamicBitmap bitmap(20, 20, RGBA8, MipmapModeNone, HardwareCachePolicy());
    {
        MutableTileGuard const alpha(bitmap.GetCore()->GetPlane(3).GetTile(0));
        std::memset(alpha.GetBuffer(), 128, Tile::ByteCount);
    }
    Invert(bitmap, nullptr);
    EXPECT_EQ((PixelOf<RGBA8Tuple>{{255, 255, 255, 128}}), ReadPixels(bitmap)[0]);
}

TEST_F(InvertTest, ColoursWithoutAPixelThatShowsStayShared) {
    DynamicBitmap bitmap(256, 256, RGBA8, MipmapModeNone, HardwareCachePolicy());
    Fill(bitmap, {0, 0, 256, 256}, DynamicPixel(PixelOf<RGBA8Tuple>{{1, 2, 3, 255}}), 1.0f);
    auto & core = *bitmap.GetCore();
    {
        MutableTileGuard const alpha(core.GetPlane(3).GetTile(0)); // zeros that nobody knows to be zeros
        std::memset(alpha.GetBuffer(), 0, Tile::ByteCount);
    }
    std::unique_ptr<DynamicBitmap> const copy(bitmap.Clone());
    Invert(bitmap, nullptr);
    EXPECT_EQ(copy->GetCore()->GetPlane(0).GetTile(0).GetConstInner(), core.GetPlane(0).GetTile(0).GetConstInner());
}

TEST_F(InvertTest, LevelsAreToldAndWithModeOneRebuilt) {
    for (MipmapMode const mode : {MipmapModeImmediate, MipmapModeOnDemand, MipmapModeManual}) {
        DynamicBitmap bitmap(MakePainted(mode));
        bitmap.UpdateMipmaps(0, nullptr);
        ASSERT_TRUE(bitmap.GetMipmap(1));
        Invert(bitmap, nullptr);
        EXPECT_EQ(mode == MipmapModeImmediate, bool(bitmap.GetMipmap(1))) << mode;
        bitmap.UpdateMipmaps(0, nullptr);
        DynamicBitmap fresh(MakePainted(MipmapModeManual));
        Invert(fresh, nullptr);
        fresh.UpdateMipmaps(0, nullptr);
        EXPECT_EQ(ReadAll(*fresh.GetMipmap(1)->GetTyped<RGBA8Tuple>()),
                  ReadAll(*bitmap.GetMipmap(1)->GetTyped<RGBA8Tuple>()));
    }
}

TEST_F(InvertTest, AlphaOnlyFormatsKeepPixelsAndLevels) {
    for (Format const format : {A8, A16, AF}) {
        DynamicBitmap bitmap(100, 100, format, MipmapModeManual, HardwareCachePolicy());
        Fill(bitmap, {0, 0, 50, 50}, DynamicPixel(PixelOf<A8Tuple>{{77}}), 1.0f);
        bitmap.UpdateMipmaps(0, nullptr);
        auto const * const block = bitmap.GetCore()->GetPlane(0).GetTile(0).GetConstInner();
        Invert(bitmap, nullptr);
        EXPECT_EQ(block, bitmap.GetCore()->GetPlane(0).GetTile(0).GetConstInner());
        EXPECT_TRUE(bitmap.GetMipmap(1)) << format;
    }
    DynamicBitmap nothing;
    Invert(nothing, nullptr);
}

TEST_F(InvertTest, LevelsAreToldOfWhatADiskThatFailedCutShort) {
    DynamicBitmap bitmap(MakePainted(MipmapModeManual));
    bitmap.UpdateMipmaps(0, nullptr);
    ASSERT_TRUE(bitmap.GetMipmap(1));
    EvictEverything();
    TestDisk::Install();
    TestDisk::readFault = TestDisk::Fault::Error;
    EXPECT_THROW(Invert(bitmap, nullptr), BackstoreReadError);
    TestDisk::Remove();
    EXPECT_FALSE(bitmap.GetMipmap(1));
}

TEST_F(InvertTest, APendingBitmapIsLoadedFirst) {
    DynamicBitmap bitmap(MakePending()), expected(MakePainted());
    Invert(bitmap, nullptr);
    Invert(expected, nullptr);
    EXPECT_EQ(1, loads);
    EXPECT_EQ(ReadPixels(expected), ReadPixels(bitmap));
}

TEST_F(InvertTest, ABitmapThatStaysPendingIsNotWritten) {
    for (Backing const what : {Backing::Unreadable, Backing::AbortsWhileRead}) {
        backing = what;
        bool abort = false;
        DynamicBitmap bitmap(MakePending());
        Invert(bitmap, &abort);
        EXPECT_TRUE(bitmap.IsPendingDelayLoad());
        EXPECT_TRUE(HasNoTiles(*bitmap.GetCore()));
    }
}

TEST_F(InvertTest, AnAbortThatIsSetChangesNothing) {
    bool abort = true;
    DynamicBitmap bitmap(MakePainted(MipmapModeManual));
    bitmap.UpdateMipmaps(0, nullptr);
    auto const before = ReadPixels(bitmap);
    Invert(bitmap, &abort);
    EXPECT_EQ(before, ReadPixels(bitmap));
    EXPECT_TRUE(bitmap.GetMipmap(1));
}

TEST_F(InvertTest, AbortsAtRandomInstantsLeaveWholeRows) {
    auto const picture = MakePicture<RGBA8Tuple>(900, 700, 3);
    DynamicBitmap whole(MakeBitmap<RGBA8Tuple>(picture));
    Invert(whole, nullptr);
    auto const inverted = ReadPixels(whole);
    std::mt19937 random(5);
    for (int round = 0; round < 12; ++round) {
        DynamicBitmap bitmap(MakeBitmap<RGBA8Tuple>(picture, MipmapModeManual));
        bitmap.UpdateMipmaps(0, nullptr);
        bool abort = false;
        std::thread stopper([&abort, wait = random() % 600] {
            std::this_thread::sleep_for(std::chrono::microseconds(wait));
            Kernel::RequestAbort(&abort);
        });
        Invert(bitmap, &abort);
        stopper.join();
        auto const pixels = ReadPixels(bitmap);
        for (std::size_t y = 0; y < 700; ++y)
            for (std::size_t left = 0; left < 900; left += 256) {
                auto const begin = y * 900 + left, count = std::min<std::size_t>(256, 900 - left);
                bool const done = std::equal(&pixels[begin], &pixels[begin] + count, &inverted[begin]);
                bool const untouched = std::equal(&pixels[begin], &pixels[begin] + count, &picture.pixels[begin]);
                ASSERT_TRUE(done || untouched) << "row " << y << " from " << left;
            }
        EXPECT_TRUE(pixels == picture.pixels || !bitmap.GetMipmap(1)) << "levels know of rows that were done";
    }
}
}
}
