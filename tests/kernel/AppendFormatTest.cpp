#include "kernel/AppendFormat.h"
#include "kernel/ToString.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>

namespace {
using Kernel::AppendFormatVT;
using Kernel::FormatString;
using Kernel::StringUtf16;
using Kernel::StringUtf8;
using Kernel::TEncUtf16;
using Kernel::ToStringT;

template<class... Arguments>
std::string Format(char const * format, Arguments const &... arguments) {
    return std::string(FormatString(format, arguments...).GetView());
}

TEST(AppendFormat, EachPlaceholderTakesTheArgumentOfItsNumber) {
    EXPECT_EQ("b a b", Format("%2 %1 %2", "a", "b"));
    EXPECT_EQ("123456789", Format("%1%2%3%4%5%6%7%8%9", 1, 2, 3, 4, 5, 6, 7, 8, 9));
    EXPECT_EQ("x0", Format("%10", "x"));
}

TEST(AppendFormat, WhatNamesNoArgumentStandsAsItIs) {
    EXPECT_EQ("%1", Format("%1"));
    EXPECT_EQ("a %2", Format("%1 %2", "a"));
    EXPECT_EQ("%0 %x %", Format("%0 %x %", 1));
    EXPECT_EQ("%1 100%", Format("%%1 100%%", 1));
    EXPECT_EQ("%a", Format("%%%1", "a"));
    EXPECT_EQ("", Format(""));
}

TEST(AppendFormat, ArgumentsAreNotReadAsFormats) { EXPECT_EQ("%2 %%", Format("%1 %2", "%2", "%%")); }

TEST(AppendFormat, AppendsToWhatIsThere) {
    StringUtf8 utf8("n = ");
    AppendFormatVT(utf8, "%1", 5);
    EXPECT_EQ(utf8, "n = 5");
    AppendFormatVT(utf8, "%1 %1", utf8);
    EXPECT_EQ(utf8, "n = 5n = 5 n = 5");
    StringUtf16 utf16(u"n = ");
    AppendFormatVT(utf16, u"%1 %2 \xE9", 5, "\xC3\xA9");
    EXPECT_EQ(utf16, u"n = 5 \xE9 \xE9");
    std::string standard("a");
    AppendFormatVT(standard, "%1", 'b');
    EXPECT_EQ("ab", standard);
}

enum class Entry : std::uint8_t { Last = 255 };

TEST(AppendFormat, PrintsEveryTypeOfValue) {
    EXPECT_EQ("-9223372036854775808 18446744073709551615", Format("%1 %2", INT64_MIN, UINT64_MAX));
    EXPECT_EQ("-1 255 c 1 0", Format("%1 %2 %3 %4 %5", short(-1), Entry::Last, 'c', true, false));
    EXPECT_EQ("s v u \xC3\xA9",
              Format("%1 %2 %3 %4", std::string("s"), std::string_view("v"), u"u", StringUtf16(u"\xE9")));
    char const * const null = nullptr;
    EXPECT_EQ("[]", Format("[%1]", null));
    EXPECT_EQ("0x10", Format("%1", reinterpret_cast<void const *>(16)));
}

TEST(AppendFormat, DoublesPrintAsByPrintf) {
    std::mt19937_64 random(1);
    std::vector<double> values{0.0,  -0.0,    1.0,     2.2,     0.1f,     1e-5,     1e-4,          123456.0,
                               1e6,  1234567, DBL_MAX, DBL_MIN, 5e-324,   INFINITY, -INFINITY,     999999.5,
                               0.15, 1e15,    1e16,    1e21,    1.0 / 3., -2.5e-9,  0.00001234567, 99999.95};
    for (int i = 0; i < 100'000; ++i) {
        auto const bits = random();
        double value;
        std::memcpy(&value, &bits, sizeof value);
        if (!std::isnan(value))
            values.push_back(value);
    }
    for (double const value : values) {
        char expected[64];
        std::snprintf(expected, sizeof expected, "%g", value);
        ASSERT_EQ(expected, std::string(ToStringT(value).GetView()));
    }
    EXPECT_EQ("nan", Format("%1", std::nan("")));
    EXPECT_EQ("nan", Format("%1", -std::nan("")));
    EXPECT_EQ("0.5", Format("%1", 0.5f));
}

TEST(ToString, GivesEitherEncoding) {
    EXPECT_EQ(ToStringT(-5), "-5");
    EXPECT_EQ(ToStringT<TEncUtf16>(2.5), u"2.5");
    EXPECT_EQ(ToStringT<TEncUtf16>("\xC3\xA9"), u"\xE9");
}
}
