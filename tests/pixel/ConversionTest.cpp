// One pixel: every rule by name, and all pairs of views against a slow model.
#include "pixel/Conversion.h"

#include "pixel/ConversionSamples.h"
#include "pixel/SlowConversion.h"

#include <gtest/gtest.h>

namespace Raster {
namespace {
template<class D, class S>
PixelOf<D> Convert(PixelOf<S> const & source) {
    PixelOf<D> dest{};
    ConvertPixel<D, S>(dest, source);
    return dest;
}

constexpr float notANumber = std::numeric_limits<float>::quiet_NaN(), infinity = std::numeric_limits<float>::infinity();

/// True if a pixel converts to all eleven views as the slow model says; else it says what differs.
template<class S>
testing::AssertionResult ConvertsLikeSlowModel(PixelOf<S> const & source) {
    auto result = testing::AssertionSuccess();
    auto const any = Slow::ToAny<S>(source);
    ForEachView([&](auto tuple) {
        using D = decltype(tuple);
        auto const expected = Slow::Convert(viewOf<D>, any), actual = Slow::ToAny<D>(Convert<D, S>(source));
        if (!(actual == expected))
            result = testing::AssertionFailure() << any << " gives " << actual << ", not " << expected;
    });
    return result;
}

#ifdef RASTER_SANITIZED
constexpr int wordStep = 257, randomPixels = 200, colourStep = 15, inkStep = 51, randomInks = 1 << 12;
#else
constexpr int wordStep = 1, randomPixels = 20000, colourStep = 1, inkStep = 15, randomInks = 1 << 20;
#endif
}

TEST(Conversion, OpaqueRedShowsInEachViewAsTheRulesTell) {
    SetLabConversions({}); // Lab without colour management
    PixelOf<RGBA8Tuple> const red{{255, 0, 0, 128}};
    EXPECT_EQ((PixelOf<RGBA16Tuple>{{65535, 0, 0, 32896}}), (Convert<RGBA16Tuple, RGBA8Tuple>(red)));
    EXPECT_EQ((PixelOf<RGBAUFTuple>{{1.0f, 0, 0, 128 * 0.003921569f}}), (Convert<RGBAUFTuple, RGBA8Tuple>(red)));
    EXPECT_EQ((PixelOf<RGBAFTuple>{{1.0f, 0, 0, 128 * 0.003921569f}}), (Convert<RGBAFTuple, RGBA8Tuple>(red)));
    EXPECT_EQ((PixelOf<IA8Tuple>{{76, 128}}), (Convert<IA8Tuple, RGBA8Tuple>(red)));
    EXPECT_EQ((PixelOf<IA16Tuple>{{21845, 32896}}), (Convert<IA16Tuple, RGBA8Tuple>(red)));
    EXPECT_EQ((PixelOf<CMYKA8Tuple>{{0, 255, 255, 0, 128}}), (Convert<CMYKA8Tuple, RGBA8Tuple>(red)));
    EXPECT_EQ((PixelOf<LABA16Tuple>{{0, 32896, 32896, 32896}}), (Convert<LABA16Tuple, RGBA8Tuple>(red)));
    EXPECT_EQ((PixelOf<A8Tuple>{{128}}), (Convert<A8Tuple, RGBA8Tuple>(red)));
    EXPECT_EQ((PixelOf<A16Tuple>{{32896}}), (Convert<A16Tuple, RGBA8Tuple>(red)));
    EXPECT_EQ((PixelOf<AFTuple>{{128 * 0.003921569f}}), (Convert<AFTuple, RGBA8Tuple>(red)));
}

TEST(Conversion, GreenWeighsOneHundredAndFiftyIn8BitsAndAThirdIn16) {
    PixelOf<RGBA8Tuple> const green{{0, 255, 0, 255}};
    EXPECT_EQ(150, (Convert<IA8Tuple, RGBA8Tuple>(green)[0]));
    EXPECT_EQ(21845, (Convert<IA16Tuple, RGBA8Tuple>(green)[0]));
}

TEST(Conversion, AlphaAloneBecomesBlack) {
    PixelOf<A8Tuple> const alpha{{100}};
    EXPECT_EQ((PixelOf<RGBA8Tuple>{{0, 0, 0, 100}}), (Convert<RGBA8Tuple, A8Tuple>(alpha)));
    EXPECT_EQ((PixelOf<IA8Tuple>{{0, 100}}), (Convert<IA8Tuple, A8Tuple>(alpha)));
    EXPECT_EQ((PixelOf<CMYKA8Tuple>{{0, 0, 0, 255, 100}}), (Convert<CMYKA8Tuple, A8Tuple>(alpha)));
    EXPECT_EQ((PixelOf<LABA16Tuple>{{0, 32896, 32896, 25700}}), (Convert<LABA16Tuple, A8Tuple>(alpha)));
    MadeUpLab const lab;
    EXPECT_EQ((PixelOf<LABA16Tuple>{{0, 3, 0, 25700}}), (Convert<LABA16Tuple, A8Tuple>(alpha)));
}

TEST(Conversion, UnboundedColoursAreClampedAndAlphaIsNot) {
    PixelOf<RGBAUFTuple> const bright{{2.0f, -1.0f, 0.5f, 1.5f}};
    EXPECT_EQ((PixelOf<RGBAFTuple>{{1.0f, 0.0f, 0.5f, 1.5f}}), (Convert<RGBAFTuple, RGBAUFTuple>(bright)));
    EXPECT_EQ((PixelOf<RGBA8Tuple>{{255, 0, 128, 255}}), (Convert<RGBA8Tuple, RGBAUFTuple>(bright)));
    EXPECT_EQ((PixelOf<RGBA16Tuple>{{65535, 0, 32768, 65535}}), (Convert<RGBA16Tuple, RGBAUFTuple>(bright)));
    EXPECT_EQ((PixelOf<AFTuple>{{1.5f}}), (Convert<AFTuple, RGBAUFTuple>(bright)));
    EXPECT_EQ(91, (Convert<IA8Tuple, RGBAUFTuple>(bright)[0])); // 255 * (0.299 + 0.114 / 2), not of the raw values
    PixelOf<RGBAFTuple> const wild{{2.0f, -1.0f, 0.5f, -3.0f}};
    EXPECT_EQ((PixelOf<RGBAUFTuple>{{2.0f, -1.0f, 0.5f, -3.0f}}), (Convert<RGBAUFTuple, RGBAFTuple>(wild)));
    EXPECT_EQ(0, (Convert<RGBA8Tuple, RGBAFTuple>(wild)[3]));
}

TEST(Conversion, WhatIsNotANumberBecomesZero) {
    PixelOf<RGBAUFTuple> const odd{{notANumber, infinity, -infinity, notANumber}};
    EXPECT_EQ((PixelOf<RGBA8Tuple>{{0, 255, 0, 0}}), (Convert<RGBA8Tuple, RGBAUFTuple>(odd)));
    EXPECT_EQ((PixelOf<RGBA16Tuple>{{0, 65535, 0, 0}}), (Convert<RGBA16Tuple, RGBAUFTuple>(odd)));
    EXPECT_EQ((PixelOf<CMYKA8Tuple>{{255, 0, 255, 0, 0}}), (Convert<CMYKA8Tuple, RGBAUFTuple>(odd)));
    EXPECT_EQ((PixelOf<IA8Tuple>{{150, 0}}), (Convert<IA8Tuple, RGBAUFTuple>(odd)));
    auto const bounded = Convert<RGBAFTuple, RGBAUFTuple>(odd);
    EXPECT_EQ(0.0f, bounded[0]);
    EXPECT_TRUE(std::isnan(bounded[3])) << "alpha is kept as it is";
    EXPECT_TRUE(std::isnan(Convert<RGBAUFTuple, RGBAFTuple>(bounded)[3]));
}

TEST(Conversion, EqualViewsAreCopied) {
    PixelOf<RGBAFTuple> const odd{{2.0f, -infinity, notANumber, 5.0f}};
    auto const copy = Convert<RGBAFTuple, RGBAFTuple>(odd);
    EXPECT_EQ(2.0f, copy[0]);
    EXPECT_EQ(-infinity, copy[1]);
    EXPECT_TRUE(std::isnan(copy[2]));
    EXPECT_EQ(5.0f, copy[3]);
    PixelOf<LABA16Tuple> const lab{{1, 2, 3, 4}};
    EXPECT_EQ(lab, (Convert<LABA16Tuple, LABA16Tuple>(lab)));
    PixelOf<CMYKA8Tuple> const inks{{1, 2, 3, 4, 5}};
    EXPECT_EQ(inks, (Convert<CMYKA8Tuple, CMYKA8Tuple>(inks)));
}

TEST(Conversion, GreyGoesToGreyByDepthAndToColourByReplication) {
    for (int value = 0; value < 256; ++value) {
        PixelOf<IA8Tuple> const grey{{std::uint8_t(value), 9}};
        auto const word = std::uint16_t(value * 257);
        EXPECT_EQ((PixelOf<IA16Tuple>{{word, 2313}}), (Convert<IA16Tuple, IA8Tuple>(grey))) << value;
        EXPECT_EQ((PixelOf<RGBA16Tuple>{{word, word, word, 2313}}), (Convert<RGBA16Tuple, IA8Tuple>(grey))) << value;
        EXPECT_EQ(grey, (Convert<IA8Tuple, IA16Tuple>({{word, 2313}}))) << value;
    }
}

TEST(Conversion, EightBitsSurviveEveryDeeperView) {
    for (int value = 0; value < 256; ++value) {
        auto const byte = std::uint8_t(value);
        PixelOf<RGBA8Tuple> const pixel{{byte, std::uint8_t(255 - value), 17, byte}};
        EXPECT_EQ(pixel, (Convert<RGBA8Tuple, RGBA16Tuple>(Convert<RGBA16Tuple, RGBA8Tuple>(pixel))));
        EXPECT_EQ(pixel, (Convert<RGBA8Tuple, RGBAFTuple>(Convert<RGBAFTuple, RGBA8Tuple>(pixel))));
        EXPECT_EQ(pixel, (Convert<RGBA8Tuple, RGBAUFTuple>(Convert<RGBAUFTuple, RGBA8Tuple>(pixel))));
    }
}

TEST(Conversion, SixteenBitsSurviveFloat) {
    for (int value = 0; value < 65536; ++value) {
        PixelOf<A16Tuple> const alpha{{std::uint16_t(value)}};
        ASSERT_EQ(alpha, (Convert<A16Tuple, AFTuple>(Convert<AFTuple, A16Tuple>(alpha)))) << value;
    }
}

TEST(Conversion, CMYKIsTheUncalibratedFormulaBothWays) {
    EXPECT_EQ((PixelOf<CMYKA8Tuple>{{0, 0, 0, 255, 7}}), (Convert<CMYKA8Tuple, RGBA8Tuple>({{0, 0, 0, 7}})));
    EXPECT_EQ((PixelOf<CMYKA8Tuple>{{0, 0, 0, 0, 7}}), (Convert<CMYKA8Tuple, RGBA8Tuple>({{255, 255, 255, 7}})));
    // 1 - r, g, b is 55, 155, 255 of 255: no black to take out of the first two but 55, which full yellow hides.
    EXPECT_EQ((PixelOf<CMYKA8Tuple>{{0, 128, 255, 55, 7}}), (Convert<CMYKA8Tuple, RGBA8Tuple>({{200, 100, 0, 7}})));
    EXPECT_EQ((PixelOf<RGBA8Tuple>{{200, 100, 0, 7}}), (Convert<RGBA8Tuple, CMYKA8Tuple>({{0, 128, 255, 55, 7}})));
    EXPECT_EQ((PixelOf<RGBA8Tuple>{{0, 0, 0, 7}}), (Convert<RGBA8Tuple, CMYKA8Tuple>({{255, 255, 255, 255, 7}})));
}

TEST(Conversion, LabIsBlackWithoutColourManagement) {
    SetLabConversions({});
    EXPECT_EQ((PixelOf<RGBA8Tuple>{{0, 0, 0, 1}}), (Convert<RGBA8Tuple, LABA16Tuple>({{65535, 5, 5, 257}})));
    EXPECT_EQ((PixelOf<CMYKA8Tuple>{{0, 0, 0, 255, 1}}), (Convert<CMYKA8Tuple, LABA16Tuple>({{65535, 5, 5, 257}})));
    EXPECT_EQ((PixelOf<LABA16Tuple>{{0, 32896, 32896, 65535}}),
              (Convert<LABA16Tuple, RGBAUFTuple>({{1.0f, 1.0f, 1.0f, 1.0f}})));
}

TEST(Conversion, LabIsClampedIntoBoundedViewsOnly) {
    MadeUpLab const lab;
    PixelOf<LABA16Tuple> const outside{{60000, 65535, 0, 65535}}; // 1.25, 1, -1
    EXPECT_EQ((PixelOf<RGBAUFTuple>{{1.25f, 1.0f, -1.0f, 1.0f}}), (Convert<RGBAUFTuple, LABA16Tuple>(outside)));
    EXPECT_EQ((PixelOf<RGBAFTuple>{{1.0f, 1.0f, 0.0f, 1.0f}}), (Convert<RGBAFTuple, LABA16Tuple>(outside)));
    EXPECT_EQ((PixelOf<IA16Tuple>{{43690, 65535}}), (Convert<IA16Tuple, LABA16Tuple>(outside)));
    PixelOf<LABA16Tuple> const undefined{{7, 65535, 65535, 0}};
    EXPECT_EQ(0.0f, (Convert<RGBAUFTuple, LABA16Tuple>(undefined)[0]));
    EXPECT_EQ(65535, (Convert<LABA16Tuple, RGBAUFTuple>({{9.0f, 0, 0, 0}})[0])) << "clamped before the transform";
}

TEST(Conversion, PlainLabComesBackWhenNothingIsPutInPlace) {
    { MadeUpLab const lab; }
    std::uint16_t pixel[4]{9, 9, 9, 9};
    float const white[4]{1, 1, 1, 1};
    ConvertToLab(pixel, white, 1);
    EXPECT_EQ(0, pixel[0]);
    EXPECT_EQ(32896, pixel[1]);
    EXPECT_EQ(32896, pixel[2]);
    EXPECT_EQ(9, pixel[3]) << "alpha is left as it is";
}

TEST(Conversion, EveryValueOfEachIntegerChannelConvertsLikeTheSlowModel) {
    MadeUpLab const lab;
    ForEachView([](auto tuple) {
        using S = decltype(tuple);
        using Sample = typename S::Storage;
        if constexpr (std::is_integral_v<Sample>) {
            int const step = sizeof(Sample) == 1 ? 1 : wordStep;
            constexpr int largest = std::numeric_limits<Sample>::max();
            for (int channel = 0; channel < S::channelCount; ++channel)
                for (int value = 0; value <= largest; value += step) {
                    PixelOf<S> source;
                    for (int i = 0; i < S::channelCount; ++i)
                        source[std::size_t(i)] = Sample(largest / 5 * (i + 1));
                    source[std::size_t(channel)] = Sample(value);
                    ASSERT_TRUE(ConvertsLikeSlowModel<S>(source));
                }
        }
    });
}

TEST(Conversion, EveryColourOf24BitsBecomesGreyAndCMYKLikeTheSlowModel) {
    for (int red = 0; red < 256; red += colourStep)
        for (int green = 0; green < 256; green += colourStep)
            for (int blue = 0; blue < 256; blue += colourStep) {
                PixelOf<RGBA8Tuple> const source{{std::uint8_t(red), std::uint8_t(green), std::uint8_t(blue), 255}};
                Slow::Colour const colour{Slow::Normalise(red, Slow::Depth::Byte),
                                          Slow::Normalise(green, Slow::Depth::Byte),
                                          Slow::Normalise(blue, Slow::Depth::Byte)};
                auto const inks = Slow::GetInks(colour);
                auto const actual = Convert<CMYKA8Tuple, RGBA8Tuple>(source);
                bool const greysFit = Slow::GetGrey8(colour) == (Convert<IA8Tuple, RGBA8Tuple>(source)[0]) &&
                                      Slow::GetGrey16(colour) == (Convert<IA16Tuple, RGBA8Tuple>(source)[0]);
                bool const inksFit =
                    inks[0] == actual[0] && inks[1] == actual[1] && inks[2] == actual[2] && inks[3] == actual[3];
                ASSERT_TRUE(greysFit && inksFit) << red << ' ' << green << ' ' << blue;
            }
}

TEST(Conversion, ALatticeOfInksConvertsToAllViewsLikeTheSlowModel) {
    MadeUpLab const lab;
    constexpr int end = 255 + inkStep;
    for (int cyan = 0; cyan < end; cyan += inkStep)
        for (int magenta = 0; magenta < end; magenta += inkStep)
            for (int yellow = 0; yellow < end; yellow += inkStep)
                for (int black = 0; black < end; black += inkStep)
                    ASSERT_TRUE(ConvertsLikeSlowModel<CMYKA8Tuple>(
                        {{std::uint8_t(cyan), std::uint8_t(magenta), std::uint8_t(yellow), std::uint8_t(black),
                          std::uint8_t(cyan ^ magenta ^ yellow ^ black)}}));
}

// All views would take long: these four are made by four different rules, and the others by one of them each.
TEST(Conversion, RandomInksConvertLikeTheSlowModel) {
    std::mt19937 random(2);
    for (int i = 0; i < randomInks; ++i) {
        auto const bits = std::uint32_t(random());
        PixelOf<CMYKA8Tuple> const source{{std::uint8_t(bits), std::uint8_t(bits >> 8), std::uint8_t(bits >> 16),
                                           std::uint8_t(bits >> 24), std::uint8_t(bits >> 4)}};
        auto const colour = Slow::GetColour(Slow::ToAny<CMYKA8Tuple>(source));
        auto const bytes = Convert<RGBA8Tuple, CMYKA8Tuple>(source);
        auto const floats = Convert<RGBAUFTuple, CMYKA8Tuple>(source);
        bool const coloursFit = floats[0] == colour.r && floats[1] == colour.g && floats[2] == colour.b &&
                                bytes[0] == Slow::Quantise(colour.r, Slow::Depth::Byte) &&
                                bytes[1] == Slow::Quantise(colour.g, Slow::Depth::Byte) &&
                                bytes[2] == Slow::Quantise(colour.b, Slow::Depth::Byte);
        bool const greysFit = Slow::GetGrey8(colour) == (Convert<IA8Tuple, CMYKA8Tuple>(source)[0]) &&
                              Slow::GetGrey16(colour) == (Convert<IA16Tuple, CMYKA8Tuple>(source)[0]);
        ASSERT_TRUE(coloursFit && greysFit && bytes[3] == source[4]) << Slow::ToAny<CMYKA8Tuple>(source);
    }
}

TEST(Conversion, OddFloatsInEachPlaceConvertLikeTheSlowModel) {
    MadeUpLab const lab;
    for (float const first : GetOddFloats()) {
        ASSERT_TRUE(ConvertsLikeSlowModel<AFTuple>({{first}}));
        for (float const second : GetOddFloats()) {
            ASSERT_TRUE(ConvertsLikeSlowModel<RGBAUFTuple>({{first, second, 0.25f, second}}));
            ASSERT_TRUE(ConvertsLikeSlowModel<RGBAFTuple>({{0.75f, first, second, first}}));
        }
    }
}

TEST(Conversion, AllPairsConvertRandomPixelsLikeTheSlowModel) {
    MadeUpLab const lab;
    std::mt19937 random(1);
    ForEachView([&](auto tuple) {
        using S = decltype(tuple);
        for (int i = 0; i < randomPixels; ++i) {
            PixelOf<S> source;
            for (auto & sample : source.channels)
                sample = AnySample<typename S::Storage>(random);
            ASSERT_TRUE(ConvertsLikeSlowModel<S>(source));
        }
    });
}

TEST(Conversion, ViewsOfFormatsAreThoseOfTheirTuples) {
    for (std::uint32_t value = 0; value < 20; ++value) {
        auto const format = static_cast<Format>(value);
        bool visited = false;
        VisitFormat(format, [&](auto tuple) {
            visited = true;
            EXPECT_EQ(viewOf<decltype(tuple)>, GetView(format)) << value;
        });
        if (!visited) {
            EXPECT_EQ(PixelView::NoView, GetView(format)) << value;
        }
    }
}
}
