#include "pixel/DynamicPixel.h"

#include "pixel/LabSeam.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

namespace Raster {
namespace {
using RGBA8Pixel = PixelOf<RGBA8Tuple>;
using RGBA16Pixel = PixelOf<RGBA16Tuple>;
using RGBAFPixel = PixelOf<RGBAFTuple>;
using RGBAUFPixel = PixelOf<RGBAUFTuple>;
using IA8Pixel = PixelOf<IA8Tuple>;
using IA16Pixel = PixelOf<IA16Tuple>;
using CMYKA8Pixel = PixelOf<CMYKA8Tuple>;
using LABA16Pixel = PixelOf<LABA16Tuple>;
using A8Pixel = PixelOf<A8Tuple>;
using A16Pixel = PixelOf<A16Tuple>;
using AFPixel = PixelOf<AFTuple>;

// The model knows Lab as it is without colour management.
struct PlainLab : testing::Environment {
    void SetUp() override { SetLabConversions({}); }
};
auto * const plainLab = testing::AddGlobalTestEnvironment(new PlainLab);

template<class P>
P const & View(DynamicPixel const & pixel) {
    return pixel;
}

// ---- The slow model: what each assignment must give, told once more and one rule at a time, without looking at speed.

constexpr float byteUnit = 0.003921569f, wordUnit = 1.5259022e-5f;
float Number(std::uint8_t v) { return v * byteUnit; }
float Number(std::uint16_t v) { return v * wordUnit; }

long Truncate(float value, long maximum) {
    if (std::isnan(value) || value <= 0)
        return 0;
    return value >= static_cast<float>(maximum) ? maximum : static_cast<long>(value);
}
std::uint8_t Byte(float value) {
    auto const product = static_cast<float>(static_cast<double>(value) * 255.0); // formed in double, rounded to float
    return static_cast<std::uint8_t>(Truncate(product + 0.5f, 255));
}
std::uint16_t Word(float value) { return static_cast<std::uint16_t>(Truncate(value * 65535.0f + 0.5f, 65535)); }
float Bounded(float value) {
    if (std::isnan(value) || value <= 0)
        return 0;
    return value >= 1 ? 1 : value;
}

/// A pixel as the rules see it: colour as floats, not clamped, and alpha.
struct Seen {
    float red = 0, green = 0, blue = 0, alpha = 0;
    bool grey = false; // then red is the intensity
};
Seen See(RGBA8Pixel p) { return {Number(p[0]), Number(p[1]), Number(p[2]), Number(p[3])}; }
Seen See(RGBA16Pixel p) { return {Number(p[0]), Number(p[1]), Number(p[2]), Number(p[3])}; }
Seen See(RGBAFPixel p) { return {p[0], p[1], p[2], p[3]}; }
Seen See(RGBAUFPixel p) { return {p[0], p[1], p[2], p[3]}; }
Seen See(IA8Pixel p) { return {Number(p[0]), Number(p[0]), Number(p[0]), Number(p[1]), true}; }
Seen See(IA16Pixel p) { return {Number(p[0]), Number(p[0]), Number(p[0]), Number(p[1]), true}; }
Seen See(CMYKA8Pixel p) {
    float const k = Number(p[3]);
    auto const light = [k](float ink) { return 1.0f - std::min(ink * (1.0f - k) + k, 1.0f); };
    return {light(Number(p[0])), light(Number(p[1])), light(Number(p[2])), Number(p[4])};
}
Seen See(LABA16Pixel p) { return {0, 0, 0, Number(p[3])}; } // without colour management every Lab colour is black
Seen See(A8Pixel p) { return {0, 0, 0, Number(p[0])}; }
Seen See(A16Pixel p) { return {0, 0, 0, Number(p[0])}; }
Seen See(AFPixel p) { return {0, 0, 0, p[0]}; }

void Show(RGBA8Pixel & p, Seen s) {
    p = {{Byte(Bounded(s.red)), Byte(Bounded(s.green)), Byte(Bounded(s.blue)), Byte(s.alpha)}};
}
void Show(RGBA16Pixel & p, Seen s) {
    p = {{Word(Bounded(s.red)), Word(Bounded(s.green)), Word(Bounded(s.blue)), Word(s.alpha)}};
}
void Show(RGBAFPixel & p, Seen s) { p = {{Bounded(s.red), Bounded(s.green), Bounded(s.blue), s.alpha}}; }
void Show(RGBAUFPixel & p, Seen s) { p = {{s.red, s.green, s.blue, s.alpha}}; }
void Show(IA8Pixel & p, Seen s) {
    float const luminance = Bounded(s.green) * 0.587f + Bounded(s.red) * 0.299f + Bounded(s.blue) * 0.114f;
    p = {{Byte(s.grey ? s.red : luminance), Byte(s.alpha)}};
}
void Show(IA16Pixel & p, Seen s) {
    float const mean = (Bounded(s.red) + Bounded(s.green) + Bounded(s.blue)) / 3.0f;
    p = {{Word(s.grey ? s.red : mean), Word(s.alpha)}};
}
void Show(CMYKA8Pixel & p, Seen s) {
    float ink[3] = {1.0f - Bounded(s.red), 1.0f - Bounded(s.green), 1.0f - Bounded(s.blue)};
    float const black = std::min(std::min(ink[0], ink[1]), ink[2]);
    for (float & each : ink)
        each = black < 1.0f ? (each - black) / (1.0f - black) : 0.0f;
    p = {{Byte(ink[0]), Byte(ink[1]), Byte(ink[2]), Byte(black), Byte(s.alpha)}};
}
void Show(LABA16Pixel & p, Seen s) { p = {{0, 32896, 32896, Word(s.alpha)}}; }
void Show(A8Pixel & p, Seen s) { p = {{Byte(s.alpha)}}; }
void Show(A16Pixel & p, Seen s) { p = {{Word(s.alpha)}}; }
void Show(AFPixel & p, Seen s) { p = {{s.alpha}}; }

template<class P>
std::string Print(P const & pixel) {
    std::string text = "(";
    for (auto const sample : pixel.channels)
        text += std::to_string(sample) + " ";
    text.back() = ')';
    return text;
}

/// Bit for bit, so that -0 and NaN count too.
template<class P>
bool SameBits(P const & a, P const & b) {
    return std::memcmp(&a, &b, sizeof(P)) == 0;
}

template<class D, class S>
bool CheckView(DynamicPixel const & actual, S const & source, char const * name) {
    D expected;
    if constexpr (std::is_same_v<D, S>)
        expected = source;
    else
        Show(expected, See(source));
    if (SameBits(expected, View<D>(actual)))
        return true;
    ADD_FAILURE() << Print(source) << " as " << name << ": " << Print(View<D>(actual)) << ", not " << Print(expected);
    return false;
}

/// All eleven views of `source` against the model.
template<class S>
bool Check(S const & source) {
    DynamicPixel pixel;
    pixel = source;
    bool good = true;
#define RASTER_CHECK(view) good = CheckView<PixelOf<view##Tuple>>(pixel, source, #view) && good;
    RASTER_FOR_EACH_VIEW(RASTER_CHECK)
#undef RASTER_CHECK
    return good;
}

#ifdef RASTER_SANITIZED
constexpr int colourStep = 51, inkStep = 85, randomCount = 2000;
#else
constexpr int colourStep = 5, inkStep = 17, randomCount = 60000;
#endif

std::vector<float> const & GetOddFloats() {
    static std::vector<float> const values{0.0f,
                                           -0.0f,
                                           1.0f,
                                           0.5f,
                                           0.25f,
                                           0.999f,
                                           0.49803925f,
                                           1.0f / 3,
                                           1e-6f,
                                           1e-45f,
                                           1.0000001f,
                                           0.99999994f,
                                           2.0f,
                                           1e9f,
                                           std::numeric_limits<float>::max(),
                                           std::numeric_limits<float>::infinity(),
                                           -1e-6f,
                                           -0.5f,
                                           -1.0f,
                                           -1e9f,
                                           -std::numeric_limits<float>::infinity()};
    return values;
}
}

TEST(DynamicPixel, StartsAsZeroInEveryView) {
    DynamicPixel const pixel;
#define RASTER_CHECK(view) EXPECT_EQ(PixelOf<view##Tuple>{}, View<PixelOf<view##Tuple>>(pixel)) << #view;
    RASTER_FOR_EACH_VIEW(RASTER_CHECK)
#undef RASTER_CHECK
}

TEST(DynamicPixel, IsDescribedByItsName) { EXPECT_EQ(DynamicPixel().GetDescription(), "DynamicPixel"); }

TEST(DynamicPixel, RedOfHalfAlphaReadsAsInTheRules) {
    DynamicPixel pixel;
    pixel = RGBA8Pixel{{255, 0, 0, 128}};
    EXPECT_EQ((RGBA8Pixel{{255, 0, 0, 128}}), View<RGBA8Pixel>(pixel));
    EXPECT_EQ((RGBA16Pixel{{65535, 0, 0, 32896}}), View<RGBA16Pixel>(pixel));
    EXPECT_EQ((IA8Pixel{{76, 128}}), View<IA8Pixel>(pixel));
    EXPECT_EQ((IA16Pixel{{21845, 32896}}), View<IA16Pixel>(pixel));
    EXPECT_EQ((CMYKA8Pixel{{0, 255, 255, 0, 128}}), View<CMYKA8Pixel>(pixel));
    EXPECT_EQ((A8Pixel{{128}}), View<A8Pixel>(pixel));
    EXPECT_EQ((A16Pixel{{32896}}), View<A16Pixel>(pixel));
    EXPECT_EQ((AFPixel{{128 * 0.003921569f}}), View<AFPixel>(pixel));
}

TEST(DynamicPixel, UnboundedColourIsKeptInItsOwnViewAndClampedInTheOthers) {
    DynamicPixel pixel;
    pixel = RGBAUFPixel{{2.0f, -1.0f, 0.5f, 1.0f}};
    EXPECT_EQ((RGBAUFPixel{{2.0f, -1.0f, 0.5f, 1.0f}}), View<RGBAUFPixel>(pixel));
    EXPECT_EQ((RGBAFPixel{{1.0f, 0.0f, 0.5f, 1.0f}}), View<RGBAFPixel>(pixel));
    EXPECT_EQ((RGBA8Pixel{{255, 0, 128, 255}}), View<RGBA8Pixel>(pixel));
    EXPECT_EQ((RGBA16Pixel{{65535, 0, 32768, 65535}}), View<RGBA16Pixel>(pixel));
}

TEST(DynamicPixel, AlphaOutsideItsRangeIsKeptInFloatsAndSaturatedInIntegers) {
    for (float const alpha : {1.5f, -0.25f}) {
        DynamicPixel pixel;
        pixel = RGBAUFPixel{{0.25f, 0.25f, 0.25f, alpha}};
        EXPECT_EQ(alpha, View<RGBAFPixel>(pixel)[3]);
        EXPECT_EQ(alpha, View<AFPixel>(pixel)[0]);
        EXPECT_EQ(alpha > 0 ? 255 : 0, View<RGBA8Pixel>(pixel)[3]);
        EXPECT_EQ(alpha > 0 ? 65535 : 0, View<A16Pixel>(pixel)[0]);
        EXPECT_EQ(alpha > 0 ? 255 : 0, View<CMYKA8Pixel>(pixel)[4]);
    }
}

TEST(DynamicPixel, NotANumberBecomesZeroInEveryBoundedView) {
    float const nan = std::numeric_limits<float>::quiet_NaN();
    DynamicPixel pixel;
    pixel = RGBAUFPixel{{nan, nan, nan, nan}};
    EXPECT_TRUE(std::isnan(View<RGBAUFPixel>(pixel)[0]));
    EXPECT_TRUE(std::isnan(View<AFPixel>(pixel)[0]));
    EXPECT_EQ(0.0f, View<RGBAFPixel>(pixel)[0]);
    EXPECT_EQ((RGBA8Pixel{{0, 0, 0, 0}}), View<RGBA8Pixel>(pixel));
    EXPECT_EQ((IA16Pixel{{0, 0}}), View<IA16Pixel>(pixel));
    EXPECT_EQ((CMYKA8Pixel{{0, 0, 0, 255, 0}}), View<CMYKA8Pixel>(pixel));
}

TEST(DynamicPixel, AlphaAloneGivesBlack) {
    DynamicPixel pixel{RGBA8Pixel{{1, 2, 3, 4}}};
    pixel = A8Pixel{{200}};
    EXPECT_EQ((RGBA8Pixel{{0, 0, 0, 200}}), View<RGBA8Pixel>(pixel));
    EXPECT_EQ((IA8Pixel{{0, 200}}), View<IA8Pixel>(pixel));
    EXPECT_EQ((CMYKA8Pixel{{0, 0, 0, 255, 200}}), View<CMYKA8Pixel>(pixel));
    EXPECT_EQ((LABA16Pixel{{0, 32896, 32896, 200 * 257}}), View<LABA16Pixel>(pixel));
}

TEST(DynamicPixel, AssigningRGBA8EqualsTheModelOverALatticeAndEveryChannelValue) {
    for (int r = 0; r < 256; r += colourStep)
        for (int g = 0; g < 256; g += colourStep)
            for (int b = 0; b < 256; b += colourStep)
                for (int const a : {0, 1, 128, 255}) {
                    auto const byte = [](int v) { return static_cast<std::uint8_t>(v); };
                    ASSERT_TRUE(Check(RGBA8Pixel{{byte(r), byte(g), byte(b), byte(a)}}));
                }
    for (int channel = 0; channel < 4; ++channel)
        for (int value = 0; value < 256; ++value) {
            RGBA8Pixel source{{10, 100, 200, 77}};
            source[static_cast<std::size_t>(channel)] = static_cast<std::uint8_t>(value);
            ASSERT_TRUE(Check(source));
        }
}

TEST(DynamicPixel, AssigningIA8EqualsTheModelForEveryPixel) {
    for (int value = 0; value < 256; ++value)
        for (int alpha = 0; alpha < 256; ++alpha)
            ASSERT_TRUE(Check(IA8Pixel{{static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(alpha)}}));
}

TEST(DynamicPixel, AssigningA8OrA16EqualsTheModelForEveryPixel) {
    for (int alpha = 0; alpha < 256; ++alpha)
        ASSERT_TRUE(Check(A8Pixel{{static_cast<std::uint8_t>(alpha)}}));
    for (int alpha = 0; alpha < 65536; ++alpha)
        ASSERT_TRUE(Check(A16Pixel{{static_cast<std::uint16_t>(alpha)}}));
}

TEST(DynamicPixel, AssigningCMYKA8EqualsTheModelOverALattice) {
    auto const byte = [](int v) { return static_cast<std::uint8_t>(v); };
    for (int c = 0; c < 256; c += inkStep)
        for (int m = 0; m < 256; m += inkStep)
            for (int y = 0; y < 256; y += inkStep)
                for (int k = 0; k < 256; k += inkStep)
                    ASSERT_TRUE(Check(CMYKA8Pixel{{byte(c), byte(m), byte(y), byte(k), byte(k / 2)}}));
    for (std::size_t channel = 0; channel < 5; ++channel)
        for (int value = 0; value < 256; ++value) {
            CMYKA8Pixel source{{10, 100, 200, 50, 77}};
            source[channel] = byte(value);
            ASSERT_TRUE(Check(source));
        }
}

TEST(DynamicPixel, Assigning16BitViewsEqualsTheModelForRandomPixelsAndEveryChannelValue) {
    std::mt19937 random(7);
    auto const word = [&] { return static_cast<std::uint16_t>(random()); };
    for (int i = 0; i < randomCount; ++i) {
        ASSERT_TRUE(Check(RGBA16Pixel{{word(), word(), word(), word()}}));
        ASSERT_TRUE(Check(IA16Pixel{{word(), word()}}));
        ASSERT_TRUE(Check(LABA16Pixel{{word(), word(), word(), word()}}));
    }
    for (int value = 0; value < 65536; ++value) {
        auto const sample = static_cast<std::uint16_t>(value);
        ASSERT_TRUE(Check(IA16Pixel{{sample, static_cast<std::uint16_t>(65535 - value)}}));
        ASSERT_TRUE(Check(RGBA16Pixel{{sample, 40000, 65535, 12345}}));
    }
}

TEST(DynamicPixel, AssigningFloatViewsEqualsTheModelForOddAndRandomValues) {
    auto const & odd = GetOddFloats();
    std::mt19937 random(11);
    for (float const r : odd)
        for (float const g : odd)
            for (float const b : odd) {
                float const alpha = odd[random() % odd.size()];
                ASSERT_TRUE(Check(RGBAFPixel{{r, g, b, alpha}}));
                ASSERT_TRUE(Check(RGBAUFPixel{{r, g, b, alpha}}));
            }
    for (float const alpha : odd)
        ASSERT_TRUE(Check(AFPixel{{alpha}}));
    std::uniform_real_distribution<float> inside(0, 1), around(-1, 3);
    for (int i = 0; i < randomCount; ++i) {
        ASSERT_TRUE(Check(RGBAFPixel{{inside(random), inside(random), inside(random), inside(random)}}));
        ASSERT_TRUE(Check(RGBAUFPixel{{around(random), around(random), around(random), inside(random)}}));
        ASSERT_TRUE(Check(AFPixel{{around(random)}}));
    }
}

TEST(DynamicPixel, ConstructorsGiveWhatAssignmentsGive) {
    std::mt19937 random(3);
#define RASTER_CHECK(view)                                                                                             \
    {                                                                                                                  \
        PixelOf<view##Tuple> source;                                                                                   \
        for (auto & sample : source.channels)                                                                          \
            sample = static_cast<view##Tuple::Storage>(random() % 256);                                                \
        DynamicPixel assigned;                                                                                         \
        assigned = source;                                                                                             \
        DynamicPixel const constructed(source);                                                                        \
        EXPECT_EQ(0, std::memcmp(&static_cast<RGBA8Pixel const &>(constructed), &View<RGBA8Pixel>(assigned), 4));      \
        EXPECT_TRUE(SameBits(View<RGBAUFPixel>(constructed), View<RGBAUFPixel>(assigned))) << #view;                   \
        EXPECT_TRUE(SameBits(View<CMYKA8Pixel>(constructed), View<CMYKA8Pixel>(assigned))) << #view;                   \
        EXPECT_TRUE(SameBits(View<AFPixel>(constructed), View<AFPixel>(assigned))) << #view;                           \
        EXPECT_EQ(source, View<PixelOf<view##Tuple>>(constructed)) << #view;                                           \
    }
    RASTER_FOR_EACH_VIEW(RASTER_CHECK)
#undef RASTER_CHECK
}

TEST(DynamicPixel, CopyKeepsEveryViewAlsoOnesThatDisagree) {
    DynamicPixel source{RGBA8Pixel{{10, 20, 30, 40}}};
    static_cast<IA8Pixel &>(source) = {{99, 98}};
    DynamicPixel copy;
    copy = source;
    DynamicPixel const constructed(source);
#define RASTER_CHECK(view)                                                                                             \
    EXPECT_EQ(View<PixelOf<view##Tuple>>(source), View<PixelOf<view##Tuple>>(copy)) << #view;                          \
    EXPECT_EQ(View<PixelOf<view##Tuple>>(source), View<PixelOf<view##Tuple>>(constructed)) << #view;
    RASTER_FOR_EACH_VIEW(RASTER_CHECK)
#undef RASTER_CHECK
    EXPECT_EQ((IA8Pixel{{99, 98}}), View<IA8Pixel>(copy));
}

TEST(DynamicPixel, WritingThroughOneViewLeavesTheOthers) {
    DynamicPixel pixel{RGBA8Pixel{{255, 255, 255, 255}}};
    RGBA8Pixel & reference = pixel;
    reference[0] = 0;
    RGBA8Pixel * const pointer = pixel;
    EXPECT_EQ(&reference, pointer);
    (*pointer)[1] = 7;
    EXPECT_EQ((RGBA8Pixel{{0, 7, 255, 255}}), View<RGBA8Pixel>(pixel));
    EXPECT_EQ((RGBA16Pixel{{65535, 65535, 65535, 65535}}), View<RGBA16Pixel>(pixel));
    EXPECT_EQ((CMYKA8Pixel{{0, 0, 0, 0, 255}}), View<CMYKA8Pixel>(pixel));
}

TEST(DynamicPixel, AssigningItsOwnViewBringsTheOthersUpToDate) {
    DynamicPixel pixel{IA8Pixel{{255, 255}}};
    CMYKA8Pixel & inks = pixel;
    inks = {{0, 255, 255, 0, 128}};
    pixel = inks; // the source is a member of what is written
    EXPECT_EQ((CMYKA8Pixel{{0, 255, 255, 0, 128}}), View<CMYKA8Pixel>(pixel));
    EXPECT_EQ((RGBA8Pixel{{255, 0, 0, 128}}), View<RGBA8Pixel>(pixel));
    EXPECT_EQ((IA8Pixel{{76, 128}}), View<IA8Pixel>(pixel));
}

TEST(DynamicPixel, LabGoesThroughTheConversionsInPlaceWithAlphaApart) {
    struct Restore {
        ~Restore() { SetLabConversions({}); }
    } const restore;
    SetLabConversions({[](std::uint16_t * dest, float const * source, std::size_t) {
                           dest[0] = static_cast<std::uint16_t>(source[0] * 1000);
                           dest[1] = static_cast<std::uint16_t>(source[1] * 1000);
                           dest[2] = static_cast<std::uint16_t>(source[2] * 1000);
                       },
                       [](float * dest, std::uint16_t const * source, std::size_t) {
                           for (int i = 0; i < 3; ++i)
                               dest[i] = static_cast<float>(source[i]) / 1000.0f;
                       }});
    DynamicPixel pixel;
    pixel = RGBAFPixel{{0.25f, 0.5f, 1.0f, 0.5f}};
    EXPECT_EQ((LABA16Pixel{{250, 500, 1000, 32768}}), View<LABA16Pixel>(pixel));
    pixel = LABA16Pixel{{2000, 500, 0, 65535}};
    EXPECT_EQ(2.0f, View<RGBAUFPixel>(pixel)[0]); // unbounded: not clamped
    EXPECT_EQ(1.0f, View<RGBAFPixel>(pixel)[0]);
    EXPECT_EQ((RGBA8Pixel{{255, 128, 0, 255}}), View<RGBA8Pixel>(pixel));
    EXPECT_EQ((LABA16Pixel{{2000, 500, 0, 65535}}), View<LABA16Pixel>(pixel));
    EXPECT_EQ((A8Pixel{{255}}), View<A8Pixel>(pixel));
}
}
