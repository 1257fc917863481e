#include "host/Formats.h"

#include "pixel/FormatFunctions.h"

#include <gtest/gtest.h>

namespace Host {
namespace {
TEST(Formats, FindsTypesByNameAndExtensionInAnyCase) {
    EXPECT_EQ(Raster::FileTypeJPEG, FindWrittenType("JPEG"));
    EXPECT_EQ(Raster::FileTypeJPEG, FindWrittenType("jpg"));
    EXPECT_EQ(Raster::FileTypePNG, FindWrittenType("Png"));
    EXPECT_FALSE(FindWrittenType("gif")); // can't be written
    EXPECT_FALSE(FindWrittenType(""));

    EXPECT_EQ(Raster::FileTypeJPEG, FindWrittenTypeOfPath("a/b.c/photo.JPeG"));
    EXPECT_EQ(Raster::FileTypePNG, FindWrittenTypeOfPath("a.jpg.png"));
    for (auto const * const path : {"", "png", "a/.png", "a.png/b", "a.", "a.bmp", "dir.png/"})
        EXPECT_FALSE(FindWrittenTypeOfPath(path)) << path;
}

TEST(Formats, ListsWhatCanBeWritten) {
    EXPECT_EQ("jpeg (.jpg, .jpeg, .jpe, .jfif) and png (.png)", ListWrittenTypes());
}

TEST(Formats, KnowsEveryFormatByName) {
    EXPECT_EQ(10u, ListFormats().size());
    for (auto const & name : ListFormats()) {
        auto const format = FindFormat(name);
        ASSERT_TRUE(format) << name;
        EXPECT_EQ(name, GetFormatName(*format));
        auto const channels = static_cast<unsigned>(Raster::GetNumberOfNonMaskedChannels(31, *format));
        EXPECT_EQ(channels * GetBits(*format) / 8, GetPixelBytes(*format)) << name;
    }
    EXPECT_EQ(Raster::CMYKA8, FindFormat("cmyka8"));
    EXPECT_FALSE(FindFormat("RGB"));
    EXPECT_FALSE(FindFormat("none"));
}
}
}
