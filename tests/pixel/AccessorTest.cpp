#include "pixel/Accessor.h"

#include "pixel/Buffer.h"
#include "pixel/TestModels.h"

#include <gtest/gtest.h>

#include <limits>
#include <memory>

namespace Raster {
namespace {
using RGBA8Buffer = RGBA8Tuple::Apply<Buffer>;
using RGBA8Pixel = PixelOf<RGBA8Tuple>;
using RGBA8Tiles = RGBA8Tuple::Apply<TiledTestModel>;
constexpr int lowest = std::numeric_limits<int>::min(), highest = std::numeric_limits<int>::max();
RGBA8Pixel const zeroPixel{};

RGBA8Pixel PixelAt(int x, int y) {
    return {{static_cast<std::uint8_t>(x), static_cast<std::uint8_t>(y), static_cast<std::uint8_t>(x >> 8), 255}};
}

template<class Model>
void Fill(Model & model) {
    typename Model::template PixelAccessor<AllChannels> accessor(&model);
    for (int y = 0; y < model.GetHeight(); ++y) {
        accessor.SetToXY(0, y);
        for (int x = 0; x < model.GetWidth(); ++x, accessor.Increment())
            accessor.Write(PixelAt(x, y));
    }
}

template<class Accessor>
RGBA8Pixel ReadAt(Accessor & accessor, int x, int y) {
    RGBA8Pixel pixel;
    accessor.SetToXY(x, y);
    accessor.Read(pixel);
    return pixel;
}
template<class Accessor>
RGBA8Pixel ReadHere(Accessor & accessor) {
    RGBA8Pixel pixel;
    accessor.Read(pixel);
    return pixel;
}

class Accessors : public testing::Test {
protected:
    Accessors() {
        Fill(buffer);
        Fill(tiles);
        tiles.seeks = 0;
    }
    RGBA8Buffer buffer{200, 40, nullptr};
    RGBA8Tiles tiles{200, 40};
};
}

TEST_F(Accessors, RepeatGivesTheNearestEdgePixel) {
    RGBA8Buffer::ConstPixelAccessor<Repeat, IdentityTransform> accessor(&buffer);
    EXPECT_EQ(PixelAt(0, 39), ReadAt(accessor, -5, 40 + 9));
    EXPECT_EQ(PixelAt(199, 0), ReadAt(accessor, 200, -1));
    EXPECT_EQ(PixelAt(7, 0), ReadAt(accessor, 7, lowest));
    EXPECT_EQ(PixelAt(199, 39), ReadAt(accessor, highest, highest));
    EXPECT_EQ(PixelAt(0, 0), ReadAt(accessor, lowest, lowest));
}

TEST_F(Accessors, ZeroGivesNoAlphaOutsideThoughTheModelIsOpaque) {
    RGBA8Buffer::ConstPixelAccessor<Zero, IdentityTransform> accessor(&buffer);
    EXPECT_EQ(255, ReadAt(accessor, 199, 39)[3]);
    EXPECT_EQ(zeroPixel, ReadAt(accessor, 200, 39));
    EXPECT_EQ(zeroPixel, ReadAt(accessor, 199, 40));
    EXPECT_EQ(zeroPixel, ReadAt(accessor, -1, 0));
    EXPECT_EQ(zeroPixel, ReadAt(accessor, 0, -1));
    EXPECT_EQ(zeroPixel, ReadAt(accessor, lowest, highest));
}

TEST_F(Accessors, ZeroFindsTheRightTileOnTheFirstStepBack) {
    RGBA8Tiles::ConstPixelAccessor<Zero, IdentityTransform> accessor(&tiles);
    ASSERT_EQ(PixelAt(0, 20), ReadAt(accessor, 0, 20));
    accessor.Decrement();
    EXPECT_EQ(zeroPixel, ReadHere(accessor));
    accessor.Increment();
    EXPECT_EQ(PixelAt(0, 20), ReadHere(accessor));
    // Out to the right, along the edge into another row of tiles, and back.
    ASSERT_EQ(PixelAt(199, 15), ReadAt(accessor, 199, 15));
    accessor.Increment();
    EXPECT_EQ(zeroPixel, ReadHere(accessor));
    accessor.IncrementRow();
    accessor.Decrement();
    EXPECT_EQ(PixelAt(199, 16), ReadHere(accessor));
    // Out over the top and back without a read outside.
    accessor.SetToXY(100, 0);
    EXPECT_EQ(PixelAt(100, 0), ReadHere(accessor));
    accessor.DecrementRow();
    accessor.IncrementRow();
    EXPECT_EQ(PixelAt(100, 0), ReadHere(accessor));
}

TEST_F(Accessors, StepsWithinATileSeekNothing) {
    RGBA8Tiles::ConstPixelAccessor<Safe, IdentityTransform> accessor(&tiles);
    for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 64; ++x)
            ASSERT_EQ(PixelAt(x, y), ReadAt(accessor, x, y));
    EXPECT_EQ(1, tiles.seeks);
    accessor.Increment();
    EXPECT_EQ(PixelAt(64, 15), ReadHere(accessor));
    EXPECT_EQ(2, tiles.seeks);
}

TEST_F(Accessors, CrossingATileWithoutReadingSeeksNothing) {
    RGBA8Tiles::ConstPixelAccessor<Safe, IdentityTransform> accessor(&tiles);
    ASSERT_EQ(PixelAt(63, 0), ReadAt(accessor, 63, 0));
    for (int i = 0; i < 100; ++i)
        accessor.Increment();
    for (int i = 0; i < 100; ++i)
        accessor.Decrement();
    for (int i = 0; i < 30; ++i)
        accessor.IncrementRow();
    accessor.RewindRow(30);
    EXPECT_EQ(PixelAt(63, 0), ReadHere(accessor));
    EXPECT_EQ(1, tiles.seeks);
}

TEST_F(Accessors, SpanThatEndsATileStaysInItUntilTheNextStepIsRead) {
    RGBA8Tiles::ConstPixelAccessor<Zero, IdentityTransform> accessor(&tiles);
    PlanarPixelSpanOf<RGBA8Tuple> span;
    accessor.SetToXY(32, 3);
    accessor.SpanRead(span);
    EXPECT_EQ(1, tiles.seeks);
    EXPECT_EQ(63, span.runs[0][31]);
    EXPECT_EQ(PixelAt(63, 3), ReadHere(accessor));
    EXPECT_EQ(1, tiles.seeks);
    accessor.Increment();
    EXPECT_EQ(PixelAt(64, 3), ReadHere(accessor));
    EXPECT_EQ(2, tiles.seeks);
}

TEST_F(Accessors, SpanOverTwoTilesGoesPixelByPixel) {
    RGBA8Tiles::ConstPixelAccessor<Zero, IdentityTransform> accessor(&tiles);
    PlanarPixelSpanOf<RGBA8Tuple> span;
    accessor.SetToXY(50, 3);
    accessor.SpanRead(span); // the cursor would fail the test if it was asked across its tile
    for (int i = 0; i < spanLength; ++i)
        EXPECT_EQ(50 + i, span.runs[0][i]);
    EXPECT_EQ(2, tiles.seeks);
}

TEST_F(Accessors, ReadFloatDoesNotScale) {
    Buffer<Red16, Green16, Blue16, Alpha16> deep(1, 1, nullptr);
    decltype(deep)::PixelAccessor<AllChannels> writer(&deep);
    writer.Write({{65535, 1, 0, 256}});
    FloatPixel<Red16, Green16, Blue16, Alpha16> pixel;
    writer.ReadFloat(pixel);
    EXPECT_EQ((FloatPixel<Red16, Green16, Blue16, Alpha16>{{65535.0f, 1.0f, 0.0f, 256.0f}}), pixel);

    Buffer<RedUH, GreenUH, BlueUH> half(1, 1, nullptr);
    decltype(half)::PixelAccessor<AllChannels> halfWriter(&half);
    halfWriter.Write({{ToHalf(2.5f), ToHalf(-1.0f), ToHalf(0.0f)}});
    FloatPixel<RedUH, GreenUH, BlueUH> halves;
    halfWriter.ReadFloat(halves);
    EXPECT_EQ((FloatPixel<RedUH, GreenUH, BlueUH>{{2.5f, -1.0f, 0.0f}}), halves);
}

TEST_F(Accessors, ScaleSamplesAtTheCentre) {
    ScaleTransform::Params const twice{2, 2};
    RGBA8Buffer::ConstPixelAccessor<Safe, ScaleTransform> accessor(&buffer, &twice);
    EXPECT_EQ(PixelAt(1, 1), ReadAt(accessor, 0, 0));
    EXPECT_EQ(PixelAt(199, 39), ReadAt(accessor, 99, 19));
    EXPECT_EQ((Kernel::RectT<int>{0, 0, 100, 20}), accessor.GetSafeRect());
}

TEST_F(Accessors, TranslateTruncatesForSafeAndLooksOutsideForZero) {
    TranslateTransform::Params const back{-1, 0};
    RGBA8Buffer::ConstPixelAccessor<Safe, TranslateTransform> safe(&buffer, &back);
    EXPECT_EQ(PixelAt(0, 0), ReadAt(safe, 0, 0)); // -0.5 truncates to 0
    EXPECT_EQ(PixelAt(0, 0), ReadAt(safe, 1, 0));
    RGBA8Buffer::ConstPixelAccessor<Zero, TranslateTransform> zero(&buffer, &back);
    EXPECT_EQ(zeroPixel, ReadAt(zero, 0, 0));
    EXPECT_EQ(PixelAt(0, 0), ReadAt(zero, 1, 0));
    EXPECT_EQ((Kernel::RectT<int>{1, 0, 201, 40}), zero.GetSafeRect());
}

TEST_F(Accessors, NullParametersChangeNothing) {
    RGBA8Buffer::ConstPixelAccessor<Zero, TranslateScaleTransform> accessor(&buffer, nullptr, nullptr, false);
    for (int x = 0; x < 200; x += 33)
        EXPECT_EQ(PixelAt(x, 5), ReadAt(accessor, x, 5));
    EXPECT_EQ((Kernel::RectT<int>{0, 0, 200, 40}), accessor.GetSafeRect());
}

TEST_F(Accessors, SafeRectIsTheModel) {
    RGBA8Buffer::ConstPixelAccessor<Safe, IdentityTransform> accessor(&buffer);
    EXPECT_EQ((Kernel::RectT<int>{0, 0, 200, 40}), accessor.GetSafeRect());
    RGBA8Buffer::PixelAccessor<AllChannels> writer(&buffer);
    EXPECT_EQ((Kernel::RectT<int>{0, 0, 200, 40}), writer.GetSafeRect());
}

TEST_F(Accessors, WalksPastTheRangeOfIntAndComesBack) {
    RGBA8Tiles::ConstPixelAccessor<Zero, IdentityTransform> accessor(&tiles);
    accessor.SetToXY(highest, lowest);
    for (int i = 0; i < 5; ++i) {
        accessor.Increment();
        accessor.DecrementRow();
        EXPECT_EQ(zeroPixel, ReadHere(accessor));
    }
    accessor.Advance(highest);
    accessor.RewindRow(highest);
    EXPECT_EQ(zeroPixel, ReadHere(accessor));
    accessor.Rewind(highest);
    accessor.AdvanceRow(highest);
    accessor.Rewind(highest);
    accessor.AdvanceRow(highest);
    EXPECT_EQ(zeroPixel, ReadHere(accessor)); // (5, -6)
    accessor.AdvanceRow(6);
    EXPECT_EQ(PixelAt(5, 0), ReadHere(accessor));
}

TEST_F(Accessors, TransformsOfAnySizeAreAnsweredByThePolicy) {
    double const infinity = std::numeric_limits<double>::infinity();
    double const notANumber = std::numeric_limits<double>::quiet_NaN();
    for (double value : {0.0, 1e300, -1e300, infinity, -infinity, notANumber})
        for (int position : {lowest, -1, 0, 1, highest}) {
            TranslateScaleTransform::Params const params{value, value, value, value};
            RGBA8Tiles::ConstPixelAccessor<Zero, TranslateScaleTransform> zero(&tiles, &params);
            RGBA8Tiles::ConstPixelAccessor<Safe, TranslateScaleTransform> safe(&tiles, &params);
            RGBA8Tiles::ConstPixelAccessor<Repeat, TranslateScaleTransform> repeat(&tiles, &params);
            double const point = (position + 0.5 + value) * value;
            EXPECT_EQ(point == 0 ? PixelAt(0, 0) : zeroPixel, ReadAt(zero, position, position)) << value;
            EXPECT_EQ(point == 0 || point != point ? PixelAt(0, 0) : zeroPixel, ReadAt(safe, position, position));
            EXPECT_EQ(point > 0 ? PixelAt(199, 39) : PixelAt(0, 0), ReadAt(repeat, position, position)) << value;
            zero.GetSafeRect();
        }
}

TEST_F(Accessors, WritesOutsideGoNowhere) {
    RGBA8Tiles::PixelAccessor<AllChannels> writer(&tiles, nullptr, false);
    for (int x : {lowest, -1, 200, highest})
        for (int y : {lowest, -1, 0, 39, 40, highest}) {
            writer.SetToXY(x, y);
            writer.Write(PixelAt(1, 1));
            EXPECT_EQ(zeroPixel, ReadHere(writer));
        }
    InterleavedPixelSpanOf<RGBA8Tuple> span{};
    writer.SetToXY(190, 10); // 10 pixels in, 22 out
    writer.SpanWrite(span);
    for (int y = 0; y < 40; ++y)
        for (int x = 0; x < 200; ++x)
            ASSERT_EQ(y == 10 && x >= 190 ? zeroPixel : PixelAt(x, y), tiles.At(x, y)) << x << ", " << y;
}

TEST_F(Accessors, ResetKeepsThePositionAndSeeksAnew) {
    RGBA8Tiles::ConstPixelAccessor<Zero, IdentityTransform> accessor(&tiles);
    ASSERT_EQ(PixelAt(70, 20), ReadAt(accessor, 70, 20));
    accessor.Reset();
    EXPECT_EQ(PixelAt(70, 20), ReadHere(accessor));
    EXPECT_EQ(2, tiles.seeks);
    accessor.Reset();
    accessor.Increment();
    accessor.IncrementRow();
    EXPECT_EQ(PixelAt(71, 21), ReadHere(accessor));
}

TEST_F(Accessors, UnsafeStepsAreSteps) {
    RGBA8Tiles::ConstPixelAccessor<Zero, IdentityTransform> accessor(&tiles);
    accessor.UnsafeSetToXY(63, 15);
    EXPECT_EQ(PixelAt(63, 15), ReadHere(accessor));
    accessor.UnsafeIncrement();
    EXPECT_EQ(PixelAt(64, 15), ReadHere(accessor));
    accessor.UnsafeIncrementRow();
    EXPECT_EQ(PixelAt(64, 16), ReadHere(accessor));
    accessor.UnsafeDecrement();
    EXPECT_EQ(PixelAt(63, 16), ReadHere(accessor));
    accessor.UnsafeDecrementRow();
    EXPECT_EQ(PixelAt(63, 15), ReadHere(accessor));
}

// Every offset of a span against single reads, in both shapes and both directions, and where the position ends.
template<class Accessor, class Model>
void CheckSpansAtEveryOffset(Model const & model) {
    Accessor accessor(&model), single(&model);
    InterleavedPixelSpanOf<RGBA8Tuple> pixels;
    PlanarPixelSpanOf<RGBA8Tuple> planes;
    for (int y : {-33, -31, -1, 0, 8, 15, 16, 38, 39, 40})
        for (int x = -70; x < 240; ++x)
            for (bool column : {false, true}) {
                auto const expected = [&](int i) { return ReadAt(single, column ? x : x + i, column ? y + i : y); };
                accessor.SetToXY(x, y);
                column ? accessor.SpanReadColumn(pixels) : accessor.SpanRead(pixels);
                ASSERT_EQ(expected(31), ReadHere(accessor)) << x << ", " << y;
                column ? accessor.IncrementRow() : accessor.Increment();
                ASSERT_EQ(expected(32), ReadHere(accessor)) << x << ", " << y;
                accessor.SetToXY(x, y);
                column ? accessor.SpanReadColumn(planes) : accessor.SpanRead(planes);
                ASSERT_EQ(expected(31), ReadHere(accessor)) << x << ", " << y;
                for (int i = 0; i < spanLength; ++i) {
                    ASSERT_EQ(expected(i), pixels.pixels[i]) << x << ", " << y << " + " << i;
                    for (std::size_t channel = 0; channel < 4; ++channel)
                        ASSERT_EQ(expected(i)[channel], planes.runs[channel][i]) << x << ", " << y << " + " << i;
                }
            }
}

TEST_F(Accessors, SpansAtEveryOffsetEqualSingleReads) {
    CheckSpansAtEveryOffset<RGBA8Buffer::ConstPixelAccessor<Zero, IdentityTransform>>(buffer);
    CheckSpansAtEveryOffset<RGBA8Tiles::ConstPixelAccessor<Zero, IdentityTransform>>(tiles);
    CheckSpansAtEveryOffset<RGBA8Tiles::ConstPixelAccessor<Repeat, IdentityTransform>>(tiles);
    CheckSpansAtEveryOffset<RGBA8Tiles::ConstPixelAccessor<Safe, IdentityTransform>>(tiles);
}

TEST_F(Accessors, SpansAtTheEndsOfTheRangeOfIntAreZero) {
    RGBA8Tiles::ConstPixelAccessor<Zero, IdentityTransform> accessor(&tiles);
    InterleavedPixelSpanOf<RGBA8Tuple> pixels;
    PlanarPixelSpanOf<RGBA8Tuple> planes;
    for (int x : {lowest, lowest + 1, highest - 31, highest - 1, highest})
        for (int y : {lowest, 0, highest}) {
            accessor.SetToXY(x, y);
            accessor.SpanRead(pixels);
            EXPECT_EQ(InterleavedPixelSpanOf<RGBA8Tuple>{}, pixels);
            accessor.SpanReadColumn(pixels);
            EXPECT_EQ(InterleavedPixelSpanOf<RGBA8Tuple>{}, pixels);
            accessor.SpanRead(planes);
            EXPECT_EQ(PlanarPixelSpanOf<RGBA8Tuple>{}, planes);
        }
}

TEST(AccessorOfNothing, ReadsZerosUnderEveryPolicy) {
    for (auto [width, height] : {std::pair(0, 0), std::pair(0, 7), std::pair(7, 0)}) {
        RGBA8Buffer buffer(width, height, nullptr);
        RGBA8Buffer::ConstPixelAccessor<Repeat, IdentityTransform> repeat(&buffer);
        RGBA8Buffer::ConstPixelAccessor<Zero, TranslateTransform> zero(&buffer);
        RGBA8Buffer::ConstPixelAccessor<Safe, IdentityTransform> safe(&buffer);
        RGBA8Buffer::PixelAccessor<AllChannels> writer(&buffer);
        writer.Write(PixelAt(1, 1));
        for (int x : {lowest, -1, 0, 1, highest}) {
            EXPECT_EQ(zeroPixel, ReadAt(repeat, x, 0));
            EXPECT_EQ(zeroPixel, ReadAt(zero, x, 0));
            EXPECT_EQ(zeroPixel, ReadAt(safe, x, 0));
            EXPECT_EQ(zeroPixel, ReadAt(writer, x, 0));
        }
        EXPECT_EQ((Kernel::RectT<int>{}), safe.GetSafeRect());
        EXPECT_EQ((Kernel::RectT<int>{}), zero.GetSafeRect());
    }
}

namespace {
/// Computes its pixels anywhere.
class Chequers : public ModelBase<Chequers, Alpha8> {
public:
    static constexpr ModelKind modelKind = ModelKind::ReadOnly;
    static constexpr bool isUnbounded = true;
    Chequers * Clone() const { return new Chequers; }
    Chequers * CloneEmpty() const { return new Chequers; }
    int GetWidth(int = 0) const { return 0; }
    int GetHeight(int = 0) const { return 0; }
    struct ConstCursor {
        ConstCursor(Chequers const *, bool *, bool) {}
        void Read(int x, int y, PixelType & pixel) const { pixel[0] = (x ^ y) & 1 ? 255 : 0; }
    };
};

/// Adds up what it is given.
class Sum : public ModelBase<Sum, Intensity8> {
public:
    static constexpr ModelKind modelKind = ModelKind::Sink;
    Sum * Clone() const { return nullptr; }
    Sum * CloneEmpty() const { return nullptr; }
    int GetWidth(int = 0) const { return 100; }
    int GetHeight(int = 0) const { return 50; }
    struct Cursor {
        Sum * sum;
        int pending = 0;
        Cursor(Sum * target, bool) : sum(target) {}
        void Write(int, int, PixelType const & pixel) { pending += pixel[0]; }
        void Flush() { sum->total += std::exchange(pending, 0); }
    };
    int total = 0;
};

/// Could not decode its file.
class Broken : public ModelBase<Broken, Intensity8> {
public:
    int GetWidth(int = 0) const { return 100; }
    int GetHeight(int = 0) const { return 50; }
    struct ConstCursor {
        ConstCursor(Broken const *, bool * abort, bool) { *abort = true; }
        Kernel::RectT<int> GetBounds() const { return {}; }
        void Read(int, int, PixelType &) const { FAIL() << "nothing is there"; }
    };
};

template<class Accessor>
concept CanRead = requires(Accessor & accessor, typename Accessor::PixelType & pixel) {
    accessor.Read(pixel);
};
}

TEST(ModelBase, UnboundedModelsAnswerEverywhereUnderEveryPolicy) {
    Chequers const model;
    auto const check = [](auto & accessor) {
        for (int x : {lowest, -3, -2, 0, 1, 1000000, highest - 1}) {
            Pixel<Alpha8> pixel;
            accessor.SetToXY(x, 0);
            accessor.Read(pixel);
            EXPECT_EQ(x & 1 ? 255 : 0, pixel[0]) << x;
        }
    };
    Chequers::ConstPixelAccessor<Safe, IdentityTransform> safe(&model);
    Chequers::ConstPixelAccessor<Zero, IdentityTransform> zero(&model);
    Chequers::ConstPixelAccessor<Repeat, IdentityTransform> repeat(&model);
    check(safe);
    check(zero);
    check(repeat);
    EXPECT_EQ(unboundedRect, safe.GetSafeRect());
}

// A sink's accessor can be instantiated whole, though it lacks half of the members.
template class AccessorCore<Sum::Tuple, Sum::Cursor, Zero, IdentityTransform>;
template class ModelAccessor<Sum>;

TEST(ModelBase, SinksTakePixelsAndCannotBeRead) {
    Sum sum;
    static_assert(!CanRead<Sum::PixelAccessor<AllChannels>>);
    static_assert(CanRead<RGBA8Buffer::PixelAccessor<AllChannels>>);
    Sum::PixelAccessor<AllChannels> accessor(&sum);
    InterleavedPixelSpan<Intensity8> span;
    for (int i = 0; i < spanLength; ++i)
        span.pixels[i] = {{1}};
    accessor.SetToXY(0, 0);
    accessor.SpanWrite(span);
    accessor.SetToXY(99, 0);
    accessor.SpanWriteColumn(span); // 32 rows of the last column
    accessor.SetToXY(99, 49);
    accessor.SpanWrite(span); // only the first pixel is inside
    EXPECT_EQ(0, sum.total);
    accessor.Flush();
    EXPECT_EQ(65, sum.total);
}

TEST(ModelBase, CursorWithoutPixelsReadsNothing) {
    Broken const model;
    bool abort = false;
    Broken::ConstPixelAccessor<Repeat, IdentityTransform> accessor(&model, nullptr, &abort);
    EXPECT_TRUE(abort);
    Pixel<Intensity8> pixel{{9}};
    accessor.Read(pixel);
    EXPECT_EQ(0, pixel[0]);
}

TEST(ModelBase, SaysWhatItsTupleIs) {
    EXPECT_EQ(A8, Chequers::GetFormat());
    EXPECT_EQ(NoFormat, Sum::GetFormat());
    EXPECT_EQ(ModelKind::Sink, Sum::modelKind);
    EXPECT_EQ(ModelKind::Plain, RGBA8Buffer::modelKind);
}

TEST(ModelBase, HasNoGraphicsDevice) {
    Chequers const model;
    EXPECT_EQ(nullptr, model.GetHardwareDevice());
    EXPECT_EQ(nullptr, model.RetainHardwareBuffer(nullptr, false, false, nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(nullptr, Chequers::GetDestHardwareFragment());
    EXPECT_EQ(nullptr, Chequers::GetSourceHardwareFragment());
    EXPECT_EQ(nullptr, Chequers::GetMaskHardwareFragment());
    EXPECT_EQ(0, Chequers::GetHardwareParams(nullptr, nullptr));
}
}
