#include "pixel/ChannelTuple.h"
#include "pixel/Pixel.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

namespace Raster {
namespace {
// The catalogue of all tuples, with bytes per pixel, written out on its own. Placeholders are left out.
std::map<std::string, std::size_t> const catalogue{
    {"Red8 Green8 Blue8 Alpha8", 4},
    {"Red8 Green8 Blue8", 3},
    {"Red16 Green16 Blue16 Alpha16", 8},
    {"Red16 Green16 Blue16", 6},
    {"Blue8 Green8 Red8 Alpha8", 4},
    {"Alpha8 Red8 Green8 Blue8", 4},
    {"RedF GreenF BlueF AlphaF", 16},
    {"RedF GreenF BlueF", 12},
    {"RedUF GreenUF BlueUF AlphaF", 16},
    {"RedUF GreenUF BlueUF", 12},
    {"RedUH GreenUH BlueUH AlphaH", 8},
    {"RedUH GreenUH BlueUH", 6},
    {"RedComplexUF GreenComplexUF BlueComplexUF AlphaComplexUF", 32},
    {"RedComplexUF GreenComplexUF BlueComplexUF", 24},
    {"RedF YellowF BlueF AlphaF", 16},
    {"Intensity8 Alpha8", 2},
    {"Intensity8", 1},
    {"Intensity16 Alpha16", 4},
    {"Intensity16", 2},
    {"IntensityF AlphaF", 8},
    {"IntensityF", 4},
    {"IntensityUF AlphaF", 8},
    {"IntensityUF", 4},
    {"IntensityH AlphaH", 4},
    {"IntensityUH", 2},
    {"IntensityComplexUF AlphaComplexUF", 16},
    {"Cyan8 Magenta8 Yellow8 Black8 Alpha8", 5},
    {"Cyan8 Magenta8 Yellow8 Black8", 4},
    {"CyanF MagentaF YellowF BlackF AlphaF", 20},
    {"CyanF MagentaF YellowF BlackF", 16},
    {"CyanComplexUF MagentaComplexUF YellowComplexUF BlackComplexUF AlphaComplexUF", 40},
    {"CyanComplexUF MagentaComplexUF YellowComplexUF BlackComplexUF", 32},
    {"Lightness16 AOpponent16 BOpponent16 Alpha16", 8},
    {"Lightness16 AOpponent16 BOpponent16", 6},
    {"LightnessF AOpponentF BOpponentF AlphaF", 16},
    {"LightnessF AOpponentF BOpponentF", 12},
    {"Lightness16", 2},
    {"AOpponent16 BOpponent16", 4},
    {"HueF SaturationF LuminosityF AlphaF", 16},
    {"HueF SaturationF ValueF AlphaF", 16},
    {"HueF ChromaUF LuminosityUF AlphaF", 16},
    {"HueF ChromaUF ValueUF AlphaF", 16},
    {"Alpha8", 1},
    {"Alpha16", 2},
    {"AlphaF", 4},
    {"AlphaH", 2},
    {"AlphaComplexUF", 8},
    {"Index8", 1},
    {"Index16", 2},
    {"IndexX16", 2},
    {"IndexY16", 2},
    {"IndexX16 IndexY16", 4},
    {"IndexXF IndexYF", 8},
    {"ChannelOne8", 1},
    {"ChannelOne8 ChannelTwo8", 2},
    {"ChannelOne8 ChannelTwo8 ChannelThree8", 3},
    {"ChannelOne8 ChannelTwo8 ChannelThree8 ChannelFour8", 4},
    {"ChannelOne8 ChannelTwo8 ChannelThree8 ChannelFour8 ChannelFive8", 5},
    {"ChannelOne16", 2},
    {"ChannelOne16 ChannelTwo16", 4},
    {"ChannelOne16 ChannelTwo16 ChannelThree16", 6},
    {"ChannelOne16 ChannelTwo16 ChannelThree16 ChannelFour16", 8},
    {"ChannelOne16 ChannelTwo16 ChannelThree16 ChannelFour16 ChannelFive16", 10},
    {"ChannelOneUF", 4},
    {"ChannelOneUF ChannelTwoUF", 8},
    {"ChannelOneUF ChannelTwoUF ChannelThreeUF", 12},
    {"ChannelOneUF ChannelTwoUF ChannelThreeUF ChannelFourUF", 16},
    {"ChannelOneUF ChannelTwoUF ChannelThreeUF ChannelFourUF ChannelFiveUF", 20},
    {"ChannelOneUH", 2},
    {"ChannelOneUH ChannelTwoUH", 4},
    {"ChannelOneUH ChannelTwoUH ChannelThreeUH", 6},
    {"ChannelOneUH ChannelTwoUH ChannelThreeUH ChannelFourUH", 8},
    {"ChannelOneUH ChannelTwoUH ChannelThreeUH ChannelFourUH ChannelFiveUH", 10},
};

std::map<std::string, std::uint32_t> const formats{
    {"Red8 Green8 Blue8 Alpha8", 0},
    {"Red16 Green16 Blue16 Alpha16", 1},
    {"Intensity8 Alpha8", 2},
    {"Intensity16 Alpha16", 3},
    {"Cyan8 Magenta8 Yellow8 Black8 Alpha8", 4},
    {"Lightness16 AOpponent16 BOpponent16 Alpha16", 5},
    {"Alpha8", 6},
    {"Alpha16", 7},
    {"RedUF GreenUF BlueUF AlphaF", 9},
    {"AlphaF", 10},
};

std::string JoinReal(std::initializer_list<std::string> names) {
    std::string joined;
    for (auto const & name : names)
        if (!(name.size() == 2 && name[0] == 'X'))
            joined += (joined.empty() ? "" : " ") + name;
    return joined;
}
}

TEST(TupleCatalogue, HoldsEachTupleOnceWithItsSizeAndFormat) {
    ASSERT_EQ(73u, catalogue.size());
    std::set<std::string> seen;
#define RASTER_CHECK(C1, C2, C3, C4, C5)                                                                               \
    {                                                                                                                  \
        auto const name = JoinReal({#C1, #C2, #C3, #C4, #C5});                                                         \
        using Tuple = ChannelTuple<C1, C2, C3, C4, C5>;                                                                \
        EXPECT_TRUE(seen.insert(name).second) << name;                                                                 \
        ASSERT_TRUE(catalogue.contains(name)) << name;                                                                 \
        EXPECT_EQ(catalogue.at(name), Tuple::pixelSize) << name;                                                       \
        EXPECT_EQ(catalogue.at(name), layoutOf<Tuple>.GetPixelSize()) << name;                                         \
        EXPECT_EQ(catalogue.at(name), sizeof(Pixel<C1, C2, C3, C4, C5>)) << name;                                      \
        EXPECT_EQ(formats.contains(name) ? formats.at(name) : 8u, formatOf<Tuple>) << name;                            \
        EXPECT_EQ(formatOf<Tuple>, layoutOf<Tuple>.format) << name;                                                    \
    }
    RASTER_FOR_EACH_TUPLE(RASTER_CHECK)
#undef RASTER_CHECK
    EXPECT_EQ(catalogue.size(), seen.size());
}

TEST(TupleCatalogue, PivotOfConversionsHasNoFormat) { EXPECT_EQ(NoFormat, formatOf<RGBAFTuple>); }

TEST(TupleCatalogue, PositionsArePaddedWithTheirOwnPlaceholderButForTwoGenericChannels) {
    auto const isPlaceholder = [](std::string const & name) { return name.size() == 2 && name[0] == 'X'; };
    int unusual = 0;
    auto const check = [&](std::initializer_list<std::string> names) {
        char position = '1';
        for (auto const & name : names) {
            if (isPlaceholder(name) && name[1] != position) {
                EXPECT_EQ('4', position);
                EXPECT_EQ("X5", name);
                EXPECT_TRUE(names.begin()[1].starts_with("ChannelTwo"));
                ++unusual;
            }
            ++position;
        }
    };
#define RASTER_CHECK(C1, C2, C3, C4, C5) check({#C1, #C2, #C3, #C4, #C5});
    RASTER_FOR_EACH_TUPLE(RASTER_CHECK)
#undef RASTER_CHECK
    EXPECT_EQ(4, unusual);
}
}
