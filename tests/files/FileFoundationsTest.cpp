/// The small parts that all types of files share.
#include "files/DecodedPixels.h"
#include "files/ExportOptions.h"
#include "files/FileSource.h"
#include "files/ImageLimits.h"

#include "analysis/DynamicPalette.h"
#include "colour/ICCManager.h"
#include "files/TestFile.h"
#include "kernel/MemoryInStream.h"
#include "pixel/MemoryManager.h"
#include "storage/CompressedRasterData.h"
#include "transfer/TransferPixels.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <limits>

#include <unistd.h>

namespace Raster {
namespace {
using testing::HasSubstr;

std::uint64_t GetUsage() { return MemoryManager::Instance().GetInterleavedUsage(); }

std::string GetLimitError(std::uint64_t width, std::uint64_t height, std::uint64_t pixelBytes,
                          std::uint64_t codecBytes = 0) {
    try {
        CheckImageSize(width, height, pixelBytes, codecBytes);
    } catch (ImageLimitError const & error) {
        return error.what();
    }
    return "";
}

class WithLimits : public testing::Test {
protected:
    ~WithLimits() override { SetImageLimits({}); }
};
}

TEST_F(WithLimits, DefaultsRefuseNothingUsual) {
    auto const limits = GetImageLimits();
    EXPECT_GT(limits.largestDecodedBytes, std::uint64_t(100) << 20);
    EXPECT_LE(limits.largestDecodedBytes, std::uint64_t(4) << 30);
    EXPECT_EQ(GetLimitError(0, 0, 4), "");
    EXPECT_EQ(GetLimitError(4000, 4000, 4), "");
}

TEST_F(WithLimits, EachSaysWhatWasNeededAndWhatIsAllowed) {
    SetImageLimits({.largestSide = 1000, .largestPixelCount = 250'000, .largestDecodedBytes = 900'000});
    EXPECT_EQ(GetLimitError(1000, 200, 4), "");
    EXPECT_THAT(GetLimitError(1001, 1, 4),
                testing::AllOf(HasSubstr("largestSide"), HasSubstr("1001"), HasSubstr("1000")));
    EXPECT_THAT(GetLimitError(1, 1001, 4), HasSubstr("largestSide"));
    EXPECT_EQ(GetLimitError(500, 500, 3), "");
    EXPECT_THAT(GetLimitError(501, 500, 3), testing::AllOf(HasSubstr("largestPixelCount"), HasSubstr("250500")));
    EXPECT_THAT(GetLimitError(500, 500, 4),
                testing::AllOf(HasSubstr("largestDecodedBytes"), HasSubstr("1000000"), HasSubstr("900000")));
    EXPECT_EQ(GetLimitError(500, 500, 3, 150'000), "");
    EXPECT_THAT(GetLimitError(500, 500, 3, 150'001), HasSubstr("900001"));
}

TEST_F(WithLimits, NoNumberOverflows) {
    constexpr auto most = std::numeric_limits<std::uint64_t>::max();
    SetImageLimits({.largestSide = most, .largestPixelCount = most, .largestDecodedBytes = most - 1});
    EXPECT_THAT(GetLimitError(most, most, 4), HasSubstr("largestDecodedBytes"));
    EXPECT_THAT(GetLimitError(most, 1, 4), HasSubstr("largestDecodedBytes"));
    EXPECT_THAT(GetLimitError(1, 1, 1, most), HasSubstr("largestDecodedBytes"));
}

TEST_F(WithLimits, ZeroDecodedBytesStandsForTheDefault) {
    auto const before = GetImageLimits().largestDecodedBytes;
    SetImageLimits({.largestDecodedBytes = 5});
    EXPECT_EQ(GetImageLimits().largestDecodedBytes, 5u);
    SetImageLimits({});
    EXPECT_EQ(GetImageLimits().largestDecodedBytes, before);
}

TEST_F(WithLimits, DecodedPixelsAreZeroAndCounted) {
    auto const before = GetUsage();
    {
        DecodedPixels pixels(30, 20, 3);
        EXPECT_FALSE(pixels.IsEmpty());
        EXPECT_EQ(pixels.GetStride(), 90u);
        EXPECT_EQ(pixels.GetRow(19) - pixels.GetRow(0), 19 * 90);
        for (int i = 0; i < 30 * 20 * 3; ++i)
            ASSERT_EQ(pixels.GetRow(0)[i], 0);
        EXPECT_EQ(GetUsage(), before + 1800);

        auto const * const row = pixels.GetRow(7);
        DecodedPixels moved = std::move(pixels);
        EXPECT_TRUE(pixels.IsEmpty());
        EXPECT_EQ(pixels.GetWidth(), 0);
        EXPECT_EQ(moved.GetRow(7), row);
        moved = DecodedPixels(5, 5, 1);
        EXPECT_EQ(GetUsage(), before + 25);
        moved = DecodedPixels(-5, 5, 1);
        EXPECT_TRUE(moved.IsEmpty());
        EXPECT_EQ(moved.GetWidth(), 0);
        EXPECT_EQ(GetUsage(), before);
    }
    EXPECT_EQ(GetUsage(), before);
}

TEST_F(WithLimits, DecodedPixelsKeepToTheLimitsBeforeMemoryIsTaken) {
    SetImageLimits({.largestDecodedBytes = 1000});
    auto const before = MemoryManager::Instance().GetInterleavedPeakUsage();
    EXPECT_THROW(DecodedPixels(1 << 19, 1 << 10, 8), ImageLimitError);
    EXPECT_LE(MemoryManager::Instance().GetInterleavedPeakUsage(), before + 400);
}

TEST(ExportOptions, BeginWithTheirDefaults) {
    ExportOptions const options;
    EXPECT_EQ(options.GetPalette(), nullptr);
    EXPECT_EQ(options.GetBitStreamFormat(), BitStreamFormatFrequency);
    EXPECT_EQ(options.GetQuality(), 100);
    EXPECT_FALSE(options.GetICCProfile());
    EXPECT_FALSE(options.GetProgressive());
    EXPECT_EQ(options.GetDPI(), 96.0);
    EXPECT_TRUE(options.GetAlpha());
}

TEST(ExportOptions, QualityEndsAtAHundred) {
    ExportOptions options;
    for (unsigned quality = 0; quality < 400; ++quality) {
        options.SetQuality(quality);
        EXPECT_EQ(options.GetQuality(), quality < 100 ? quality : 100) << quality;
    }
}

TEST(ExportOptions, CopiesShareTheProfile) {
    DynamicPalette const palette;
    auto const profile = ICCManager::GetInstance().GetDefaultProfileForFormat(RGBA8);
    ExportOptions copy;
    {
        ExportOptions options;
        options.SetPalette(&palette);
        options.SetBitStreamFormat(BitStreamFormatSpatial);
        options.SetQuality(7);
        options.SetICCProfile(profile);
        options.SetProgressive(true);
        options.SetDPI(300);
        options.SetAlpha(false);
        copy = options;
    }
    EXPECT_EQ(copy.GetPalette(), &palette);
    EXPECT_EQ(copy.GetBitStreamFormat(), BitStreamFormatSpatial);
    EXPECT_EQ(copy.GetQuality(), 7);
    EXPECT_EQ(copy.GetICCProfile(), profile);
    EXPECT_TRUE(copy.GetProgressive());
    EXPECT_EQ(copy.GetDPI(), 300.0);
    EXPECT_FALSE(copy.GetAlpha());
}

TEST(FileSource, OpensAPathAnewEachTimeAtTheStart) {
    std::string const path = testing::TempDir() + "raster-source-" + std::to_string(getpid());
    std::ofstream(path) << "abc";
    FileSource const source(path.c_str());
    EXPECT_STREQ(source.GetPath(), path.c_str());
    EXPECT_FALSE(source.GetData());
    for (int i = 0; i < 2; ++i) {
        std::string why;
        auto const stream = source.Open(why);
        ASSERT_TRUE(stream);
        char byte = 0;
        EXPECT_EQ(stream->Read(&byte, 1), 1u);
        EXPECT_EQ(byte, 'a');
        EXPECT_EQ(why, "");
    }
    unlink(path.c_str());
    std::string why;
    EXPECT_FALSE(source.Open(why));
    EXPECT_THAT(why, HasSubstr("No such file"));
}

TEST(FileSource, OpensBytesAnewAndAStreamAsItStands) {
    auto const data = Kernel::MakeCounted<CompressedRasterData>();
    data->CopyFrom(reinterpret_cast<unsigned char const *>("abc"), 3);
    FileSource const bytes{Kernel::Counted<CompressedRasterData const>(data)};
    std::string why;
    bytes.Open(why)->Seek(Kernel::SeekOrigin::Start, 2);
    EXPECT_EQ(bytes.Open(why)->Tell(), 0u);
    EXPECT_EQ(bytes.GetPath(), nullptr);
    EXPECT_EQ(bytes.GetData(), data.Get());

    Kernel::Counted<Kernel::InStreamSeekable> const stream(new Kernel::MemoryInStream("abc", 3));
    FileSource const given{stream};
    stream->Seek(Kernel::SeekOrigin::Start, 2);
    EXPECT_EQ(given.Open(why), stream);
    EXPECT_EQ(given.Open(why)->Tell(), 2u);
    EXPECT_EQ(why, "");
}

TEST(FileSource, NoneSaysSo) {
    for (auto const & source : {FileSource(), FileSource(static_cast<char const *>(nullptr))}) {
        std::string why;
        EXPECT_FALSE(source.Open(why));
        EXPECT_NE(why, "");
    }
}

TEST(FileModel, KeepsTheLastFailure) {
    TestFileOf<RGBA8Tuple> const file(Slow::Picture<RGBA8Tuple>(2, 2));
    EXPECT_FALSE(file.HasFailed());
    EXPECT_EQ(file.GetFailure(), "");
    file.SetFailure("first");
    file.SetFailure("second");
    EXPECT_TRUE(file.HasFailed());
    EXPECT_EQ(file.GetFailure(), "second");
    EXPECT_EQ(file.GetWidth(5), 2); // files have no levels
}

TEST(DecodedCursor, ReadsThroughEveryKindOfAccessor) {
    auto const picture = MakePicture<RGBA8Tuple>(70, 50, 3);
    TestFileOf<RGBA8Tuple> const file(picture);
    TestFileOf<RGBA8Tuple>::ConstPixelAccessor<Zero, IdentityTransform> zero(&file, nullptr, nullptr, false);
    TestFileOf<RGBA8Tuple>::ConstPixelAccessor<Repeat, IdentityTransform> repeat(&file, nullptr, nullptr, false);
    for (int y = -3; y < 53; ++y)
        for (int x = -3; x < 73; ++x) {
            PixelOf<RGBA8Tuple> pixel;
            zero.SetToXY(x, y);
            zero.Read(pixel);
            ASSERT_EQ(pixel, picture.At(x, y)) << x << ", " << y;
            repeat.SetToXY(x, y);
            repeat.Read(pixel);
            ASSERT_EQ(pixel, picture.At(std::clamp(x, 0, 69), std::clamp(y, 0, 49))) << x << ", " << y;
        }
    PlanarPixelSpanOf<RGBA8Tuple> span;
    zero.SetToXY(20, 49);
    zero.SpanRead(span);
    for (int i = 0; i < spanLength; ++i)
        for (std::size_t c = 0; c < 4; ++c)
            ASSERT_EQ(span.runs[c][i], picture.At(20 + i, 49)[c]);
}

TEST(DecodedCursor, AFileThatFailedReadsAsZero) {
    TestFileOf<RGBA8Tuple> file(MakePicture<RGBA8Tuple>(20, 20, 3));
    file.failsToDecode = true;
    TestFileOf<RGBA8Tuple>::ConstPixelAccessor<Repeat, IdentityTransform> accessor(&file, nullptr, nullptr, false);
    accessor.SetToXY(5, 5);
    PixelOf<RGBA8Tuple> pixel{{1, 2, 3, 4}};
    accessor.Read(pixel);
    EXPECT_EQ(pixel, PixelOf<RGBA8Tuple>{});
}
}
