#include "colour/ICCManager.h"
#include "files/JPEGTesting.h"
#include "files/jpeg/DynamicJPEG.h"
#include "files/jpeg/JPEGMetadata.h"
#include "files/jpeg/JPEGWriter.h"
#include "kernel/TraceCapture.h"
#include "pixel/Conversion.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace Raster {
namespace {
using testing::HasSubstr;

template<class Model>
using Writer = typename Model::template PixelAccessor<AllChannels>;
template<class Model>
using Pixels = std::vector<typename Model::PixelType>;

template<class Model>
Kernel::Counted<Model> MakeModel(Kernel::Counted<Kernel::OutStream> stream, int width, int height,
                                 ExportOptions const & options = {}) {
    return Kernel::MakeCounted<Model>(std::move(stream), width, height, options);
}

/// Smooth, so that a lossy codec comes close to it; alpha goes up and down.
template<class Model>
Pixels<Model> MakePixels(int width, int height) {
    Pixels<Model> pixels;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            PixelOf<RGBA8Tuple> const colour{{static_cast<std::uint8_t>(40 + x * 2), static_cast<std::uint8_t>(200 - y),
                                              static_cast<std::uint8_t>(90 + x - y / 2),
                                              static_cast<std::uint8_t>(x * 7)}};
            typename Model::PixelType pixel;
            ConvertPixel<typename Model::Tuple, RGBA8Tuple>(pixel, colour);
            pixels.push_back(pixel);
        }
    return pixels;
}

template<class Model>
void WritePixels(Writer<Model> & writer, Pixels<Model> const & pixels, int width, int height) {
    for (int y = 0; y < height; ++y) {
        writer.SetToXY(0, y);
        for (int x = 0; x < width; ++x, writer.Increment()) {
            auto pixel = pixels[static_cast<std::size_t>(y) * std::size_t(width) + std::size_t(x)];
            writer.Write(pixel);
        }
    }
}

template<class Model>
JPEGBytes WriteFile(Pixels<Model> const & pixels, int width, int height, ExportOptions const & options = {}) {
    auto const stream = Kernel::MakeCounted<TestOutStream>();
    auto const model = MakeModel<Model>(stream, width, height, options);
    {
        Writer<Model> writer(model.Get());
        WritePixels<Model>(writer, pixels, width, height);
    }
    EXPECT_FALSE(model->HasFailed()) << model->GetFailure();
    return stream->bytes;
}

JPEGBytes WriteRGB(int width, int height, ExportOptions const & options = {}) {
    return WriteFile<RGBA8JPEG>(MakePixels<RGBA8JPEG>(width, height), width, height, options);
}

double MeanDifference(JPEGBytes const & one, JPEGBytes const & other) {
    EXPECT_EQ(one.size(), other.size());
    double sum = 0;
    for (std::size_t i = 0; i < one.size(); ++i)
        sum += std::abs(one[i] - other[i]);
    return sum / static_cast<double>(one.size());
}

template<class Tuple>
void ExpectComesBack(J_COLOR_SPACE fileSpace, int components) {
    using Model = typename Tuple::template Apply<JPEG>;
    int const width = 77, height = 41;
    auto const pixels = MakePixels<Model>(width, height);
    auto const bytes = WriteFile<Model>(pixels, width, height);
    auto const answer = AskLibjpeg(bytes);
    ASSERT_TRUE(answer.hasPixels);
    EXPECT_EQ(fileSpace, answer.fileSpace);
    EXPECT_EQ(components, answer.components);
    EXPECT_EQ(width, answer.width);
    EXPECT_EQ(height, answer.height);
    EXPECT_EQ(0, answer.warningCount);
    EXPECT_TRUE(answer.hasJFIF);
    for (int i = 0; i < components; ++i) {
        EXPECT_EQ(1, answer.horizontalSampling[i]);
        EXPECT_EQ(1, answer.verticalSampling[i]);
    }
    // What the codec was given, in the file's own samples.
    JPEGBytes expected;
    for (auto const & pixel : pixels) {
        PixelOf<RGBA8Tuple> colour;
        if constexpr (std::is_same_v<Tuple, IA8Tuple>) {
            expected.push_back(pixel[0]);
        } else if constexpr (std::is_same_v<Tuple, CMYKA8Tuple>) {
            for (int i = 0; i < 4; ++i)
                expected.push_back(static_cast<std::uint8_t>(255 - pixel.channels[i]));
        } else {
            ConvertPixel<RGBA8Tuple, Tuple>(colour, pixel);
            expected.insert(expected.end(), colour.channels, colour.channels + 3);
        }
    }
    EXPECT_LT(MeanDifference(expected, answer.pixels), 1.5);
    EXPECT_EQ(AddAlpha(answer).size(), ReadPixels(*Open<Model>(bytes)).size() / sizeof(PixelOf<Tuple>) *
                                           static_cast<std::size_t>(components + 1));
}

TEST(JPEGWrite, WritesEveryTuple) {
    ExpectComesBack<RGBA8Tuple>(JCS_YCbCr, 3);
    ExpectComesBack<IA8Tuple>(JCS_GRAYSCALE, 1);
    ExpectComesBack<CMYKA8Tuple>(JCS_CMYK, 4);
    ExpectComesBack<RGBA16Tuple>(JCS_YCbCr, 3);
    ExpectComesBack<IA16Tuple>(JCS_YCbCr, 3);
    ExpectComesBack<LABA16Tuple>(JCS_YCbCr, 3);
    ExpectComesBack<A8Tuple>(JCS_YCbCr, 3);
    ExpectComesBack<A16Tuple>(JCS_YCbCr, 3);
    ExpectComesBack<RGBAUFTuple>(JCS_YCbCr, 3);
    ExpectComesBack<AFTuple>(JCS_YCbCr, 3);
}

TEST(JPEGWrite, ReadsBackWhatItWrote) {
    for (Format const format : {RGBA8, IA8, CMYKA8}) {
        auto const comesBack = [&](auto tuple) {
            using Model = typename decltype(tuple)::template Apply<JPEG>;
            auto const pixels = MakePixels<Model>(60, 50);
            auto const back = ReadPixels(*Open<Model>(WriteFile<Model>(pixels, 60, 50)));
            JPEGBytes expected;
            for (auto pixel : pixels) {
                pixel.channels[decltype(tuple)::alphaIndex - 1] = 255;
                expected.insert(expected.end(), pixel.channels, pixel.channels + sizeof(pixel));
            }
            EXPECT_LT(MeanDifference(expected, back), 1.0) << format;
        };
        if (format == RGBA8)
            comesBack(RGBA8Tuple());
        else if (format == IA8)
            comesBack(IA8Tuple());
        else
            comesBack(CMYKA8Tuple());
    }
}

template<class Tuple>
void ExpectRowsEqualPixels() {
    using Model = typename Tuple::template Apply<JPEG>;
    int const width = 301, height = 9;
    auto const pixels = MakePixels<Model>(width, height);
    auto const stream = Kernel::MakeCounted<TestOutStream>();
    auto const model = MakeModel<Model>(stream, width, height);
    {
        Writer<Model> writer(model.Get());
        for (int y = 0; y < height; ++y) {
            writer.SetToXY(0, y);
            for (int x = 0; x < width; x += 33) { // the last run reaches beyond the row
                std::vector<std::vector<typename Tuple::Storage>> samples(Tuple::channelCount);
                void const * rows[Tuple::channelCount];
                for (int channel = 0; channel < Tuple::channelCount; ++channel) {
                    for (int i = 0; i < 33; ++i)
                        samples[std::size_t(channel)].push_back(
                            x + i < width ? pixels[std::size_t(y * width + x + i)].channels[channel]
                                          : typename Tuple::Storage());
                    rows[channel] = samples[std::size_t(channel)].data();
                }
                writer.WriteRow(33, rows);
            }
        }
        writer.Finish();
    }
    EXPECT_EQ(WriteFile<Model>(pixels, width, height), stream->bytes);
}

TEST(JPEGWrite, GivesTheSameByRowsAsByPixels) {
    ExpectRowsEqualPixels<RGBA8Tuple>();
    ExpectRowsEqualPixels<IA8Tuple>();
    ExpectRowsEqualPixels<CMYKA8Tuple>();
    ExpectRowsEqualPixels<RGBA16Tuple>();
    ExpectRowsEqualPixels<LABA16Tuple>();
    ExpectRowsEqualPixels<AFTuple>();
}

TEST(JPEGWrite, InvertsCMYKUnlessToldNotTo) {
    auto const stream = Kernel::MakeCounted<TestOutStream>();
    DynamicJPEG file;
    ASSERT_TRUE(file.CreateToStream(stream, 8, 8, {}, CMYKA8));
    file.SetIsInvertCMYK(false);
    CMYKA8JPEG::PixelType pixel{{200, 100, 50, 20, 255}};
    {
        Writer<CMYKA8JPEG> writer(file.GetTyped<CMYKA8Tuple>());
        WritePixels<CMYKA8JPEG>(writer, Pixels<CMYKA8JPEG>(64, pixel), 8, 8);
    }
    auto const answer = AskLibjpeg(stream->bytes);
    for (int i = 0; i < 4; ++i)
        EXPECT_NEAR(pixel[std::size_t(i)], answer.pixels[std::size_t(i)], 1);
    auto const inverted = MakeModel<CMYKA8JPEG>(Kernel::MakeCounted<TestOutStream>(), 1, 1);
    Writer<CMYKA8JPEG> writer(inverted.Get());
    writer.SetToXY(0, 0);
    writer.Write(pixel);
    EXPECT_EQ((CMYKA8JPEG::PixelType{{55, 155, 205, 235, 255}}), pixel) << "the pixel given is changed";
    writer.Abandon();
}

TEST(JPEGWrite, FollowsTheQuality) {
    std::size_t before = 0;
    double differenceBefore = 1e9;
    auto const pixels = MakePixels<RGBA8JPEG>(100, 100);
    JPEGBytes plain;
    for (auto const & pixel : pixels)
        plain.insert(plain.end(), pixel.channels, pixel.channels + 3);
    for (unsigned const quality : {1u, 20u, 50u, 75u, 90u, 98u}) {
        ExportOptions options;
        options.SetQuality(quality);
        auto const bytes = WriteRGB(100, 100, options);
        EXPECT_GT(bytes.size(), before) << quality;
        before = bytes.size();
        double const difference = MeanDifference(plain, AskLibjpeg(bytes).pixels);
        EXPECT_LT(difference, differenceBefore) << quality;
        differenceBefore = difference;
    }
    ExportOptions best;
    best.SetQuality(200);
    EXPECT_EQ(WriteRGB(20, 20), WriteRGB(20, 20, best)) << "100 is the default, and the most";
}

TEST(JPEGWrite, WritesTheSameBytesEachTime) {
    for (bool const isProgressive : {false, true}) {
        ExportOptions options;
        options.SetProgressive(isProgressive);
        options.SetQuality(80);
        EXPECT_EQ(WriteRGB(90, 70, options), WriteRGB(90, 70, options));
    }
}

TEST(JPEGWrite, WritesProgressiveFilesOfTheSamePixels) {
    ExportOptions options;
    options.SetQuality(70);
    auto const plain = AskLibjpeg(WriteRGB(90, 70, options));
    options.SetProgressive(true);
    auto const progressive = AskLibjpeg(WriteRGB(90, 70, options));
    EXPECT_FALSE(plain.isProgressive);
    EXPECT_TRUE(progressive.isProgressive);
    EXPECT_EQ(plain.pixels, progressive.pixels);
}

TEST(JPEGWrite, WritesTheResolutionTruncatedAndCut) {
    struct Case {
        double asked;
        int written;
        double read;
    };
    for (auto const & [asked, written, read] : {Case{300.9, 300, 300},
                                                {96, 96, 96},
                                                {0.9, 0, 72},
                                                {-5, 0, 72},
                                                {65535.9, 65535, 65535},
                                                {1e9, 65535, 65535},
                                                {std::numeric_limits<double>::quiet_NaN(), 0, 72},
                                                {std::numeric_limits<double>::infinity(), 65535, 65535},
                                                {-std::numeric_limits<double>::infinity(), 0, 72}}) {
        ExportOptions options;
        options.SetDPI(asked);
        auto const bytes = WriteRGB(3, 3, options);
        auto const answer = AskLibjpeg(bytes);
        EXPECT_EQ(1, answer.densityUnit);
        EXPECT_EQ(written, answer.densityX) << asked;
        EXPECT_EQ(written, answer.densityY);
        EXPECT_EQ(read, Open<RGBA8JPEG>(bytes)->GetDPI());
    }
    ExportOptions options;
    options.SetDPI(300.9);
    EXPECT_EQ(300.9, MakeModel<RGBA8JPEG>(Kernel::MakeCounted<TestOutStream>(), 1, 1, options)->GetDPI());
}

TEST(JPEGWrite, CutsSidesToWhatTheFormatHas) {
    auto const model = MakeModel<IA8JPEG>(Kernel::MakeCounted<TestOutStream>(), 70000, 65501);
    EXPECT_EQ(65500, model->GetWidth());
    EXPECT_EQ(65500, model->GetHeight());
    auto const stream = Kernel::MakeCounted<TestOutStream>();
    auto const wide = MakeModel<IA8JPEG>(stream, 70000, 1);
    {
        Writer<IA8JPEG> writer(wide.Get());
        writer.SetToXY(0, 0);
        for (int x = 0; x < 70000; ++x, writer.Increment()) {
            IA8JPEG::PixelType pixel{{static_cast<std::uint8_t>(x / 300), 255}};
            writer.Write(pixel);
        }
    }
    EXPECT_EQ(65500, AskLibjpeg(stream->bytes).width);
    EXPECT_EQ(0, MakeModel<IA8JPEG>(Kernel::MakeCounted<TestOutStream>(), -5, -6)->GetWidth());
}

TEST(JPEGWrite, IgnoresPixelsOutsideAndDropsRowsBelow) {
    auto const pixels = MakePixels<RGBA8JPEG>(20, 10);
    auto const stream = Kernel::MakeCounted<TestOutStream>();
    auto const model = MakeModel<RGBA8JPEG>(stream, 20, 10);
    {
        Writer<RGBA8JPEG> writer(model.Get());
        for (int y = 0; y < 14; ++y) {
            writer.SetToXY(-3, y);
            for (int x = -3; x < 30; ++x, writer.Increment()) {
                bool const isInside = x >= 0 && x < 20 && y < 10;
                auto pixel = isInside ? pixels[std::size_t(y * 20 + x)] : RGBA8JPEG::PixelType{{255, 0, 255, 0}};
                writer.Write(pixel);
            }
        }
    }
    EXPECT_EQ(WriteFile<RGBA8JPEG>(pixels, 20, 10), stream->bytes);
}

TEST(JPEGWrite, LeavesAFileWithTooFewRowsUnfinished) {
    auto const stream = Kernel::MakeCounted<TestOutStream>();
    auto const model = MakeModel<RGBA8JPEG>(stream, 20, 30);
    {
        Writer<RGBA8JPEG> writer(model.Get());
        WritePixels<RGBA8JPEG>(writer, MakePixels<RGBA8JPEG>(20, 10), 20, 10);
    }
    EXPECT_TRUE(model->HasFailed());
    EXPECT_THAT(model->GetFailure(), HasSubstr("rows are missing"));
}

TEST(JPEGWrite, KeepsTheProfile) {
    auto & manager = ICCManager::GetInstance();
    for (auto const & profile :
         {manager.GetDefaultProfile(ColourSpaceRGB), manager.GetDefaultProfile(ColourSpaceLAB)}) {
        ExportOptions options;
        options.SetICCProfile(profile);
        auto const model = Open<RGBA8JPEG>(WriteRGB(4, 4, options));
        EXPECT_FALSE(model->IsProfileFallback());
        EXPECT_EQ(profile, model->GetProfile());
    }
    ExportOptions options;
    options.SetICCProfile(manager.GetDefaultProfile(ColourSpaceRGB));
    auto const asked = MakeModel<RGBA8JPEG>(Kernel::MakeCounted<TestOutStream>(), 1, 1, options);
    EXPECT_EQ(options.GetICCProfile(), asked->GetProfile());
    EXPECT_FALSE(asked->IsProfileFallback());
}

TEST(JPEGWrite, KeepsImageResourceBlocks) {
    for (std::size_t const size : {1u, 65519u, 65520u, 200000u}) {
        auto const stream = Kernel::MakeCounted<TestOutStream>();
        auto const model = MakeModel<RGBA8JPEG>(stream, 4, 4);
        JPEGBytes blocks(size);
        for (std::size_t i = 0; i < size; ++i)
            blocks[i] = static_cast<std::uint8_t>(i * 7 + i / 256);
        model->SetImageResourceBlocksData(Kernel::MakeCounted<JPEGBase::ImageResourceBlocks>(
            JPEGBase::ImageResourceBlocks::CreateCopy(blocks.data(), blocks.size())));
        {
            Writer<RGBA8JPEG> writer(model.Get());
            WritePixels<RGBA8JPEG>(writer, MakePixels<RGBA8JPEG>(4, 4), 4, 4);
        }
        EXPECT_EQ((size + 65518) / 65519, AskLibjpeg(stream->bytes).segments.size());
        auto const back = Open<RGBA8JPEG>(stream->bytes)->GetImageResourceBlocksData();
        ASSERT_TRUE(back);
        EXPECT_EQ(blocks, JPEGBytes(back->GetData(), back->GetData() + back->GetSize()));
    }
}

/// The file of a picture of one pixel with these bytes as its profile.
JPEGBytes WriteProfile(JPEGBytes const & profile) {
    auto const stream = Kernel::MakeCounted<TestOutStream>();
    JPEGWriter writer(stream, 1, 1, 1, {});
    writer.Begin(profile, {});
    unsigned char row = 0;
    writer.WriteRow(&row);
    writer.Finish();
    return stream->bytes;
}

TEST(JPEGWrite, CutsProfilesIntoChunks) {
    struct Case {
        std::size_t size, chunks;
    };
    for (auto const & [size, chunks] :
         {Case{1, 1}, {65519, 1}, {65520, 2}, {131038, 2}, {131039, 3}, {255 * 65519, 255}}) {
        JPEGBytes profile(size);
        for (std::size_t i = 0; i < size; ++i)
            profile[i] = static_cast<std::uint8_t>(i * 31 + i / 65519);
        auto const answer = AskLibjpeg(WriteProfile(profile));
        ASSERT_EQ(chunks, answer.segments.size());
        JPEGMetadata metadata;
        for (std::size_t i = 0; i < chunks; ++i) {
            auto const & segment = answer.segments[i];
            EXPECT_EQ(i + 1, segment.data[12]);
            EXPECT_EQ(chunks, segment.data[13]);
            EXPECT_EQ(i + 1 < chunks ? 65533 : 14 + size - (chunks - 1) * 65519, segment.data.size());
            metadata.TakeSegment(segment.marker, segment.data);
        }
        EXPECT_TRUE(profile == metadata.GetProfile()) << size;
    }
}

TEST(JPEGWrite, LeavesOutAProfileThatHasNoRoom) {
    TraceCapture traces;
    auto const answer = AskLibjpeg(WriteProfile(JPEGBytes(255 * 65519 + 1)));
    EXPECT_TRUE(answer.hasPixels);
    EXPECT_TRUE(answer.segments.empty());
    auto const messages = traces.Take();
    ASSERT_EQ(1u, messages.size());
    EXPECT_THAT(messages[0], HasSubstr("16707346 bytes is too large"));
}

TEST(JPEGWrite, ThrowsWhereTheStreamTakesNoMore) {
    auto const whole = WriteRGB(300, 100).size();
    ASSERT_GT(whole, 16384u);
    for (bool const throws : {false, true})
        for (std::uint64_t room = 0; room < whole; room += 3000) {
            auto const stream = Kernel::MakeCounted<TestOutStream>();
            stream->room = room;
            stream->throws = throws;
            auto const model = MakeModel<RGBA8JPEG>(stream, 300, 100);
            auto const write = [&] {
                Writer<RGBA8JPEG> writer(model.Get());
                WritePixels<RGBA8JPEG>(writer, MakePixels<RGBA8JPEG>(300, 100), 300, 100);
                writer.Finish();
            };
            if (throws)
                EXPECT_THROW(write(), StreamBroke) << room;
            else
                EXPECT_THROW(write(), JPEGError) << room;
            EXPECT_TRUE(model->HasFailed()) << room;
            EXPECT_EQ(1u, stream->GetCount()) << "the model lets go of its stream";
        }
}

TEST(JPEGWrite, ThrowsWhereTheStreamFailsAtItsEnd) {
    auto const stream = Kernel::MakeCounted<TestOutStream>();
    stream->failsToFlush = true;
    auto const model = MakeModel<RGBA8JPEG>(stream, 4, 4);
    Writer<RGBA8JPEG> writer(model.Get());
    WritePixels<RGBA8JPEG>(writer, MakePixels<RGBA8JPEG>(4, 4), 4, 4);
    EXPECT_THROW(writer.Finish(), Kernel::OutStream::WriteException);
    EXPECT_TRUE(model->HasFailed());
}

TEST(JPEGWrite, StopsAProgressiveFileWhileItIsFinished) {
    ExportOptions options;
    options.SetProgressive(true);
    auto const stream = Kernel::MakeCounted<TestOutStream>();
    auto const model = MakeModel<RGBA8JPEG>(stream, 200, 200, options);
    bool abort = false;
    model->SetAbort(&abort);
    {
        Writer<RGBA8JPEG> writer(model.Get());
        WritePixels<RGBA8JPEG>(writer, MakePixels<RGBA8JPEG>(200, 200), 200, 200);
        abort = true;
        writer.Finish(); // throws nothing
    }
    EXPECT_TRUE(model->HasFailed());
    EXPECT_EQ("JPEG: stopped on request", model->GetFailure());
    EXPECT_LT(stream->bytes.size(), WriteRGB(200, 200, options).size() / 4);
}

TEST(JPEGWrite, StaysUnfinishedWhenItIsAbandoned) {
    auto const stream = Kernel::MakeCounted<TestOutStream>();
    auto const model = MakeModel<RGBA8JPEG>(stream, 40, 40);
    try {
        Writer<RGBA8JPEG> writer(model.Get());
        throw StreamBroke();
    } catch (StreamBroke const &) {
    }
    EXPECT_TRUE(model->HasFailed());
    EXPECT_FALSE(AskLibjpeg(stream->bytes).hasPixels);
}

TEST(JPEGWrite, TakesNoStreamAndNoSize) {
    auto const model = MakeModel<RGBA8JPEG>(nullptr, 40, 40);
    EXPECT_EQ(0, model->GetWidth());
    EXPECT_EQ(0, model->GetHeight());
    EXPECT_FALSE(model->GetProfile());
    {
        Writer<RGBA8JPEG> writer(model.Get());
        RGBA8JPEG::PixelType pixel{};
        writer.SetToXY(0, 0);
        writer.Write(pixel);
    }
    auto const empty = MakeModel<RGBA8JPEG>(Kernel::MakeCounted<TestOutStream>(), 0, 5);
    EXPECT_THROW(Writer<RGBA8JPEG>(empty.Get()), JPEGError);
    EXPECT_TRUE(empty->HasFailed());
}
}
}
