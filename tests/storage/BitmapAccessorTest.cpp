#include "kernel/DelayLoadHolder.h"
#include "storage/BackstoreReadError.h"
#include "storage/BitmapPixels.h"
#include "storage/Block.h"
#include "storage/BlockEnvironment.h"
#include "storage/StorageEnvironment.h"
#include "storage/TestHolder.h"

#include <algorithm>
#include <limits>
#include <random>
#include <type_traits>

namespace Raster {
using Rect = Kernel::RectT<int>;

class BitmapAccessorTest : public StorageTest {
protected:
    template<class Tuple = RGBA8Tuple>
    static Kernel::Counted<BitmapOf<Tuple>> Make(int width, int height) {
        return Kernel::MakeCounted<BitmapOf<Tuple>>(width, height, MipmapModeNone, HardwareCachePolicy::Default);
    }
    template<class Model>
    static std::uint32_t CountPins(Model const & bitmap) {
        std::uint32_t pins = 0;
        for (int plane = 0; plane < bitmap.GetPlaneCount(); ++plane)
            for (std::size_t i = 0; i < bitmap.GetPlane(plane).GetTileCount(); ++i)
                pins += bitmap.GetPlane(plane).GetTile(i).GetConstInner()->GetPinCount();
        return pins;
    }
};

/// What an accessor should read: the picture as a plain array, the policies and transforms by their formulas.
template<class Tuple>
class PlainModel {
public:
    PlainModel(BitmapOf<Tuple> const & bitmap)
        : width(bitmap.GetWidth()), height(bitmap.GetHeight()), pixels(ReadAll(bitmap)) {}

    template<class Extend, class Transform>
    PixelOf<Tuple> At(long long x, long long y, typename Transform::Params const & params) const {
        if constexpr (std::is_same_v<Transform, IdentityTransform>)
            return Stored<Extend>(x, y, x < 0, y < 0);
        else {
            double const mappedX = Transform::MapX(params, static_cast<double>(x) + 0.5);
            double const mappedY = Transform::MapY(params, static_cast<double>(y) + 0.5);
            return Stored<Extend>(static_cast<long long>(mappedX), static_cast<long long>(mappedY), mappedX < 0,
                                  mappedY < 0);
        }
    }

private:
    template<class Extend>
    PixelOf<Tuple> Stored(long long x, long long y, bool isLeft, bool isAbove) const {
        if (width == 0 || height == 0)
            return {};
        if (std::is_same_v<Extend, Repeat>) {
            x = isLeft ? 0 : std::min<long long>(x, width - 1);
            y = isAbove ? 0 : std::min<long long>(y, height - 1);
        } else if (std::is_same_v<Extend, Zero> && (isLeft || isAbove))
            return {};
        if (x < 0 || y < 0 || x >= width || y >= height)
            return {};
        return pixels[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)];
    }

    int const width, height;
    std::vector<PixelOf<Tuple>> const pixels;
};

/// Walks at random and compares each read.
template<class Tuple, class Extend, class Transform>
void Walk(BitmapOf<Tuple> const & bitmap, typename Transform::Params const & params, int steps, std::mt19937 & random) {
    PlainModel<Tuple> const model(bitmap);
    ModelConstAccessor<BitmapOf<Tuple>, Extend, Transform> accessor(&bitmap, &params);
    long long x = 0, y = 0;
    auto const expected = [&](long long dx, long long dy) {
        return model.template At<Extend, Transform>(x + dx, y + dy, params);
    };
    for (int step = 0; step < steps; ++step) {
        switch (random() % 14) {
        case 0:
            accessor.Increment(), ++x;
            break;
        case 1:
            accessor.Decrement(), --x;
            break;
        case 2:
            accessor.IncrementRow(), ++y;
            break;
        case 3:
            accessor.DecrementRow(), --y;
            break;
        case 4: {
            int const n = static_cast<int>(random() % 100) - 50;
            accessor.Advance(n), x += n;
            break;
        }
        case 5: {
            int const n = static_cast<int>(random() % 100) - 50;
            accessor.RewindRow(n), y -= n;
            break;
        }
        case 6:
            accessor.Reset();
            break;
        case 7:
        case 8:
            x = static_cast<int>(random() % static_cast<unsigned>(bitmap.GetWidth() + 80)) - 40;
            y = static_cast<int>(random() % static_cast<unsigned>(bitmap.GetHeight() + 80)) - 40;
            accessor.SetToXY(static_cast<int>(x), static_cast<int>(y));
            break;
        case 9: {
            InterleavedPixelSpanOf<Tuple> span;
            accessor.SpanRead(span);
            for (int i = 0; i < spanLength; ++i)
                ASSERT_EQ(expected(i, 0), span.pixels[i]) << x << ", " << y << " + " << i;
            x += spanLength - 1;
            break;
        }
        case 10: {
            PlanarPixelSpanOf<Tuple> span;
            accessor.SpanRead(span);
            for (int i = 0; i < spanLength; ++i)
                for (std::size_t channel = 0; channel < Tuple::channelCount; ++channel)
                    ASSERT_EQ(expected(i, 0).channels[channel], span.runs[channel][i]) << x << ", " << y << " + " << i;
            x += spanLength - 1;
            break;
        }
        case 11: {
            InterleavedPixelSpanOf<Tuple> span;
            accessor.SpanReadColumn(span);
            for (int i = 0; i < spanLength; ++i)
                ASSERT_EQ(expected(0, i), span.pixels[i]) << x << ", " << y << " + " << i;
            y += spanLength - 1;
            break;
        }
        default:
            break;
        }
        PixelOf<Tuple> pixel;
        accessor.Read(pixel);
        ASSERT_EQ(expected(0, 0), pixel) << x << ", " << y << " after step " << step;
    }
}

template<class Tuple>
class BitmapWalkTest : public BitmapAccessorTest {};
using WalkTuples = testing::Types<RGBA8Tuple, LABA16Tuple, RGBAUFTuple, ChannelTuple<AlphaComplexUF>,
                                  ChannelTuple<IntensityH, AlphaH>>;
TYPED_TEST_SUITE(BitmapWalkTest, WalkTuples);

TYPED_TEST(BitmapWalkTest, EveryAccessorReadsWhatAPlainArrayHolds) {
    using Tuple = TypeParam;
    std::mt19937 random(7);
#ifdef RASTER_SANITIZED
    int const steps = 200;
#else
    int const steps = 1000;
#endif
    for (int width : {1, 31, 32, 33, 63, 64, 65, 255, 256, 257})
        for (int height : {1, 64, 257}) {
            auto const bitmap = this->template Make<Tuple>(width, height);
            Paint(*bitmap);
#define RASTER_WALK(Extend, Transform, ...) Walk<Tuple, Extend, Transform>(*bitmap, __VA_ARGS__, steps, random);
            IdentityTransform::Params const none;
            Walk<Tuple, Repeat, IdentityTransform>(*bitmap, none, steps, random);
            Walk<Tuple, Safe, IdentityTransform>(*bitmap, none, steps, random);
            Walk<Tuple, Zero, IdentityTransform>(*bitmap, none, steps, random);
            TranslateTransform::Params const shift{-3.25, 2.75};
            Walk<Tuple, Safe, TranslateTransform>(*bitmap, shift, steps, random);
            Walk<Tuple, Zero, TranslateTransform>(*bitmap, shift, steps, random);
            Walk<Tuple, Safe, ScaleTransform>(*bitmap, {0.7, 1.9}, steps, random);
            Walk<Tuple, Safe, IdentityScaleTransform>(*bitmap, {2.0, 0.5}, steps, random);
            Walk<Tuple, Safe, TranslateScaleTransform>(*bitmap, {1.5, -7.25, 0.75, 1.25}, steps, random);
            Walk<Tuple, Zero, TranslateScaleTransform>(*bitmap, {1.5, -7.25, 0.75, 1.25}, steps, random);
            ASSERT_FALSE(this->HasFatalFailure()) << width << " by " << height;
        }
}

TEST_F(BitmapAccessorTest, RepeatClampsEachCoordinateOnItsOwn) {
    auto const bitmap = Make(300, 300);
    Paint(*bitmap);
    ModelConstAccessor<RGBA8Bitmap, Repeat, IdentityTransform> accessor(bitmap.Get());
    PixelOf<RGBA8Tuple> pixel;
    accessor.SetToXY(-5, 309);
    accessor.Read(pixel);
    EXPECT_EQ(MakePixel<RGBA8Tuple>(0, 299), pixel);
}

TEST_F(BitmapAccessorTest, ZeroAccessorFindsItsTileAgainOnTheFirstStepBack) {
    auto const bitmap = Make(300, 300);
    Paint(*bitmap);
    ModelConstAccessor<RGBA8Bitmap, Zero, IdentityTransform> accessor(bitmap.Get());
    PixelOf<RGBA8Tuple> pixel;
    accessor.SetToXY(299, 100);
    accessor.Increment();
    accessor.Read(pixel);
    EXPECT_EQ(PixelOf<RGBA8Tuple>(), pixel);
    accessor.Decrement();
    accessor.Read(pixel);
    EXPECT_EQ(MakePixel<RGBA8Tuple>(299, 100), pixel);
    accessor.SetToXY(256, 0);
    accessor.DecrementRow();
    accessor.Decrement();
    accessor.Read(pixel);
    EXPECT_EQ(PixelOf<RGBA8Tuple>(), pixel);
    accessor.IncrementRow();
    accessor.Read(pixel);
    EXPECT_EQ(MakePixel<RGBA8Tuple>(255, 0), pixel);
}

TEST_F(BitmapAccessorTest, FloatsAreTheRawSamplesAsNumbers) {
    auto const bitmap = Make<RGBA16Tuple>(10, 10);
    MutableTileGuard(bitmap->GetPlane(0).GetTile(0)).GetBuffer()[0] = 65535;
    ModelConstAccessor<RGBA16Bitmap, Safe, IdentityTransform> accessor(bitmap.Get());
    FloatPixelOf<RGBA16Tuple> pixel;
    accessor.ReadFloat(pixel);
    EXPECT_EQ(65535.0f, pixel.channels[0]);
    EXPECT_EQ(0.0f, pixel.channels[1]);
}

TEST_F(BitmapAccessorTest, ScaleByTwoMapsTheFirstPositionToTheSecondPixel) {
    auto const bitmap = Make(300, 300);
    Paint(*bitmap);
    ScaleTransform::Params const params{2.0, 2.0};
    ModelConstAccessor<RGBA8Bitmap, Safe, ScaleTransform> accessor(bitmap.Get(), &params);
    PixelOf<RGBA8Tuple> pixel;
    accessor.Read(pixel);
    EXPECT_EQ(MakePixel<RGBA8Tuple>(1, 1), pixel);
}

TEST_F(BitmapAccessorTest, SpanEndsInItsTileAndTheNextStepCrossesIt) {
    auto const bitmap = Make<RGBAUFTuple>(128, 1);
    Paint(*bitmap);
    ModelConstAccessor<RGBAUFBitmap, Safe, IdentityTransform> accessor(bitmap.Get());
    accessor.SetToXY(32, 0);
    PlanarPixelSpanOf<RGBAUFTuple> span;
    accessor.SpanRead(span);
    PixelOf<RGBAUFTuple> pixel;
    accessor.Read(pixel);
    EXPECT_EQ(MakePixel<RGBAUFTuple>(63, 0), pixel);
    accessor.Increment();
    accessor.Read(pixel);
    EXPECT_EQ(MakePixel<RGBAUFTuple>(64, 0), pixel);
}

TEST_F(BitmapAccessorTest, SafeRectIsTheBitmap) {
    auto const bitmap = Make(300, 20);
    ModelConstAccessor<RGBA8Bitmap, Safe, IdentityTransform> accessor(bitmap.Get());
    EXPECT_EQ((Rect{0, 0, 300, 20}), accessor.GetSafeRect());
}

TEST_F(BitmapAccessorTest, SpansAreWrittenAndReadBackAtEveryOffset) {
    auto const bitmap = Make<RGBA16Tuple>(300, 40);
    Paint(*bitmap);
    PlainModel<RGBA16Tuple> const before(*bitmap);
    for (int x = -40; x < 310; x += 7) {
        Kernel::Counted<RGBA16Bitmap> const copy = bitmap->Clone();
        PlanarPixelSpanOf<RGBA16Tuple> planar;
        InterleavedPixelSpanOf<RGBA16Tuple> interleaved;
        for (int i = 0; i < spanLength; ++i)
            interleaved.pixels[i] = MakePixel<RGBA16Tuple>(i, x, 9);
        Deinterleave(interleaved, planar);
        {
            ModelAccessor<RGBA16Bitmap> accessor(copy.Get());
            accessor.SetToXY(x, 3);
            accessor.SpanWrite(planar);
            accessor.SetToXY(x, 5);
            accessor.SpanWrite(interleaved);
            accessor.SetToXY(x, 6);
            accessor.SpanWriteColumn(planar);
        }
        PlainModel<RGBA16Tuple> const after(*copy);
        for (int y = 0; y < 40; ++y)
            for (int column = 0; column < 300; ++column) {
                auto expected = before.At<Zero, IdentityTransform>(column, y, {});
                if ((y == 3 || y == 5) && column >= x && column < x + spanLength)
                    expected = interleaved.pixels[column - x];
                if (column == x && y >= 6 && y < 6 + spanLength)
                    expected = interleaved.pixels[y - 6];
                ASSERT_EQ(expected, (after.At<Zero, IdentityTransform>(column, y, {})))
                    << x << ": " << column << ", " << y;
            }
    }
}

TEST_F(BitmapAccessorTest, WritesOutsideGoNowhere) {
    auto const bitmap = Make(10, 10);
    {
        ModelAccessor<RGBA8Bitmap> accessor(bitmap.Get());
        int const far = std::numeric_limits<int>::max();
        for (auto const & [x, y] : {std::pair(-1, 0), std::pair(0, -1), std::pair(10, 0), std::pair(0, 10),
                                    std::pair(far, far), std::pair(-far, -far)}) {
            accessor.SetToXY(x, y);
            accessor.Write(MakePixel<RGBA8Tuple>(x, y));
            PixelOf<RGBA8Tuple> pixel;
            accessor.Read(pixel);
            EXPECT_EQ(PixelOf<RGBA8Tuple>(), pixel);
        }
    }
    EXPECT_EQ(Rect(), bitmap->GetAllocatedBoundingBox());
}

TEST_F(BitmapAccessorTest, ReadingWhatWasNeverWrittenAllocatesNothing) {
    auto const bitmap = Make(600, 600);
    auto const before = MemoryManager::Instance().GetPlanarUsage();
    auto const pixels = ReadAll(*bitmap);
    EXPECT_TRUE(
        std::all_of(pixels.begin(), pixels.end(), [](auto const & pixel) { return pixel == PixelOf<RGBA8Tuple>(); }));
    EXPECT_EQ(before, MemoryManager::Instance().GetPlanarUsage());
    EXPECT_EQ(Rect(), bitmap->GetAllocatedBoundingBox());
}

TEST_F(BitmapAccessorTest, MutableSessionTakesBackingAndSharingOfTheTilesItMeets) {
    auto const holder = TestHolder::Create();
    auto const bitmap = Make(600, 10);
    Paint(*bitmap);
    bitmap->SetBackingData(holder, nullptr);
    Kernel::Counted<RGBA8Bitmap> const clone = bitmap->Clone();
    {
        ModelAccessor<RGBA8Bitmap> accessor(clone.Get());
        accessor.SetToXY(300, 5);
        PixelOf<RGBA8Tuple> pixel;
        accessor.Read(pixel); // only read
        EXPECT_EQ(MakePixel<RGBA8Tuple>(300, 5), pixel);
    }
    for (int plane = 0; plane < 4; ++plane) {
        EXPECT_FALSE(clone->GetPlane(plane).GetTile(1).IsBackedBy(holder));
        EXPECT_NE(bitmap->GetPlane(plane).GetTile(1).GetConstInner(),
                  clone->GetPlane(plane).GetTile(1).GetConstInner());
        EXPECT_TRUE(clone->GetPlane(plane).GetTile(0).IsBackedBy(holder));
        EXPECT_EQ(bitmap->GetPlane(plane).GetTile(0).GetConstInner(),
                  clone->GetPlane(plane).GetTile(0).GetConstInner());
    }
}

TEST_F(BitmapAccessorTest, PinsLastUntilResetOrDestruction) {
    auto const bitmap = Make(600, 300);
    Paint(*bitmap);
    EXPECT_EQ(0u, CountPins(*bitmap));
    {
        ModelConstAccessor<RGBA8Bitmap, Safe, IdentityTransform> reader(bitmap.Get());
        EXPECT_EQ(0u, CountPins(*bitmap)); // nothing is pinned before it is needed
        PixelOf<RGBA8Tuple> pixel;
        for (int x : {0, 1, 255, 256, 0, 599}) {
            reader.SetToXY(x, 0);
            reader.Read(pixel);
        }
        EXPECT_EQ(3u * 4, CountPins(*bitmap)); // each tile once, in each plane
        reader.Reset();
        EXPECT_EQ(0u, CountPins(*bitmap));
        reader.Read(pixel); // the position is kept
        EXPECT_EQ(MakePixel<RGBA8Tuple>(599, 0), pixel);
        EXPECT_EQ(4u, CountPins(*bitmap));
    }
    EXPECT_EQ(0u, CountPins(*bitmap));
    {
        ModelAccessor<RGBA8Bitmap> writer(bitmap.Get());
        writer.Write({});
        EXPECT_EQ(4u, CountPins(*bitmap));
    }
    EXPECT_EQ(0u, CountPins(*bitmap));
}

TEST_F(BitmapAccessorTest, ManyTilesArePinnedOnceEach) {
    auto const bitmap = Make<ChannelTuple<AlphaComplexUF>>(32 * 100, 600); // 300 tiles
    Paint(*bitmap);
    ModelConstAccessor<BitmapOf<ChannelTuple<AlphaComplexUF>>, Safe, IdentityTransform> reader(bitmap.Get());
    std::mt19937 random(3);
    for (int i = 0; i < 20000; ++i) {
        int const x = static_cast<int>(random() % 3200), y = static_cast<int>(random() % 600);
        reader.SetToXY(x, y);
        PixelOf<ChannelTuple<AlphaComplexUF>> pixel;
        reader.Read(pixel);
        ASSERT_EQ((MakePixel<ChannelTuple<AlphaComplexUF>>(x, y)), pixel);
    }
    EXPECT_EQ(300u, CountPins(*bitmap));
    reader.Reset();
    EXPECT_EQ(0u, CountPins(*bitmap));
}

TEST_F(BitmapAccessorTest, ReaderKeepsThePictureThatItBeganWith) {
    auto const bitmap = Make(300, 10);
    Paint(*bitmap, 1);
    ModelConstAccessor<RGBA8Bitmap, Safe, IdentityTransform> reader(bitmap.Get());
    PixelOf<RGBA8Tuple> pixel;
    reader.Read(pixel);
    Paint(*bitmap, 2);
    reader.SetToXY(200, 9);
    reader.Read(pixel);
    EXPECT_EQ(MakePixel<RGBA8Tuple>(200, 9, 1), pixel); // of the tile that was open
    reader.SetToXY(299, 9);
    reader.Read(pixel);
    EXPECT_EQ(MakePixel<RGBA8Tuple>(299, 9, 2), pixel); // of one that was not
    reader.Reset();
    reader.SetToXY(200, 9);
    reader.Read(pixel);
    EXPECT_EQ(MakePixel<RGBA8Tuple>(200, 9, 2), pixel);
}

TEST_F(BitmapAccessorTest, EvictedTilesComeBackAsTheyWere) {
    auto const bitmap = Make(600, 600);
    Paint(*bitmap);
    auto const before = ReadAll(*bitmap);
    EvictEverything();
    EXPECT_TRUE(bitmap->GetPlane(0).GetTile(0).IsDisposed());
    EXPECT_EQ(before, ReadAll(*bitmap));
    EXPECT_FALSE(bitmap->GetPlane(0).GetTile(0).IsDisposed());
}

TEST_F(BitmapAccessorTest, PinnedTilesStayInMemory) {
    auto const bitmap = Make(600, 10);
    Paint(*bitmap);
    ModelConstAccessor<RGBA8Bitmap, Safe, IdentityTransform> reader(bitmap.Get());
    PixelOf<RGBA8Tuple> pixel;
    reader.Read(pixel);
    EvictEverything();
    EXPECT_FALSE(bitmap->GetPlane(0).GetTile(0).IsDisposed());
    EXPECT_TRUE(bitmap->GetPlane(0).GetTile(1).IsDisposed());
    reader.Read(pixel);
    EXPECT_EQ(MakePixel<RGBA8Tuple>(0, 0), pixel);
}

TEST_F(BitmapAccessorTest, FailingDiskRaisesPinsNothingAndCanBeTriedAgain) {
    auto const bitmap = Make(600, 10);
    Paint(*bitmap);
    EvictEverything();
    TestDisk::Install();
    for (bool const writes : {false, true}) {
        ModelConstAccessor<RGBA8Bitmap, Safe, IdentityTransform> reader(bitmap.Get());
        ModelAccessor<RGBA8Bitmap> writer(bitmap.Get());
        int const x = writes ? 300 : 0;
        PixelOf<RGBA8Tuple> pixel;
        reader.SetToXY(x, 3);
        writer.SetToXY(x, 3);
        TestDisk::readFault = TestDisk::Fault::Error;
        EXPECT_THROW(writes ? writer.Read(pixel) : reader.Read(pixel), BackstoreReadError);
        EXPECT_EQ(0u, CountPins(*bitmap));
        TestDisk::readFault = TestDisk::Fault::None;
        writes ? writer.Read(pixel) : reader.Read(pixel);
        EXPECT_EQ(MakePixel<RGBA8Tuple>(x, 3), pixel);
    }
    TestDisk::Remove();
    EXPECT_EQ(MakePixel<RGBA8Tuple>(599, 9), ReadAll(*bitmap).back());
}

#ifndef RASTER_SANITIZED
TEST_F(BitmapAccessorTest, WidestBitmapIsReadAndWrittenToItsLastPixel) {
    int const width = std::numeric_limits<int>::max();
    auto const bitmap = Make<A8Tuple>(width, 2);
    {
        ModelAccessor<A8Bitmap> writer(bitmap.Get());
        writer.SetToXY(width - 1, 1);
        writer.Write({{77}});
        writer.Increment(); // off the end
        writer.Write({{78}});
    }
    EXPECT_EQ((Rect{width - 1, 1, width, 2}), bitmap->GetNonZeroBoundingBox());
    EXPECT_EQ((Rect{width - 255, 0, width, 256}), bitmap->GetAllocatedBoundingBox()); // 2^31 cut off
    ModelConstAccessor<A8Bitmap, Repeat, IdentityTransform> reader(bitmap.Get());
    PixelOf<A8Tuple> pixel;
    reader.SetToXY(width, 5);
    reader.Increment();
    reader.Read(pixel);
    EXPECT_EQ(77, pixel.channels[0]);
}
#endif
}
