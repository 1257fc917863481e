#include "pixel/ChannelTuple.h"
#include "pixel/Pixel.h"

#include <gtest/gtest.h>

namespace Raster {
TEST(ChannelTuple, CountsAreThoseOfTheCatalogue) {
#define RASTER_COUNT(...) +1
    EXPECT_EQ(127, 0 RASTER_FOR_EACH_CHANNEL(RASTER_COUNT));
    EXPECT_EQ(73, 0 RASTER_FOR_EACH_TUPLE(RASTER_COUNT));
    EXPECT_EQ(10, 0 RASTER_FOR_EACH_FORMAT(RASTER_COUNT));
#undef RASTER_COUNT
}

TEST(ChannelTuple, KindsSplitIntoFiftyThreeAndSeventyFour) {
    int integers = 0, floats = 0;
#define RASTER_COUNT(role, suffix) ++(role##suffix::kind == ChannelKind::Integer ? integers : floats);
    RASTER_FOR_EACH_CHANNEL(RASTER_COUNT)
#undef RASTER_COUNT
    EXPECT_EQ(53, integers);
    EXPECT_EQ(74, floats);
}

TEST(ChannelTuple, PixelHoldsTheRealChannelsAndNothingElse) {
#define RASTER_CHECK(C1, C2, C3, C4, C5)                                                                               \
    static_assert(sizeof(Pixel<C1, C2, C3, C4, C5>) == ChannelTuple<C1, C2, C3, C4, C5>::pixelSize);
    RASTER_FOR_EACH_TUPLE(RASTER_CHECK)
#undef RASTER_CHECK
    EXPECT_EQ(4u, sizeof(PixelOf<RGBA8Tuple>));
    EXPECT_EQ(5u, sizeof(PixelOf<CMYKA8Tuple>));
    EXPECT_EQ(16u, sizeof(PixelOf<RGBAUFTuple>));
    EXPECT_EQ(32u * 4, sizeof(PlanarPixelSpanOf<RGBA8Tuple>));
}

TEST(ChannelTuple, VisitFormatHasTenArmsAndNoneForTheRest) {
    for (std::uint32_t value = 0; value < 20; ++value) {
        auto const format = static_cast<Format>(value);
        bool const visited = VisitFormat(format, [&](auto tuple) { return formatOf<decltype(tuple)> == format; });
        EXPECT_EQ(value < formatCount && value != NoFormat, visited) << value;
    }
}
}
