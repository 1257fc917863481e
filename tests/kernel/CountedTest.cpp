#include "kernel/Counted.h"
#include "kernel/Countable.h"
#include "kernel/JailCounted.h"
#include "kernel/NonCounted.h"

#include <gtest/gtest.h>

#include <thread>
#include <unordered_set>
#include <vector>

namespace {
using Kernel::Counted;
using Kernel::JailCounted;
using Kernel::MakeCounted;
using Kernel::NonCounted;

struct Left : virtual Kernel::Countable {
    int left = 1;
};
struct Right : virtual Kernel::Countable {
    int right = 2;
};
struct Both : Left, Right {
    explicit Both(int & counter) : alive(counter) { ++alive; }
    ~Both() override { --alive; }
    int & alive;
};

TEST(Counted, DeletesWithTheLastOwnerThroughAnyBase) {
    int alive = 0;
    Counted<Right> right;
    {
        auto const both = MakeCounted<Both>(alive);
        Counted<Left> const left = both;
        right = both;
        EXPECT_EQ(3u, both->GetCount());
        EXPECT_EQ(left, both);
    }
    EXPECT_EQ(1, alive);
    EXPECT_EQ(2, right->right);
    EXPECT_EQ(1u, right->GetCount());
    right.Reset();
    EXPECT_EQ(0, alive);
}

TEST(Counted, MovesAndSelfAssignmentKeepTheCount) {
    int alive = 0;
    auto first = MakeCounted<Both>(alive);
    auto second = std::move(first);
    EXPECT_FALSE(first); // NOLINT: a moved-from owner is null
    EXPECT_EQ(1u, second->GetCount());
    auto const & same = second;
    second = same;
    EXPECT_EQ(1u, second->GetCount());
    Counted<Left> base = std::move(second);
    EXPECT_EQ(1u, base->GetCount());
    base = nullptr;
    EXPECT_EQ(0, alive);
}

struct Node : Kernel::Countable {
    Counted<Node> next;
};

TEST(Counted, AnObjectMayReplaceItsOwnOwner) {
    auto head = MakeCounted<Node>();
    head->next = MakeCounted<Node>();
    head = head->next; // the old head goes during the assignment, with its `next`
    ASSERT_TRUE(head);
    EXPECT_EQ(1u, head->GetCount());
}

TEST(Counted, RetainIfHeldRefusesAnObjectWithoutOwners) {
    Node node;
    EXPECT_FALSE(node.RetainIfHeld());
    node.Retain();
    EXPECT_TRUE(node.RetainIfHeld());
    EXPECT_EQ(2u, node.GetCount());
}

TEST(Counted, ACopyOfAnObjectStartsUncounted) {
    auto const original = MakeCounted<Node>();
    auto const copy = MakeCounted<Node>(*original);
    EXPECT_EQ(1u, copy->GetCount());
    *copy = *original;
    EXPECT_EQ(1u, copy->GetCount());
}

TEST(Counted, DynamicCastGivesTheSameObjectOrNull) {
    int alive = 0;
    Counted<Left> const left = MakeCounted<Both>(alive);
    EXPECT_TRUE(Kernel::DynamicCast<Right>(left));
    EXPECT_FALSE(Kernel::DynamicCast<Node>(left));
}

TEST(Counted, ThreadsShareOneObjectWithoutLosingACount) {
    int alive = 0;
    auto const shared = MakeCounted<Both>(alive);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([shared] {
            for (int i = 0; i < 10'000; ++i) {
                auto const copy = shared;
                EXPECT_LE(2u, copy->GetCount());
            }
        });
    for (auto & thread : threads)
        thread.join();
    threads.clear();
    EXPECT_EQ(1u, shared->GetCount());
    EXPECT_EQ(1, alive);
}

TEST(NonCounted, BorrowsWithoutCountingAndCanBecomeAnOwner) {
    int alive = 0;
    auto const owner = MakeCounted<Both>(alive);
    NonCounted<Both> const borrowed = owner;
    NonCounted<Left> const base = borrowed;
    EXPECT_EQ(1u, owner->GetCount());
    EXPECT_EQ(base, borrowed);
    EXPECT_EQ(1, base->left);
    Counted<Left> const second = base;
    EXPECT_EQ(2u, owner->GetCount());
    EXPECT_EQ(nullptr, NonCounted<Both>());
    EXPECT_EQ(1u, (std::unordered_set<NonCounted<Both>>{borrowed, NonCounted<Both>(owner)}.size()));
}

TEST(JailCounted, KeepsTheKeeperAliveAndCountsIt) {
    int alive = 0;
    auto keeper = MakeCounted<Both>(alive);
    JailCounted<int> inside(&keeper->left, keeper); // an int has no count of its own
    JailCounted<int const> copy = inside;
    keeper.Reset();
    inside = nullptr;
    ASSERT_EQ(1, alive);
    EXPECT_EQ(1, *copy);
    EXPECT_EQ(1u, copy.GetKeeper()->GetCount());
    auto const moved = std::move(copy);
    EXPECT_EQ(1u, moved.GetKeeper()->GetCount());
    copy.Reset();
    EXPECT_EQ(1, alive);
}

TEST(JailCounted, OfACountedObjectIsAnOwnerLikeAnyOther) {
    int alive = 0;
    JailCounted<Left> jailed = MakeCounted<Both>(alive);
    EXPECT_EQ(1u, jailed->GetCount());
    Counted<Left> const counted = jailed;
    EXPECT_EQ(2u, jailed->GetCount());
    jailed = JailCounted<Left>();
    EXPECT_EQ(1u, counted->GetCount());
    EXPECT_EQ(1, alive);
    EXPECT_FALSE(jailed);
    EXPECT_FALSE(Counted<Left>(jailed)) << "null gives null";
}

TEST(JailCounted, OfACountableThatAnotherKeepsGivesNoOwnerAway) {
    int alive = 0;
    struct Box : Kernel::Countable {
        explicit Box(int & counter) : inner(counter) {}
        Both inner;
    };
    JailCounted<Left> jailed;
    {
        auto const box = MakeCounted<Box>(alive);
        jailed = JailCounted<Left>(&box->inner, box);
    }
    EXPECT_FALSE(Counted<Left>(jailed));
    EXPECT_EQ(1, alive);
    EXPECT_EQ(0u, jailed->GetCount()) << "the count of the object itself is not touched";
    EXPECT_EQ(1u, jailed.GetKeeper()->GetCount());
    jailed = nullptr;
    EXPECT_EQ(0, alive);
}
}
