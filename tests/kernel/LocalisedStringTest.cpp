#include "kernel/LocalisedString.h"
#include "kernel/ConcatString.h"

#include <gtest/gtest.h>

namespace {
using Kernel::ConcatString;
using Kernel::LocalisedString;
using Kernel::StringUtf16;
using Kernel::StringUtf8;

StringUtf8 Translate(StringUtf8 const & text, StringUtf8 const & context) {
    return ConcatString(context, ":", text, "\xC3\xA9");
}

class LocalisedStringTest : public testing::Test {
protected:
    ~LocalisedStringTest() override { LocalisedString::SetTranslator(nullptr); }
};

TEST_F(LocalisedStringTest, ShowsItsTextUntilATranslatorIsSet) {
    LocalisedString const red("Red", "Channel");
    StringUtf8 shown = red;
    EXPECT_EQ(shown, "Red");
    LocalisedString::SetTranslator(Translate);
    shown = red;
    EXPECT_EQ(shown, "Channel:Red\xC3\xA9");
    StringUtf16 const wide = red;
    EXPECT_EQ(wide, u"Channel:Red\xE9");
    EXPECT_EQ(red.GetText(), "Red");
    EXPECT_EQ(red.GetContext(), "Channel");
}

TEST_F(LocalisedStringTest, AFakeIsNeverTranslated) {
    LocalisedString::SetTranslator(Translate);
    EXPECT_EQ(LocalisedString::CreateFakeFromString("Name").ToString(), "Name");
    EXPECT_TRUE(LocalisedString().ToString().IsEmpty());
}

TEST_F(LocalisedStringTest, EqualityIsOfWhatWasWritten) {
    EXPECT_EQ(LocalisedString("a", "b"), LocalisedString("a", "b"));
    EXPECT_FALSE(LocalisedString("a", "b") == LocalisedString("a", "c"));
    EXPECT_FALSE(LocalisedString("a", "") == LocalisedString::CreateFakeFromString("a"));
}
}
