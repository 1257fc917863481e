#include "kernel/Dispatch.h"
#include "kernel/CriticalSection.h"
#include "kernel/CriticalSectionSpin.h"
#include "kernel/Interlocked.h"
#include "kernel/ScopedLock.h"
#include "kernel/Semaphore.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <latch>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Kernel;

namespace {
class DispatchTest : public testing::TestWithParam<unsigned> {
protected:
    void SetUp() override { Dispatch::SetThreadCount(GetParam()); }
    void TearDown() override { Dispatch::SetThreadCount(0); }
};

INSTANTIATE_TEST_SUITE_P(Threads, DispatchTest, testing::Values(1u, 2u, 3u, 8u));

struct WithThreads {
    explicit WithThreads(unsigned count) { Dispatch::SetThreadCount(count); }
    ~WithThreads() { Dispatch::SetThreadCount(0); }
};

/// Joins at the end of the scope, so that a failed assertion does not end the program.
class Threads {
public:
    template<class Function>
    void Start(Function function) {
        threads.emplace_back(function);
    }
    ~Threads() {
        for (auto & thread : threads)
            thread.join();
    }

private:
    std::vector<std::thread> threads;
};
}

TEST_P(DispatchTest, RunsEveryIndexOnce) {
    for (std::uint64_t const count : {0, 1, 2, 3, 31, 1000, 20000}) {
        std::vector<int> runs(count); // plain: each index is one thread's, and the caller sees all after the call
        Dispatch::ParallelFor(count, [&](std::uint64_t index) { ++runs[index]; });
        EXPECT_EQ(runs, std::vector<int>(count, 1)) << count << " indices";
    }
}

TEST_P(DispatchTest, HandsThePlainFormItsData) {
    std::vector<std::uint64_t> squares(100);
    Dispatch::DispatchParallelFor(
        [](void * data, std::uint64_t index) {
            (*static_cast<std::vector<std::uint64_t> *>(data))[index] = index * index;
        },
        squares.size(), &squares, DispatchPriority::Pixels);
    for (std::uint64_t i = 0; i < squares.size(); ++i)
        EXPECT_EQ(squares[i], i * i);
}

TEST_P(DispatchTest, ThrowsTheWorkersExceptionInTheCaller) {
    for (std::uint64_t const count : {1, 2, 100}) {
        std::string message;
        try {
            Dispatch::ParallelFor(count, [&](std::uint64_t index) {
                if (index == count / 2)
                    throw std::runtime_error("index " + std::to_string(index));
            });
        } catch (std::runtime_error const & error) {
            message = error.what();
        }
        EXPECT_EQ(message, "index " + std::to_string(count / 2));
    }
}

TEST_P(DispatchTest, SkipsWhatHasNotBegunWhenAWorkerThrows) {
    Interlocked runs;
    EXPECT_THROW(Dispatch::ParallelFor(std::numeric_limits<std::uint64_t>::max(),
                                       [&](std::uint64_t index) {
                                           runs.Increment();
                                           if (index == 500)
                                               throw std::bad_alloc();
                                       }),
                 std::bad_alloc);
    EXPECT_GE(runs.Get(), 501);
}

TEST_P(DispatchTest, OneOfManyExceptionsComesOut) {
    for (int round = 0; round < 50; ++round)
        EXPECT_THROW(Dispatch::ParallelFor(64, [](std::uint64_t index) { throw index; }), std::uint64_t);
    std::vector<int> runs(64);
    Dispatch::ParallelFor(64, [&](std::uint64_t index) { ++runs[index]; });
    EXPECT_EQ(runs, std::vector<int>(64, 1)) << "a failed job must leave nothing behind";
}

TEST_P(DispatchTest, NestsToAnyDepth) {
    Interlocked leaves;
    Dispatch::ParallelFor(6, [&](std::uint64_t) {
        Dispatch::ParallelFor(
            6, [&](std::uint64_t) { Dispatch::ParallelFor(6, [&](std::uint64_t) { leaves.Increment(); }); });
    });
    EXPECT_EQ(leaves.Get(), 216);
}

// The heart of the matter: a thread that waits for its job must not run another one's work, since its re-entrant locks
// would let that work into a half-built state.
TEST_P(DispatchTest, AWaitingThreadRunsNothingOfAnotherJob) {
    static thread_local int depth;
    Interlocked intrusions;
    Dispatch::ParallelFor(64, [&](std::uint64_t) {
        if (depth++ != 0)
            intrusions.Increment();
        Dispatch::ParallelFor(8, [](std::uint64_t) { std::this_thread::yield(); });
        --depth;
    });
    EXPECT_EQ(intrusions.Get(), 0);
}

// About 10,000 jobs, concurrent and nested, under locks that are held in callers and taken in workers.
TEST_P(DispatchTest, EndsTenThousandNestedAndConcurrentJobsWithLocksHeld) {
    constexpr int callerCount = 4, roundCount = 250, outerCount = 9;
    CriticalSectionSpin tally(LockRank::Leaf);
    std::uint64_t total = 0; // guarded by tally
    {
        Threads callers;
        for (int caller = 0; caller < callerCount; ++caller)
            callers.Start([&] {
                CriticalSection bitmap(LockRank::Bitmap);
                for (int round = 0; round < roundCount; ++round) {
                    ScopedLock const outerLock(bitmap);
                    Dispatch::ParallelFor(outerCount, [&](std::uint64_t outer) {
                        CriticalSection model(LockRank::FileModel);
                        ScopedLock const innerLock(model);
                        std::vector<std::uint64_t> parts(5);
                        Dispatch::ParallelFor(parts.size(), [&](std::uint64_t i) { parts[i] = outer + i; });
                        ScopedLock const tallyLock(tally);
                        for (auto const part : parts)
                            total += part;
                    });
                }
            });
    }
    EXPECT_EQ(total, std::uint64_t(callerCount) * roundCount * (5 * 36 + outerCount * 10));
}

TEST(Dispatch, UsesAsManyThreadsAsWereSet) {
    WithThreads const threads(4);
    EXPECT_EQ(Dispatch::GetThreadCount(), 4u);
    std::latch allInside(4); // opens only if four threads work at once, on any number of processors
    Dispatch::ParallelFor(4, [&](std::uint64_t) { allInside.arrive_and_wait(); });
}

TEST(Dispatch, RunsOnTheCallersThreadAloneForACountOfOne) {
    WithThreads const threads(1);
    auto const caller = std::this_thread::get_id();
    std::uint64_t next = 0;
    Dispatch::ParallelFor(100, [&](std::uint64_t index) {
        EXPECT_EQ(std::this_thread::get_id(), caller);
        EXPECT_EQ(index, next++);
    });
}

TEST(Dispatch, DefaultsToOneThreadForEachProcessor) {
    Dispatch::SetThreadCount(0);
    EXPECT_EQ(Dispatch::GetThreadCount(), std::max(1u, std::thread::hardware_concurrency()));
}

TEST(Dispatch, RunsInLineWhileAllHelpersAreBlockedOnTheCallersLock) {
    WithThreads const threads(3);
    CriticalSection section;
    Interlocked begun;
    Semaphore blocked;
    std::thread other;
    {
        ScopedLock const lock(section);
        other = std::thread([&] {
            Dispatch::ParallelFor(3, [&](std::uint64_t) {
                if (begun.Increment() == 3)
                    blocked.Signal();
                ScopedLock const waiting(section);
            });
        });
        blocked.Wait(); // both helpers and their caller now wait for this thread
        Interlocked runs;
        Dispatch::ParallelFor(1000, [&](std::uint64_t) { runs.Increment(); });
        EXPECT_EQ(runs.Get(), 1000);
    }
    other.join();
}

TEST(Dispatch, KeepsWorkingWhileTheThreadCountChanges) {
    WithThreads const restored(2);
    std::atomic<bool> stop{false};
    Threads threads;
    threads.Start([&] {
        for (unsigned i = 0; i < 200; ++i)
            Dispatch::SetThreadCount(1 + i % 5);
        stop = true;
    });
    for (int round = 0; !stop || round < 100; ++round) {
        std::vector<int> runs(40);
        Dispatch::ParallelFor(runs.size(), [&](std::uint64_t index) { ++runs[index]; });
        ASSERT_EQ(runs, std::vector<int>(40, 1));
    }
}

TEST(Dispatch, FindsItsHelpersAgainAfterTheThreadCountChanged) {
    for (unsigned const count : {5u, 2u, 1u, 4u}) {
        WithThreads const threads(count);
        std::latch allInside(count);
        Dispatch::ParallelFor(count, [&](std::uint64_t) { allInside.arrive_and_wait(); });
    }
}

TEST_P(DispatchTest, APipelineUsesEachPieceOnceInOrderWithRoomForDepth) {
    for (std::uint64_t const count : {0, 1, 2, 7, 500})
        for (std::uint64_t const depth : {0, 1, 2, 3, 600}) {
            std::vector<std::uint64_t> room(std::max<std::uint64_t>(depth, 1)), used; // plain: see `RunsEveryIndexOnce`
            std::atomic<int> users{0};
            std::atomic<std::uint64_t> usedCount{0};
            auto const caller = std::this_thread::get_id();
            Dispatch::Pipeline(
                depth,
                [&](std::uint64_t index) {
                    EXPECT_EQ(std::this_thread::get_id(), caller);
                    EXPECT_LT(index, usedCount + room.size());
                    if (index == count)
                        return false;
                    room[index % room.size()] = index * index;
                    return true;
                },
                [&](std::uint64_t index) {
                    EXPECT_EQ(users.fetch_add(1), 0);
                    EXPECT_EQ(index, used.size());
                    used.push_back(room[index % room.size()]);
                    if (index % 50 == 0)
                        std::this_thread::yield();
                    --users;
                    ++usedCount;
                });
            ASSERT_EQ(used.size(), count) << "depth " << depth;
            for (std::uint64_t i = 0; i < count; ++i)
                ASSERT_EQ(used[i], i * i) << "depth " << depth;
        }
}

TEST_P(DispatchTest, APipelineEndsWithTheFirstException) {
    for (std::uint64_t const failing : {0, 1, 17}) {
        std::uint64_t made = 0, used = 0;
        EXPECT_THROW(Dispatch::Pipeline(
                         2,
                         [&](std::uint64_t index) {
                             ++made;
                             return index < 1000;
                         },
                         [&](std::uint64_t index) {
                             ++used;
                             if (index == failing)
                                 throw std::runtime_error("use");
                         }),
                     std::runtime_error);
        EXPECT_EQ(used, failing + 1);
        EXPECT_LE(made, failing + 3);

        used = 0;
        EXPECT_THROW(Dispatch::Pipeline(
                         2,
                         [&](std::uint64_t index) {
                             if (index == failing)
                                 throw std::bad_alloc();
                             return true;
                         },
                         [&](std::uint64_t) { ++used; }),
                     std::bad_alloc);
        EXPECT_LE(used, failing);
    }
}

TEST_P(DispatchTest, PipelinesNestWithEachOtherAndWithLoops) {
    Interlocked leaves;
    auto const run = [&] {
        Dispatch::Pipeline(
            2,
            [&](std::uint64_t index) {
                Dispatch::ParallelFor(5, [&](std::uint64_t) { leaves.Increment(); });
                return index < 40;
            },
            [&](std::uint64_t) {
                Dispatch::ParallelFor(5, [&](std::uint64_t) {
                    Dispatch::Pipeline(
                        3, [](std::uint64_t index) { return index < 4; }, [&](std::uint64_t) { leaves.Increment(); });
                });
            });
    };
    {
        Threads callers;
        for (int caller = 0; caller < 3; ++caller)
            callers.Start(run);
    }
    EXPECT_EQ(leaves.Get(), 3 * (41 * 5 + 40 * 5 * 4));
}

TEST(Dispatch, APipelineMakesTheNextPieceWhileOneIsUsed) {
    WithThreads const threads(2);
    std::latch both(2); // opens only if one thread makes while another uses
    Dispatch::Pipeline(
        2,
        [&](std::uint64_t index) {
            if (index == 1)
                both.arrive_and_wait();
            return index < 2;
        },
        [&](std::uint64_t index) {
            if (index == 0)
                both.arrive_and_wait();
        });
}

TEST(Dispatch, APipelineRunsInLineWhileAllHelpersAreBusy) {
    WithThreads const threads(2);
    Semaphore blocked, released;
    std::thread other([&] {
        Dispatch::ParallelFor(2, [&](std::uint64_t) {
            blocked.Signal();
            released.Wait();
        });
    });
    blocked.Wait();
    blocked.Wait(); // the one helper and the other caller now wait for this thread
    std::uint64_t used = 0;
    Dispatch::Pipeline(
        2, [](std::uint64_t index) { return index < 100; }, [&](std::uint64_t) { ++used; });
    EXPECT_EQ(used, 100u);
    released.Signal();
    released.Signal();
    other.join();
}

TEST(Dispatch, IsRefusedUnderALeaf) {
    if (!LockOrder::isChecked)
        GTEST_SKIP() << "this build does not check the order of locks";
    static int violations;
    violations = 0;
    LockOrder::SetViolationHandler([](char const *) { ++violations; });
    CriticalSectionSpin leaf(LockRank::Leaf);
    {
        ScopedLock const lock(leaf);
        Dispatch::ParallelFor(1, [](std::uint64_t) {});
    }
    LockOrder::SetViolationHandler(nullptr);
    EXPECT_EQ(violations, 1);
}
