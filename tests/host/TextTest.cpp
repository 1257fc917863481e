#include "host/Text.h"

#include <gtest/gtest.h>

namespace Host {
namespace {
TEST(Text, MakesControlCharactersVisible) {
    EXPECT_EQ("a\\x1B[31mb\\x0A\\x7F", MakePrintable("a\033[31mb\n\x7F"));
    EXPECT_EQ("\xC3\xA9t\xC3\xA9", MakePrintable("\xC3\xA9t\xC3\xA9"));
}

TEST(Text, KeepsEveryCharacterOfUtf8) {
    for (std::string const text : {"", "plain", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
                                   "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"})
        EXPECT_EQ(text, MakeUtf8(text));
}

TEST(Text, ReplacesEachByteThatIsPartOfNoCharacter) {
    std::string const replacement = "\xEF\xBF\xBD";
    EXPECT_EQ("a" + replacement + "b", MakeUtf8("a\xFF"
                                                "b"));
    EXPECT_EQ(replacement + replacement, MakeUtf8("\xC0\x80")); // overlong
    EXPECT_EQ(replacement + replacement + replacement, MakeUtf8("\xE0\x9F\xBF"));
    EXPECT_EQ(replacement + replacement + replacement, MakeUtf8("\xED\xA0\x80")); // half of a pair
    EXPECT_EQ(replacement + replacement + replacement + replacement, MakeUtf8("\xF4\x90\x80\x80"));
    EXPECT_EQ("x" + replacement + replacement, MakeUtf8("x\xE2\x82")); // cut off
    EXPECT_EQ(replacement + "y", MakeUtf8("\xE2y"));
}

TEST(Text, NeverGivesWhatItWouldChangeAgain) {
    for (unsigned first = 0; first < 256; ++first)
        for (unsigned second = 0; second < 256; ++second) {
            std::string const bytes{char(first), char(second), char(0x80), char(0xBF)};
            auto const once = MakeUtf8(bytes);
            ASSERT_EQ(once, MakeUtf8(once)) << first << ' ' << second;
        }
}

TEST(Text, JoinsWords) {
    EXPECT_EQ("", Join({}));
    EXPECT_EQ("one", Join({"one"}));
    EXPECT_EQ("one and two", Join({"one", "two"}));
    EXPECT_EQ("one, two or three", Join({"one", "two", "three"}, "or"));
}

TEST(Text, GivesBytesInAUnitThatIsShort) {
    EXPECT_EQ("0 bytes", FormatBytes(0));
    EXPECT_EQ("1023 bytes", FormatBytes(1023));
    EXPECT_EQ("1.0 KiB", FormatBytes(1024));
    EXPECT_EQ("1.0 MiB", FormatBytes((1 << 20) - 1));
    EXPECT_EQ("91.6 MiB", FormatBytes(96000000));
    EXPECT_EQ("16.0 EiB", FormatBytes(~std::uint64_t(0)));
}
}
}
