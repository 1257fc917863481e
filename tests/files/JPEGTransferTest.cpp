// JPEG files and bitmaps, by way of the engine.
#include "files/FileTransfer.h"

#include "files/JPEGTesting.h"
#include "files/jpeg/DynamicJPEG.h"
#include "kernel/Dispatch.h"
#include "storage/StorageEnvironment.h"

#include <gtest/gtest.h>

namespace Raster {
namespace {
class JPEGTransfer : public StorageTest {
protected:
    ~JPEGTransfer() override { Kernel::Dispatch::SetThreadCount(0); }
};

DynamicBitmap MakeBitmap(int width, int height, Format format) {
    return DynamicBitmap(width, height, format, MipmapModeNone, HardwareCachePolicy());
}

template<class Tuple>
JPEGBytes GetPixels(DynamicBitmap const & bitmap) {
    auto const & typed = *bitmap.GetTyped<Tuple>();
    typename Tuple::template Apply<Bitmap>::template ConstPixelAccessor<Safe, IdentityTransform> reader(&typed);
    JPEGBytes pixels;
    for (int y = 0; y < bitmap.GetHeight(); ++y) {
        reader.SetToXY(0, y);
        for (int x = 0; x < bitmap.GetWidth(); ++x, reader.Increment()) {
            PixelOf<Tuple> pixel;
            reader.Read(pixel);
            pixels.insert(pixels.end(), pixel.channels, pixel.channels + Tuple::channelCount);
        }
    }
    return pixels;
}

TEST_F(JPEGTransfer, DrawsEveryKindIntoBitmaps) {
    for (unsigned const threads : {1u, 4u}) {
        Kernel::Dispatch::SetThreadCount(threads);
        for (auto const & [inSpace, fileSpace] :
             {std::pair{JCS_GRAYSCALE, JCS_GRAYSCALE}, {JCS_RGB, JCS_YCbCr}, {JCS_CMYK, JCS_YCCK}}) {
            JPEGRecipe recipe;
            recipe.width = 333;
            recipe.height = 300;
            recipe.inSpace = inSpace;
            recipe.fileSpace = fileSpace;
            auto const bytes = MakeJPEG(recipe);
            DynamicJPEG file;
            file.CreateFromStream(StreamOf(bytes));
            auto bitmap = MakeBitmap(333, 300, file.GetFormat());
            Draw(bitmap, file, nullptr, nullptr, 0, 0);
            auto const expected = AddAlpha(AskLibjpeg(bytes));
            if (file.GetFormat() == IA8)
                EXPECT_TRUE(expected == GetPixels<IA8Tuple>(bitmap));
            else if (file.GetFormat() == RGBA8)
                EXPECT_TRUE(expected == GetPixels<RGBA8Tuple>(bitmap));
            else
                EXPECT_TRUE(expected == GetPixels<CMYKA8Tuple>(bitmap));
        }
    }
}

TEST_F(JPEGTransfer, WritesBitmapsAndAbortsWhileAProgressiveFileIsFinished) {
    JPEGRecipe recipe;
    recipe.width = recipe.height = 300;
    DynamicJPEG source;
    source.CreateFromStream(StreamOf(MakeJPEG(recipe)));
    auto bitmap = MakeBitmap(300, 300, RGBA8);
    Draw(bitmap, source, nullptr, nullptr, 0, 0);
    ExportOptions options;
    options.SetProgressive(true);
    auto const stream = Kernel::MakeCounted<TestOutStream>();
    DynamicJPEG whole;
    ASSERT_TRUE(whole.CreateToStream(stream, 300, 300, options, RGBA8));
    EXPECT_TRUE(Feed(whole, bitmap, nullptr));
    EXPECT_TRUE(AskLibjpeg(stream->bytes).hasPixels);

    // Set by the first bytes that come out behind the headers: those of the first scan, all rows having been taken.
    struct AbortingStream : Kernel::OutStream {
        std::uint64_t Tell() const override { return count; }
        std::uint64_t GetSize() const override { return count; }
        std::uint64_t WriteI(void const *, std::uint64_t size) override {
            abort = true;
            count += size;
            return size;
        }
        bool abort = false;
        std::uint64_t count = 0;
    };
    auto const aborting = Kernel::MakeCounted<AbortingStream>();
    DynamicJPEG stopped;
    ASSERT_TRUE(stopped.CreateToStream(aborting, 300, 300, options, RGBA8));
    TransferParams params;
    params.abort = &aborting->abort;
    EXPECT_FALSE(Feed(stopped, bitmap, &params));
    EXPECT_TRUE(stopped.HasFailed());
    EXPECT_LT(aborting->count, stream->bytes.size() / 2);
}

TEST_F(JPEGTransfer, DrawsNothingOfAFileThatFails) {
    auto const bytes = MakeJPEG({});
    LimitsForTest limits;
    limits.limits.largestDecodedBytes = 1;
    limits.Apply();
    DynamicJPEG file;
    file.CreateFromStream(StreamOf(bytes));
    auto bitmap = MakeBitmap(3, 3, RGBA8);
    Draw(bitmap, file, nullptr, nullptr, 0, 0);
    EXPECT_TRUE(file.HasFailed());
    EXPECT_EQ(JPEGBytes(3 * 3 * 4), GetPixels<RGBA8Tuple>(bitmap));
}
}
}
