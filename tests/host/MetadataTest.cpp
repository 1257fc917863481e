#include "host/Metadata.h"

#include "kernel/MemoryInStream.h"

#include <gtest/gtest.h>

namespace Host {
namespace {
using namespace std::string_literals;
using Names = std::vector<std::string>;

Names Find(std::string const & bytes) {
    Kernel::MemoryInStream stream(bytes.data(), bytes.size());
    return FindMetadata(stream);
}

std::string Segment(unsigned char marker, std::string const & content) {
    auto const size = content.size() + 2;
    return "\xFF"s + char(marker) + char(size >> 8) + char(size) + content;
}

std::string Chunk(std::string const & type, std::string const & content) {
    auto const size = content.size();
    return std::string{char(size >> 24), char(size >> 16), char(size >> 8), char(size)} + type + content + "\0\0\0\0"s;
}

std::string const jpegStart = "\xFF\xD8", jpegScan = "\xFF\xDA\0\x02"s, pngStart = "\x89PNG\r\n\x1A\n";

TEST(Metadata, NamesTheSegmentsOfAJPEG) {
    EXPECT_EQ(Names(), Find(jpegStart + Segment(0xE0, "JFIF") + Segment(0xE2, "ICC_PROFILE\0"s) + jpegScan));
    EXPECT_EQ((Names{"EXIF", "XMP", "image resources", "comments"}),
              Find(jpegStart + Segment(0xE1, "Exif\0\0more"s) + "\xFF\xFF" +
                   Segment(0xE1, "http://ns.adobe.com/xap/1.0/\0<x>"s) + Segment(0xED, "Photoshop 3.0\0"s) +
                   Segment(0xFE, "hello") + Segment(0xFE, "again") + jpegScan));
}

TEST(Metadata, StopsWhereTheJPEGPictureBegins) {
    EXPECT_EQ(Names(), Find(jpegStart + jpegScan + Segment(0xFE, "in the scan")));
}

TEST(Metadata, NamesTheChunksOfAPNG) {
    EXPECT_EQ(Names(), Find(pngStart + Chunk("IHDR", "0123456789abc") + Chunk("iCCP", "x") + Chunk("IEND", "")));
    EXPECT_EQ((Names{"text", "XMP", "EXIF", "time of change", "gamma and primaries"}),
              Find(pngStart + Chunk("tEXt", "Title\0x"s) + Chunk("iTXt", "XML:com.adobe.xmp\0..."s) +
                   Chunk("zTXt", "a") + Chunk("eXIf", "MM") + Chunk("tIME", "1234567") + Chunk("gAMA", "1234") +
                   Chunk("IEND", "") + Chunk("tEXt", "after the end")));
}

TEST(Metadata, TellsSRGBFromOtherColours) {
    std::string const gamma("\0\0\xB1\x8F", 4), otherGamma("\0\x01\x86\xA0", 4);
    auto const find = [](std::string const & chunks) { return Find(pngStart + chunks + Chunk("IEND", "")); };
    EXPECT_EQ(Names(), find(Chunk("gAMA", gamma)));
    EXPECT_EQ(Names{"gamma and primaries"}, find(Chunk("gAMA", otherGamma)));
    EXPECT_EQ(Names{"gamma and primaries"}, find(Chunk("cHRM", std::string(32, 'x'))));
    EXPECT_EQ(Names(), find(Chunk("gAMA", otherGamma) + Chunk("sRGB", "x")));
    EXPECT_EQ(Names(), find(Chunk("iCCP", "x") + Chunk("gAMA", otherGamma)));
}

TEST(Metadata, EndsQuietlyInDamage) {
    std::string const jpeg = jpegStart + Segment(0xE1, "Exif\0\0more"s) + Segment(0xFE, "hello") + jpegScan;
    std::string const png = pngStart + Chunk("eXIf", "MM") + Chunk("tEXt", "a") + Chunk("IEND", "");
    for (auto const & whole : {jpeg, png})
        for (std::size_t size = 0; size <= whole.size(); ++size)
            EXPECT_LE(Find(whole.substr(0, size)).size(), 2u);
    EXPECT_EQ(Names(), Find(jpegStart + "\xFF\xE1\0\0Exif"s));
    EXPECT_EQ(Names(), Find(pngStart + "\xFF\xFF\xFF\xFFjunk"));
    EXPECT_EQ(Names(), Find("GIF89a"));
    EXPECT_EQ(Names(), Find(""));
}
}
}
