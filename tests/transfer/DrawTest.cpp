#include "pixel/transfer/Draw.h"

#include "kernel/Dispatch.h"
#include "pixel/transfer/BitmapTransfer.h"
#include "pixel/transfer/Fill.h"
#include "transfer/EveryFormat.h"
#include "transfer/TransferPixels.h"

#include <limits>
#include <thread>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;
using RGBA8Buffer = RGBA8Tuple::Apply<Buffer>;
float const opaque = 1.0f;

// A file that is being read: its rows are decoded once, when the first accessor is built.
template<class... Channels>
class DecodedFileOf : public ModelBase<DecodedFileOf<Channels...>, Channels...> {
public:
    using Base = ModelBase<DecodedFileOf<Channels...>, Channels...>;
    using Picture = Slow::Picture<typename Base::Tuple>;
    static constexpr ModelKind modelKind = ModelKind::ReadOnly;

    explicit DecodedFileOf(Picture p) : picture(std::move(p)) {}
    int GetWidth(int = 0) const { return picture.width; }
    int GetHeight(int = 0) const { return picture.height; }

    class ConstCursor {
    public:
        ConstCursor(DecodedFileOf const * model, bool *, bool) : file(model) {
            if (file->decoder == std::thread::id())
                file->decoder = std::this_thread::get_id();
        }
        void Read(int x, int y, typename Base::PixelType & pixel) const { pixel = file->picture.At(x, y); }

    private:
        DecodedFileOf const * file;
    };
    mutable std::thread::id decoder;

private:
    Picture picture;
};
using DecodedFile = RGBA8Tuple::Apply<DecodedFileOf>;

// A file that is being written: takes rows from the top, and remembers in which order its pixels came.
template<class... Channels>
class RowWriterOf : public ModelBase<RowWriterOf<Channels...>, Channels...> {
public:
    using Base = ModelBase<RowWriterOf<Channels...>, Channels...>;
    static constexpr ModelKind modelKind = ModelKind::Rows;

    RowWriterOf(int w, int h) : picture(w, h) {}
    int GetWidth(int = 0) const { return picture.width; }
    int GetHeight(int = 0) const { return picture.height; }

    class Cursor {
    public:
        Cursor(RowWriterOf * model, bool) : writer(model) {}
        void Write(int x, int y, typename Base::PixelType const & pixel) const {
            int const position = y * writer->picture.width + x;
            writer->isInOrder = writer->isInOrder && position == writer->next;
            writer->next = position + 1;
            writer->picture.At(x, y) = pixel;
        }
        void Flush() const { ++writer->flushCount; }

    private:
        RowWriterOf * writer;
    };

    Slow::Picture<typename Base::Tuple> picture;
    int next = 0, flushCount = 0;
    bool isInOrder = true;
};
using RowWriter = RGBA8Tuple::Apply<RowWriterOf>;

// A colour for every place of an endless plane.
class EndlessRamp : public ModelBase<EndlessRamp, Red8, Green8, Blue8, Alpha8, X5> {
public:
    static constexpr ModelKind modelKind = ModelKind::ReadOnly;
    static constexpr bool isUnbounded = true;
    int GetWidth(int = 0) const { return 0; }
    int GetHeight(int = 0) const { return 0; }
    static PixelType At(int x, int y) { return {std::uint8_t(x), std::uint8_t(y), std::uint8_t(x ^ y), 200}; }

    class ConstCursor {
    public:
        ConstCursor(EndlessRamp const *, bool *, bool) {}
        void Read(int x, int y, PixelType & pixel) const { pixel = At(x, y); }
    };
};

template<class Tuple>
Slow::Picture<Tuple> DrawSlowly(Slow::Picture<Tuple> dest, Slow::Picture<Tuple> const & source, Rect clip,
                                float opacity, int dx, int dy) {
    double const matrix[6]{1, 0, -double(dx), 0, 1, -double(dy)};
    Slow::Transfer<Tuple, Tuple>(dest, source, {clip.left, clip.top, clip.right, clip.bottom}, 256, opacity, matrix);
    return dest;
}

template<class Tuple>
Kernel::Counted<typename Tuple::template Apply<Buffer>> MakeBuffer(Slow::Picture<Tuple> const & picture) {
    Kernel::Counted<typename Tuple::template Apply<Buffer>> buffer(
        new typename Tuple::template Apply<Buffer>(picture.width, picture.height, nullptr));
    std::memcpy(buffer->GetData(), picture.pixels.data(), buffer->GetBufferSize());
    return buffer;
}

template<class Tuple>
class DrawOfFormat : public StorageTest {
protected:
    ~DrawOfFormat() override { Kernel::Dispatch::SetThreadCount(0); }
};
TYPED_TEST_SUITE(DrawOfFormat, EveryTuple, FormatNames);

class DrawTest : public StorageTest {};

std::vector<PixelOf<RGBA8Tuple>> ReadBuffer(RGBA8Buffer const & buffer) { return ReadAll(buffer); }
}

TYPED_TEST(DrawOfFormat, EveryKindOfModelOntoBitmapsAndBuffersEqualsTheSlowModel) {
    using Tuple = TypeParam;
    auto const source = MakePicture<Tuple>(150, 120, 1), before = MakePicture<Tuple>(300, 290, 2);
    typename Tuple::template Apply<DecodedFileOf> const file(source);
    auto const sourceBitmap = MakeBitmap<Tuple>(source);
    auto const sourceBuffer = MakeBuffer<Tuple>(source);
    std::mt19937 random(3);
    for (int round = 0; round < 12; ++round) {
        Kernel::Dispatch::SetThreadCount(round % 3 ? 8 : 1);
        int const dx = int(random() % 400) - 100, dy = int(random() % 400) - 100;
        Rect const clip{int(random() % 200), int(random() % 200), 200 + int(random() % 110), 200 + int(random() % 100)};
        float const opacity = round % 2 ? 0.4f : 1.0f;
        auto const expected = DrawSlowly<Tuple>(before, source, clip.Intersect({0, 0, 300, 290}), opacity, dx, dy);
        TransferParams params;
        params.clip = &clip;
        auto const draw = [&](auto const & model, char const * name) {
            auto const bitmap = MakeBitmap<Tuple>(before);
            Draw(*bitmap, model, &params, &opacity, dx, dy);
            EXPECT_EQ("", FindDifference<Tuple>(expected, *bitmap)) << name << " moved by " << dx << ", " << dy;
            auto const buffer = MakeBuffer<Tuple>(before);
            Draw(*buffer, model, &params, &opacity, dx, dy);
            EXPECT_EQ(expected.pixels, ReadAll(*buffer)) << name << " moved by " << dx << ", " << dy;
        };
        draw(file, "a file");
        draw(*sourceBitmap, "a bitmap");
        draw(*sourceBuffer, "a buffer");
    }
}

TYPED_TEST(DrawOfFormat, SpansAndPixelsAgreeForEveryLeftOffset) {
    using Tuple = TypeParam;
    auto const source = MakePicture<Tuple>(140, 12, 8), before = MakePicture<Tuple>(140, 12, 9);
    auto const sourceBuffer = MakeBuffer<Tuple>(source);
    for (int left = 0; left < 32; ++left) {
        Rect const clip{left, 1, left + 70, 11};
        auto const expected = DrawSlowly<Tuple>(before, source, clip, 0.7f, 3, -2);
        TransferParams params;
        params.clip = &clip;
        float const opacity = 0.7f;
        auto const bitmap = MakeBitmap<Tuple>(before);
        auto const buffer = MakeBuffer<Tuple>(before);
        Draw(*bitmap, *sourceBuffer, &params, &opacity, 3, -2);
        Draw(*buffer, *sourceBuffer, &params, &opacity, 3, -2);
        ASSERT_EQ("", FindDifference<Tuple>(expected, *bitmap)) << left;
        ASSERT_EQ(expected.pixels, ReadAll(*buffer)) << left;
    }
}

TYPED_TEST(DrawOfFormat, ErasedBitmapOntoBufferEqualsTheTypedForm) {
    using Tuple = TypeParam;
    auto const source = MakePicture<Tuple>(90, 70, 4), before = MakePicture<Tuple>(100, 80, 5);
    DynamicBuffer dest;
    dest.Create(100, 80, formatOf<Tuple>);
    auto & buffer = *dest.GetTyped<Tuple>();
    std::memcpy(buffer.GetData(), before.pixels.data(), buffer.GetBufferSize());
    float const opacity = 0.3f;
    Draw(dest, DynamicBitmap(MakeBitmap<Tuple>(source)), nullptr, &opacity, -5, 17);
    EXPECT_EQ(DrawSlowly<Tuple>(before, source, {0, 0, 100, 80}, opacity, -5, 17).pixels, ReadAll(buffer));
}

TYPED_TEST(DrawOfFormat, ErasedBitmapIntoBufferReplacesWhatWasThere) {
    using Tuple = TypeParam;
    auto const source = MakePicture<Tuple>(300, 270, 4), before = MakePicture<Tuple>(100, 80, 5);
    DynamicBitmap const bitmap(MakeBitmap<Tuple>(source));
    for (Rect const & clip : {Rect{0, 0, 300, 270}, {240, 200, 400, 400}, {10, 20, 50, 90}}) {
        DynamicBuffer dest;
        dest.Create(100, 80, formatOf<Tuple>);
        auto & buffer = *dest.GetTyped<Tuple>();
        std::memcpy(buffer.GetData(), before.pixels.data(), buffer.GetBufferSize());
        TransferParams params;
        params.clip = &clip;
        EXPECT_TRUE(Feed(dest, bitmap, &params));
        auto expected = before;
        for (int y = 0; y < std::min(80, std::min(clip.bottom, 270) - clip.top); ++y)
            for (int x = 0; x < std::min(100, std::min(clip.right, 300) - clip.left); ++x)
                expected.At(x, y) = source.At(x + clip.left, y + clip.top);
        EXPECT_EQ(expected.pixels, ReadAll(buffer)) << clip.left;
    }
}

TYPED_TEST(DrawOfFormat, FeedHandsOverTheClippedPixels) {
    using Tuple = TypeParam;
    auto const source = MakePicture<Tuple>(333, 270, 1);
    Rect const clip{-3, 5, 301, 266};
    TransferParams params;
    params.clip = &clip;
    typename Tuple::template Apply<RowWriterOf> writer(301, 261);
    Feed(writer, *MakeBitmap<Tuple>(source), &params);
    EXPECT_TRUE(writer.isInOrder);
    EXPECT_EQ(301 * 261, writer.next);
    for (int y = 0; y < 261; ++y)
        for (int x = 0; x < 301; ++x)
            ASSERT_EQ(source.At(x, y + 5), writer.picture.At(x, y)) << x << ", " << y;
}

TEST_F(DrawTest, DecodingHappensOnTheCallingThread) {
    DecodedFile const file(MakePicture<RGBA8Tuple>(600, 600, 1));
    Kernel::Counted<RGBA8Bitmap> const dest(new RGBA8Bitmap(600, 600, MipmapModeNone, HardwareCachePolicy()));
    Draw(*dest, file, nullptr, &opaque, 0, 0);
    EXPECT_EQ(std::this_thread::get_id(), file.decoder);
}

TEST_F(DrawTest, AnEndlessModelFillsTheClip) {
    Kernel::Counted<RGBA8Bitmap> const dest(new RGBA8Bitmap(300, 300, MipmapModeNone, HardwareCachePolicy()));
    Draw(*dest, EndlessRamp(), nullptr, &opaque, 1000, -1000);
    auto const pixels = ReadAll(*dest);
    for (int y = 0; y < 300; y += 7)
        for (int x = 0; x < 300; x += 5)
            ASSERT_EQ(EndlessRamp::At(x - 1000, y + 1000), pixels[std::size_t(y * 300 + x)]) << x << ", " << y;
}

TEST_F(DrawTest, TransparentPixelsTouchNoTile) {
    Slow::Picture<RGBA8Tuple> const nothing(300, 300);
    Kernel::Counted<RGBA8Bitmap> const dest(new RGBA8Bitmap(300, 300, MipmapModeNone, HardwareCachePolicy()));
    Draw(*dest, DecodedFile(nothing), nullptr, &opaque, 0, 0);
    EXPECT_TRUE(dest->GetAllocatedBoundingBox().IsEmpty());
}

TEST_F(DrawTest, ADestinationMayBeItsOwnSource) {
    auto const before = MakePicture<RGBA8Tuple>(600, 300, 2);
    auto const expected = DrawSlowly<RGBA8Tuple>(before, before, {0, 0, 600, 300}, 1.0f, -7, -5);
    for (unsigned const threads : {1u, 8u}) {
        Kernel::Dispatch::SetThreadCount(threads);
        auto const bitmap = MakeBitmap<RGBA8Tuple>(before);
        Draw(*bitmap, *bitmap, nullptr, &opaque, -7, -5);
        EXPECT_EQ(expected.pixels, ReadAll(*bitmap)) << threads;
        RGBA8Buffer buffer(600, 300, nullptr);
        std::memcpy(buffer.GetData(), before.pixels.data(), buffer.GetBufferSize());
        Draw(buffer, buffer, nullptr, &opaque, -7, -5);
        EXPECT_EQ(expected.pixels, ReadBuffer(buffer)) << threads;
    }
    Kernel::Dispatch::SetThreadCount(0);
}

TEST_F(DrawTest, OffsetsAtTheEndsOfTheirRangeLandNowhere) {
    auto const source = MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(30, 30, 2));
    DynamicBitmap const erased(source);
    for (int const far : {std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        Kernel::Counted<RGBA8Bitmap> const dest(new RGBA8Bitmap(300, 300, MipmapModeNone, HardwareCachePolicy()));
        Draw(*dest, *source, nullptr, &opaque, far, far);
        EXPECT_TRUE(dest->GetAllocatedBoundingBox().IsEmpty());
        Draw(*dest, EndlessRamp(), nullptr, &opaque, far, far);
        DynamicBuffer buffer;
        buffer.Create(20, 20, RGBA16);
        buffer.ClearRect({0, 0, 20, 20});
        Draw(buffer, erased, nullptr, &opaque, far, far);
        EXPECT_TRUE(buffer.GetAlphaBoundingBox().IsEmpty());
    }
}

TEST_F(DrawTest, FeedFromAnEndlessModelFillsTheSink) {
    RowWriter writer(70, 40);
    Feed(writer, EndlessRamp(), nullptr);
    EXPECT_EQ(70 * 40, writer.next);
    EXPECT_EQ(EndlessRamp::At(69, 39), writer.picture.At(69, 39));
}

TEST_F(DrawTest, FeedWritesNothingBeyondASmallerSink) {
    auto const source = MakePicture<RGBA8Tuple>(100, 90, 1);
    RGBA8Buffer sink(50, 40, nullptr);
    Feed(sink, *MakeBitmap<RGBA8Tuple>(source), nullptr);
    auto const pixels = ReadBuffer(sink);
    for (int y = 0; y < 40; ++y)
        for (int x = 0; x < 50; ++x)
            ASSERT_EQ(source.At(x, y), pixels[std::size_t(y * 50 + x)]) << x << ", " << y;
}

#ifndef RASTER_SANITIZED
TEST_F(DrawTest, TheWidestBitmapIsDrawnOnUpToItsLastPixel) {
    constexpr int widest = std::numeric_limits<int>::max();
    DynamicBitmap dest(widest, 1, A8, MipmapModeNone, HardwareCachePolicy());
    auto const source = MakePicture<A8Tuple>(100, 1, 1);
    Draw(*dest.GetTyped<A8Tuple>(), *MakeBitmap<A8Tuple>(source), nullptr, &opaque, widest - 60, 0);
    Fill(dest, {widest - 5, 0, widest, 1}, DynamicPixel(PixelOf<A8Tuple>{{255}}), 1.0f);
    ModelConstAccessor<A8Bitmap, Zero, IdentityTransform> accessor(dest.GetTyped<A8Tuple>());
    for (int i = 0; i < 60; ++i) {
        PixelOf<A8Tuple> pixel;
        accessor.SetToXY(widest - 60 + i, 0);
        accessor.Read(pixel);
        EXPECT_EQ(i < 55 ? source.At(i, 0)[0] : 255, pixel[0]) << i;
    }
    EXPECT_EQ((Rect{widest - 60 - (widest - 60) % 256, 0, widest, 1}),
              dest.GetAllocatedBoundingBox().Intersect({0, 0, widest, 1}));
}
#endif

TEST_F(DrawTest, FeedHandsOverRowsInOrderAndFlushesOnce) {
    auto const source = MakePicture<RGBA8Tuple>(333, 270, 1);
    RowWriter writer(333, 270);
    Feed(writer, *MakeBitmap<RGBA8Tuple>(source), nullptr);
    EXPECT_TRUE(writer.isInOrder);
    EXPECT_EQ(333 * 270, writer.next);
    EXPECT_EQ(1, writer.flushCount);
    EXPECT_EQ(source.pixels, writer.picture.pixels);
}

TEST_F(DrawTest, FeedStopsAtARowWhenAborted) {
    bool abort = false;
    TransferParams params;
    params.abort = &abort;
    params.progressContext = &abort;
    params.progress = [](unsigned, void * context, double fraction) {
        if (fraction > 0.5)
            Kernel::RequestAbort(static_cast<bool *>(context));
    };
    RowWriter writer(100, 100);
    Feed(writer, *MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(100, 100, 1)), &params);
    EXPECT_EQ(6500, writer.next); // row 64 was the one that told of more than half
    EXPECT_EQ(0, writer.flushCount);
}

TEST_F(DrawTest, WithoutPixelsOnEitherSideNothingHappens) {
    DynamicBuffer nothing, dest, flat;
    dest.Create(20, 20, RGBA8);
    dest.ClearRect({0, 0, 20, 20});
    flat.Create(0, 20, RGBA8);
    DynamicBitmap const source(MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(20, 20, 1)));
    Draw(nothing, source, nullptr, &opaque, 0, 0);
    Draw(flat, source, nullptr, &opaque, 0, 0);
    Draw(dest, DynamicBitmap(), nullptr, &opaque, 0, 0);
    Draw(dest, DynamicBitmap(0, 0, RGBA8, MipmapModeNone, HardwareCachePolicy()), nullptr, &opaque, 0, 0);
    EXPECT_EQ(NoFormat, nothing.GetFormat());
    EXPECT_TRUE(dest.GetAlphaBoundingBox().IsEmpty());
}

TEST_F(DrawTest, AnAbortThatIsSetWritesNothing) {
    bool abort = true;
    TransferParams params;
    params.abort = &abort;
    auto const source = MakePicture<RGBA8Tuple>(300, 300, 1);
    Kernel::Counted<RGBA8Bitmap> const dest(new RGBA8Bitmap(300, 300, MipmapModeNone, HardwareCachePolicy()));
    Draw(*dest, DecodedFile(source), &params, &opaque, 0, 0);
    EXPECT_TRUE(dest->GetAllocatedBoundingBox().IsEmpty());
    RowWriter writer(300, 300);
    Feed(writer, DecodedFile(source), &params);
    EXPECT_EQ(0, writer.next);
    EXPECT_EQ(0, writer.flushCount);
}

TEST_F(DrawTest, ErasedBitmapOntoBufferConvertsOtherFormats) {
    auto const picture = MakePicture<RGBA16Tuple>(90, 70, 4);
    DynamicBitmap const source(MakeBitmap<RGBA16Tuple>(picture));
    DynamicBuffer dest;
    dest.Create(100, 80, RGBA8);
    dest.ClearRect({0, 0, 100, 80});
    Draw(dest, source, nullptr, &opaque, 5, 7);
    auto const pixels = ReadBuffer(*dest.GetTyped<RGBA8Tuple>());
    for (int y = 0; y < 80; ++y)
        for (int x = 0; x < 100; ++x) {
            PixelOf<RGBA8Tuple> expected;
            ConvertPixel<RGBA8Tuple, RGBA16Tuple>(expected, picture.At(x - 5, y - 7));
            if (expected[3] == 0)
                expected = {};
            ASSERT_EQ(expected, pixels[std::size_t(y * 100 + x)]) << x << ", " << y;
        }
}

TEST_F(DrawTest, ErasedBitmapIntoBufferConvertsOtherFormats) {
    auto const picture = MakePicture<RGBA16Tuple>(300, 270, 4);
    DynamicBitmap const source(MakeBitmap<RGBA16Tuple>(picture));
    DynamicBuffer dest;
    dest.Create(100, 80, RGBA8);
    Rect const clip{230, 250, 900, 900};
    TransferParams params;
    params.clip = &clip;
    dest.ClearRect({0, 0, 100, 80});
    EXPECT_TRUE(Feed(dest, source, &params));
    auto const pixels = ReadBuffer(*dest.GetTyped<RGBA8Tuple>());
    for (int y = 0; y < 80; ++y)
        for (int x = 0; x < 100; ++x) {
            PixelOf<RGBA8Tuple> expected;
            ConvertPixel<RGBA8Tuple, RGBA16Tuple>(expected, picture.At(x + 230, y + 250));
            if (expected[3] == 0)
                expected = {};
            ASSERT_EQ(expected, pixels[std::size_t(y * 100 + x)]) << x << ", " << y;
        }
}

TEST_F(DrawTest, ErasedFeedWithoutPixelsOrAfterAnAbortSaysThatItIsNotComplete) {
    DynamicBuffer nothing, dest;
    dest.Create(20, 20, RGBA8);
    dest.ClearRect({0, 0, 20, 20});
    DynamicBitmap const source(MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(20, 20, 1)));
    DynamicBitmap const deep(MakeBitmap<RGBA16Tuple>(MakePicture<RGBA16Tuple>(20, 20, 1)));
    EXPECT_FALSE(Feed(nothing, source, nullptr));
    EXPECT_FALSE(Feed(dest, DynamicBitmap(), nullptr));
    bool abort = true;
    Rect const outside{30, 0, 40, 10};
    TransferParams aborted, clipped;
    aborted.abort = &abort;
    clipped.clip = &outside;
    for (auto const & bitmap : {source, deep}) {
        EXPECT_FALSE(Feed(dest, bitmap, &aborted));
        EXPECT_FALSE(Feed(dest, bitmap, &clipped));
    }
    EXPECT_TRUE(dest.GetAlphaBoundingBox().IsEmpty());
}
}
