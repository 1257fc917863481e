#include "pixel/FileColourTypes.h"

#include <gtest/gtest.h>

namespace Raster {
TEST(FileColourTypes, PNGColourTypes) {
    EXPECT_EQ(0, (FormatToPNGColourType<Alpha8>()));
    EXPECT_EQ(0, (FormatToPNGColourType<Alpha16>()));
    EXPECT_EQ(4, (FormatToPNGColourType<Intensity8, Alpha8>()));
    EXPECT_EQ(4, (FormatToPNGColourType<Intensity16, Alpha16>()));
    EXPECT_EQ(6, (FormatToPNGColourType<Red8, Green8, Blue8, Alpha8>()));
    EXPECT_EQ(6, (FormatToPNGColourType<Red16, Green16, Blue16, Alpha16, X5>()));
    EXPECT_EQ(3, (FormatToPNGColourType<Index8>()));
}

TEST(FileColourTypes, PNGColourTypesWithoutAlpha) {
    EXPECT_EQ(0, (FormatToNonAlphaPNGColourType<Alpha8>()));
    EXPECT_EQ(0, (FormatToNonAlphaPNGColourType<Alpha16>()));
    EXPECT_EQ(0, (FormatToNonAlphaPNGColourType<Intensity8, Alpha8>()));
    EXPECT_EQ(0, (FormatToNonAlphaPNGColourType<Intensity16, Alpha16>()));
    EXPECT_EQ(2, (FormatToNonAlphaPNGColourType<Red8, Green8, Blue8, Alpha8>()));
    EXPECT_EQ(2, (FormatToNonAlphaPNGColourType<Red16, Green16, Blue16, Alpha16>()));
    EXPECT_EQ(3, (FormatToNonAlphaPNGColourType<Index8>()));
}

TEST(FileColourTypes, TIFFPhotometricInterpretations) {
    EXPECT_EQ(1, (FormatToTIFFColourType<Alpha8>()));
    EXPECT_EQ(1, (FormatToTIFFColourType<Alpha16>()));
    EXPECT_EQ(1, (FormatToTIFFColourType<Intensity8, Alpha8>()));
    EXPECT_EQ(1, (FormatToTIFFColourType<Intensity16, Alpha16>()));
    EXPECT_EQ(2, (FormatToTIFFColourType<Red8, Green8, Blue8, Alpha8>()));
    EXPECT_EQ(2, (FormatToTIFFColourType<Red16, Green16, Blue16, Alpha16>()));
    EXPECT_EQ(2, (FormatToTIFFColourType<RedUF, GreenUF, BlueUF, AlphaF>()));
    EXPECT_EQ(5, (FormatToTIFFColourType<Cyan8, Magenta8, Yellow8, Black8, Alpha8>()));
    EXPECT_EQ(8, (FormatToTIFFColourType<Lightness16, AOpponent16, BOpponent16, Alpha16>()));
}

TEST(FileColourTypes, EveryOtherTupleHasNone) {
    int png = 0, nonAlphaPNG = 0, tiff = 0;
#define RASTER_COUNT(...)                                                                                              \
    png += FormatToPNGColourType<__VA_ARGS__>() != noColourType;                                                       \
    nonAlphaPNG += FormatToNonAlphaPNGColourType<__VA_ARGS__>() != noColourType;                                       \
    tiff += FormatToTIFFColourType<__VA_ARGS__>() != noColourType;
    RASTER_FOR_EACH_TUPLE(RASTER_COUNT)
#undef RASTER_COUNT
    EXPECT_EQ(7, png);
    EXPECT_EQ(7, nonAlphaPNG);
    EXPECT_EQ(9, tiff);
}
}
