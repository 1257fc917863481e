#include "kernel/IDTag.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <unordered_set>

using namespace Kernel;

TEST(IDTag, LiesInMemoryLowByteFirst) {
    IDTag const tag("Mipm");
    char bytes[4];
    std::memcpy(bytes, &tag, 4);
    EXPECT_EQ(std::string(bytes, 4), "mpiM");
    EXPECT_EQ(tag.GetValue(), 0x4d69706du);
}

TEST(IDTag, ReadsAsItWasWritten) {
    EXPECT_STREQ(IDTag("Blck").GetText().data(), "Blck");
    EXPECT_EQ(IDTag('B', 'l', 'c', 'k'), IDTag("Blck"));
    EXPECT_EQ(IDTag::FromValue(IDTag("Blck").GetValue()), IDTag("Blck"));
}

TEST(IDTag, SortsAsItReads) {
    EXPECT_LT(IDTag("Idx1"), IDTag("Idx2"));
    EXPECT_LT(IDTag("Data"), IDTag("Rect"));
}

TEST(IDTag, TakesAnyByte) {
    for (int level = 0; level < 256; ++level) {
        IDTag const tag('M', 'I', static_cast<char>(level), '1');
        EXPECT_EQ(tag.GetText()[2], static_cast<char>(level));
        EXPECT_EQ(tag.GetValue() >> 8 & 0xff, static_cast<unsigned>(level));
        EXPECT_EQ(tag.GetValue() >> 24, static_cast<unsigned>('M')) << "no sign may spill, level " << level;
    }
}

TEST(IDTag, CanBeHashed) {
    std::unordered_set<IDTag> const tags{"Frmt", "BmpW", "BmpH", "Frmt"};
    EXPECT_EQ(tags.size(), 3u);
}
