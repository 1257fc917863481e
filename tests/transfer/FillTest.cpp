#include "pixel/transfer/Fill.h"

#include "kernel/Dispatch.h"
#include "storage/BackstoreReadError.h"
#include "storage/BlockEnvironment.h"
#include "transfer/EveryFormat.h"
#include "transfer/PendingBitmaps.h"

#include <cstring>
#include <limits>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;

template<class Tuple>
class FillOfFormat : public StorageTest {
protected:
    using Sample = typename Tuple::Storage;
    using Pixel = PixelOf<Tuple>;
    static constexpr Sample full = Sample(Tuple::First::maximum);

    ~FillOfFormat() override { Kernel::Dispatch::SetThreadCount(0); }

    static Pixel MakeColour(double alpha) {
        Pixel pixel{};
        for (std::size_t c = 0; c < Tuple::channelCount; ++c)
            pixel[c] = Sample(double(full) * (0.9 - 0.2 * double(c)));
        pixel[Tuple::channelCount - 1] = Sample(double(full) * alpha);
        return pixel;
    }

    static void Compare(Pixel const & pixel, Rect const & rect, float opacity) {
        constexpr int width = 600, height = 530; // tiles that are filled whole, and others
        auto const before = MakePicture<Tuple>(width, height, 5);
        auto expected = before;
        for (int y = std::max(rect.top, 0); y < std::min(rect.bottom, height); ++y)
            for (int x = std::max(rect.left, 0); x < std::min(rect.right, width); ++x)
                Slow::Blend<Tuple>(expected.At(x, y), pixel, opacity, opacity == 1.0f);
        for (unsigned const threads : {1u, 8u}) {
            Kernel::Dispatch::SetThreadCount(threads);
            DynamicBitmap bitmap(MakeBitmap<Tuple>(before));
            Fill(bitmap, rect, DynamicPixel(pixel), opacity);
            ASSERT_EQ("", FindDifference<Tuple>(expected, *bitmap.GetTyped<Tuple>())) << opacity;
            DynamicBuffer buffer;
            buffer.Create(width, height, formatOf<Tuple>);
            auto & typed = *buffer.GetTyped<Tuple>();
            std::memcpy(typed.GetData(), before.pixels.data(), before.pixels.size() * sizeof(Pixel));
            Fill(buffer, rect, DynamicPixel(pixel), opacity);
            ASSERT_EQ(expected.pixels, ReadAll(typed)) << opacity;
        }
    }
};
TYPED_TEST_SUITE(FillOfFormat, EveryTuple, FormatNames);

TYPED_TEST(FillOfFormat, LaysOneColourOverARectangle) {
    for (double const alpha : {0.0, 0.5, 1.0})
        for (float const opacity : {1.0f, 0.4f, 0.0f}) {
            this->Compare(this->MakeColour(alpha), {-5, 20, 580, 540}, opacity);
            if (this->HasFatalFailure())
                return;
        }
}

TYPED_TEST(FillOfFormat, ReplacesWholeTilesByTheSamePixelsAsBlending) {
    this->Compare(this->MakeColour(1.0), {0, 0, 600, 530}, 1.0f);
    this->Compare(this->MakeColour(1.0), {-100, -100, 700, 700}, 1.0f);
    this->Compare(this->MakeColour(1.0), {std::numeric_limits<int>::min(), 0, std::numeric_limits<int>::max(), 300},
                  1.0f);
}

class FillTest : public PendingBitmapTest {
protected:
    static DynamicPixel Opaque() { return DynamicPixel(PixelOf<RGBA8Tuple>{{200, 0, 255, 255}}); }
};

TEST_F(FillTest, TakesTheViewOfTheColourThatTheFormatShows) {
    PixelOf<RGBA8Tuple> const rgb{{200, 100, 50, 255}};
    DynamicBitmap bitmap(20, 20, CMYKA8, MipmapModeNone, HardwareCachePolicy());
    Fill(bitmap, {0, 0, 20, 20}, DynamicPixel(rgb), 1.0f);
    PixelOf<CMYKA8Tuple> expected;
    ConvertPixel<CMYKA8Tuple, RGBA8Tuple>(expected, rgb);
    EXPECT_EQ(expected, ReadAll(*bitmap.GetTyped<CMYKA8Tuple>())[210]);
}

TEST_F(FillTest, OpaqueFillsShareTheirTiles) {
    DynamicBitmap bitmap(1024, 1024, RGBA8, MipmapModeNone, HardwareCachePolicy());
    auto const before = MemoryManager::Instance().GetPlanarUsage();
    Fill(bitmap, {0, 0, 1024, 1024}, Opaque(), 1.0f);
    EXPECT_LE(MemoryManager::Instance().GetPlanarUsage(), before + 2 * 65536); // one for red; the rest is static
    EXPECT_EQ((PixelOf<RGBA8Tuple>{{200, 0, 255, 255}}), ReadAll(*bitmap.GetTyped<RGBA8Tuple>())[1024 * 700 + 900]);
}

TEST_F(FillTest, TilesThatAreReplacedAreNotThoseOfTheBacking) {
    DynamicBitmap bitmap(MakePainted());
    auto const holder = TestHolder::Create();
    bitmap.SetBackingData(holder, nullptr);
    Fill(bitmap, {0, 0, 256, 256}, Opaque(), 1.0f);
    for (int plane = 0; plane < 4; ++plane) {
        EXPECT_FALSE(bitmap.GetCore()->GetPlane(plane).GetTile(0, 0).IsBackedBy(holder));
        EXPECT_TRUE(bitmap.GetCore()->GetPlane(plane).GetTile(1, 0).IsBackedBy(holder));
    }
}

TEST_F(FillTest, WhatDoesNotShowTouchesNoTile) {
    DynamicBitmap bitmap(300, 300, RGBA8, MipmapModeNone, HardwareCachePolicy());
    auto const & core = *bitmap.GetCore();
    Fill(bitmap, {0, 0, 300, 300}, DynamicPixel(PixelOf<RGBA8Tuple>{{200, 0, 255, 0}}), 1.0f);
    Fill(bitmap, {0, 0, 300, 300}, Opaque(), 0.0f);
    Fill(bitmap, {0, 0, 300, 300}, Opaque(), std::numeric_limits<float>::quiet_NaN());
    Fill(bitmap, {0, 0, 300, 300}, DynamicPixel(PixelOf<RGBA8Tuple>{{200, 0, 255, 1}}), 0.3f); // 76 times 1 rounds to 0
    Fill(bitmap, {300, 0, 400, 300}, Opaque(), 1.0f);
    Fill(bitmap, {20, 20, 20, 40}, Opaque(), 1.0f);
    Fill(bitmap, {40, 40, 20, 20}, Opaque(), 1.0f);
    EXPECT_TRUE(HasNoTiles(core));
}

TEST_F(FillTest, OpacityIsClamped) {
    DynamicBitmap bitmap(20, 20, RGBA8, MipmapModeNone, HardwareCachePolicy());
    Fill(bitmap, {0, 0, 20, 20}, Opaque(), 7.0f);
    EXPECT_EQ(255, ReadAll(*bitmap.GetTyped<RGBA8Tuple>())[0][3]);
}

TEST_F(FillTest, LevelsAreToldAndWithModeOneRebuilt) {
    for (MipmapMode const mode : {MipmapModeImmediate, MipmapModeOnDemand, MipmapModeManual}) {
        DynamicBitmap bitmap(MakePainted(mode));
        bitmap.UpdateMipmaps(0, nullptr);
        ASSERT_TRUE(bitmap.GetMipmap(1));
        Fill(bitmap, {30, 40, 90, 100}, Opaque(), 1.0f);
        EXPECT_EQ(mode == MipmapModeImmediate, bool(bitmap.GetMipmap(1))) << mode;
        bitmap.UpdateMipmaps(0, nullptr);
        DynamicBitmap fresh(MakePainted(MipmapModeManual));
        Fill(fresh, {30, 40, 90, 100}, Opaque(), 1.0f);
        fresh.UpdateMipmaps(0, nullptr);
        EXPECT_EQ(ReadAll(*fresh.GetMipmap(1)->GetTyped<RGBA8Tuple>()),
                  ReadAll(*bitmap.GetMipmap(1)->GetTyped<RGBA8Tuple>()));
    }
}

TEST_F(FillTest, LevelsAreToldOfWhatADiskThatFailedCutShort) {
    DynamicBitmap bitmap(MakePainted(MipmapModeManual));
    bitmap.UpdateMipmaps(0, nullptr);
    ASSERT_TRUE(bitmap.GetMipmap(1));
    EvictEverything();
    TestDisk::Install();
    TestDisk::readFault = TestDisk::Fault::Error;
    EXPECT_THROW(Fill(bitmap, {30, 40, 290, 270}, Opaque(), 0.5f), BackstoreReadError);
    TestDisk::Remove();
    EXPECT_FALSE(bitmap.GetMipmap(1));
}

TEST_F(FillTest, APendingBitmapIsLoadedFirst) {
    DynamicBitmap bitmap(MakePending());
    Fill(bitmap, {10, 10, 20, 20}, Opaque(), 1.0f);
    EXPECT_EQ(1, loads);
    DynamicBitmap expected(MakePainted());
    Fill(expected, {10, 10, 20, 20}, Opaque(), 1.0f);
    EXPECT_EQ(ReadAll(*expected.GetTyped<RGBA8Tuple>()), ReadAll(*bitmap.GetTyped<RGBA8Tuple>()));
}

TEST_F(FillTest, ABitmapThatStaysPendingIsNotWritten) {
    backing = Backing::Unreadable;
    DynamicBitmap bitmap(MakePending());
    Fill(bitmap, {0, 0, 300, 280}, Opaque(), 1.0f);
    EXPECT_TRUE(bitmap.IsPendingDelayLoad());
    EXPECT_TRUE(HasNoTiles(*bitmap.GetCore()));
}

TEST_F(FillTest, WithoutAFormatNothingHappens) {
    DynamicBitmap bitmap;
    DynamicBuffer buffer;
    Fill(bitmap, {0, 0, 10, 10}, Opaque(), 1.0f);
    Fill(buffer, {0, 0, 10, 10}, Opaque(), 1.0f);
    EXPECT_EQ(NoFormat, bitmap.GetFormat());
    EXPECT_EQ(NoFormat, buffer.GetFormat());
}
}
}
