#include "files/DynamicFile.h"
#include "files/jpeg/DynamicJPEG.h"
#include "files/png/DynamicPNG.h"

#include <gtest/gtest.h>

namespace Raster {
namespace {
// JPEG, PNG, TIFF, HD Photo, HDR and OpenEXR, GIF.
struct Row {
    Format asked;
    Format answers[6];
};
constexpr Row rows[] = {
    {RGBA8, {RGBA8, RGBA8, RGBA8, RGBA8, RGBAUF, RGBA8}},
    {RGBA16, {RGBA8, RGBA16, RGBA16, RGBA16, RGBAUF, RGBA8}},
    {IA8, {IA8, IA8, IA8, IA8, RGBAUF, RGBA8}},
    {IA16, {IA8, IA16, IA16, IA16, RGBAUF, RGBA8}},
    {CMYKA8, {CMYKA8, RGBA8, CMYKA8, CMYKA8, RGBAUF, RGBA8}},
    {LABA16, {RGBA8, RGBA16, LABA16, RGBA8, RGBAUF, RGBA8}},
    {A8, {IA8, A8, A8, IA8, RGBAUF, RGBA8}},
    {A16, {IA8, A16, A16, IA16, RGBAUF, RGBA8}},
    {NoFormat, {RGBA8, RGBA8, RGBA8, RGBA8, RGBAUF, RGBA8}},
    {RGBAUF, {RGBA8, RGBA16, RGBAUF, RGBAUF, RGBAUF, RGBA8}},
    {AF, {IA8, A16, A16, IA16, RGBAUF, RGBA8}},
    {Format(11), {RGBA8, NoFormat, RGBA8, RGBA8, RGBAUF, RGBA8}},
    {Format(~0u), {RGBA8, NoFormat, RGBA8, RGBA8, RGBAUF, RGBA8}},
};

int GetColumn(FileType type) {
    switch (type) {
    case FileTypeJPEG:
        return 0;
    case FileTypePNG:
        return 1;
    case FileTypeTIFF:
        return 2;
    case FileTypeHDPhoto:
        return 3;
    case FileTypeHDR:
    case FileTypeOpenEXR:
        return 4;
    case FileTypeGIF:
        return 5;
    default:
        return -1; // not written
    }
}

TEST(SupportedFormats, AreThoseOfTheTable) {
    for (unsigned number = 0; number < 20; ++number)
        for (auto const & row : rows) {
            auto const type = FileType(number);
            int const column = GetColumn(type);
            Format const expected = column < 0 ? NoFormat : row.answers[column];
            EXPECT_EQ(DynamicFile::GetSupportedFormat(type, row.asked), expected) << number << ", " << row.asked;
            EXPECT_EQ(DynamicFile::IsSupportedFormat(type, row.asked), expected == row.asked && expected != NoFormat)
                << number << ", " << row.asked;
        }
}

TEST(SupportedFormats, AreTheSameOnTheWrappers) {
    for (auto const & row : rows) {
        EXPECT_EQ(DynamicJPEG::GetSupportedFormat(row.asked), row.answers[0]) << row.asked;
        EXPECT_EQ(DynamicPNG::GetSupportedFormat(row.asked), row.answers[1]) << row.asked;
        EXPECT_EQ(DynamicJPEG::IsSupportedFormat(row.asked), DynamicFile::IsSupportedFormat(FileTypeJPEG, row.asked));
        EXPECT_EQ(DynamicPNG::IsSupportedFormat(row.asked), DynamicFile::IsSupportedFormat(FileTypePNG, row.asked));
    }
}
}
}
