#include "kernel/FileStoreStateObject.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace Kernel;

TEST(FileStoreStateObject, IsBornDirty) { EXPECT_FALSE(FileStoreStateObject().CanShare()); }

TEST(FileStoreStateObject, CanShareOnceStored) {
    FileStoreStateObject state;
    state.MarkAsStored(state.GetDirtyGeneration());
    EXPECT_TRUE(state.CanShare());
    state.MarkAsDirty();
    EXPECT_FALSE(state.CanShare());
}

TEST(FileStoreStateObject, StaysDirtyIfChangedDuringASave) {
    FileStoreStateObject state;
    auto const saved = state.GetDirtyGeneration();
    state.MarkAsDirty();
    state.MarkAsStored(saved);
    EXPECT_FALSE(state.CanShare());
}

TEST(FileStoreStateObject, StaysDirtyIfAChangeBeganBeforeTheSaveAndEndedAfterIt) {
    FileStoreStateObject state;
    state.AboutToMakeDirty();
    auto const saved = state.GetDirtyGeneration();
    state.MarkAsDirty();
    state.MarkAsStored(saved);
    EXPECT_FALSE(state.CanShare());
}

TEST(FileStoreStateObject, IgnoresOlderNews) {
    FileStoreStateObject state;
    auto const first = state.GetDirtyGeneration();
    state.MarkAsDirty();
    state.MarkAsStored(state.GetDirtyGeneration());
    state.MarkAsStored(first);
    EXPECT_TRUE(state.CanShare());
}

TEST(FileStoreStateObject, CountsChangesOfAllThreads) {
    FileStoreStateObject state;
    auto const before = state.GetDirtyGeneration();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int n = 0; n < 1000; ++n) {
                state.MarkAsDirty();
                state.MarkAsStored(state.GetDirtyGeneration());
            }
        });
    for (auto & thread : threads)
        thread.join();
    EXPECT_EQ(state.GetDirtyGeneration(), before + 4000);
    EXPECT_TRUE(state.CanShare());
}
