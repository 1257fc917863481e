#include "analysis/DynamicPalette.h"

#include <gtest/gtest.h>

#include <array>
#include <set>

namespace Raster {
namespace {
using Pixel8 = PixelOf<RGBA8Tuple>;
using Colour = std::array<int, 4>;

Pixel8 Grey(int level, int alpha = 255) {
    auto const grey = static_cast<std::uint8_t>(level);
    return {{grey, grey, grey, static_cast<std::uint8_t>(alpha)}};
}

DynamicPalette MakeGreys(std::vector<int> const & levels) {
    DynamicPalette palette;
    for (int const level : levels)
        palette.AddColour(Grey(level), false);
    return palette;
}

std::vector<Colour> GetColours(DynamicPalette const & palette) {
    std::vector<Colour> colours;
    for (auto const & colour : palette.GetColours()) {
        Pixel8 const & pixel = colour;
        colours.push_back({pixel[0], pixel[1], pixel[2], pixel[3]});
    }
    return colours;
}

std::vector<int> GetReds(DynamicPalette const & palette) {
    std::vector<int> reds;
    for (auto const & colour : GetColours(palette))
        reds.push_back(colour[0]);
    return reds;
}

std::vector<int> MakeRamp(int count) {
    std::vector<int> levels;
    for (int i = 0; i < count; ++i)
        levels.push_back(i * 255 / (count - 1));
    return levels;
}

TEST(DynamicPalette, IsEmptyAtFirst) {
    DynamicPalette const palette;
    EXPECT_EQ(palette.GetSize(), 0u);
    EXPECT_EQ(palette.GetChromaKeyIndex(), -1);
    EXPECT_EQ(palette.GetBitDepth(), 1);
    EXPECT_TRUE(palette.IsGreyOnly());
    EXPECT_FALSE(palette.IsGreyScale());
}

TEST(DynamicPalette, RemembersTheLastTransparentColour) {
    DynamicPalette palette;
    palette.AddColour(Grey(1), true);
    EXPECT_EQ(palette.GetChromaKeyIndex(), 0);
    palette.AddColour(Grey(2), false);
    EXPECT_EQ(palette.GetChromaKeyIndex(), 0);
    palette.AddColour(Grey(3), true);
    EXPECT_EQ(palette.GetChromaKeyIndex(), 2);
}

TEST(DynamicPalette, BitDepthFollowsTheNumberOfColours) {
    DynamicPalette palette;
    for (int count = 0; count <= 300; ++count) {
        EXPECT_EQ(palette.GetBitDepth(), count <= 2 ? 1 : count <= 4 ? 2 : count <= 16 ? 4 : 8) << count << " colours";
        palette.AddColour(Grey(count % 256), false);
    }
}

TEST(DynamicPalette, WebSafeColoursAreTheCubeWithRedOutermost) {
    auto palette = MakeGreys({7});
    palette.AddWebSafeColours();
    auto const colours = GetColours(palette);
    ASSERT_EQ(colours.size(), 217u);
    EXPECT_EQ(colours[1], (Colour{0, 0, 0, 255}));
    EXPECT_EQ(colours[2], (Colour{0, 0, 0x33, 255}));
    EXPECT_EQ(colours[7], (Colour{0, 0x33, 0, 255}));
    EXPECT_EQ(colours[37], (Colour{0x33, 0, 0, 255}));
    EXPECT_EQ(colours[216], (Colour{255, 255, 255, 255}));
    EXPECT_EQ(std::set<Colour>(colours.begin() + 1, colours.end()).size(), 216u);
    palette.AddWebSafeColours();
    EXPECT_EQ(palette.GetSize(), 433u);
}

TEST(DynamicPalette, GreyOnlyLooksAtColoursNotAtAlpha) {
    auto palette = MakeGreys({5, 200});
    palette.AddColour(Grey(9, 0), true);
    EXPECT_TRUE(palette.IsGreyOnly());
    palette.AddColour(Pixel8{{10, 10, 11, 255}}, false);
    EXPECT_FALSE(palette.IsGreyOnly());
}

TEST(DynamicPalette, GreyScaleIsTheEvenRampOfItsSize) {
    for (int count = 2; count <= 256; ++count) {
        auto levels = MakeRamp(count);
        EXPECT_TRUE(MakeGreys(levels).IsGreyScale()) << count;
        for (int const wrong : {0, count / 2, count - 1}) {
            auto changed = levels;
            changed[std::size_t(wrong)] ^= 1;
            EXPECT_FALSE(MakeGreys(changed).IsGreyScale()) << count << ", entry " << wrong;
        }
    }
    EXPECT_FALSE(MakeGreys({0}).IsGreyScale());
    EXPECT_FALSE(MakeGreys({255, 0}).IsGreyScale());
}

TEST(DynamicPalette, GreyScaleNeedsEqualChannels) {
    DynamicPalette palette;
    palette.AddColour(Grey(0), false);
    palette.AddColour(Pixel8{{255, 255, 254, 255}}, false);
    EXPECT_FALSE(palette.IsGreyScale());
}

TEST(DynamicPalette, MakeGreyScaleKeepsTwoColoursThatAreARamp) {
    auto palette = MakeGreys({0, 255});
    palette.MakeGreyScale(false, false);
    EXPECT_EQ(GetReds(palette), MakeRamp(2));
    EXPECT_TRUE(palette.IsGreyScale());
}

TEST(DynamicPalette, MakeGreyScaleStartsWhereTheSizeSays) {
    struct Case {
        int colours, ramp;
    };
    for (auto const [colours, ramp] :
         {Case{0, 2}, Case{1, 2}, Case{2, 2}, Case{3, 4}, Case{4, 4}, Case{5, 16}, Case{16, 16}, Case{17, 256}}) {
        auto palette = MakeGreys(std::vector<int>(std::size_t(colours), 255));
        palette.MakeGreyScale(false, true);
        EXPECT_EQ(GetReds(palette), MakeRamp(ramp)) << colours << " colours";
    }
}

TEST(DynamicPalette, MakeGreyScaleTakesTheSmallestRampThatHoldsAll) {
    for (int level = 0; level < 256; ++level) {
        auto const holds = [&](int bits) {
            return (level * ((1 << bits) - 1) + 254) / 255 * 255 / ((1 << bits) - 1) == level;
        };
        int step = 1, doubled = 1;
        while (!holds(step))
            ++step;
        while (!holds(doubled))
            doubled *= 2;
        auto palette = MakeGreys({level});
        palette.MakeGreyScale(false, false);
        EXPECT_EQ(GetReds(palette), MakeRamp(1 << step)) << "level " << level;
        palette = MakeGreys({level});
        palette.MakeGreyScale(false, true);
        EXPECT_EQ(GetReds(palette), MakeRamp(1 << doubled)) << "level " << level;
        palette = MakeGreys({level});
        palette.MakeGreyScale(true, false);
        EXPECT_EQ(GetReds(palette), MakeRamp(256)) << "level " << level;
    }
}

TEST(DynamicPalette, MakeGreyScaleKeepsTheTransparentIndex) {
    DynamicPalette palette;
    palette.AddColour(Grey(0), false);
    palette.AddColour(Grey(255), true);
    palette.MakeGreyScale(true, true);
    EXPECT_EQ(palette.GetSize(), 256u);
    EXPECT_EQ(palette.GetChromaKeyIndex(), 1);
}

TEST(DynamicPalette, AColourThatNoRampHoldsChangesNothing) {
    for (auto const & odd : {Pixel8{{1, 2, 3, 255}}, Grey(0, 254), Grey(128, 0)}) {
        for (int flags = 0; flags < 4; ++flags) {
            auto palette = MakeGreys({0, 255});
            palette.AddColour(odd, false);
            auto const before = GetColours(palette);
            palette.MakeGreyScale(flags & 1, flags & 2);
            EXPECT_EQ(GetColours(palette), before);
        }
    }
}

TEST(DynamicPalette, IsAValue) {
    auto palette = MakeGreys({1, 2});
    palette.AddColour(Grey(3), true);
    DynamicPalette const copy = palette;
    palette.GetColours().clear();
    EXPECT_EQ(copy.GetSize(), 3u);
    DynamicPalette source = copy;
    DynamicPalette const moved = std::move(source);
    EXPECT_EQ(moved.GetChromaKeyIndex(), 2);
    EXPECT_EQ(source.GetSize(), 0u);
    EXPECT_EQ(source.GetChromaKeyIndex(), -1);
}
}
}
