#include "files/FaultyStreams.h"
#include "files/PNGTesting.h"

#include "analysis/DynamicPalette.h"
#include "colour/ICCManager.h"
#include "kernel/TemporaryDirectory.h"
#include "kernel/TraceCapture.h"

#include <initializer_list>
#include <limits>
#include <string_view>

namespace Raster {
namespace {
using IndexPNG = PNG<Index8>;
using ColourPNG = PNGOf<RGBA8Tuple>;
constexpr std::uint64_t noLimit = std::numeric_limits<std::uint32_t>::max();

DynamicPixel Colour(unsigned red, unsigned green, unsigned blue) {
    return PixelOf<RGBA8Tuple>{std::uint8_t(red), std::uint8_t(green), std::uint8_t(blue), 255};
}

// What a channel of the pattern looks like in the file; -1 is full.
template<class Typed>
void ExpectPattern(FileBytes const & bytes, std::vector<int> const & channels) {
    auto const answer = AskLibpng(bytes);
    ASSERT_TRUE(answer.hasPixels);
    ASSERT_EQ(static_cast<int>(channels.size()), answer.channels);
    unsigned const mask = Typed::Tuple::sampleSize == 2 ? 0xFFFF : 0xFF;
    ASSERT_EQ(Typed::Tuple::sampleSize * 8, answer.depth);
    for (int y = 0; y < static_cast<int>(answer.height); ++y)
        for (int x = 0; x < static_cast<int>(answer.width); ++x)
            for (int channel = 0; channel < answer.channels; ++channel)
                ASSERT_EQ(PatternAt(x, y, channels[static_cast<std::size_t>(channel)]) & mask,
                          ExpectedSample(answer, x, y, channel))
                    << x << ", " << y << ", channel " << channel;
}

template<class Tuple>
void TestFormat(std::vector<int> const & withAlpha, std::vector<int> const & withoutAlpha, int colourType,
                int nonAlphaColourType) {
    SCOPED_TRACE("format " + std::to_string(formatOf<Tuple>));
    using Typed = PNGOf<Tuple>;
    for (auto const & [width, height] : {std::pair(1, 1), {7, 5}, {129, 3}}) {
        ExportOptions options;
        auto const bytes = MakePatternFile<Typed>(width, height, options);
        EXPECT_EQ(colourType, AskLibpng(bytes).fileColourType);
        ExpectPattern<Typed>(bytes, withAlpha);
        options.SetAlpha(false);
        auto const opaque = MakePatternFile<Typed>(width, height, options);
        EXPECT_EQ(nonAlphaColourType, AskLibpng(opaque).fileColourType);
        ExpectPattern<Typed>(opaque, withoutAlpha);
        DynamicPNG png;
        ASSERT_TRUE(png.CreateFromStream(StreamOver(bytes)));
        ExpectPixels(AskLibpng(bytes), png, "read back");
    }
}

TEST(PNGWrite, EveryFormatComesBack) {
    TestFormat<RGBA8Tuple>({0, 1, 2, 3}, {0, 1, 2}, PNG_COLOR_TYPE_RGB_ALPHA, PNG_COLOR_TYPE_RGB);
    TestFormat<RGBA16Tuple>({0, 1, 2, 3}, {0, 1, 2}, PNG_COLOR_TYPE_RGB_ALPHA, PNG_COLOR_TYPE_RGB);
    TestFormat<IA8Tuple>({0, 1}, {0}, PNG_COLOR_TYPE_GRAY_ALPHA, PNG_COLOR_TYPE_GRAY);
    TestFormat<IA16Tuple>({0, 1}, {0}, PNG_COLOR_TYPE_GRAY_ALPHA, PNG_COLOR_TYPE_GRAY);
    TestFormat<A8Tuple>({0}, {0}, PNG_COLOR_TYPE_GRAY, PNG_COLOR_TYPE_GRAY);
    TestFormat<A16Tuple>({0}, {0}, PNG_COLOR_TYPE_GRAY, PNG_COLOR_TYPE_GRAY);
}

template<class Tuple>
void TestRuns() {
    using Typed = PNGOf<Tuple>;
    using Sample = typename Tuple::Storage;
    for (bool const withAlpha : {true, false}) {
        ExportOptions options;
        options.SetAlpha(withAlpha);
        auto const stream = Kernel::MakeCounted<Kernel::MemoryOutStream>();
        Typed png(OutStreamCounted(stream), 100, 3, options);
        Writer<Typed> writer(&png);
        for (int y = 0; y < 3; ++y) {
            writer.SetToXY(0, y);
            for (int x = 0; x < 100;) {
                int const count = x == 0 ? 1 : x == 1 ? 64 : 100; // the last run is longer than what is left
                std::vector<std::vector<Sample>> samples;
                void const * rows[5] = {};
                for (int channel = 0; channel < Tuple::channelCount; ++channel) {
                    auto & row = samples.emplace_back();
                    for (int i = 0; i < count; ++i)
                        row.push_back(static_cast<Sample>(PatternAt(x + i, y, channel)));
                }
                for (std::size_t channel = 0; channel < samples.size(); ++channel)
                    rows[channel] = samples[channel].data();
                writer.WriteRow(static_cast<std::size_t>(count), rows);
                x += count;
            }
        }
        writer.Finish();
        EXPECT_EQ(MakePatternFile<Typed>(100, 3, options), stream->TakeData()) << formatOf<Tuple>;
    }
}

TEST(PNGWrite, RunsEqualSinglePixels) {
    TestRuns<RGBA8Tuple>();
    TestRuns<RGBA16Tuple>();
    TestRuns<IA8Tuple>();
    TestRuns<IA16Tuple>();
    TestRuns<A8Tuple>();
    TestRuns<A16Tuple>();
}

TEST(PNGWrite, SamePixelsAndOptionsGiveTheSameBytes) {
    ExportOptions options;
    options.SetICCProfile(ICCManager::GetInstance().GetDefaultProfile(ColourSpaceRGB));
    auto const bytes = MakePatternFile<ColourPNG>(50, 50, options);
    EXPECT_EQ(bytes, MakePatternFile<ColourPNG>(50, 50, options));
    std::string_view const content(reinterpret_cast<char const *>(bytes.data()), bytes.size());
    EXPECT_EQ(std::string_view::npos, content.find("tIME"));
}

TEST(PNGWrite, ResolutionIsStored) {
    for (auto const & [dpi, perMetre] : {std::pair(96.0, 3780u),
                                         {72.0, 2835u},
                                         {300.0, 11811u},
                                         {72.5, 2854u},
                                         {0.0, 0u},
                                         {-5.0, 0u},
                                         {1e300, 0x7FFFFFFFu}}) {
        ExportOptions options;
        options.SetDPI(dpi);
        EXPECT_EQ(perMetre, AskLibpng(MakePatternFile<ColourPNG>(2, 2, options)).pixelsPerMetre) << dpi;
    }
    ExportOptions options;
    options.SetDPI(std::numeric_limits<double>::quiet_NaN());
    EXPECT_EQ(0u, AskLibpng(MakePatternFile<ColourPNG>(2, 2, options)).pixelsPerMetre);
    options.SetDPI(150);
    auto const bytes = MakePatternFile<ColourPNG>(2, 2, options);
    EXPECT_EQ(150.0, ColourPNG(StreamOver(bytes)).GetDPI());
}

TEST(PNGWrite, TheProfileComesBack) {
    auto & manager = ICCManager::GetInstance();
    for (auto const space : {ColourSpaceRGB, ColourSpaceGrey}) {
        ExportOptions options;
        options.SetICCProfile(manager.GetDefaultProfile(space));
        auto const bytes = space == ColourSpaceRGB ? MakePatternFile<PNGOf<RGBA16Tuple>>(2, 2, options)
                                                   : MakePatternFile<PNGOf<IA8Tuple>>(2, 2, options);
        DynamicPNG png;
        ASSERT_TRUE(png.CreateFromStream(StreamOver(bytes)));
        EXPECT_EQ(manager.GetDefaultProfile(space), png.GetProfile());
        EXPECT_FALSE(png.IsProfileFallback());
    }
    EXPECT_FALSE(AskLibpng(MakePatternFile<ColourPNG>(2, 2)).hasProfile);
}

TEST(PNGWrite, AProfileThatTheCodecRefusesIsLeftOutAndTraced) {
    TraceCapture trace;
    ExportOptions options;
    options.SetICCProfile(ICCManager::GetInstance().GetDefaultProfile(ColourSpaceGrey)); // grey on colours
    auto const bytes = MakePatternFile<ColourPNG>(5, 5, options);
    EXPECT_FALSE(AskLibpng(bytes).hasProfile);
    ExpectPattern<ColourPNG>(bytes, {0, 1, 2, 3});
    bool isTraced = false;
    for (auto const & message : trace.Take())
        isTraced = isTraced || message.find("without the profile") != std::string::npos;
    EXPECT_TRUE(isTraced);
}

TEST(PNGWrite, SidesAreCutTo32767) {
    auto const stream = Kernel::MakeCounted<Kernel::MemoryOutStream>();
    PNGOf<A8Tuple> png(OutStreamCounted(stream), 40000, 2, ExportOptions());
    EXPECT_EQ(32767, png.GetWidth());
    {
        Writer<PNGOf<A8Tuple>> writer(&png);
        for (int y = 0; y < 2; ++y) {
            writer.SetToXY(0, y);
            for (int x = 0; x < 40000; ++x, writer.Increment()) {
                PixelOf<A8Tuple> pixel = {std::uint8_t(x % 251)};
                writer.Write(pixel);
            }
        }
    }
    auto const answer = AskLibpng(stream->TakeData());
    ASSERT_TRUE(answer.hasPixels);
    EXPECT_EQ(32767u, answer.width);
    EXPECT_EQ(32766u % 251, SampleAt(answer, 1, 32766));

    PNGOf<A8Tuple> const tall(OutStreamCounted(stream), 1, std::numeric_limits<int>::max(), ExportOptions());
    EXPECT_EQ(32767, tall.GetHeight());
    PNGOf<A8Tuple> const negative(OutStreamCounted(stream), -1, -1, ExportOptions());
    EXPECT_EQ(0, negative.GetWidth());
    EXPECT_EQ(0, negative.GetHeight());
}

TEST(PNGWrite, TheTallestFileIsWhole) {
    auto const bytes = MakePatternFile<PNGOf<A8Tuple>>(1, 40000);
    auto const answer = AskLibpng(bytes);
    EXPECT_TRUE(answer.hasPixels);
    EXPECT_EQ(32767u, answer.height);
    EXPECT_EQ(PatternAt(0, 32766, 0) & 0xFF, SampleAt(answer, 32766, 0));
}

TEST(PNGWrite, WhatLiesOutsideIsIgnored) {
    auto const stream = Kernel::MakeCounted<Kernel::MemoryOutStream>();
    ColourPNG png(OutStreamCounted(stream), 3, 2, ExportOptions());
    {
        Writer<ColourPNG> writer(&png);
        for (int y = 0; y < 5; ++y) { // three rows too many
            writer.SetToXY(-2, y);
            for (int x = -2; x < 9; ++x, writer.Increment()) {
                auto pixel = PatternPixel<ColourPNG::PixelType>(x, y);
                writer.Write(pixel);
            }
        }
    }
    EXPECT_FALSE(png.HasFailed());
    EXPECT_EQ(MakePatternFile<ColourPNG>(3, 2), stream->TakeData());
}

// The first colour is black so that the file can be compared by its indices.
template<class Make>
FileBytes WriteIndices(int width, int height, DynamicPalette const & palette, Make && index) {
    ExportOptions options;
    options.SetPalette(&palette);
    auto const stream = Kernel::MakeCounted<Kernel::MemoryOutStream>();
    IndexPNG png(OutStreamCounted(stream), width, height, options);
    Writer<IndexPNG> writer(&png);
    for (int y = 0; y < height; ++y) {
        writer.SetToXY(0, y);
        for (int x = 0; x < width; ++x, writer.Increment()) {
            IndexPNG::PixelType pixel = {std::uint8_t(index(x, y))};
            writer.Write(pixel);
        }
    }
    writer.Finish();
    return stream->TakeData();
}

TEST(PNGWrite, PalettesOfEveryDepthComeBack) {
    for (int const count : {1, 2, 3, 4, 5, 16, 17, 255, 256})
        for (int const width : {1, 2, 3, 7, 8, 9, 16, 17, 31})
            for (int const transparent : {-1, 0, count - 1}) {
                DynamicPalette palette;
                for (int i = 0; i < count; ++i)
                    palette.AddColour(Colour(unsigned(i * 3), unsigned(i * 7 + 1), unsigned(255 - i)),
                                      i == transparent);
                auto const index = [&](int x, int y) { return (x * 5 + y * 3) % count; };
                auto const answer = AskLibpng(WriteIndices(width, 3, palette, index));
                ASSERT_TRUE(answer.hasPixels);
                EXPECT_EQ(PNG_COLOR_TYPE_PALETTE, answer.fileColourType);
                EXPECT_EQ(palette.GetBitDepth(), answer.fileDepth) << count;
                ASSERT_EQ(transparent < 0 ? 3 : 4, answer.channels);
                for (int y = 0; y < 3; ++y)
                    for (int x = 0; x < width; ++x) {
                        unsigned const i = unsigned(index(x, y));
                        EXPECT_EQ((i * 3) & 0xFF, ExpectedSample(answer, x, y, 0));
                        EXPECT_EQ((i * 7 + 1) & 0xFF, ExpectedSample(answer, x, y, 1));
                        EXPECT_EQ(255 - i, ExpectedSample(answer, x, y, 2));
                        EXPECT_EQ(int(i) == transparent ? 0u : 255u, ExpectedSample(answer, x, y, 3))
                            << count << " colours, index " << i;
                    }
            }
}

TEST(PNGWrite, GreyRampsAreGreyAtEightBitsAndPalettesBelow) {
    for (int const count : {2, 4, 16, 17, 100, 255, 256})
        for (bool const isTransparent : {false, true}) {
            DynamicPalette palette;
            for (int i = 0; i < count; ++i) {
                auto const grey = unsigned(i * 255 / (count - 1));
                palette.AddColour(Colour(grey, grey, grey), isTransparent && i == 1);
            }
            ASSERT_TRUE(palette.IsGreyScale());
            auto const answer = AskLibpng(WriteIndices(300, 2, palette, [&](int x, int) { return x % count; }));
            ASSERT_TRUE(answer.hasPixels);
            EXPECT_EQ(count > 16 ? PNG_COLOR_TYPE_GRAY : PNG_COLOR_TYPE_PALETTE, answer.fileColourType) << count;
            EXPECT_EQ(palette.GetBitDepth(), answer.fileDepth) << count;
            for (int x = 0; x < 300; ++x) {
                int const i = x % count;
                EXPECT_EQ(unsigned(i * 255 / (count - 1)), ExpectedSample(answer, x, 1, 0)) << count << ", index " << i;
                EXPECT_EQ(isTransparent && i == 1 ? 0u : 255u,
                          answer.channels % 2 == 0 ? ExpectedSample(answer, x, 1, answer.channels - 1) : 255u)
                    << count << ", index " << i;
            }
        }
}

TEST(PNGWrite, IndicesAreMaskedToTheDepth) {
    DynamicPalette palette;
    for (unsigned i = 0; i < 4; ++i)
        palette.AddColour(Colour(i, 0, 0), false);
    auto const answer = AskLibpng(WriteIndices(256, 1, palette, [](int x, int) { return x; }));
    ASSERT_TRUE(answer.hasPixels);
    for (int x = 0; x < 256; ++x)
        EXPECT_EQ(unsigned(x) & 3, ExpectedSample(answer, x, 0, 0)) << x;
}

TEST(PNGWrite, WithoutASoundPaletteIndicesFail) {
    DynamicPalette const empty;
    DynamicPalette large;
    for (unsigned i = 0; i < 257; ++i)
        large.AddColour(Colour(i & 255, i & 1, 0), false);
    for (DynamicPalette const * palette : std::initializer_list<DynamicPalette const *>{nullptr, &empty, &large}) {
        ExportOptions options;
        options.SetPalette(palette);
        IndexPNG png(OutStreamCounted(Kernel::MakeCounted<Kernel::MemoryOutStream>()), 2, 2, options);
        EXPECT_THROW(Writer<IndexPNG>{&png}, PNGError);
        EXPECT_TRUE(png.HasFailed());
        EXPECT_NE("", png.GetFailure());
    }
}

TEST(PNGWrite, TuplesWithoutAColourTypeFail) {
    auto const stream = Kernel::MakeCounted<Kernel::MemoryOutStream>();
    PNGOf<CMYKA8Tuple> ink(OutStreamCounted(stream), 2, 2, ExportOptions());
    EXPECT_THROW(Writer<PNGOf<CMYKA8Tuple>>{&ink}, PNGError);
    PNGOf<RGBAUFTuple> light(OutStreamCounted(stream), 2, 2, ExportOptions());
    EXPECT_THROW(Writer<PNGOf<RGBAUFTuple>>{&light}, PNGError);
    EXPECT_EQ(0u, stream->GetSize());
}

TEST(PNGWrite, AnEmptyPictureFails) {
    for (auto const & [width, height] : {std::pair(0, 5), {5, 0}, {-3, 5}}) {
        ColourPNG png(OutStreamCounted(Kernel::MakeCounted<Kernel::MemoryOutStream>()), width, height, ExportOptions());
        EXPECT_THROW(Writer<ColourPNG>{&png}, PNGError);
        EXPECT_TRUE(png.HasFailed());
        EXPECT_NE(std::string::npos, png.GetFailure().find("IHDR")) << png.GetFailure();
    }
}

TEST(PNGWrite, AModelIsWrittenOnce) {
    auto const stream = Kernel::MakeCounted<Kernel::MemoryOutStream>();
    ColourPNG png(OutStreamCounted(stream), 2, 2, ExportOptions());
    WritePattern(png);
    auto const size = stream->GetSize();
    EXPECT_THROW(Writer<ColourPNG>{&png}, PNGError);
    EXPECT_EQ(size, stream->GetSize());
    auto const bytes = MakePatternFile<ColourPNG>(2, 2);
    ColourPNG reading(StreamOver(bytes));
    EXPECT_THROW(Writer<ColourPNG>{&reading}, PNGError);
}

TEST(PNGWrite, RowsThatAreMissingFail) {
    ColourPNG png(OutStreamCounted(Kernel::MakeCounted<Kernel::MemoryOutStream>()), 2, 5, ExportOptions());
    Writer<ColourPNG> writer(&png);
    writer.SetToXY(0, 0);
    writer.SetToXY(0, 1);
    EXPECT_THROW(writer.Finish(), PNGError);
    EXPECT_TRUE(png.HasFailed());
}

TEST(PNGWrite, AnAbandonedFileHasFailed) {
    ColourPNG png(OutStreamCounted(Kernel::MakeCounted<Kernel::MemoryOutStream>()), 2, 5, ExportOptions());
    Writer<ColourPNG> writer(&png);
    writer.SetToXY(0, 0);
    writer.Abandon();
    EXPECT_TRUE(png.HasFailed());
}

TEST(PNGWrite, UnwindingLeavesTheFileUnfinished) {
    auto const stream = Kernel::MakeCounted<FaultyOutStream>(noLimit, Fault::Short);
    ColourPNG png{OutStreamCounted(stream), 2, 5, ExportOptions()};
    try {
        Writer<ColourPNG> writer(&png);
        throw 1;
    } catch (int) {
    }
    EXPECT_TRUE(png.HasFailed());
    EXPECT_FALSE(AskLibpng(stream->bytes).hasPixels);
}

// Tries a disk that is full, and one that breaks, at every byte.
TEST(PNGWrite, AStreamThatFailsAnywhereFailsTheWriter) {
    ExportOptions options;
    options.SetICCProfile(ICCManager::GetInstance().GetDefaultProfile(ColourSpaceRGB));
    auto const whole = MakePatternFile<ColourPNG>(30, 20, options);
    for (std::size_t limit = 0; limit < whole.size(); ++limit)
        for (auto const fault : {Fault::Short, Fault::Throw}) {
            auto const stream = Kernel::MakeCounted<FaultyOutStream>(limit, fault);
            ColourPNG png{OutStreamCounted(stream), 30, 20, options};
            if (fault == Fault::Throw)
                EXPECT_THROW(WritePattern(png), StreamFault) << limit;
            else
                EXPECT_THROW(WritePattern(png), Kernel::OutStream::WriteException) << limit;
            EXPECT_TRUE(png.HasFailed()) << limit;
            EXPECT_NE("", png.GetFailure());
        }
    auto const stream = Kernel::MakeCounted<FaultyOutStream>(whole.size(), Fault::Throw);
    ColourPNG png{OutStreamCounted(stream), 30, 20, options};
    WritePattern(png);
    EXPECT_FALSE(png.HasFailed());
    EXPECT_EQ(whole, stream->bytes);
    EXPECT_EQ(0, stream->finishCount) << "the stream is the caller's";
}

TEST(PNGWrite, BytesThatDoNotArriveFailTheWriter) {
    auto const stream = Kernel::MakeCounted<FaultyOutStream>(noLimit, Fault::Short);
    stream->flushFails = true;
    ColourPNG png{OutStreamCounted(stream), 3, 3, ExportOptions()};
    EXPECT_THROW(WritePattern(png), Kernel::OutStream::WriteException);
    EXPECT_TRUE(png.HasFailed());
}

TEST(PNGWrite, PathsAndBytesAreCompleteWhenTheAccessorIsGone) {
    TemporaryDirectory const directory;
    auto const path = directory.GetPath("picture.png");
    auto const data = Kernel::MakeCounted<CompressedRasterData>();
    ColourPNG toPath(path.c_str(), 5, 5, ExportOptions()), toData(data, 5, 5, ExportOptions());
    WritePattern(toPath);
    WritePattern(toData);
    auto const expected = MakePatternFile<ColourPNG>(5, 5);
    auto const file = GetFile(path);
    EXPECT_EQ(expected, FileBytes(file.begin(), file.end()));
    ASSERT_EQ(expected.size(), data->GetSize());
    EXPECT_EQ(expected, FileBytes(data->GetData(), data->GetData() + data->GetSize()));
    ColourPNG nowhere(directory.GetPath("absent/picture.png").c_str(), 5, 5, ExportOptions());
    EXPECT_TRUE(nowhere.HasFailed());
    EXPECT_THROW(Writer<ColourPNG>{&nowhere}, PNGError);
}

TEST(PNGWrite, TheWrapperTakesSixFormats) {
    TemporaryDirectory const directory;
    auto const path = directory.GetPath("picture.png");
    for (unsigned number = 0; number <= formatCount; ++number) {
        auto const format = static_cast<Format>(number);
        bool const isWritten =
            format == RGBA8 || format == RGBA16 || format == IA8 || format == IA16 || format == A8 || format == A16;
        auto const stream = Kernel::MakeCounted<Kernel::MemoryOutStream>();
        auto const data = Kernel::MakeCounted<CompressedRasterData>();
        DynamicPNG png;
        EXPECT_EQ(isWritten, png.CreateToStream(stream, 4, 3, ExportOptions(), format)) << number;
        EXPECT_EQ(isWritten ? format : NoFormat, png.GetFormat());
        EXPECT_EQ(isWritten ? 4 : 0, png.GetWidth());
        EXPECT_EQ(isWritten ? 96.0 : 0.0, png.GetDPI());
        EXPECT_EQ(!isWritten, png.HasFailed());
        EXPECT_EQ(isWritten, png.Create(data, 4, 3, ExportOptions(), format));
        EXPECT_EQ(isWritten, png.Create(path.c_str(), 4, 3, ExportOptions(), format));
    }
}

TEST(PNGWrite, AWrapperThatGetsNoModelStaysAsItWas) {
    TemporaryDirectory const directory;
    DynamicPNG png;
    ASSERT_TRUE(png.CreateToStream(Kernel::MakeCounted<Kernel::MemoryOutStream>(), 4, 3, ExportOptions(), IA8));
    EXPECT_FALSE(png.CreateToStream(nullptr, 9, 9, ExportOptions(), RGBA8));
    EXPECT_FALSE(png.Create(Kernel::Counted<CompressedRasterData>(), 9, 9, ExportOptions(), RGBA8));
    EXPECT_FALSE(png.Create(static_cast<char const *>(nullptr), 9, 9, ExportOptions(), RGBA8));
    EXPECT_FALSE(png.Create(directory.GetPath("absent/picture.png").c_str(), 9, 9, ExportOptions(), RGBA8));
    EXPECT_NE("", png.GetFailure());
    EXPECT_EQ(IA8, png.GetFormat());
    EXPECT_EQ(4, png.GetWidth());
}

TEST(PNGWrite, SupportedFormatsAreTheNearest) {
    Format const expected[] = {RGBA8, RGBA16, IA8, IA16, RGBA8, RGBA16, A8, A16, RGBA8, RGBA16, A16, NoFormat};
    for (unsigned number = 0; number <= formatCount; ++number) {
        auto const format = static_cast<Format>(number);
        EXPECT_EQ(expected[number], DynamicPNG::GetSupportedFormat(format)) << number;
        EXPECT_EQ(expected[number] == format && format != NoFormat, DynamicPNG::IsSupportedFormat(format)) << number;
    }
}
}
}
