#include "storage/Prolongation.h"

#include <gtest/gtest.h>

namespace Raster {
namespace {
struct Object : Kernel::Countable {
    explicit Object(bool & flag) : isGone(flag) {}
    ~Object() override { isGone = true; }
    bool & isGone;
};

TEST(Prolongation, LowersCountersAndSignalsAtTheEndAndKeepsObjectsUntilThen) {
    std::atomic<std::uint32_t> counters[2] = {5, 7};
    Kernel::Semaphore semaphores[2];
    bool isGone = false;
    std::array<Prolongation::Entry, Prolongation::EntryCount> entries;
    entries[0] = {&counters[0], &semaphores[0], nullptr};
    entries[3] = {&counters[1], nullptr, nullptr};
    entries[4] = {nullptr, &semaphores[1], nullptr};
    entries[5].object = Kernel::MakeCounted<Object>(isGone);
    auto prolongation = Kernel::MakeCounted<Prolongation>(entries);
    entries = {};
    auto second = prolongation;
    prolongation.Reset();
    EXPECT_EQ(counters[0], 5);
    EXPECT_FALSE(isGone);
    second.Reset();
    EXPECT_EQ(counters[0], 4);
    EXPECT_EQ(counters[1], 6);
    EXPECT_TRUE(semaphores[0].TryWait());
    EXPECT_FALSE(semaphores[0].TryWait());
    EXPECT_FALSE(semaphores[1].TryWait()) << "a semaphore goes with its counter";
    EXPECT_TRUE(isGone);
}

TEST(Prolongation, DoesNothingToCountersOnceItIsDone) {
    std::atomic<std::uint32_t> counter{5};
    bool isGone = false;
    std::array<Prolongation::Entry, Prolongation::EntryCount> entries;
    entries[0] = {&counter, nullptr, Kernel::MakeCounted<Object>(isGone)};
    auto prolongation = Kernel::MakeCounted<Prolongation>(entries);
    entries = {};
    prolongation->MarkAsDone();
    prolongation.Reset();
    EXPECT_EQ(counter, 5);
    EXPECT_TRUE(isGone);
}
}
}
