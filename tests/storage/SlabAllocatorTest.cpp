#include "storage/SlabAllocator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <sys/mman.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Raster {
namespace {
constexpr std::size_t words = SlabAllocator::BufferBytes / 4;
using Content = SlabAllocator::Content;

SlabAllocator & Slabs() { return SlabAllocator::Instance(); }

std::size_t GetResidentBytes() {
    std::size_t total = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

bool IsZero(unsigned int const * buffer) {
    return std::all_of(buffer, buffer + words, [](unsigned int word) { return word == 0; });
}

TEST(SlabAllocator, GivesDistinctAlignedBuffers) {
    std::set<unsigned int *> buffers;
    for (int i = 0; i < 2000; ++i) { // more than one slab
        auto const buffer = Slabs().Allocate(Content::Any);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer) % SlabAllocator::BufferBytes, 0);
        EXPECT_TRUE(buffers.insert(buffer).second);
    }
    EXPECT_EQ(Slabs().GetUsedCount(), 2000);
    for (auto const buffer : buffers)
        Slabs().Free(buffer);
    EXPECT_EQ(Slabs().GetUsedCount(), 0);
    Slabs().Free(nullptr);
}

TEST(SlabAllocator, WhatWasFreedLastIsGivenOutFirst) {
    auto const first = Slabs().Allocate(Content::Any), second = Slabs().Allocate(Content::Any);
    Slabs().Free(first);
    Slabs().Free(second);
    EXPECT_EQ(Slabs().Allocate(Content::Any), second);
    EXPECT_EQ(Slabs().Allocate(Content::Any), first);
    Slabs().Free(first);
    Slabs().Free(second);
}

TEST(SlabAllocator, ZeroMeansZeroWhereverABufferComesFrom) {
    std::vector<unsigned int *> buffers;
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 600; ++i) { // warm ones, cold ones and fresh ones
            buffers.push_back(Slabs().Allocate(Content::Zero));
            ASSERT_TRUE(IsZero(buffers.back())) << "round " << round << ", buffer " << i;
            std::memset(buffers.back(), 0xAB, SlabAllocator::BufferBytes);
        }
        for (auto const buffer : buffers)
            Slabs().Free(buffer);
        buffers.clear();
    }
}

TEST(SlabAllocator, NoMoreThanSixteenMebibytesStayWarm) {
    std::vector<unsigned int *> buffers;
    for (int i = 0; i < 300; ++i)
        buffers.push_back(Slabs().Allocate(Content::Any));
    for (auto const buffer : buffers)
        Slabs().Free(buffer);
    EXPECT_EQ(Slabs().GetWarmCount(), 256);
    EXPECT_EQ(Slabs().Allocate(Content::Any), buffers.back());
    EXPECT_EQ(Slabs().GetWarmCount(), 255);
    Slabs().Free(buffers.back());
}

TEST(SlabAllocator, ResidentMemoryFollowsTheBuffersInUse) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer keeps memory of its own for each byte";
#endif
    constexpr std::size_t count = 4096, slack = std::size_t(24) << 20; // 16 MiB warm and something for the process
    auto const before = GetResidentBytes();
    std::vector<unsigned int *> buffers;
    for (std::size_t i = 0; i < count; ++i) {
        buffers.push_back(Slabs().Allocate(Content::Any));
        std::memset(buffers.back(), 1, SlabAllocator::BufferBytes);
    }
    auto const full = GetResidentBytes();
    EXPECT_GE(full, before + count * SlabAllocator::BufferBytes - slack);
    EXPECT_LE(full, before + count * SlabAllocator::BufferBytes + slack);
    std::shuffle(buffers.begin(), buffers.end(), std::mt19937(1)); // no slab becomes empty before the end
    for (std::size_t left = count; left > 0; left -= count / 4) {
        for (std::size_t i = 0; i < count / 4; ++i) {
            Slabs().Free(buffers.back());
            buffers.pop_back();
        }
        EXPECT_LE(GetResidentBytes(), before + buffers.size() * SlabAllocator::BufferBytes + slack) << left;
    }
}

TEST(SlabAllocator, AFreshBufferCostsNothingUntilItIsTouched) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer keeps memory of its own for each byte";
#endif
    auto const before = GetResidentBytes();
    std::vector<unsigned int *> buffers;
    for (int i = 0; i < 5000; ++i)
        buffers.push_back(Slabs().Allocate(Content::Any));
    EXPECT_LE(GetResidentBytes(), before + (std::size_t(24) << 20));
    for (auto const buffer : buffers)
        Slabs().Free(buffer);
}

TEST(SlabAllocator, ABufferThatWillBeOverwrittenIsInMemoryAtOnce) {
    auto const pageBytes = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    auto * const own = mmap(nullptr, pageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    bool const isKnown = madvise(own, pageBytes, /*MADV_POPULATE_WRITE*/ 23) == 0;
    munmap(own, pageBytes);
    if (!isKnown)
        GTEST_SKIP() << "the system knows no such call";
    std::vector<unsigned int *> warm; // may never have been touched
    while (Slabs().GetWarmCount() != 0)
        warm.push_back(Slabs().Allocate(Content::Any));
    std::vector<unsigned int *> buffers;
    for (int i = 0; i < 100; ++i)
        buffers.push_back(Slabs().Allocate(Content::Overwritten));
    for (auto const buffer : buffers) {
        std::vector<unsigned char> pages(SlabAllocator::BufferBytes / pageBytes);
        ASSERT_EQ(mincore(buffer, SlabAllocator::BufferBytes, pages.data()), 0);
        for (auto const page : pages)
            EXPECT_TRUE(page & 1);
    }
    buffers.insert(buffers.end(), warm.begin(), warm.end());
    for (auto const buffer : buffers)
        Slabs().Free(buffer);
}

TEST(SlabAllocator, ThrowsWhenTheSystemHasNoMoreAndGoesOn) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer needs its address space";
#endif
    rlimit before;
    getrlimit(RLIMIT_AS, &before);
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit const small{pages * 4096 + (std::size_t(40) << 20), before.rlim_max};
    std::vector<unsigned int *> buffers;
    buffers.reserve(100000);
    ASSERT_EQ(setrlimit(RLIMIT_AS, &small), 0);
    bool isRefused = false;
    while (!isRefused && buffers.size() < 100000) {
        try {
            buffers.push_back(Slabs().Allocate(Content::Any));
        } catch (std::bad_alloc const &) {
            isRefused = true;
        }
    }
    setrlimit(RLIMIT_AS, &before);
    EXPECT_TRUE(isRefused);
    EXPECT_GE(buffers.size(), 256) << "smaller slabs are tried when a large one doesn't fit";
    buffers.push_back(Slabs().Allocate(Content::Zero));
    EXPECT_TRUE(IsZero(buffers.back()));
    for (auto const buffer : buffers)
        Slabs().Free(buffer);
}

TEST(SlabAllocator, ManyThreadsNeverShareABuffer) {
    std::vector<std::thread> threads;
    std::atomic<int> mismatches{0};
    for (unsigned t = 1; t <= 4; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 random(t);
            std::vector<unsigned int *> mine;
            for (int i = 0; i < 3000; ++i) {
                if (mine.size() < 200 && random() % 2) {
                    mine.push_back(Slabs().Allocate(random() % 2 ? Content::Zero : Content::Any));
                    mine.back()[random() % words] = 0;
                    mine.back()[0] = mine.back()[words - 1] = t;
                } else if (!mine.empty()) {
                    mismatches += mine.back()[0] != t || mine.back()[words - 1] != t;
                    Slabs().Free(mine.back());
                    mine.pop_back();
                }
            }
            for (auto const buffer : mine)
                Slabs().Free(buffer);
        });
    for (auto & thread : threads)
        thread.join();
    EXPECT_EQ(mismatches, 0);
    EXPECT_EQ(Slabs().GetUsedCount(), 0);
}
}
}
