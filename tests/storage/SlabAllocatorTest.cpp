#include "storage/SlabAllocator.h"

#include "storage/HugePages.h"
#include "storage/SlabMemory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
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

void Free(std::vector<unsigned int *> & buffers) {
    for (auto const buffer : buffers)
        Slabs().Free(buffer);
    buffers.clear();
}

void TakeAllInMemory(std::vector<unsigned int *> & buffers) {
    while (Slabs().GetWarmCount() + Slabs().GetKeptCount() != 0)
        buffers.push_back(Slabs().Allocate(Content::Any));
}

// A buffer that is the first of a huge page, and the only one of it that is used: nothing else is free and in memory.
// What else had to be taken for that is added to `others`. Huge pages aren't asked for at once where the system had
// none to give, or took long.
unsigned int * TakeHugePage(std::vector<unsigned int *> & others) {
    TakeAllInMemory(others);
    for (int i = 0; i < 2000; ++i) {
        auto * const buffer = Slabs().Allocate(i % 2 ? Content::Zero : Content::Overwritten);
        if (Slabs().GetKeptCount() != 0)
            return buffer;
        others.push_back(buffer);
        if (others.size() >= SlabUnit::MostBuffers)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ADD_FAILURE() << "no huge page is taken";
    return nullptr;
}

// The buffers of huge pages.
std::vector<unsigned int *> TakeHugePages(std::size_t count, std::vector<unsigned int *> & others) {
    std::vector<unsigned int *> buffers;
    for (std::size_t page = 0; page < count; ++page) {
        buffers.push_back(TakeHugePage(others));
        TakeAllInMemory(buffers);
    }
    for (auto const buffer : buffers)
        std::memset(buffer, 0xAB, SlabAllocator::BufferBytes);
    return buffers;
}

// The first of all, since nothing may be in memory before.
TEST(SlabAllocator, WhoUsesLittleTakesNoMoreThanThat) {
    if (Slabs().GetWarmCount() + Slabs().GetKeptCount() != 0)
        GTEST_SKIP() << "another test came before";
    std::vector<unsigned int *> buffers;
    for (int i = 0; i < 32; ++i) {
        buffers.push_back(Slabs().Allocate(i % 2 ? Content::Zero : Content::Overwritten));
        EXPECT_EQ(Slabs().GetKeptCount(), 0) << i;
    }
    buffers.push_back(Slabs().Allocate(Content::Overwritten));
    EXPECT_LT(Slabs().GetKeptCount(), 32);
    Free(buffers);
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

// 16 MiB warm, 16 MiB kept, and something for the process.
constexpr std::size_t residentSlack = std::size_t(40) << 20;

void ExpectResidentMemoryToFollowTheBuffersInUse(Content content) {
    constexpr std::size_t count = 4096;
    auto const before = GetResidentBytes();
    std::vector<unsigned int *> buffers;
    for (std::size_t i = 0; i < count; ++i) {
        buffers.push_back(Slabs().Allocate(content));
        std::memset(buffers.back(), 1, SlabAllocator::BufferBytes);
    }
    auto const full = GetResidentBytes();
    EXPECT_GE(full, before + count * SlabAllocator::BufferBytes - residentSlack);
    EXPECT_LE(full, before + count * SlabAllocator::BufferBytes + residentSlack);
    std::shuffle(buffers.begin(), buffers.end(), std::mt19937(1)); // no slab becomes empty before the end
    for (std::size_t left = count; left > 0; left -= count / 8) {
        for (std::size_t i = 0; i < count / 8; ++i) {
            Slabs().Free(buffers.back());
            buffers.pop_back();
        }
        EXPECT_LE(GetResidentBytes(), before + buffers.size() * SlabAllocator::BufferBytes + residentSlack) << left;
        EXPECT_LE(Slabs().GetKeptCount(), SlabAllocator::KeptBuffers);
    }
}

TEST(SlabAllocator, ResidentMemoryFollowsTheBuffersInUse) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer keeps memory of its own for each byte";
#endif
    for (auto const content : {Content::Any, Content::Zero, Content::Overwritten, Content::Overwritten})
        ExpectResidentMemoryToFollowTheBuffersInUse(content);
}

TEST(SlabAllocator, ResidentMemoryFollowsTheBuffersInUseWithoutHugePagesToo) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer keeps memory of its own for each byte";
#endif
    WithoutHugePages const without;
    if (!without)
        GTEST_SKIP() << "the system can't be told to give none";
    for (auto const content : {Content::Zero, Content::Overwritten, Content::Overwritten})
        ExpectResidentMemoryToFollowTheBuffersInUse(content);
}

TEST(SlabAllocator, MemoryIsTakenAHugePageAtATime) {
    if (!SystemGivesHugePages())
        GTEST_SKIP() << "the system has no huge pages to give";
    std::vector<unsigned int *> others;
    for (auto const content : {Content::Overwritten, Content::Zero, Content::Any}) {
        auto * const first = TakeHugePage(others);
        ASSERT_TRUE(first);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(first) % HugePageBytes, 0);
        EXPECT_TRUE(IsZero(first));
        EXPECT_TRUE(IsInMemory(first + HugePageBytes / 4 - 1024));
        others.push_back(first);
        for (std::size_t i = 1; i < 32; ++i) {
            EXPECT_EQ(Slabs().GetKeptCount(), 32 - i);
            others.push_back(Slabs().Allocate(content));
            EXPECT_EQ(others.back(), first + i * words);
            EXPECT_TRUE(IsZero(others.back()));
        }
        EXPECT_EQ(Slabs().GetKeptCount(), 0);
    }
    Free(others);
}

TEST(SlabAllocator, WhatIsWhollyFreeGoesBackAndIsTakenAsAHugePageAgain) {
    if (!SystemGivesHugePages())
        GTEST_SKIP() << "the system has no huge pages to give";
    std::vector<unsigned int *> others;
    for (int round = 0; round < 3; ++round) {
        auto buffers = TakeHugePages(20, others);
        ASSERT_EQ(buffers.size(), 640);
        auto * const firstPage = buffers[0];
        EXPECT_TRUE(IsInMemory(firstPage));
        Free(buffers);
        EXPECT_EQ(Slabs().GetKeptCount(), 0) << "12 went back and 8 are warm";
        EXPECT_FALSE(IsInMemory(firstPage));
        others.push_back(TakeHugePage(others));
        EXPECT_TRUE(IsZero(others.back()));
        EXPECT_EQ(Slabs().GetKeptCount(), 31) << "round " << round;
        TakeAllInMemory(others);
    }
    Free(others);
}

// The process sees less memory in use also if the page stays whole, but the system doesn't get any.
TEST(SlabAllocator, HugePagesAreBrokenUpWhenPartsOfManyAreFree) {
    constexpr std::size_t pages = 64;
    if (!SystemGivesHugePages() || GetBrokenUpCount() < 0)
        GTEST_SKIP() << "the system has no huge pages to give, or doesn't tell what becomes of them";
    std::vector<unsigned int *> others;
    auto const buffers = TakeHugePages(pages, others);
    ASSERT_EQ(buffers.size(), pages * 32);
    auto const brokenUp = GetBrokenUpCount();
    for (std::size_t part = 1; part < 32; ++part)
        for (std::size_t page = 0; page < pages; ++page) {
            Slabs().Free(buffers[page * 32 + part]);
            ASSERT_LE(Slabs().GetKeptCount(), SlabAllocator::KeptBuffers);
        }
    constexpr std::size_t coldParts = 31 - SlabAllocator::WarmBuffers / pages;
    EXPECT_GE(GetBrokenUpCount() - brokenUp, static_cast<long>(pages - SlabAllocator::KeptBuffers / coldParts));
    for (std::size_t page = 0; page < pages; ++page) {
        auto const * const used = buffers[page * 32];
        EXPECT_TRUE(std::all_of(used, used + words, [](unsigned int word) { return word == 0xABABABAB; }));
        Slabs().Free(buffers[page * 32]);
    }
    Free(others);
}

TEST(SlabAllocator, WhereThereAreNoHugePagesNothingIsKept) {
    WithoutHugePages const without;
    if (!without)
        GTEST_SKIP() << "the system can't be told to give none";
    std::vector<unsigned int *> buffers;
    TakeAllInMemory(buffers);
    for (int i = 0; i < 100; ++i) {
        buffers.push_back(Slabs().Allocate(i % 2 ? Content::Zero : Content::Overwritten));
        EXPECT_EQ(Slabs().GetKeptCount(), 0);
        EXPECT_TRUE(i % 2 == 0 || IsZero(buffers.back()));
    }
    Free(buffers);
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

// Adds to `buffers`, which has room.
void AllocateUntilRefused(std::vector<unsigned int *> & buffers, Content content) {
    while (buffers.size() < buffers.capacity()) {
        try {
            buffers.push_back(Slabs().Allocate(content));
        } catch (std::bad_alloc const &) {
            return;
        }
    }
    ADD_FAILURE() << "the limit isn't reached";
}

TEST(SlabAllocator, ThrowsWhenTheSystemHasNoMoreAndGoesOn) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer needs its address space";
#endif
    rlimit before;
    getrlimit(RLIMIT_AS, &before);
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit const small{pages * GetPageBytes() + (std::size_t(40) << 20), before.rlim_max};
    std::vector<unsigned int *> first, again;
    first.reserve(100000);
    again.reserve(100000);
    ASSERT_EQ(setrlimit(RLIMIT_AS, &small), 0);
    AllocateUntilRefused(first, Content::Any);
    for (auto const buffer : first) {
        std::memset(buffer, 0xAB, SlabAllocator::BufferBytes);
        Slabs().Free(buffer);
    }
    AllocateUntilRefused(again, Content::Zero);
    setrlimit(RLIMIT_AS, &before);
    EXPECT_GE(first.size(), 256) << "smaller slabs are tried when a large one doesn't fit";
    EXPECT_TRUE(std::all_of(again.begin(), again.end(), IsZero));
    EXPECT_EQ(std::set<unsigned int *>(first.begin(), first.end()),
              std::set<unsigned int *>(again.begin(), again.end()))
        << "of all slabs, those too that hold less than a huge page";
    again.push_back(Slabs().Allocate(Content::Zero));
    EXPECT_TRUE(IsZero(again.back()));
    Free(again);
}

struct Model {
    std::mt19937 random;
    std::vector<std::pair<unsigned int *, unsigned int>> used; // with what was written to it
    unsigned int stamp;

    explicit Model(unsigned seed) : random(seed), stamp(seed << 24) {}

    void Take() {
        auto const content = static_cast<Content>(random() % 3);
        auto * const buffer = Slabs().Allocate(content);
        ASSERT_EQ(reinterpret_cast<std::uintptr_t>(buffer) % SlabAllocator::BufferBytes, 0);
        ASSERT_TRUE(content != Content::Zero || IsZero(buffer));
        std::fill_n(buffer, words, ++stamp);
        used.emplace_back(buffer, stamp);
    }
    void Release() {
        std::swap(used[random() % used.size()], used.back());
        auto const [buffer, written] = used.back();
        ASSERT_TRUE(std::all_of(buffer, buffer + words, [&](unsigned int word) { return word == written; }));
        Slabs().Free(buffer);
        used.pop_back();
    }
    // Grows and shrinks by turns, so that all of a huge page is free now and then.
    void Run(std::size_t steps, std::size_t most) {
        bool isGrowing = true;
        for (std::size_t i = 0; i < steps && !testing::Test::HasFatalFailure(); ++i) {
            isGrowing = used.empty() || (isGrowing && used.size() < most);
            if (used.empty() || random() % 8 < (isGrowing ? 7u : 1u))
                Take();
            else
                Release();
            ASSERT_LE(Slabs().GetKeptCount(), SlabAllocator::KeptBuffers);
            ASSERT_LE(Slabs().GetWarmCount(), SlabAllocator::WarmBuffers);
        }
    }
    void ReleaseAll() {
        while (!used.empty() && !testing::Test::HasFatalFailure())
            Release();
    }
};

#ifdef RASTER_SANITIZED
constexpr std::size_t allSteps = 6000, mostUsed = 1000;
#else
constexpr std::size_t allSteps = 30000, mostUsed = 2500;
#endif

void RunOneModel(unsigned seed) {
    Model model(seed);
    for (int part = 0; part < 10; ++part) {
        model.Run(allSteps / 10, mostUsed);
        ASSERT_EQ(Slabs().GetUsedCount(), model.used.size());
        std::set<unsigned int *> distinct;
        for (auto const & [buffer, written] : model.used)
            ASSERT_TRUE(distinct.insert(buffer).second);
    }
    model.ReleaseAll();
    EXPECT_EQ(Slabs().GetUsedCount(), 0);
}

TEST(SlabAllocator, NothingIsLostOrSharedInAnyOrder) { RunOneModel(1); }

TEST(SlabAllocator, NothingIsLostOrSharedInAnyOrderWithoutHugePages) {
    WithoutHugePages const without;
    if (!without)
        GTEST_SKIP() << "the system can't be told to give none";
    RunOneModel(2);
}

// Each has what it wrote, so nobody else has had it.
TEST(SlabAllocator, ManyThreadsNeverShareABuffer) {
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 4; ++seed)
        threads.emplace_back([seed] {
            Model model(seed);
            model.Run(allSteps / 4, mostUsed / 4);
            model.ReleaseAll();
        });
    for (auto & thread : threads)
        thread.join();
    EXPECT_EQ(Slabs().GetUsedCount(), 0);
}

// More at once than may take huge pages, each for a moment and all at the same time.
TEST(SlabAllocator, ThreadsThatTakeMemoryAtOnceKeepNoMoreThanOneDoes) {
    std::vector<unsigned int *> others;
    TakeAllInMemory(others);
    while (others.size() < SlabUnit::MostBuffers)
        others.push_back(Slabs().Allocate(Content::Any));
    std::atomic<bool> isStarted{false};
    std::atomic<std::size_t> mostKept{0};
    std::vector<std::vector<unsigned int *>> taken(12);
    std::vector<std::thread> threads;
    for (auto & mine : taken)
        threads.emplace_back([&] {
            while (!isStarted)
                std::this_thread::yield();
            for (int i = 0; i < 40; ++i) {
                mine.push_back(Slabs().Allocate(Content::Overwritten));
                auto const kept = Slabs().GetKeptCount();
                for (auto seen = mostKept.load(); seen < kept && !mostKept.compare_exchange_weak(seen, kept);)
                    continue;
            }
        });
    isStarted = true;
    for (auto & thread : threads)
        thread.join();
    EXPECT_LE(mostKept, SlabAllocator::KeptBuffers);
    for (auto & mine : taken)
        others.insert(others.end(), mine.begin(), mine.end());
    EXPECT_EQ(std::set<unsigned int *>(others.begin(), others.end()).size(), others.size());
    Free(others);
}

#ifdef __SANITIZE_ADDRESS__
TEST(SlabAllocator, TheSanitizerKnowsWhatIsFree) {
    std::vector<unsigned int *> others;
    TakeAllInMemory(others);
    auto * const buffer = Slabs().Allocate(Content::Overwritten);
    EXPECT_EQ(__asan_region_is_poisoned(buffer, SlabAllocator::BufferBytes), nullptr);
    EXPECT_TRUE(__asan_address_is_poisoned(buffer + words)) << "kept, or never given out";
    Slabs().Free(buffer);
    EXPECT_TRUE(__asan_address_is_poisoned(buffer));
    EXPECT_TRUE(__asan_address_is_poisoned(buffer + words - 1));
    Free(others);
}
#endif
}
}
