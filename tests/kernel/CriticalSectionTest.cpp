#include "kernel/CriticalSection.h"
#include "kernel/CriticalSectionSpin.h"
#include "kernel/Interlocked.h"
#include "kernel/ScopedLock.h"
#include "kernel/Semaphore.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

using namespace Kernel;

namespace {
template<class Section>
class SectionTest : public testing::Test {};

using Sections = testing::Types<CriticalSection, CriticalSectionSpin>;
TYPED_TEST_SUITE(SectionTest, Sections);

template<class Function>
void RunOnThreads(int count, Function function) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back(function);
    for (auto & thread : threads)
        thread.join();
}
}

TYPED_TEST(SectionTest, KeepsOthersOut) {
    TypeParam section(LockRank::Leaf);
    std::int64_t plainCount = 0; // a lost update or a report of the thread sanitizer shows a broken lock
    RunOnThreads(8, [&] {
        for (int i = 0; i < 5000; ++i) {
            ScopedLock const lock(section);
            ++plainCount;
        }
    });
    EXPECT_EQ(plainCount, 8 * 5000);
}

TYPED_TEST(SectionTest, WakesThoseThatSleep) {
    TypeParam section;
    std::int64_t plainCount = 0;
    RunOnThreads(6, [&] {
        for (int i = 0; i < 5; ++i) {
            ScopedLock const lock(section);
            std::this_thread::sleep_for(std::chrono::milliseconds(1)); // far longer than a waiter spins
            ++plainCount;
        }
    });
    EXPECT_EQ(plainCount, 30);
}

TYPED_TEST(SectionTest, TryFailsOnlyWhileAnotherThreadIsInside) {
    TypeParam section;
    {
        ScopedLock const lock(section);
        std::thread([&] { EXPECT_FALSE(section.TryAcquireLock()); }).join();
    }
    std::thread([&] {
        EXPECT_TRUE(section.TryAcquireLock());
        section.ReleaseLock();
    }).join();
}

TYPED_TEST(SectionTest, ScopedLockReleasesEarlyAndOnce) {
    TypeParam section;
    ScopedLock lock(section);
    lock.Release();
    EXPECT_FALSE(lock);
    lock.Release();
    EXPECT_TRUE(section.TryAcquireLock());
    section.ReleaseLock();
}

TEST(CriticalSection, MayBeEnteredAgainByItsThread) {
    CriticalSection section;
    section.AcquireLock();
    section.AcquireLock();
    EXPECT_TRUE(section.TryAcquireLock());
    section.ReleaseLock();
    section.ReleaseLock();
    std::thread([&] { EXPECT_FALSE(section.TryAcquireLock()) << "one entry is still open"; }).join();
    section.ReleaseLock();
    std::thread([&] {
        EXPECT_TRUE(section.TryAcquireLock());
        section.ReleaseLock();
    }).join();
}

TEST(Semaphore, LetsAsManyPassAsWereSignalled) {
    Semaphore semaphore(2);
    EXPECT_TRUE(semaphore.TryWait());
    EXPECT_TRUE(semaphore.TryWait());
    EXPECT_FALSE(semaphore.TryWait());
    semaphore.Signal();
    semaphore.Wait();
    EXPECT_FALSE(semaphore.TryWait());
}

TEST(Semaphore, WakesAWaiterWhoSeesWhatWasWrittenBefore) {
    Semaphore ready;
    int value = 0;
    std::thread waiter([&] {
        ready.Wait();
        EXPECT_EQ(value, 7);
    });
    value = 7;
    ready.Signal();
    waiter.join();
}

TEST(Interlocked, StartsAtZeroInArrays) {
    std::vector<Interlocked> counters(300);
    for (auto const & counter : counters)
        EXPECT_EQ(counter.Get(), 0);
}

TEST(Interlocked, LosesNoCount) {
    Interlocked counters[2];
    RunOnThreads(4, [&] {
        for (int i = 0; i < 10000; ++i) {
            counters[0].Increment();
            counters[1].AddRelaxed(3);
        }
    });
    EXPECT_EQ(counters[0].Get(), 40000);
    EXPECT_EQ(counters[1].Get(), 120000);
}

TEST(Interlocked, ReturnsNewValuesAndExchangesOldOnes) {
    Interlocked counter;
    EXPECT_EQ(counter.Increment(), 1);
    EXPECT_EQ(counter.Add(5), 6);
    EXPECT_EQ(counter.Subtract(2), 4);
    EXPECT_EQ(counter.Decrement(), 3);
    EXPECT_EQ(counter.Exchange(10), 3);
    EXPECT_FALSE(counter.CompareExchange(9, 11));
    EXPECT_TRUE(counter.CompareExchange(10, 11));
    counter.Set(-1);
    EXPECT_EQ(counter.Get(), -1);
}
