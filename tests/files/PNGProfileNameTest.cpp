#include "files/png/PNGProfileName.h"

#include <gtest/gtest.h>

namespace Raster {
namespace {
TEST(PNGProfileName, PrintableLatin1Stays) {
    EXPECT_EQ("sRGB IEC61966-2.1", MakePNGProfileName("sRGB IEC61966-2.1"));
    EXPECT_EQ("~!", MakePNGProfileName("~!"));
    EXPECT_EQ("Pr\xFC"
              "fdruck \xA1\xFF",
              MakePNGProfileName("Pr\xC3\xBC"
                                 "fdruck \xC2\xA1\xC3\xBF"));
}

TEST(PNGProfileName, OtherCharactersBecomeQuestionMarks) {
    EXPECT_EQ("a?b", MakePNGProfileName("a\xE2\x82\xAC"
                                        "b")); // the euro sign
    EXPECT_EQ("a?b", MakePNGProfileName("a\xF0\x9F\x98\x80"
                                        "b")); // four bytes
    EXPECT_EQ("a?b", MakePNGProfileName("a\x01"
                                        "b"));
    EXPECT_EQ("a?b", MakePNGProfileName("a\x7F"
                                        "b"));
    EXPECT_EQ("a?b", MakePNGProfileName("a\xC2\x80"
                                        "b"));  // a control character of Latin-1
    EXPECT_EQ("?", MakePNGProfileName("\xC3")); // cut short
    EXPECT_EQ("??", MakePNGProfileName("\x80\xFF"));
    EXPECT_EQ("?a", MakePNGProfileName("\xC3"
                                       "a"));
}

TEST(PNGProfileName, SpacesAreSingleAndInside) {
    EXPECT_EQ("a b", MakePNGProfileName("  a \t\n b  "));
    EXPECT_EQ("a b", MakePNGProfileName("a\xC2\xA0"
                                        "b")); // a space that doesn't break
}

TEST(PNGProfileName, NothingBecomesAName) {
    EXPECT_EQ("ICC Profile", MakePNGProfileName(""));
    EXPECT_EQ("ICC Profile", MakePNGProfileName("   "));
}

TEST(PNGProfileName, AtMost79Bytes) {
    EXPECT_EQ(std::string(79, 'x'), MakePNGProfileName(std::string(500, 'x')));
    EXPECT_EQ(std::string(78, 'x'), MakePNGProfileName(std::string(78, 'x') + " y"));
    EXPECT_EQ(std::string(77, 'x') + " y", MakePNGProfileName(std::string(77, 'x') + " y"));
}

TEST(PNGProfileName, EveryPairOfBytesGivesAValidName) {
    for (int i = 0; i < 65536; ++i) {
        char const bytes[] = {static_cast<char>(i >> 8), static_cast<char>(i)};
        auto const name = MakePNGProfileName({bytes, 2});
        ASSERT_FALSE(name.empty()) << i;
        for (char const character : name) {
            auto const byte = static_cast<unsigned char>(character);
            ASSERT_TRUE((byte >= 0x20 && byte <= 0x7E) || byte >= 0xA1) << i;
        }
        ASSERT_TRUE(name.front() != ' ' && name.back() != ' ') << i;
    }
}
}
}
