// This program names nothing of the colour management: Lab has to be there all the same.
#include "pixel/Conversion.h"
#include "pixel/DynamicPixel.h"

#include <gtest/gtest.h>

namespace Raster {
namespace {
TEST(LabConnection, FirstConversionIsManagedAlready) {
    PixelOf<LABA16Tuple> lab{};
    ConvertPixel<LABA16Tuple, RGBA8Tuple>(lab, {{255, 0, 0, 128}});
    EXPECT_NEAR(54.29 / 100 * 65535, lab[0], 65535 * 0.003); // red of sRGB under D50 is (54.3, 80.8, 69.9)
    EXPECT_NEAR((80.8 + 128) * 257, lab[1], 257);
    EXPECT_NEAR((69.9 + 128) * 257, lab[2], 257);
    EXPECT_EQ(32896, lab[3]);
    PixelOf<RGBA8Tuple> back{};
    ConvertPixel<RGBA8Tuple, LABA16Tuple>(back, lab);
    EXPECT_EQ((PixelOf<RGBA8Tuple>{{255, 0, 0, 128}}), back);
}

TEST(LabConnection, PixelsOfAnyFormatShowTheirManagedLab) {
    DynamicPixel pixel(PixelOf<RGBA8Tuple>{{255, 0, 0, 128}});
    PixelOf<LABA16Tuple> red{};
    ConvertPixel<LABA16Tuple, RGBA8Tuple>(red, {{255, 0, 0, 128}});
    EXPECT_EQ(red, static_cast<PixelOf<LABA16Tuple> const &>(pixel));
    EXPECT_NEAR(54.29 / 100 * 65535, red[0], 65535 * 0.003);
    pixel = PixelOf<A8Tuple>{{77}};
    EXPECT_EQ((PixelOf<LABA16Tuple>{{0, 32896, 32896, 77 * 257}}), static_cast<PixelOf<LABA16Tuple> const &>(pixel));
    pixel = red;
    EXPECT_EQ((PixelOf<RGBA8Tuple>{{255, 0, 0, 128}}), static_cast<PixelOf<RGBA8Tuple> const &>(pixel));
}
}
}
