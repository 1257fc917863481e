#include "kernel/ConvertEnc.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {
using Kernel::ConvertEnc;
using Kernel::IsWellFormed;
using Kernel::StringUtf16;
using Kernel::StringUtf8;
using Kernel::TEncUtf16;
using Kernel::TEncUtf8;

// U+FFFD in UTF-8.
#define BAD "\xEF\xBF\xBD"

std::string Repair(std::string_view text) { return std::string(ConvertEnc<TEncUtf8, TEncUtf8>(text).GetView()); }

// A plain encoder to compare with.
std::string EncodeUtf8(char32_t c) {
    if (c < 0x80)
        return {char(c)};
    if (c < 0x800)
        return {char(0xC0 + c / 0x40), char(0x80 + c % 0x40)};
    if (c < 0x10000)
        return {char(0xE0 + c / 0x1000), char(0x80 + c / 0x40 % 0x40), char(0x80 + c % 0x40)};
    return {char(0xF0 + c / 0x40000), char(0x80 + c / 0x1000 % 0x40), char(0x80 + c / 0x40 % 0x40),
            char(0x80 + c % 0x40)};
}
std::u16string EncodeUtf16(char32_t c) {
    if (c < 0x10000)
        return {char16_t(c)};
    return {char16_t(0xD800 + (c - 0x10000) / 0x400), char16_t(0xDC00 + (c - 0x10000) % 0x400)};
}

TEST(ConvertEnc, RoundTripsEveryCodePoint) {
    for (char32_t c = 0; c < 0x110000; ++c) {
        if (c >= 0xD800 && c < 0xE000)
            continue;
        auto const utf8 = EncodeUtf8(c);
        auto const utf16 = EncodeUtf16(c);
        ASSERT_EQ(utf16, (ConvertEnc<TEncUtf16, TEncUtf8>(std::string_view(utf8)).GetView()))
            << static_cast<unsigned>(c);
        ASSERT_EQ(utf8, (ConvertEnc<TEncUtf8, TEncUtf16>(std::u16string_view(utf16)).GetView()))
            << static_cast<unsigned>(c);
        ASSERT_TRUE(IsWellFormed<TEncUtf8>(utf8) && IsWellFormed<TEncUtf16>(utf16)) << static_cast<unsigned>(c);
    }
}

TEST(ConvertEnc, EachMaximalPartOfABadSequenceBecomesOneReplacement) {
    EXPECT_EQ("a" BAD "b", Repair("a\xFF"
                                  "b"));
    EXPECT_EQ(BAD BAD, Repair("\xC0\x80"));                 // overlong zero
    EXPECT_EQ(BAD BAD BAD, Repair("\xE0\x80\x80"));         // overlong, three bytes
    EXPECT_EQ(BAD BAD BAD BAD, Repair("\xF0\x80\x80\x80")); // overlong, four bytes
    EXPECT_EQ(BAD BAD BAD, Repair("\xED\xA0\x80"));         // a surrogate
    EXPECT_EQ(BAD BAD BAD BAD, Repair("\xF4\x90\x80\x80")); // above U+10FFFF
    EXPECT_EQ(BAD BAD, Repair("\xF5\x80"));                 // a lead that never occurs
    EXPECT_EQ(BAD "a", Repair("\xE2\x82"
                              "a"));                           // cut short by a character
    EXPECT_EQ(BAD, Repair("\xF0\x9F\x98"));                    // cut short by the end
    EXPECT_EQ(BAD "\xC3\xA9", Repair("\xE2\xC3\xA9"));         // cut short by the next lead
    EXPECT_EQ("\xF4\x8F\xBF\xBF", Repair("\xF4\x8F\xBF\xBF")); // the last code point
}

TEST(ConvertEnc, LoneSurrogatesBecomeReplacements) {
    char16_t const text[] = {0xD800, 'a', 0xDC00, 0xD83D, 0xDE00, 0xD83D};
    std::u16string_view const view(text, 6);
    EXPECT_FALSE(IsWellFormed<TEncUtf16>(view));
    EXPECT_EQ(BAD "a" BAD "\xF0\x9F\x98\x80" BAD, (ConvertEnc<TEncUtf8, TEncUtf16>(view).GetView()));
    std::u16string const expected{0xFFFD, 'a', 0xFFFD, 0xD83D, 0xDE00, 0xFFFD};
    EXPECT_EQ(expected, (ConvertEnc<TEncUtf16, TEncUtf16>(view).GetView()));
}

TEST(ConvertEnc, AnyPairOfBytesGivesWellFormedText) {
    for (int first = 0; first < 256; ++first)
        for (int second = 0; second < 256; ++second) {
            std::string const text{char(first), char(second)};
            auto const converted = ConvertEnc<TEncUtf16, TEncUtf8>(std::string_view(text));
            ASSERT_TRUE(IsWellFormed<TEncUtf16>(converted.GetView())) << first << ", " << second;
            auto const repaired = Repair(text);
            ASSERT_TRUE(IsWellFormed<TEncUtf8>(repaired)) << first << ", " << second;
            ASSERT_EQ(repaired, (ConvertEnc<TEncUtf8, TEncUtf16>(converted.GetView()).GetView()));
            ASSERT_EQ(IsWellFormed<TEncUtf8>(text), repaired == text) << first << ", " << second;
        }
}

TEST(ConvertEnc, RandomBytesAndUnitsGiveWellFormedText) {
    std::mt19937 random(1);
    for (int i = 0; i < 20'000; ++i) {
        std::string bytes(random() % 12, '\0');
        for (auto & byte : bytes)
            byte = char(random() % 3 == 0 ? random() : 0x80 + random() % 0x80);
        std::u16string units(random() % 6, u'\0');
        for (auto & unit : units)
            unit = char16_t(random() % 2 == 0 ? random() : 0xD800 + random() % 0x800);
        ASSERT_TRUE(IsWellFormed<TEncUtf8>(Repair(bytes)));
        ASSERT_TRUE(IsWellFormed<TEncUtf16>(ConvertEnc<TEncUtf16, TEncUtf8>(std::string_view(bytes)).GetView()));
        ASSERT_TRUE(IsWellFormed<TEncUtf8>(ConvertEnc<TEncUtf8, TEncUtf16>(std::u16string_view(units)).GetView()));
    }
}

TEST(ConvertEnc, EmptyAndInnerZerosPass) {
    EXPECT_TRUE(ConvertEnc<TEncUtf16>(StringUtf8()).IsEmpty());
    EXPECT_EQ(3u, ConvertEnc<TEncUtf16>(StringUtf8("a\0b", 3)).GetLength());
}
}
