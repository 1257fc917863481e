#include "colour/ICCManager.h"
#include "files/JPEGTesting.h"
#include "files/jpeg/DynamicJPEG.h"
#include "kernel/TraceCapture.h"
#include "pixel/Conversion.h"
#include "pixel/MemoryManager.h"
#include "pixel/PixelMemory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

namespace Raster {
namespace {
using testing::HasSubstr;

struct Size {
    int width, height;
};

Format FormatOf(JPEGAnswer const & answer) {
    return answer.components == 1 ? IA8 : answer.components == 4 ? CMYKA8 : RGBA8;
}

JPEGBytes ReadAny(DynamicJPEG const & file, bool * abort = nullptr) {
    switch (file.GetFormat()) {
    case RGBA8:
        return ReadPixels(*file.GetTyped<RGBA8Tuple>(), abort);
    case IA8:
        return ReadPixels(*file.GetTyped<IA8Tuple>(), abort);
    case CMYKA8:
        return ReadPixels(*file.GetTyped<CMYKA8Tuple>(), abort);
    default:
        return {};
    }
}

std::string NameOf(JPEGRecipe const & recipe) {
    return std::to_string(recipe.inSpace) + " as " + std::to_string(recipe.fileSpace) + ", sampling " +
           std::to_string(recipe.horizontalSampling) + (recipe.isProgressive ? ", progressive" : "") +
           (recipe.isArithmetic ? ", arithmetic" : "") + (recipe.restartInterval ? ", restarts" : "");
}

JPEGBytes MakeLarge(bool isProgressive) {
    JPEGRecipe recipe;
    recipe.width = 400;
    recipe.height = 600;
    recipe.isProgressive = isProgressive;
    return MakeJPEG(recipe);
}

TEST(JPEGRead, GivesThePixelsOfTheCodecForEveryKind) {
    for (auto const [width, height] : {Size{1, 1}, Size{7, 5}, Size{33, 70}})
        for (auto const & recipe : MakeEveryKindOfJPEG(width, height)) {
            auto const bytes = MakeJPEG(recipe);
            auto const answer = AskLibjpeg(bytes);
            ASSERT_TRUE(answer.hasPixels);
            DynamicJPEG file;
            ASSERT_TRUE(file.CreateFromStream(StreamOf(bytes)));
            EXPECT_EQ(FormatOf(answer), file.GetFormat()) << NameOf(recipe);
            EXPECT_EQ(FormatOf(answer), GetJPEGFormat(StreamOf(bytes)));
            EXPECT_EQ(width, file.GetWidth());
            EXPECT_EQ(height, file.GetHeight());
            EXPECT_EQ(AddAlpha(answer), ReadAny(file)) << NameOf(recipe) << ' ' << width << 'x' << height;
            EXPECT_FALSE(file.HasFailed());
            EXPECT_FALSE(file.EndedEarly());
            EXPECT_EQ(0u, file.GetWarningCount());
        }
}

TEST(JPEGRead, StartsWhereTheStreamStands) {
    JPEGRecipe recipe;
    recipe.width = recipe.height = 9;
    auto const bytes = MakeJPEG(recipe);
    auto const stream = StreamOf(Join({JPEGBytes(77, 1), bytes}));
    stream->Seek(Kernel::SeekOrigin::Start, 77);
    DynamicJPEG file;
    ASSERT_TRUE(file.CreateFromStream(stream));
    stream->Seek(Kernel::SeekOrigin::Start, 3); // it comes back by itself
    EXPECT_EQ(AddAlpha(AskLibjpeg(bytes)), ReadAny(file));
}

template<class Extend, class Transform>
void ExpectWorks(RGBA8JPEG const & model, typename Transform::Params params, int x, int y, int atX, int atY,
                 JPEGAnswer const & answer) {
    typename RGBA8JPEG::ConstPixelAccessor<Extend, Transform> reader(&model, &params, nullptr, false);
    reader.SetToXY(x, y);
    RGBA8JPEG::PixelType pixel{};
    reader.Read(pixel);
    auto const * const expected = answer.At(atX, atY);
    EXPECT_EQ((RGBA8JPEG::PixelType{{expected[0], expected[1], expected[2], 255}}), pixel)
        << x << ',' << y << " shows " << atX << ',' << atY;
}

TEST(JPEGRead, HasEveryAccessor) {
    JPEGRecipe recipe;
    recipe.width = 40;
    recipe.height = 30;
    auto const bytes = MakeJPEG(recipe);
    auto const answer = AskLibjpeg(bytes);
    auto const model = Open<RGBA8JPEG>(bytes);
    ExpectWorks<Repeat, IdentityTransform>(*model, {}, -5, 100, 0, 29, answer);
    ExpectWorks<Repeat, IdentityTransform>(*model, {}, 1000, -1, 39, 0, answer);
    ExpectWorks<Safe, IdentityTransform>(*model, {}, 39, 29, 39, 29, answer);
    ExpectWorks<Safe, TranslateTransform>(*model, {2, 3}, 5, 6, 7, 9, answer);
    ExpectWorks<Safe, ScaleTransform>(*model, {2, 3}, 5, 6, 11, 19, answer);
    ExpectWorks<Safe, IdentityScaleTransform>(*model, {2, 3}, 5, 6, 11, 19, answer);
    ExpectWorks<Safe, TranslateScaleTransform>(*model, {1, 1, 2, 3}, 5, 6, 13, 22, answer);
    ExpectWorks<Zero, IdentityTransform>(*model, {}, 0, 29, 0, 29, answer);
    ExpectWorks<Zero, TranslateTransform>(*model, {2, 3}, 5, 6, 7, 9, answer);
    ExpectWorks<Zero, TranslateScaleTransform>(*model, {1, 1, 2, 3}, 5, 6, 13, 22, answer);
    RGBA8JPEG::ConstPixelAccessor<Zero, IdentityTransform> reader(model.Get());
    EXPECT_EQ((Kernel::RectT<int>{0, 0, 40, 30}), reader.GetSafeRect());
    RGBA8JPEG::PixelType pixel{{1, 2, 3, 4}};
    reader.SetToXY(40, 0);
    reader.Read(pixel);
    EXPECT_EQ(RGBA8JPEG::PixelType{}, pixel) << "outside, alpha too";
}

template<class Tuple>
void ExpectSpansAndRowsEqualPixels(JPEGBytes const & bytes) {
    using Model = typename Tuple::template Apply<JPEG>;
    auto const model = Open<Model>(bytes);
    int const width = model->GetWidth();
    for (int y = 0; y < model->GetHeight(); ++y) {
        std::vector<PixelOf<Tuple>> expected(static_cast<std::size_t>(width));
        IdentityReader<Model> reader(model.Get());
        reader.SetToXY(0, y);
        for (auto & pixel : expected) {
            reader.Read(pixel);
            reader.Increment();
        }
        for (int x = 0; x + spanLength <= width; x += 5) {
            PlanarPixelSpanOf<Tuple> span;
            reader.SetToXY(x, y);
            reader.SpanRead(span);
            for (int i = 0; i < spanLength; ++i)
                for (int channel = 0; channel < Tuple::channelCount; ++channel)
                    ASSERT_EQ(expected[std::size_t(x + i)].channels[channel], span.runs[channel][i]);
        }
        typename Model::ConstCursor cursor(model.Get(), nullptr, false);
        for (int unwanted = -1; unwanted < Tuple::channelCount; ++unwanted) {
            using Sample = typename Tuple::Storage;
            std::vector<std::vector<Sample>> samples(Tuple::channelCount,
                                                     std::vector<Sample>(std::size_t(width) + 1, Sample(77)));
            void * rows[Tuple::channelCount];
            for (int channel = 0; channel < Tuple::channelCount; ++channel)
                rows[channel] = channel == unwanted ? nullptr : samples[std::size_t(channel)].data();
            cursor.ReadRow(1, y, std::size_t(width) - 1, rows);
            for (int channel = 0; channel < Tuple::channelCount; ++channel)
                for (int i = 0; i < width + 1; ++i) {
                    bool const isGuard = i >= width - 1 || channel == unwanted;
                    ASSERT_EQ(isGuard ? Sample(77) : expected[std::size_t(i) + 1].channels[channel],
                              samples[std::size_t(channel)][std::size_t(i)])
                        << i << " of channel " << channel;
                }
        }
    }
}

TEST(JPEGRead, GivesTheSameBySpansAndRowsAsByPixels) {
    for (auto const & [inSpace, fileSpace] :
         {std::pair{JCS_GRAYSCALE, JCS_GRAYSCALE}, {JCS_RGB, JCS_YCbCr}, {JCS_CMYK, JCS_CMYK}}) {
        JPEGRecipe recipe;
        recipe.width = 301;
        recipe.height = 2;
        recipe.inSpace = inSpace;
        recipe.fileSpace = fileSpace;
        auto const bytes = MakeJPEG(recipe);
        if (inSpace == JCS_CMYK) {
            ExpectSpansAndRowsEqualPixels<CMYKA8Tuple>(bytes);
            continue;
        }
        ExpectSpansAndRowsEqualPixels<RGBA8Tuple>(bytes);
        ExpectSpansAndRowsEqualPixels<IA8Tuple>(bytes);
        ExpectSpansAndRowsEqualPixels<RGBA16Tuple>(bytes);
        ExpectSpansAndRowsEqualPixels<IA16Tuple>(bytes);
        ExpectSpansAndRowsEqualPixels<LABA16Tuple>(bytes);
        ExpectSpansAndRowsEqualPixels<A8Tuple>(bytes);
        ExpectSpansAndRowsEqualPixels<A16Tuple>(bytes);
        ExpectSpansAndRowsEqualPixels<RGBAUFTuple>(bytes);
        ExpectSpansAndRowsEqualPixels<AFTuple>(bytes);
    }
}

TEST(JPEGRead, ConvertsForTuplesThatNoFileOpensAs) {
    JPEGRecipe recipe;
    recipe.width = 20;
    recipe.height = 3;
    auto const bytes = MakeJPEG(recipe);
    auto const answer = AskLibjpeg(bytes);
    auto const model = Open<RGBA16Tuple::Apply<JPEG>>(bytes);
    IdentityReader<RGBA16Tuple::Apply<JPEG>> reader(model.Get());
    reader.SetToXY(7, 2);
    PixelOf<RGBA16Tuple> pixel;
    reader.Read(pixel);
    for (int channel = 0; channel < 3; ++channel)
        EXPECT_EQ(answer.At(7, 2)[channel] * 257, pixel.channels[channel]);
    EXPECT_EQ(65535, pixel.channels[3]);
}

TEST(JPEGRead, InvertsCMYKUnlessToldNotTo) {
    JPEGRecipe recipe;
    recipe.width = recipe.height = 12;
    recipe.inSpace = JCS_CMYK;
    for (auto const fileSpace : {JCS_CMYK, JCS_YCCK}) {
        recipe.fileSpace = fileSpace;
        auto const bytes = MakeJPEG(recipe);
        auto const answer = AskLibjpeg(bytes);
        for (bool const invert : {true, false}) {
            DynamicJPEG file;
            file.CreateFromStream(StreamOf(bytes));
            if (!invert)
                file.SetIsInvertCMYK(false);
            EXPECT_EQ(AddAlpha(answer, invert), ReadAny(file));
        }
        auto const model = Open<CMYKA8JPEG>(bytes);
        EXPECT_EQ(AddAlpha(answer, true), ReadPixels(*model));
        model->SetIsInvertCMYK(false); // also of a file that is decoded
        EXPECT_EQ(AddAlpha(answer, false), ReadPixels(*model));
        model->SetIsInvertCMYK(true);
        EXPECT_EQ(AddAlpha(answer, true), ReadPixels(*model));
    }
}

TEST(JPEGRead, TellsTheResolution) {
    struct Case {
        bool hasJFIF;
        int unit, x;
        double dpi;
    };
    for (auto const & [hasJFIF, unit, x, dpi] : {Case{true, 1, 300, 300},
                                                 {true, 1, 1, 1},
                                                 {true, 1, 65535, 65535},
                                                 {true, 2, 118, 118 / 2.54},
                                                 {true, 2, 100, 100 / 2.54},
                                                 {true, 0, 300, 72},
                                                 {true, 1, 0, 72},
                                                 {true, 2, 0, 72},
                                                 {true, 3, 50, 50},
                                                 {false, 1, 300, 72}}) {
        JPEGRecipe recipe;
        recipe.hasJFIF = hasJFIF;
        recipe.densityUnit = unit;
        recipe.densityX = x;
        recipe.densityY = 10; // nobody asks
        DynamicJPEG file;
        file.CreateFromStream(StreamOf(MakeJPEG(recipe)));
        EXPECT_EQ(dpi, file.GetDPI()) << unit << ' ' << x;
    }
    EXPECT_NEAR(46.46, 118 / 2.54, 0.005);
}

TEST(JPEGRead, TellsTheOrientationAndLeavesThePixels) {
    for (int orientation = 1; orientation <= 8; ++orientation) {
        JPEGRecipe recipe;
        recipe.width = 5;
        recipe.height = 9;
        recipe.segments = {MakeExif(orientation, orientation % 2 == 0)};
        auto const bytes = MakeJPEG(recipe);
        DynamicJPEG file;
        file.CreateFromStream(StreamOf(bytes));
        EXPECT_EQ(orientation, file.GetOrientation());
        EXPECT_EQ(5, file.GetWidth());
        EXPECT_EQ(AddAlpha(AskLibjpeg(bytes)), ReadAny(file));
    }
    EXPECT_EQ(1, DynamicJPEG().GetOrientation());
}

JPEGBytes GetProfileBytes(ColourSpace space) {
    auto const profile = ICCManager::GetInstance().GetDefaultProfile(space);
    auto const bytes = profile->GetRawData();
    return {bytes.begin(), bytes.end()};
}

std::vector<JPEGSegment> CutProfile(JPEGBytes const & profile, int count) {
    std::vector<JPEGSegment> segments;
    auto const at = [&](int i) { return profile.begin() + std::ptrdiff_t(profile.size()) * i / count; };
    for (int i = 0; i < count; ++i)
        segments.push_back(MakeProfileChunk(i + 1, count, JPEGBytes(at(i), at(i + 1))));
    return segments;
}

TEST(JPEGRead, FindsTheProfileInAnyNumberOfChunks) {
    auto const bytes = GetProfileBytes(ColourSpaceGrey);
    for (int const count : {1, 2, 17, 255}) {
        JPEGRecipe recipe;
        recipe.segments = CutProfile(bytes, count);
        std::reverse(recipe.segments.begin(), recipe.segments.end());
        DynamicJPEG file;
        file.CreateFromStream(StreamOf(MakeJPEG(recipe)));
        EXPECT_FALSE(file.IsProfileFallback());
        ASSERT_TRUE(file.GetProfile());
        auto const raw = file.GetProfile()->GetRawData();
        EXPECT_EQ(bytes, JPEGBytes(raw.begin(), raw.end())) << count;
    }
}

TEST(JPEGRead, FallsBackToTheDefaultOfRGBInEveryFormat) {
    auto const expected = ICCManager::GetInstance().GetDefaultProfileForFormat(RGBA8);
    for (auto const space : {JCS_GRAYSCALE, JCS_RGB, JCS_CMYK})
        for (bool const hasGap : {false, true}) {
            JPEGRecipe recipe;
            recipe.inSpace = recipe.fileSpace = space;
            if (hasGap) {
                recipe.segments = CutProfile(GetProfileBytes(ColourSpaceRGB), 3);
                recipe.segments.erase(recipe.segments.begin() + 1);
            }
            DynamicJPEG file;
            file.CreateFromStream(StreamOf(MakeJPEG(recipe)));
            EXPECT_TRUE(file.IsProfileFallback());
            EXPECT_EQ(expected, file.GetProfile());
        }
}

TEST(JPEGRead, TakesWhatIsMadeOfAProfileThatNobodyUnderstands) {
    JPEGRecipe recipe;
    recipe.segments = {MakeProfileChunk(1, 1, JPEGBytes(200, 9))};
    DynamicJPEG file;
    file.CreateFromStream(StreamOf(MakeJPEG(recipe)));
    EXPECT_FALSE(file.IsProfileFallback());
    EXPECT_FALSE(file.GetProfile());
    EXPECT_FALSE(file.HasFailed());
}

TEST(JPEGRead, KeepsImageResourceBlocks) {
    JPEGRecipe recipe;
    recipe.segments = {MakeResources({1, 2, 3}), MakeResources(JPEGBytes(60000, 4)), MakeResources({5})};
    auto const model = Open<RGBA8JPEG>(MakeJPEG(recipe));
    auto const blocks = model->GetImageResourceBlocksData();
    ASSERT_TRUE(blocks);
    EXPECT_EQ(Join({{1, 2, 3}, JPEGBytes(60000, 4), {5}}),
              JPEGBytes(blocks->GetData(), blocks->GetData() + blocks->GetSize()));
    recipe.segments = {MakeResources({})};
    EXPECT_FALSE(Open<RGBA8JPEG>(MakeJPEG(recipe))->GetImageResourceBlocksData());
}

TEST(JPEGRead, HandlesThousandsOfSegmentsInNoTime) {
    JPEGBytes const whole = MakeJPEG({});
    JPEGBytes segments;
    for (int i = 0; i < 300000; ++i)
        for (int const byte : {0xFF, i % 2 ? 0xE2 : 0xED, 0, 2})
            segments.push_back(static_cast<std::uint8_t>(byte));
    DynamicJPEG file;
    file.CreateFromStream(StreamOf(Join({{0xFF, 0xD8}, segments, JPEGBytes(whole.begin() + 2, whole.end())})));
    EXPECT_EQ(RGBA8, file.GetFormat()); // the time limit of the test tells
}

TEST(JPEGRead, DecodesOnceForManyThreads) {
    auto const bytes = MakeLarge(/*isProgressive=*/false);
    auto const expected = AddAlpha(AskLibjpeg(bytes));
    auto const stream = Kernel::MakeCounted<TestInStream>(bytes);
    auto const model = Kernel::MakeCounted<RGBA8JPEG>(Kernel::Counted<Kernel::InStreamSeekable>(stream));
    std::vector<JPEGBytes> pixels(6);
    {
        std::vector<std::jthread> threads;
        for (auto & own : pixels)
            threads.emplace_back([&] { own = ReadPixels(*model); });
    }
    for (auto const & own : pixels)
        EXPECT_TRUE(expected == own);
    int const before = stream->readCount;
    EXPECT_TRUE(expected == ReadPixels(*model));
    EXPECT_EQ(before, stream->readCount);
    EXPECT_EQ(1u, stream->GetCount()) << "the model lets go of its stream";
}

TEST(JPEGRead, CountsItsPixelsAsInterleavedMemory) {
    auto & manager = MemoryManager::Instance();
    auto const before = manager.GetInterleavedUsage();
    {
        auto const model = Open<RGBA8JPEG>(MakeLarge(false));
        EXPECT_EQ(before, manager.GetInterleavedUsage());
        ReadPixels(*model);
        EXPECT_EQ(before + 400 * 600 * 3, manager.GetInterleavedUsage());
    }
    EXPECT_EQ(before, manager.GetInterleavedUsage());
}

TEST(JPEGRead, StopsAtTheRowAfterAnAbort) {
    auto const bytes = MakeLarge(/*isProgressive=*/false);
    auto const expected = AddAlpha(AskLibjpeg(bytes));
    auto const stream = Kernel::MakeCounted<TestInStream>(bytes);
    stream->flagAt = bytes.size() / 2;
    auto const model = Kernel::MakeCounted<RGBA8JPEG>(Kernel::Counted<Kernel::InStreamSeekable>(stream));
    auto const pixels = ReadPixels(*model, &stream->flag);
    ASSERT_EQ(expected.size(), pixels.size());
    std::size_t const rowBytes = 400 * 4;
    std::size_t rows = 0;
    while (rows < 600 && std::equal(pixels.begin() + std::ptrdiff_t(rows * rowBytes),
                                    pixels.begin() + std::ptrdiff_t((rows + 1) * rowBytes),
                                    expected.begin() + std::ptrdiff_t(rows * rowBytes)))
        ++rows;
    EXPECT_GT(rows, 200u);
    EXPECT_LT(rows, 400u);
    for (std::size_t i = rows * rowBytes; i < pixels.size(); ++i)
        ASSERT_EQ(i % 4 == 3 ? 255 : 0, pixels[i]) << "the rest is zero";
    EXPECT_FALSE(model->HasFailed());
    int const reads = stream->readCount;
    EXPECT_EQ(pixels, ReadPixels(*model)) << "it counts as decoded";
    EXPECT_EQ(reads, stream->readCount);
}

TEST(JPEGRead, StopsWithinAProgressiveFile) {
    auto const bytes = MakeLarge(/*isProgressive=*/true);
    auto const stream = Kernel::MakeCounted<TestInStream>(bytes);
    stream->flagAt = bytes.size() / 4;
    auto const model = Kernel::MakeCounted<RGBA8JPEG>(Kernel::Counted<Kernel::InStreamSeekable>(stream));
    auto const pixels = ReadPixels(*model, &stream->flag);
    EXPECT_LT(stream->Tell(), bytes.size() / 2) << "it stops before the picture is read whole";
    for (std::size_t i = 0; i < pixels.size(); ++i)
        ASSERT_EQ(i % 4 == 3 ? 255 : 0, pixels[i]);
    EXPECT_FALSE(model->HasFailed());
}

TEST(JPEGRead, DecodesNothingIfTheFlagIsSetAtFirst) {
    for (bool const isProgressive : {false, true}) {
        bool abort = true;
        auto const model = Open<RGBA8JPEG>(MakeLarge(isProgressive));
        auto const pixels = ReadPixels(*model, &abort);
        EXPECT_EQ(400u * 600 * 4, pixels.size());
        EXPECT_EQ(0, pixels[0]);
        abort = false;
        EXPECT_EQ(pixels, ReadPixels(*model, &abort));
    }
}

TEST(JPEGRead, PassesOnWhatTheStreamThrows) {
    for (bool const isProgressive : {false, true}) {
        auto const bytes = MakeLarge(isProgressive);
        for (std::uint64_t at = 0; at < bytes.size(); at += 4096) {
            auto const stream = Kernel::MakeCounted<TestInStream>(bytes);
            stream->throwAt = at;
            Kernel::Counted<RGBA8JPEG> model;
            if (at == 0) {
                EXPECT_THROW(model = Kernel::MakeCounted<RGBA8JPEG>(Kernel::Counted<Kernel::InStreamSeekable>(stream)),
                             StreamBroke);
                EXPECT_EQ(NoFormat, GetJPEGFormat(stream));
                continue;
            }
            model = Kernel::MakeCounted<RGBA8JPEG>(Kernel::Counted<Kernel::InStreamSeekable>(stream));
            EXPECT_THROW(ReadPixels(*model), StreamBroke) << at;
            EXPECT_TRUE(model->HasFailed());
            EXPECT_EQ("the stream broke", model->GetFailure());
            int const reads = stream->readCount;
            auto const pixels = ReadPixels(*model);
            EXPECT_EQ(JPEGBytes(400 * 600 * 4), pixels) << "zero, alpha too";
            EXPECT_EQ(reads, stream->readCount) << "it is tried once";
        }
    }
}

TEST(JPEGRead, PassesOnWhatIsNoException) {
    auto const bytes = MakeLarge(false);
    auto const stream = Kernel::MakeCounted<TestInStream>(bytes);
    stream->throwsNumber = true;
    stream->throwAt = 8192;
    auto const model = Kernel::MakeCounted<RGBA8JPEG>(Kernel::Counted<Kernel::InStreamSeekable>(stream));
    EXPECT_THROW(ReadPixels(*model), int);
    EXPECT_TRUE(model->HasFailed());
    stream->throwAt = 0;
    stream->Seek(Kernel::SeekOrigin::Start, 0);
    EXPECT_THROW(Kernel::MakeCounted<RGBA8JPEG>(Kernel::Counted<Kernel::InStreamSeekable>(stream)), int);
}

TEST(JPEGRead, DecodesWhatThereIsOfAFileThatEndsEarly) {
    for (bool const isProgressive : {false, true}) {
        auto bytes = MakeLarge(isProgressive);
        auto const whole = AddAlpha(AskLibjpeg(bytes));
        bytes.resize(bytes.size() * 2 / 3);
        TraceCapture traces(TraceCapture::Under::TheLockOfAModel);
        DynamicJPEG file;
        file.CreateFromStream(StreamOf(bytes));
        EXPECT_FALSE(file.EndedEarly()) << "not known yet";
        auto const pixels = ReadAny(file);
        EXPECT_EQ(AddAlpha(AskLibjpeg(bytes)), pixels);
        bool const isTopWhole = std::equal(pixels.begin(), pixels.begin() + 300 * 400 * 4, whole.begin());
        EXPECT_EQ(!isProgressive, isTopWhole);
        EXPECT_FALSE(file.HasFailed());
        EXPECT_TRUE(file.EndedEarly());
        EXPECT_GE(file.GetWarningCount(), 1u);
        EXPECT_THAT(file.GetWarning(), HasSubstr("Premature end"));
        EXPECT_EQ(1u, traces.Take().size()) << "once, however many";
    }
}

#ifdef RASTER_SANITIZED
constexpr std::size_t cutStep = 7;
#else
constexpr std::size_t cutStep = 1;
#endif

TEST(JPEGRead, GivesWhatTheCodecGivesForAFileCutAtEveryByte) {
    for (auto const & recipe : MakeEveryKindOfJPEG(18, 18)) {
        if (recipe.horizontalSampling != 2 || recipe.inSpace == JCS_GRAYSCALE)
            continue;
        auto const whole = MakeJPEG(recipe);
        for (std::size_t size = 0; size < whole.size(); size += cutStep) {
            JPEGBytes const bytes(whole.begin(), whole.begin() + std::ptrdiff_t(size));
            auto const answer = AskLibjpeg(bytes);
            DynamicJPEG file;
            ASSERT_TRUE(file.CreateFromStream(StreamOf(bytes)));
            ASSERT_EQ(answer.hasHeader ? FormatOf(answer) : NoFormat, file.GetFormat()) << bytes.size();
            ASSERT_NE(answer.hasHeader, file.HasFailed());
            if (!answer.hasHeader) {
                ASSERT_EQ(0, file.GetWidth());
                ASSERT_FALSE(file.GetFailure().empty());
            } else if (answer.hasPixels) {
                ASSERT_EQ(AddAlpha(answer), ReadAny(file)) << bytes.size();
                ASSERT_TRUE(file.EndedEarly());
            } else {
                ASSERT_THROW(ReadAny(file), JPEGError);
                ASSERT_TRUE(file.HasFailed());
            }
        }
    }
}

TEST(JPEGRead, GivesWhatTheCodecGivesForDamagedBytes) {
    std::uint32_t state = 1;
    auto const next = [&] { return (state = state * 1664525 + 1013904223) >> 8; };
    for (auto const & recipe : MakeEveryKindOfJPEG(40, 40)) {
        auto const whole = MakeJPEG(recipe);
        for (int round = 0; round < 40; ++round) {
            auto bytes = whole;
            for (int i = 0; i <= round % 3; ++i)
                bytes[next() % bytes.size()] = static_cast<std::uint8_t>(next());
            auto const answer = AskLibjpeg(bytes, 16 << 20);
            if (answer.hasHeader && answer.pixels.empty())
                continue; // a damaged size
            DynamicJPEG file;
            ASSERT_TRUE(file.CreateFromStream(StreamOf(bytes)));
            if (!answer.hasHeader) {
                ASSERT_EQ(NoFormat, file.GetFormat());
            } else if (answer.hasPixels) {
                ASSERT_EQ(AddAlpha(answer), ReadAny(file)) << NameOf(recipe) << ' ' << round;
                // Segments that reach behind the end are not filled up by us, with a warning for every two bytes.
                ASSERT_EQ(answer.warningCount != 0, file.GetWarningCount() != 0);
            } else {
                ASSERT_THROW(ReadAny(file), JPEGError) << NameOf(recipe) << ' ' << round;
            }
        }
    }
}

TEST(JPEGRead, FailsCleanlyOnWhatTheCodecCannotRead) {
    auto const whole = MakeJPEG({});
    JPEGBytes const frameMarker = {0xFF, 0xC0};
    auto const frame = std::search(whole.begin(), whole.end(), frameMarker.begin(), frameMarker.end()) - whole.begin();
    auto deep = whole, lossless = whole;
    deep[std::size_t(frame) + 4] = 12;       // bits of a sample
    lossless[std::size_t(frame) + 1] = 0xC3; // SOF3
    for (auto const & bytes : {deep, lossless, JPEGBytes{}, JPEGBytes{0xFF, 0xD8, 0xFF}, JPEGBytes(10000, 0xFF)}) {
        TraceCapture traces(TraceCapture::Under::TheLockOfAModel);
        EXPECT_EQ(NoFormat, GetJPEGFormat(StreamOf(bytes)));
        EXPECT_THAT(traces.Take(), testing::Contains(HasSubstr("JPEG: ")));
        EXPECT_THROW(Open<RGBA8JPEG>(bytes), JPEGError);
        DynamicJPEG file;
        EXPECT_TRUE(file.CreateFromStream(StreamOf(bytes)));
        EXPECT_EQ(NoFormat, file.GetFormat());
        EXPECT_EQ(0, file.GetWidth());
        EXPECT_EQ(0.0, file.GetDPI());
        EXPECT_FALSE(file.GetProfile());
        EXPECT_TRUE(file.HasFailed());
        EXPECT_THAT(file.GetFailure(), HasSubstr("JPEG: "));
    }
}

TEST(JPEGRead, FailsCleanlyOnTwoComponents) {
    auto bytes = MakeJPEG({});
    JPEGBytes const frameMarker = {0xFF, 0xC0};
    auto const frame = std::search(bytes.begin(), bytes.end(), frameMarker.begin(), frameMarker.end());
    ASSERT_EQ(3, frame[9]);
    frame[9] = 2;
    frame[3] = static_cast<std::uint8_t>(frame[3] - 3);
    bytes.erase(frame + 10, frame + 13);
    DynamicJPEG file;
    EXPECT_TRUE(file.CreateFromStream(StreamOf(bytes)));
    EXPECT_EQ(NoFormat, file.GetFormat());
    EXPECT_TRUE(file.HasFailed());
}

TEST(JPEGRead, TakesNoStream) {
    Kernel::Counted<Kernel::InStreamSeekable> const none;
    EXPECT_EQ(NoFormat, GetJPEGFormat(none));
    auto const model = Kernel::MakeCounted<RGBA8JPEG>(none);
    EXPECT_EQ(0, model->GetWidth());
    EXPECT_EQ(0, model->GetHeight());
    EXPECT_TRUE(ReadPixels(*model).empty());
    RGBA8JPEG::ConstPixelAccessor<Repeat, IdentityTransform> reader(model.Get());
    RGBA8JPEG::PixelType pixel{{1, 2, 3, 4}};
    reader.Read(pixel);
    EXPECT_EQ(RGBA8JPEG::PixelType{}, pixel);
}

TEST(JPEGRead, RefusesAModelOfOtherColours) {
    JPEGRecipe recipe;
    recipe.inSpace = recipe.fileSpace = JCS_CMYK; // the file may have changed since it was looked at
    auto const model = Open<RGBA8JPEG>(MakeJPEG(recipe));
    EXPECT_THROW(ReadPixels(*model), JPEGError);
    EXPECT_TRUE(model->HasFailed());
    auto const grey = Open<IA8JPEG>(MakeJPEG(recipe));
    EXPECT_THROW(ReadPixels(*grey), JPEGError);
    auto const inks = Open<CMYKA8JPEG>(MakeJPEG({}));
    EXPECT_THROW(ReadPixels(*inks), JPEGError);
}

TEST(JPEGRead, AppliesTheLimitsBeforeItTakesMemory) {
    struct Case {
        bool isProgressive;
        std::uint64_t needed;
    };
    // A progressive file has all coefficients in memory too: 2 bytes a sample, in whole blocks.
    for (auto const & [isProgressive, needed] : {Case{false, 400 * 600 * 3}, {true, 400 * 600 * 3 * 3}})
        for (int const lacking : {0, 1}) {
            LimitsForTest limits;
            limits.limits.largestDecodedBytes = needed - std::uint64_t(lacking);
            limits.Apply();
            auto const bytes = MakeLarge(isProgressive);
            auto const model = Open<RGBA8JPEG>(bytes);
            EXPECT_EQ(400, model->GetWidth()) << "the header opens";
            auto const pixels = ReadPixels(*model); // throws nothing
            EXPECT_EQ(lacking != 0, model->HasFailed());
            EXPECT_EQ(lacking == 0, pixels == AddAlpha(AskLibjpeg(bytes)));
            if (lacking) {
                EXPECT_EQ(JPEGBytes(400 * 600 * 4), pixels);
                EXPECT_EQ("JPEG: over the limit largestDecodedBytes: " + std::to_string(needed) + " needed, " +
                              std::to_string(needed - 1) + " allowed",
                          model->GetFailure());
            }
        }
}

TEST(JPEGRead, AppliesTheLimitsOfSides) {
    LimitsForTest limits;
    limits.limits.largestSide = 599;
    limits.Apply();
    auto const model = Open<RGBA8JPEG>(MakeLarge(false));
    ReadPixels(*model);
    EXPECT_THAT(model->GetFailure(), HasSubstr("largestSide: 600 needed, 599 allowed"));
}

TEST(JPEGRead, ReadsNothingWhereMemoryCannotBeHad) {
    auto const model = Open<RGBA8JPEG>(MakeLarge(false));
    PixelMemory::FailAllocation(1);
    EXPECT_EQ(JPEGBytes(400 * 600 * 4), ReadPixels(*model));
    EXPECT_EQ("JPEG: not enough memory to decode the picture", model->GetFailure());
    EXPECT_EQ(JPEGBytes(400 * 600 * 4), ReadPixels(*model)) << "it is tried once";
}

// The scans of a progressive file again and again.
JPEGBytes RepeatLastScan(JPEGBytes const & whole, int count) {
    std::size_t last = 0;
    for (std::size_t i = 0; i + 1 < whole.size(); ++i)
        if (whole[i] == 0xFF && whole[i + 1] == 0xDA)
            last = i;
    JPEGBytes bytes(whole.begin(), whole.end() - 2);
    JPEGBytes const scan(whole.begin() + std::ptrdiff_t(last), whole.end() - 2);
    for (int i = 0; i < count; ++i)
        bytes.insert(bytes.end(), scan.begin(), scan.end());
    return Join({bytes, {0xFF, 0xD9}});
}

int CountScans(JPEGBytes const & bytes) {
    int scans = 0;
    for (std::size_t i = 0; i + 1 < bytes.size(); ++i)
        scans += bytes[i] == 0xFF && bytes[i + 1] == 0xDA;
    return scans;
}

TEST(JPEGRead, RefusesMoreThan500Scans) {
    JPEGRecipe recipe;
    recipe.width = recipe.height = 16;
    recipe.isProgressive = true;
    auto const whole = MakeJPEG(recipe);
    int const scans = CountScans(whole);
    auto const allowed = Open<RGBA8JPEG>(RepeatLastScan(whole, 500 - scans));
    EXPECT_EQ(16u * 16 * 4, ReadPixels(*allowed).size());
    EXPECT_FALSE(allowed->HasFailed());
    auto const refused = Open<RGBA8JPEG>(RepeatLastScan(whole, 501 - scans));
    EXPECT_THROW(ReadPixels(*refused), JPEGError);
    EXPECT_EQ("JPEG: more than 500 scans", refused->GetFailure());
}

// Each scan is a few bytes and goes over all blocks of a large picture. 500 of them are below the other limit.
TEST(JPEGRead, RefusesScansThatGoOverALargePictureTooOften) {
    JPEGRecipe recipe;
    recipe.inSpace = recipe.fileSpace = JCS_GRAYSCALE;
    recipe.width = recipe.height = 16;
    recipe.isProgressive = true;
    // The size is patched: the codec reads zeros where data is missing.
    auto bytes = MakeJPEG(recipe);
    auto const setSize = [&](int side) {
        for (std::size_t i = 0; i + 8 < bytes.size(); ++i)
            if (bytes[i] == 0xFF && bytes[i + 1] == 0xC2) {
                bytes[i + 5] = bytes[i + 7] = static_cast<std::uint8_t>(side >> 8);
                bytes[i + 6] = bytes[i + 8] = static_cast<std::uint8_t>(side);
                return;
            }
        FAIL();
    };
    constexpr int side = 4800, blocks = 600 * 600, allowed = (64 << 20) / blocks;
    int const scans = CountScans(bytes);
    setSize(side);
    {
        auto const model = Open<IA8JPEG>(RepeatLastScan(bytes, allowed - scans));
        IdentityReader<IA8JPEG> const reader(model.Get(), nullptr, nullptr);
        EXPECT_FALSE(model->HasFailed()) << model->GetFailure();
    }
    auto const model = Open<IA8JPEG>(RepeatLastScan(bytes, allowed - scans + 1));
    EXPECT_THROW(IdentityReader<IA8JPEG>(model.Get(), nullptr, nullptr), JPEGError);
    EXPECT_EQ("JPEG: the scans go over the picture too often", model->GetFailure());
}

TEST(JPEGRead, PrintsNothing) {
    auto damaged = MakeLarge(false);
    for (std::size_t i = damaged.size() / 2; i < damaged.size() / 2 + 50; ++i)
        damaged[i] = 0x55;
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    DynamicJPEG file;
    file.CreateFromStream(StreamOf(damaged));
    ReadAny(file);
    file.CreateFromStream(StreamOf({1, 2, 3}));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}
}
}
