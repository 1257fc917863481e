#include "files/PNGTesting.h"

#include "colour/ICCManager.h"
#include "kernel/TemporaryDirectory.h"

#include <algorithm>
#include <cmath>

namespace Raster {
namespace {
std::string NameOf(PNGRecipe const & recipe) {
    return "type " + std::to_string(recipe.colourType) + ", depth " + std::to_string(recipe.depth) +
           (recipe.isInterlaced ? ", interlaced" : "") + ", " + std::to_string(recipe.width) + " x " +
           std::to_string(recipe.height);
}

void ExpectEqualToLibpng(PNGRecipe const & recipe) {
    auto const bytes = MakePNG(recipe);
    auto const answer = AskLibpng(bytes);
    ASSERT_TRUE(answer.hasPixels) << NameOf(recipe);
    DynamicPNG png;
    EXPECT_TRUE(png.CreateFromStream(StreamOver(bytes))) << NameOf(recipe);
    EXPECT_EQ(recipe.width, png.GetWidth());
    EXPECT_EQ(recipe.height, png.GetHeight());
    ExpectPixels(answer, png, NameOf(recipe));
    EXPECT_FALSE(png.HasFailed());
}

DynamicPNG Open(FileBytes const & bytes) {
    DynamicPNG png;
    png.CreateFromStream(StreamOver(bytes));
    return png;
}

FileBytes SRGBBytes() {
    auto const bytes = ICCManager::GetInstance().GetDefaultProfile(ColourSpaceRGB)->GetRawData();
    return {bytes.begin(), bytes.end()};
}
FileBytes GreyBytes() {
    auto const bytes = ICCManager::GetInstance().GetDefaultProfile(ColourSpaceGrey)->GetRawData();
    return {bytes.begin(), bytes.end()};
}

TEST(PNGRead, EveryKindHasThePixelsThatTheCodecGives) {
    for (auto const & [width, height] : {std::pair(1, 1), {7, 5}, {33, 9}, {300, 3}})
        for (auto recipe : MakeEveryKind(width, height))
            for (bool const isInterlaced : {false, true}) {
                recipe.isInterlaced = isInterlaced;
                ExpectEqualToLibpng(recipe);
            }
}

TEST(PNGRead, TransparentColoursBecomeAlpha) {
    int transparent = 0;
    for (auto recipe : MakeEveryKind(40, 40)) {
        if ((recipe.colourType & PNG_COLOR_MASK_ALPHA) != 0)
            continue;
        if (recipe.colourType == PNG_COLOR_TYPE_PALETTE)
            recipe.paletteAlpha = {0, 77};
        else
            recipe.hasTransparentColour = true;
        ExpectEqualToLibpng(recipe);
        auto const bytes = MakePNG(recipe);
        auto const answer = AskLibpng(bytes);
        EXPECT_TRUE(answer.channels == 2 || answer.channels == 4) << NameOf(recipe);
        for (int y = 0; y < recipe.height; ++y)
            for (int x = 0; x < recipe.width; ++x)
                transparent += ExpectedSample(answer, x, y, answer.channels - 1) == 0;
    }
    EXPECT_GT(transparent, 0) << "nothing was tested";
}

TEST(PNGRead, GreyOfOneBitOpensAsIA8AndPalettesAsRGBA8) {
    for (auto const & recipe : MakeEveryKind(3, 3)) {
        auto const bytes = MakePNG(recipe);
        bool const isGrey = (recipe.colourType & PNG_COLOR_MASK_COLOR) == 0, isDeep = recipe.depth == 16;
        Format const expected = isGrey ? (isDeep ? IA16 : IA8) : (isDeep ? RGBA16 : RGBA8);
        EXPECT_EQ(expected, PNGBase::GetFormat(StreamOver(bytes))) << NameOf(recipe);
        EXPECT_EQ(expected, Open(bytes).GetFormat()) << NameOf(recipe);
    }
    EXPECT_EQ(NoFormat, PNGBase::GetFormat(InStreamCounted()));
}

TEST(PNGRead, SpansAndRowsEqualSinglePixels) {
    for (auto recipe : MakeEveryKind(101, 2)) {
        auto const bytes = MakePNG(recipe);
        auto const png = Open(bytes);
        png.Dispatch([&](auto const & typed) {
            using Typed = std::remove_cvref_t<decltype(typed)>;
            using Sample = typename Typed::Tuple::Storage;
            constexpr int channels = Typed::Tuple::channelCount;
            Reader<Typed> single(&typed), spans(&typed);
            DecodedCursor<Typed> const cursor(&typed, nullptr, false);
            for (int const x : {0, 1, 31, 69}) {
                typename Typed::PlanarSpan span;
                spans.SetToXY(x, 1);
                spans.SpanRead(span);
                for (int const count : {0, 1, 32}) {
                    std::vector<std::vector<Sample>> samples(channels, std::vector<Sample>(33, 99));
                    void * rows[channels];
                    for (int channel = 0; channel < channels; ++channel)
                        rows[channel] = samples[static_cast<std::size_t>(channel)].data();
                    rows[0] = nullptr; // not wanted
                    cursor.ReadRow(x, 1, static_cast<std::size_t>(count), rows);
                    for (int i = 0; i < 33; ++i) {
                        typename Typed::PixelType pixel{};
                        single.SetToXY(x + i, 1);
                        if (i < 32)
                            single.Read(pixel);
                        for (int channel = 0; channel < channels; ++channel) {
                            auto const expected = pixel[static_cast<std::size_t>(channel)];
                            EXPECT_EQ(expected, i < 32 ? span.runs[channel][i] : expected) << NameOf(recipe);
                            EXPECT_EQ(i < count && channel > 0 ? expected : 99,
                                      samples[static_cast<std::size_t>(channel)][static_cast<std::size_t>(i)])
                                << NameOf(recipe) << ", channel " << channel << ", " << i << " of " << count;
                        }
                    }
                }
            }
            return true;
        });
    }
}

TEST(PNGRead, OutsideThePictureTheEdgePolicyAnswers) {
    PNGRecipe recipe;
    recipe.width = recipe.height = 2;
    auto const bytes = MakePNG(recipe);
    PNGOf<RGBA8Tuple> const png(StreamOver(bytes));
    using Pixel8 = PixelOf<RGBA8Tuple>;
    Pixel8 corner, outside;
    PNGOf<RGBA8Tuple>::ConstPixelAccessor<Repeat, IdentityTransform> repeat(&png);
    repeat.SetToXY(1, 1);
    repeat.Read(corner);
    repeat.SetToXY(7, 9);
    repeat.Read(outside);
    EXPECT_EQ(corner, outside);
    PNGOf<RGBA8Tuple>::ConstPixelAccessor<Zero, IdentityTransform> zero(&png);
    zero.SetToXY(-1, 0);
    zero.Read(outside);
    EXPECT_EQ(Pixel8{}, outside);
}

TEST(PNGRead, IsOpaqueTellsWhetherTheFileHasAlpha) {
    for (auto const & recipe : MakeEveryKind(3, 3)) {
        auto const bytes = MakePNG(recipe);
        bool const isOpaque = Open(bytes).Dispatch([](auto const & png) { return png.IsOpaque(); });
        EXPECT_EQ((recipe.colourType & PNG_COLOR_MASK_ALPHA) == 0, isOpaque) << NameOf(recipe);
    }
}

TEST(PNGRead, ResolutionIsThatOfEqualMetricPixels) {
    struct Case {
        std::uint32_t x, y;
        int unit;
        double dpi;
    };
    for (auto const & [x, y, unit, dpi] : {Case{0, 0, PNG_RESOLUTION_METER, 72},
                                           {2835, 2835, PNG_RESOLUTION_METER, 72},
                                           {5906, 5906, PNG_RESOLUTION_METER, 150},
                                           {11811, 11811, PNG_RESOLUTION_METER, 300},
                                           {1000, 1000, PNG_RESOLUTION_METER, 25},
                                           {11811, 11810, PNG_RESOLUTION_METER, 72},
                                           {11811, 11811, PNG_RESOLUTION_UNKNOWN, 72},
                                           {19, 19, PNG_RESOLUTION_METER, 72}, // rounds to 0
                                           {20, 20, PNG_RESOLUTION_METER, 1},
                                           {PNG_UINT_31_MAX, PNG_UINT_31_MAX, PNG_RESOLUTION_METER, 54546085}}) {
        PNGRecipe recipe;
        recipe.pixelsPerUnitX = x, recipe.pixelsPerUnitY = y, recipe.unit = unit;
        auto const bytes = MakePNG(recipe);
        EXPECT_EQ(dpi, Open(bytes).GetDPI()) << x << ", " << y << ", unit " << unit;
    }
    EXPECT_EQ(0.0, DynamicPNG().GetDPI());
}

TEST(PNGRead, OnlyColourOfEightBitsFallsBackToAProfile) {
    auto const sRGB = ICCManager::GetInstance().GetDefaultProfileForFormat(RGBA8);
    ASSERT_TRUE(sRGB);
    for (auto const & recipe : MakeEveryKind(3, 3)) {
        auto const bytes = MakePNG(recipe);
        auto const png = Open(bytes);
        bool const falls = png.GetFormat() == RGBA8;
        EXPECT_EQ(falls, png.IsProfileFallback()) << NameOf(recipe);
        EXPECT_EQ(falls ? sRGB : nullptr, png.GetProfile()) << NameOf(recipe);
    }
}

TEST(PNGRead, AnEmbeddedProfileIsNoFallback) {
    for (auto recipe : MakeEveryKind(3, 3)) {
        bool const isGrey = (recipe.colourType & PNG_COLOR_MASK_COLOR) == 0;
        recipe.profile = isGrey ? GreyBytes() : SRGBBytes();
        auto const bytes = MakePNG(recipe);
        ASSERT_TRUE(AskLibpng(bytes).hasProfile) << NameOf(recipe);
        auto const png = Open(bytes);
        EXPECT_FALSE(png.IsProfileFallback()) << NameOf(recipe);
        ASSERT_TRUE(png.GetProfile()) << NameOf(recipe);
        EXPECT_EQ(isGrey ? ColourSpaceGrey : ColourSpaceRGB, png.GetProfile()->GetColourSpace()) << NameOf(recipe);
    }
}

// The name of the chunk's data is spoilt, so that the codec drops it: that counts as no profile.
TEST(PNGRead, AProfileThatTheCodecDropsCountsAsNone) {
    PNGRecipe recipe;
    recipe.profile = SRGBBytes();
    auto bytes = MakePNG(recipe);
    std::string_view const chunk = "iCCP";
    auto const at = std::search(bytes.begin(), bytes.end(), chunk.begin(), chunk.end());
    ASSERT_NE(bytes.end(), at);
    at[30] ^= 0xFF; // its checksum is wrong now
    auto const png = Open(bytes);
    EXPECT_TRUE(png.IsProfileFallback());
    EXPECT_EQ(ICCManager::GetInstance().GetDefaultProfileForFormat(RGBA8), png.GetProfile());
    ExpectPixels(AskLibpng(bytes), png, "without its profile");
}

TEST(PNGRead, KnownByItsFirstFourBytes) {
    TemporaryDirectory const directory;
    auto const data = Kernel::MakeCounted<CompressedRasterData>();
    std::string const signature = "\x89PNG";
    for (std::size_t size = 0; size <= 4; ++size) {
        PutFile(directory.GetPath("file"), signature.substr(0, size));
        EXPECT_EQ(size == 4, DynamicPNG::IsPNGFile(directory.GetPath("file").c_str())) << size;
        data->CopyFrom(reinterpret_cast<unsigned char const *>(signature.data()), size);
        EXPECT_EQ(size == 4, DynamicPNG::IsPNGFile(Kernel::Counted<CompressedRasterData const>(data))) << size;
    }
    for (std::size_t i = 0; i < 4; ++i) {
        std::string other = signature;
        other[i] ^= 1;
        PutFile(directory.GetPath("file"), other);
        EXPECT_FALSE(DynamicPNG::IsPNGFile(directory.GetPath("file").c_str())) << i;
    }
    EXPECT_FALSE(DynamicPNG::IsPNGFile(directory.GetPath().c_str()));
    EXPECT_FALSE(DynamicPNG::IsPNGFile(directory.GetPath("absent").c_str()));
    EXPECT_FALSE(DynamicPNG::IsPNGFile(static_cast<char const *>(nullptr)));
    EXPECT_FALSE(DynamicPNG::IsPNGFile(Kernel::Counted<CompressedRasterData const>()));
}

TEST(PNGRead, PathsBytesAndStreamsAreAllSources) {
    TemporaryDirectory const directory;
    PNGRecipe recipe;
    recipe.width = 20, recipe.height = 10;
    auto const bytes = MakePNG(recipe);
    auto const answer = AskLibpng(bytes);
    auto path = directory.GetPath("picture.png");
    PutFile(path, std::string(bytes.begin(), bytes.end()));
    auto const data = Kernel::MakeCounted<CompressedRasterData>();
    data->CopyFrom(bytes.data(), bytes.size());
    Kernel::Counted<CompressedRasterData const> const constData = data;

    DynamicPNG fromPath, fromData, fromStream;
    EXPECT_TRUE(fromPath.Create(path.c_str()));
    path.assign(path.size(), 'x'); // the path was copied
    EXPECT_TRUE(fromData.Create(constData));
    EXPECT_TRUE(fromStream.CreateFromStream(StreamOver(bytes)));
    for (auto const * png : {&fromPath, &fromData, &fromStream})
        ExpectPixels(answer, *png, "a source");

    auto const goodPath = directory.GetPath("picture.png");
    ExpectPixels(answer, PNGOf<RGBA8Tuple>(goodPath.c_str()), "a path");
    ExpectPixels(answer, PNGOf<RGBA8Tuple>(constData), "bytes");
    EXPECT_EQ(RGBA8, PNGBase::GetFormat(goodPath.c_str()));
    EXPECT_EQ(RGBA8, PNGBase::GetFormat(constData));
}

TEST(PNGRead, BeginsWhereTheStreamStandsAndLeavesItThere) {
    PNGRecipe recipe;
    recipe.width = 20, recipe.height = 10;
    auto const picture = MakePNG(recipe);
    FileBytes bytes(37, 0xAB);
    bytes.insert(bytes.end(), picture.begin(), picture.end());
    bytes.insert(bytes.end(), 11, 0xCD);
    auto const stream = StreamOver(bytes);
    ASSERT_TRUE(stream->Seek(Kernel::SeekOrigin::Start, 37));
    EXPECT_EQ(RGBA8, PNGBase::GetFormat(stream));
    EXPECT_EQ(37u, stream->Tell());
    DynamicPNG png;
    ASSERT_TRUE(png.CreateFromStream(stream));
    EXPECT_EQ(37u, stream->Tell());
    ASSERT_TRUE(stream->Seek(Kernel::SeekOrigin::Start, 5)); // decoding finds its way back
    ExpectPixels(AskLibpng(picture), png, "behind other bytes");
    EXPECT_EQ(37u, stream->Tell());
}

TEST(PNGRead, WhatCannotBeOpenedLeavesTheWrapperAsItWas) {
    TemporaryDirectory const directory;
    PNGRecipe recipe;
    auto const bytes = MakePNG(recipe);
    auto png = Open(bytes);
    EXPECT_FALSE(png.Create(directory.GetPath("absent.png").c_str()));
    EXPECT_TRUE(png.HasFailed());
    EXPECT_NE("", png.GetFailure());
    EXPECT_EQ(RGBA8, png.GetFormat());
    EXPECT_FALSE(png.Create(directory.GetPath().c_str()));
    EXPECT_FALSE(png.Create(static_cast<char const *>(nullptr)));
    EXPECT_FALSE(png.Create(Kernel::Counted<CompressedRasterData const>()));
    EXPECT_FALSE(png.CreateFromStream(nullptr));
    EXPECT_EQ(RGBA8, png.GetFormat());
    EXPECT_TRUE(png.CreateFromStream(StreamOver(bytes)));
    EXPECT_FALSE(png.HasFailed());
    EXPECT_EQ("", png.GetFailure());
}

TEST(PNGRead, ABrokenFileHasNoFormat) {
    PNGRecipe recipe;
    auto bytes = MakePNG(recipe);
    auto png = Open(bytes);
    auto broken = bytes;
    broken[25] = 7; // the colour type
    EXPECT_FALSE(png.CreateFromStream(StreamOver(broken)));
    EXPECT_EQ(NoFormat, png.GetFormat());
    EXPECT_EQ(0, png.GetWidth());
    EXPECT_EQ(0.0, png.GetDPI());
    EXPECT_FALSE(png.GetProfile());
    EXPECT_FALSE(png.IsProfileFallback());
    EXPECT_TRUE(png.HasFailed());
    EXPECT_TRUE(png.GetFailure().starts_with("PNG: ")) << png.GetFailure();
    PNGOf<RGBA8Tuple> const model(StreamOver(broken));
    EXPECT_EQ(0, model.GetWidth());
    EXPECT_TRUE(model.HasFailed());
    PixelOf<RGBA8Tuple> pixel = {1, 2, 3, 4};
    Reader<PNGOf<RGBA8Tuple>> reader(&model);
    EXPECT_TRUE(reader.GetSafeRect().IsEmpty());
    reader.Read(pixel);
    EXPECT_EQ((PixelOf<RGBA8Tuple>{}), pixel);
}

TEST(PNGRead, AModelOfAnotherTupleFails) {
    auto const bytes = MakePNG(PNGRecipe());
    PNGOf<IA16Tuple> const png(StreamOver(bytes));
    EXPECT_FALSE(png.HasFailed());
    Reader<PNGOf<IA16Tuple>> reader(&png);
    EXPECT_TRUE(reader.GetSafeRect().IsEmpty());
    EXPECT_TRUE(png.HasFailed());
    PNGOf<CMYKA8Tuple> const ink(StreamOver(bytes));
    EXPECT_TRUE(ink.Decode(nullptr).IsEmpty());
    EXPECT_TRUE(ink.HasFailed());
}

TEST(PNGRead, ThePaletteOfTheFileCanBeLookedUp) {
    PNGRecipe recipe;
    recipe.colourType = PNG_COLOR_TYPE_PALETTE;
    recipe.depth = 4;
    recipe.palette = MakePalette(9);
    auto const bytes = MakePNG(recipe);
    PNGOf<RGBA8Tuple> const png(StreamOver(bytes));
    PNGBase::BaseConstPixelAccessor const accessor(png);
    for (int i = 0; i < 256; ++i)
        for (int channel = 0; channel < 3; ++channel)
            EXPECT_EQ(i < 9 ? recipe.palette[static_cast<std::size_t>(3 * i + channel)] : 0,
                      accessor.LookupPNGPalette(static_cast<unsigned char>(i))[channel])
                << i;
    EXPECT_EQ(1, accessor.GetBytesPerSample());
    EXPECT_FALSE(accessor.HasAlpha());
    EXPECT_FALSE(accessor.GetPixels().IsEmpty());
    PNGOf<RGBA8Tuple> const broken{InStreamCounted()};
    PNGBase::BaseConstPixelAccessor const nothing(broken);
    EXPECT_EQ(0, nothing.LookupPNGPalette(255)[2]);
    EXPECT_EQ(0, nothing.GetBytesPerSample());
}

TEST(PNGRead, DescriptionsNameTheirClasses) {
    EXPECT_EQ(Kernel::StringUtf8("DynamicPNG"), DynamicPNG().GetDescription());
    auto const bytes = MakePNG(PNGRecipe());
    PNGOf<RGBA8Tuple> const png(StreamOver(bytes));
    std::string const description(png.GetDescription().GetView());
    EXPECT_TRUE(description.starts_with("PNG<")) << description;
    EXPECT_EQ(4, std::ranges::count(description, ','));
    EXPECT_EQ(nullptr, png.Clone());
    EXPECT_EQ(nullptr, png.CloneEmpty());
}
}
}
