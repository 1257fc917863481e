#include "pixel/PixelMemory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <new>
#include <thread>
#include <vector>

namespace Raster {
namespace {
constexpr int highest = std::numeric_limits<int>::max(), lowest = std::numeric_limits<int>::min();
using PixelMemory::Content;
}

TEST(PixelMemory, SizesAreComputedIn64BitsAndChecked) {
    EXPECT_EQ(0u, PixelMemory::GetSize(0, 5, 4));
    EXPECT_EQ(0u, PixelMemory::GetSize(-1, 5, 4));
    EXPECT_EQ(0u, PixelMemory::GetSize(lowest, lowest, 40));
    EXPECT_EQ(24u, PixelMemory::GetSize(2, 3, 4));
    EXPECT_EQ(std::uint64_t(65536) * 65536 * 2, PixelMemory::GetSize(65536, 65536, 2));
    EXPECT_EQ(std::uint64_t(highest) * highest * 4, PixelMemory::GetSize(highest, highest, 4));
    EXPECT_THROW(PixelMemory::GetSize(highest, highest, 5), std::bad_alloc);
    EXPECT_THROW(PixelMemory::GetSize(highest, highest, 40), std::bad_alloc);
    EXPECT_EQ(~std::uint64_t(0), PixelMemory::Multiply(~std::uint64_t(0), 1));
    EXPECT_THROW(PixelMemory::Multiply(~std::uint64_t(0), 2), std::bad_alloc);
}

TEST(PixelMemory, ZeroedContentIsZero) {
    for (std::uint64_t bytes : {std::uint64_t(1), std::uint64_t(1000), std::uint64_t(3) << 20}) {
        PixelMemory::Owner const dirty(PixelMemory::Allocate(bytes, Content::Uninitialised));
        std::memset(dirty.get(), 255, bytes);
        PixelMemory::Owner const memory(PixelMemory::Allocate(bytes, Content::Zeroed));
        EXPECT_TRUE(std::all_of(memory.get(), memory.get() + bytes, [](unsigned char byte) { return byte == 0; }));
    }
}

TEST(PixelMemory, BlocksAreZeroAlsoWhereMemoryWasUsedBefore) {
    for (std::uint64_t const bytes : {std::uint64_t(1), std::uint64_t(1) << 20, (std::uint64_t(2) << 20) - 1,
                                      std::uint64_t(2) << 20, (std::uint64_t(5) << 20) + 3, std::uint64_t(33) << 20})
        for (int round = 0; round < 3; ++round) { // the allocator recycles what the round before has dirtied
            PixelMemory::Owner const block(PixelMemory::AllocateBlock(bytes));
            ASSERT_TRUE(std::all_of(block.get(), block.get() + bytes, [](unsigned char byte) { return byte == 0; }))
                << bytes << " bytes";
            std::memset(block.get(), 255, bytes);
        }
    EXPECT_EQ(nullptr, PixelMemory::AllocateBlock(0));
    EXPECT_THROW(PixelMemory::AllocateBlock(~std::uint64_t(0)), std::bad_alloc);
    for (std::uint64_t const bytes : {std::uint64_t(1), std::uint64_t(3) << 20, std::uint64_t(40) << 20}) {
        PixelMemory::FailAllocation(1);
        EXPECT_THROW(PixelMemory::AllocateBlock(bytes), std::bad_alloc);
        PixelMemory::Owner const block(PixelMemory::AllocateBlock(bytes));
        EXPECT_TRUE(block);
    }
}

TEST(PixelMemory, NothingIsNull) {
    EXPECT_EQ(nullptr, PixelMemory::Allocate(0, Content::Zeroed));
    PixelMemory::Free(nullptr);
}

TEST(PixelMemory, WhatNoMachineHasThrows) {
    EXPECT_THROW(PixelMemory::Allocate(~std::uint64_t(0), Content::Uninitialised), std::bad_alloc);
    EXPECT_THROW(PixelMemory::Allocate(std::uint64_t(1) << 60, Content::Zeroed), std::bad_alloc);
}

TEST(PixelMemory, TheOrderedAllocationFailsAndNoOther) {
    for (std::uint64_t n = 1; n < 5; ++n) {
        PixelMemory::FailAllocation(n);
        for (std::uint64_t i = 1; i < 8; ++i) {
            bool failed = false;
            try {
                PixelMemory::Free(PixelMemory::Allocate(16, Content::Uninitialised));
            } catch (std::bad_alloc const &) {
                failed = true;
            }
            EXPECT_EQ(i == n, failed) << i << " of " << n;
        }
    }
    PixelMemory::FailAllocation(1);
    PixelMemory::FailAllocation(0);
    PixelMemory::Free(PixelMemory::Allocate(16, Content::Uninitialised));
}

TEST(PixelMemory, AnOrderComesDueOnceAmongManyThreads) {
    PixelMemory::FailAllocation(500);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i)
                try {
                    PixelMemory::CheckFault();
                } catch (std::bad_alloc const &) {
                    ++failures;
                }
        });
    for (auto & thread : threads)
        thread.join();
    EXPECT_EQ(1, failures);
}
}
