#include "pixel/ChannelParams.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace Raster {
namespace {
struct Flags {
    bool present, isAlpha, isAdditive, isSubtractive;
    int red, green, blue;
};
// Written out on its own, by the names of the channel types without their suffix.
std::map<std::string, Flags> const expectedFlags{
    {"Red", {true, false, true, false, 255, 0, 0}},
    {"Green", {true, false, true, false, 0, 255, 0}},
    {"Blue", {true, false, true, false, 0, 0, 255}},
    {"Cyan", {true, false, false, true, 0, 255, 255}},
    {"Magenta", {true, false, false, true, 255, 0, 255}},
    {"Yellow", {true, false, false, true, 255, 255, 0}},
    {"Black", {true, false, false, true, 64, 64, 64}},
    {"Intensity", {true, false, true, false, 128, 128, 128}},
    {"Lightness", {true, false, true, false, 128, 128, 128}},
    {"AOpponent", {true, false, false, false, 128, 128, 128}},
    {"BOpponent", {true, false, false, false, 128, 128, 128}},
    {"Alpha", {true, true, false, false, 128, 128, 128}},
    {"Empty", {false, false, false, false, 0, 0, 0}},
};
Flags const otherFlags{true, false, false, false, 128, 128, 128};

/// "IndexX16" is {"IndexX", 65535}: what the spelling of a channel type promises.
struct Spelt {
    std::string role;
    float maximum;
};
Spelt Spell(std::string name) {
    if (name.size() == 2 && name[0] == 'X')
        return {"Empty", 1};
    auto const cut = [&](std::string const & suffix) {
        if (!name.ends_with(suffix))
            return false;
        name.resize(name.size() - suffix.size());
        return true;
    };
    if (cut("ComplexUF") || cut("UF") || cut("UH") || cut("F") || cut("H"))
        return {name, 1};
    if (cut("16"))
        return {name, 65535};
    EXPECT_TRUE(cut("8")) << name;
    return {name, 255};
}

void Check(std::vector<ChannelParams> const & actual, std::vector<std::string> const & names) {
    ASSERT_EQ(5u, actual.size());
    for (std::size_t i = 0; i < 5; ++i) {
        auto const spelt = Spell(names[i]);
        auto const found = expectedFlags.find(spelt.role);
        auto const flags = found == expectedFlags.end() ? otherFlags : found->second;
        auto const & params = actual[i];
        EXPECT_EQ(spelt.role, params.name.GetCharacters()) << names[i];
        EXPECT_EQ(flags.present, params.present) << names[i];
        EXPECT_EQ(flags.isAlpha, params.isAlpha) << names[i];
        EXPECT_EQ(flags.isAdditive, params.isAdditive) << names[i];
        EXPECT_EQ(flags.isSubtractive, params.isSubtractive) << names[i];
        EXPECT_EQ(flags.red, params.red) << names[i];
        EXPECT_EQ(flags.green, params.green) << names[i];
        EXPECT_EQ(flags.blue, params.blue) << names[i];
        EXPECT_EQ(0.0f, params.minimum) << names[i];
        EXPECT_EQ(spelt.maximum, params.maximum) << names[i];
    }
}
}

TEST(ChannelParams, EveryTupleDescribesItsFivePositions) {
    int count = 0;
#define RASTER_CHECK(C1, C2, C3, C4, C5)                                                                               \
    Check(GetChannelInfoOf<ChannelTuple<C1, C2, C3, C4, C5>>(), {#C1, #C2, #C3, #C4, #C5});                            \
    ++count;
    RASTER_FOR_EACH_TUPLE(RASTER_CHECK)
#undef RASTER_CHECK
    EXPECT_EQ(73, count);
}

TEST(ChannelParams, AlphaAloneIsOneAlphaAndFourEmpty) {
    auto const info = GetChannelInfoOf<A8Tuple>();
    ASSERT_EQ(5u, info.size());
    EXPECT_EQ(info[0].name, "Alpha");
    EXPECT_TRUE(info[0].isAlpha);
    EXPECT_EQ(255.0f, info[0].maximum);
    for (std::size_t i = 1; i < 5; ++i) {
        EXPECT_EQ(info[i].name, "Empty");
        EXPECT_FALSE(info[i].present);
    }
}

TEST(ChannelParams, UnboundedChannelsReportOne) {
    for (auto const & params : GetChannelInfoOf<RGBAUFTuple>())
        EXPECT_EQ(1.0f, params.maximum);
}

TEST(ChannelParams, ChannelNamesCarryTheContextOfTheirColourSpace) {
    std::map<std::string, std::string> const contexts{
        {"Red", "RGB Channel name"},        {"Green", "RGB Channel name"},     {"Blue", "RGB Channel name"},
        {"Cyan", "CMYK Channel name"},      {"Magenta", "CMYK Channel name"},  {"Yellow", "CMYK Channel name"},
        {"Black", "CMYK Channel name"},     {"Hue", "HSL Channel name"},       {"Saturation", "HSL Channel name"},
        {"Luminosity", "HSL Channel name"}, {"Value", "HSV Channel name"},     {"Intensity", "Greyscale Channel name"},
        {"Alpha", "Channel name"},          {"Lightness", "LAB Channel name"}, {"AOpponent", "LAB Channel name"},
        {"BOpponent", "LAB Channel name"}};
    for (auto const & [name, context] : contexts) {
        auto const localised = LocaliseChannelName(name.c_str());
        EXPECT_EQ(localised.GetText(), name.c_str());
        EXPECT_EQ(localised.GetContext(), context.c_str());
        EXPECT_EQ(Kernel::StringUtf8(localised), name.c_str());
    }
}

TEST(ChannelParams, AnyOtherNameIsShownAsItIs) {
    for (char const * const name :
         {"Chroma", "Index", "IndexX", "ChannelOne", "Empty", "", "red", "Red ", "Re", "Redd"}) {
        auto const localised = LocaliseChannelName(name);
        EXPECT_EQ(Kernel::StringUtf8(localised), name);
        EXPECT_TRUE(localised.GetContext().IsEmpty()) << name;
    }
}
}
