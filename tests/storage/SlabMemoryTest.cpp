#include "storage/SlabMemory.h"

#include "storage/HugePages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>

namespace Raster {
namespace {
constexpr std::size_t bufferBytes = 65536;

// The call itself: sanitizers put one in its place that locks nothing.
bool Lock(void * memory, std::size_t bytes) { return syscall(SYS_mlock, memory, bytes) == 0; }
void Unlock(void * memory, std::size_t bytes) { syscall(SYS_munlock, memory, bytes); }

// One huge page, mapped as slabs are.
class SlabMemoryTest : public testing::Test {
protected:
    ~SlabMemoryTest() override {
        SlabMemory::Unpoison(begin, HugePageBytes);
        munmap(begin, HugePageBytes);
    }

    bool IsZero(std::size_t offset, std::size_t bytes) const {
        SlabMemory::Unpoison(begin + offset, bytes);
        return std::all_of(begin + offset, begin + offset + bytes, [](unsigned char byte) { return byte == 0; });
    }
    void Write(std::size_t offset, std::size_t bytes) {
        SlabMemory::Unpoison(begin + offset, bytes);
        std::memset(begin + offset, 0xAB, bytes);
    }
    std::size_t GetBytesInMemory() const {
        std::size_t bytes = 0;
        for (std::size_t offset = 0; offset < HugePageBytes; offset += GetPageBytes())
            bytes += IsInMemory(begin + offset) ? GetPageBytes() : 0;
        return bytes;
    }

    unsigned char * const begin = SlabMemory::Map(HugePageBytes, HugePageBytes);
};

TEST_F(SlabMemoryTest, MapsAlignedZerosThatTakeNoMemory) {
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(begin) % HugePageBytes, 0);
    EXPECT_EQ(GetBytesInMemory(), 0);
    SlabMemory::Unpoison(begin, HugePageBytes);
    begin[12345] = 0;
    EXPECT_EQ(GetBytesInMemory(), GetPageBytes()) << "a touch takes a small page";
    EXPECT_TRUE(IsZero(0, HugePageBytes));
}

TEST_F(SlabMemoryTest, AHugePageIsTakenAtOnceAndIsZero) {
    if (!SystemGivesHugePages())
        GTEST_SKIP() << "the system has no huge pages to give";
    EXPECT_TRUE(SlabMemory::PopulateHuge(begin, HugePageBytes));
    EXPECT_EQ(GetBytesInMemory(), HugePageBytes);
    EXPECT_TRUE(IsZero(0, HugePageBytes));
}

TEST_F(SlabMemoryTest, WhereThereAreNoHugePagesNothingIsTaken) {
    WithoutHugePages const without;
    if (!without)
        GTEST_SKIP() << "the system can't be told to give none";
    EXPECT_FALSE(SlabMemory::PopulateHuge(begin, HugePageBytes));
    EXPECT_EQ(GetBytesInMemory(), 0);
    EXPECT_TRUE(IsZero(0, HugePageBytes));
}

TEST_F(SlabMemoryTest, APartOfAHugePageGoesBackToTheSystem) {
    if (!SystemGivesHugePages() || GetBrokenUpCount() < 0)
        GTEST_SKIP() << "the system has no huge pages to give, or doesn't tell what becomes of them";
    ASSERT_TRUE(SlabMemory::PopulateHuge(begin, HugePageBytes));
    Write(0, HugePageBytes);
    auto const brokenUp = GetBrokenUpCount();
    SlabMemory::Split(begin + 5 * bufferBytes, bufferBytes);
    SlabMemory::GiveBack(begin + 5 * bufferBytes, bufferBytes);
    EXPECT_GT(GetBrokenUpCount(), brokenUp) << "or the memory stays taken though the process doesn't see it";
    EXPECT_EQ(GetBytesInMemory(), HugePageBytes - bufferBytes);
    EXPECT_TRUE(IsZero(5 * bufferBytes, bufferBytes));
    EXPECT_TRUE(std::all_of(begin, begin + 5 * bufferBytes, [](unsigned char byte) { return byte == 0xAB; }));
    EXPECT_TRUE(std::all_of(begin + 6 * bufferBytes, begin + HugePageBytes, [](auto byte) { return byte == 0xAB; }));
}

TEST_F(SlabMemoryTest, WhatWasSmallBecomesHugeAgain) {
    if (!SystemGivesHugePages())
        GTEST_SKIP() << "the system has no huge pages to give";
    ASSERT_TRUE(SlabMemory::PopulateHuge(begin, HugePageBytes));
    Write(0, HugePageBytes);
    SlabMemory::Split(begin, bufferBytes);
    SlabMemory::GiveBack(begin, HugePageBytes / 2); // in halves, so that the table of small pages stays
    SlabMemory::GiveBack(begin + HugePageBytes / 2, HugePageBytes / 2);
    ASSERT_EQ(GetBytesInMemory(), 0);
    bool const isHuge = SlabMemory::PopulateHuge(begin, HugePageBytes);
    EXPECT_EQ(GetBytesInMemory(), isHuge ? HugePageBytes : 0);
    EXPECT_TRUE(IsZero(0, HugePageBytes));
    if (!isHuge)
        GTEST_SKIP() << "the system makes no huge page where small ones were";
}

TEST_F(SlabMemoryTest, WhatIsLockedInMemoryIsZeroWhenItIsGivenBack) {
    if (!Lock(begin, bufferBytes))
        GTEST_SKIP() << "nothing may be locked";
    Write(0, bufferBytes);
    SlabMemory::Split(begin, bufferBytes);
    SlabMemory::GiveBack(begin, bufferBytes);
    EXPECT_EQ(GetBytesInMemory(), bufferBytes);
    EXPECT_TRUE(IsZero(0, bufferBytes));
    EXPECT_FALSE(SlabMemory::PopulateHuge(begin, HugePageBytes) && GetBytesInMemory() < HugePageBytes);
    EXPECT_TRUE(IsZero(0, HugePageBytes));
    Unlock(begin, bufferBytes);
}

TEST_F(SlabMemoryTest, RefusedAdviceLeavesErrnoAlone) {
    Lock(begin, bufferBytes);
    errno = 1234;
    SlabMemory::Populate(begin + 1, bufferBytes); // what isn't aligned is refused
    EXPECT_FALSE(SlabMemory::PopulateHuge(begin + 1, bufferBytes));
    SlabMemory::Split(begin, bufferBytes);
    SlabMemory::GiveBack(begin, bufferBytes);
    EXPECT_EQ(errno, 1234);
    Unlock(begin, bufferBytes);
}

#ifdef __SANITIZE_ADDRESS__
TEST_F(SlabMemoryTest, NobodyMayLookUntilItIsGivenOut) {
    EXPECT_EQ(__asan_region_is_poisoned(begin, HugePageBytes), begin);
    SlabMemory::PopulateHuge(begin, HugePageBytes);
    EXPECT_TRUE(__asan_address_is_poisoned(begin));
    EXPECT_TRUE(__asan_address_is_poisoned(begin + HugePageBytes - 1));
}
#endif
}
}
