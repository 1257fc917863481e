#include "kernel/String.h"
#include "kernel/BaseCharTraits.h"
#include "kernel/ConcatString.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

namespace {
using Kernel::BaseCharTraits;
using Kernel::ConcatString;
using Kernel::StringUtf16;
using Kernel::StringUtf8;
using namespace std::string_view_literals;

void const * GetAddress(auto const & string) { return string.GetCharacters(); }

TEST(String, AllEmptyStringsShareOneBlock) {
    auto const * const empty = GetAddress(StringUtf8());
    EXPECT_EQ(empty, GetAddress(StringUtf8("")));
    EXPECT_EQ(empty, GetAddress(StringUtf8(nullptr)));
    EXPECT_EQ(empty, GetAddress(StringUtf8(""sv)));
    EXPECT_EQ(empty, GetAddress(StringUtf16()));
    EXPECT_EQ(empty, GetAddress(ConcatString(StringUtf8(), "", ""sv)));
    StringUtf8 text("text");
    auto const moved = std::move(text);
    EXPECT_EQ(empty, GetAddress(text)); // NOLINT: a moved-from string is empty
    EXPECT_EQ(0, *StringUtf8().GetCharacters());
    EXPECT_EQ(0, *StringUtf16().GetCharacters());
}

TEST(String, CopiesShareTheirCharacters) {
    StringUtf8 const first("abc");
    auto second = first;
    EXPECT_EQ(GetAddress(first), GetAddress(second));
    second += "d";
    EXPECT_STREQ("abc", first.GetCharacters());
    EXPECT_STREQ("abcd", second.GetCharacters());
    auto const & same = second;
    second = same;
    EXPECT_EQ(second, "abcd");
}

TEST(String, IsTerminatedAndKeepsInnerZeros) {
    StringUtf8 const bytes("a\0b", 3);
    EXPECT_EQ(3u, bytes.GetLength());
    EXPECT_EQ("a\0b\0"sv, std::string_view(bytes.GetCharacters(), 4));
    EXPECT_NE(bytes, "a");
    StringUtf16 const units(u"xy", 2);
    EXPECT_EQ(u'\0', units[2]);
    EXPECT_EQ(u'y', units[1]);
}

TEST(String, AddingNothingSharesAndAddingItselfDoubles) {
    StringUtf8 text("ab");
    EXPECT_EQ(GetAddress(text), GetAddress(text + StringUtf8()));
    EXPECT_EQ(GetAddress(text), GetAddress(StringUtf8() + text));
    text += text;
    EXPECT_EQ(text, "abab");
}

TEST(String, OrdersByUnsignedCharactersWithPrefixesFirst) {
    EXPECT_LT(StringUtf8("ab"), StringUtf8("abc"));
    EXPECT_LT(StringUtf8("b"), StringUtf8("\x80"));
    EXPECT_LT(StringUtf8("\x80"), StringUtf8("\xFF"));
    EXPECT_LT(StringUtf8(), StringUtf8("\0", 1));
    EXPECT_LT(StringUtf16(u"\x7FFF"), StringUtf16(u"\x8000"));
    std::map<StringUtf8, int> const map{{"b", 2}, {"a", 1}};
    EXPECT_EQ(1, map.begin()->second);
}

TEST(String, EqualTextsHashEqually) {
    std::unordered_set<StringUtf8> const set{"a", "b", StringUtf8("a"sv)};
    EXPECT_EQ(2u, set.size());
}

TEST(String, ASizeThatOverflowsIsRefused) {
    auto const ignore = [](auto *) {};
    EXPECT_THROW(StringUtf8::Create(std::numeric_limits<std::size_t>::max(), ignore), std::length_error);
    EXPECT_THROW(StringUtf16::Create(std::numeric_limits<std::size_t>::max() / 2, ignore), std::length_error);
    EXPECT_THROW(StringUtf16::Create(std::size_t(1) << 63, ignore), std::length_error);
}

TEST(String, ThreadsMayCopyOneTextAtOnce) {
    StringUtf8 const text("shared"), empty;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([text, empty] {
            for (int i = 0; i < 10'000; ++i) {
                auto copy = text;
                EXPECT_EQ(6u, copy.GetLength());
                copy = empty;
            }
        });
    for (auto & thread : threads)
        thread.join();
}

TEST(BaseCharTraits, MeasuresComparesAndCopies) {
    using Traits = BaseCharTraits<char>;
    EXPECT_EQ(0u, Traits::GetLength(nullptr));
    EXPECT_EQ(3u, Traits::GetLength("abc"));
    EXPECT_EQ(0, Traits::Compare("abc", "abc"));
    EXPECT_GT(0, Traits::Compare("ab", "abc"));
    EXPECT_LT(0, Traits::Compare("b", "abc"));
    EXPECT_TRUE(Traits::IsEqual("abX", "abY", 2));
    EXPECT_FALSE(Traits::IsEqual("abX", "abY", 3));
    char16_t dest[3] = {};
    BaseCharTraits<char16_t>::Copy(dest, u"xyz", 2);
    EXPECT_EQ(u"xy"sv, dest);
}

TEST(ConcatString, JoinsStringsViewsAndCharacters) {
    char const * const null = nullptr;
    EXPECT_EQ("abcd", std::string(ConcatString(StringUtf8("a"), "b", "c"sv, null, StringUtf8("d")).GetCharacters()));
    EXPECT_EQ(ConcatString(StringUtf16(u"a"), u"b"), u"ab");
}
}
