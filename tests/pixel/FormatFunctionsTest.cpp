#include "pixel/FormatFunctions.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace Raster {
namespace {
Format ToFormat(std::uint32_t value) { return static_cast<Format>(value); }

// Formats 0 to 10, written out on their own so that the library's table is not tested against itself.
struct Expected {
    int channels, alphaIndex, alphaMask;
    std::uint32_t space, maskFormat;
};
constexpr Expected expectedTable[] = {
    {4, 4, 8, 2, 6}, {4, 4, 8, 2, 7}, {2, 2, 2, 1, 6}, {2, 2, 2, 1, 7},  {5, 5, 16, 3, 6}, {4, 4, 8, 4, 7},
    {1, 1, 1, 0, 6}, {1, 1, 1, 0, 7}, {0, 0, 0, 0, 8}, {4, 4, 8, 5, 10}, {1, 1, 1, 0, 10},
};
// Values that an enum of 32 bits can hold and that are no format.
std::vector<std::uint32_t> const unknownValues{11, 12, 13, 14,  15,  16,          17,          18,         19,
                                               20, 31, 32, 255, 256, 0x80000000u, 0x80000004u, 0xFFFFFFFFu};

Expected GetExpected(std::uint32_t value) { return value < 11 ? expectedTable[value] : Expected{0, 0, 0, 0, 8}; }

std::vector<std::uint32_t> GetValues() {
    std::vector<std::uint32_t> values{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    values.insert(values.end(), unknownValues.begin(), unknownValues.end());
    return values;
}
}

TEST(FormatFunctions, AlphaSpaceAndMaskFormatAreThoseOfTheCatalogue) {
    for (auto const value : GetValues()) {
        auto const expected = GetExpected(value);
        EXPECT_EQ(expected.alphaIndex, GetAlphaChannelIndex(ToFormat(value))) << value;
        EXPECT_EQ(expected.alphaMask, GetAlphaChannelMask(ToFormat(value))) << value;
        EXPECT_EQ(expected.space, GetColourSpace(ToFormat(value))) << value;
        EXPECT_EQ(expected.maskFormat, GetCompatibleMaskFormat(ToFormat(value))) << value;
    }
}

TEST(FormatFunctions, NoFormatAndUnknownFormatsHaveNoAlpha) {
    EXPECT_EQ(0, GetAlphaChannelIndex(NoFormat));
    EXPECT_EQ(0, GetAlphaChannelIndex(ToFormat(11)));
    EXPECT_EQ(0, GetAlphaChannelMask(NoFormat));
}

TEST(FormatFunctions, MaskFunctionsEqualAWalkOverTheBitsForEveryByteMask) {
    for (auto const value : GetValues())
        for (int mask = 0; mask < 256; ++mask) {
            int count = 0, first = 0;
            for (int channel = GetExpected(value).channels; channel >= 1; --channel)
                if (mask & (1 << (channel - 1))) {
                    ++count;
                    first = channel;
                }
            EXPECT_EQ(count, GetNumberOfNonMaskedChannels(mask, ToFormat(value))) << value << ", mask " << mask;
            EXPECT_EQ(first, GetFirstNonMaskedChannelIndex(mask, ToFormat(value))) << value << ", mask " << mask;
        }
}

TEST(FormatFunctions, BitsBeyondTheChannelsAreIgnored) {
    EXPECT_EQ(2, GetNumberOfNonMaskedChannels(0xFF, IA8));
    EXPECT_EQ(0, GetFirstNonMaskedChannelIndex(0x10, RGBA8));
    EXPECT_EQ(5, GetFirstNonMaskedChannelIndex(0x10, CMYKA8));
    for (auto const value : GetValues()) {
        auto const expected = GetExpected(value);
        EXPECT_EQ(expected.channels, GetNumberOfNonMaskedChannels(-1, ToFormat(value))) << value;
        EXPECT_EQ(expected.channels ? 1 : 0, GetFirstNonMaskedChannelIndex(-1, ToFormat(value))) << value;
        EXPECT_EQ(0, GetNumberOfNonMaskedChannels(std::numeric_limits<int>::min(), ToFormat(value))) << value;
        EXPECT_EQ(0, GetFirstNonMaskedChannelIndex(~0x1F, ToFormat(value))) << value;
    }
}

TEST(FormatFunctions, AlphaOnlyFormatsHaveNoColourSpace) {
    EXPECT_EQ(ColourSpaceNone, GetColourSpace(AF));
    EXPECT_EQ(ColourSpaceNone, GetColourSpace(A8));
    EXPECT_EQ(ColourSpaceNone, GetColourSpace(NoFormat));
}

TEST(FormatFunctions, BestFormatIsThatOfTheTableForEveryPair) {
    struct Row {
        Format from;
        Format to[6]; // none, grey, RGB, CMYK, LAB, unbounded RGB
    };
    Row const rows[] = {
        {RGBA8, {RGBA8, IA8, RGBA8, CMYKA8, LABA16, RGBAUF}},
        {RGBA16, {RGBA16, IA16, RGBA16, CMYKA8, LABA16, RGBAUF}},
        {IA8, {IA8, IA8, RGBA8, CMYKA8, LABA16, RGBAUF}},
        {IA16, {IA16, IA16, RGBA16, CMYKA8, LABA16, RGBAUF}},
        {CMYKA8, {CMYKA8, IA8, RGBA8, CMYKA8, LABA16, RGBAUF}},
        {LABA16, {LABA16, IA16, RGBA16, CMYKA8, LABA16, RGBAUF}},
        {RGBAUF, {RGBAUF, IA16, RGBAUF, CMYKA8, LABA16, RGBAUF}},
    };
    for (auto const & row : rows)
        for (std::uint32_t space = 0; space < 6; ++space)
            EXPECT_EQ(row.to[space], GetBestFormatForFormatAndSpace(row.from, static_cast<ColourSpace>(space)))
                << row.from << " to space " << space;
}

TEST(FormatFunctions, BestFormatLeavesFormatsWithoutColourAsTheyAre) {
    auto values = unknownValues;
    values.insert(values.end(), {A8, A16, NoFormat, AF});
    for (auto const value : values)
        for (std::uint32_t space = 0; space < 6; ++space)
            EXPECT_EQ(value, GetBestFormatForFormatAndSpace(ToFormat(value), static_cast<ColourSpace>(space)))
                << value << " to space " << space;
}

TEST(FormatFunctions, BestFormatForAnUnknownSpaceIsTheFormatItself) {
    for (auto const value : GetValues())
        for (auto const space : {6u, 7u, 0x80000000u, 0xFFFFFFFFu})
            EXPECT_EQ(value, GetBestFormatForFormatAndSpace(ToFormat(value), static_cast<ColourSpace>(space)));
}

TEST(FormatFunctions, OnlyTwoFormatsCountAsDeep) {
    for (auto const value : GetValues()) {
        bool const deep = value == 1 || value == 3;
        Format const expected[] = {NoFormat, deep ? IA16 : IA8, deep ? RGBA16 : RGBA8, CMYKA8, LABA16,
                                   RGBAUF,   NoFormat};
        for (std::uint32_t space = 0; space < 7; ++space)
            EXPECT_EQ(expected[space], PreserveBitDepth(static_cast<ColourSpace>(space), ToFormat(value)))
                << value << " in space " << space;
        EXPECT_EQ(NoFormat, PreserveBitDepth(static_cast<ColourSpace>(0xFFFFFFFFu), ToFormat(value)));
    }
    EXPECT_EQ(RGBA8, PreserveBitDepth(ColourSpaceRGB, LABA16));
    EXPECT_EQ(IA8, PreserveBitDepth(ColourSpaceGrey, RGBAUF));
}
}
