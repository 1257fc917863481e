#include "kernel/COW.h"

#include <gtest/gtest.h>

#include <new>
#include <thread>
#include <vector>

namespace {
using Kernel::Counted;
using Kernel::COW;
using Kernel::MakeCounted;

struct Number : Kernel::Countable {
    int value = 7;
};

// Is copied by a call on a new object instead of its copy constructor.
struct Cells : Kernel::Countable {
    Cells() = default;
    Cells(Cells const &) = delete;
    int value = 0;
    int copies = 0;
};
bool failingCopies = false;
}

template<>
struct Kernel::COWTraits<Cells> {
    static Counted<Cells> Create() { return MakeCounted<Cells>(); }
    static Counted<Cells> Copy(Cells const & source) {
        if (failingCopies)
            throw std::bad_alloc();
        auto const result = MakeCounted<Cells>();
        result->value = source.value;
        result->copies = source.copies + 1;
        return result;
    }
};

namespace {
TEST(COW, DefaultConstructionMakesAnObject) {
    COW<Number> const number;
    ASSERT_TRUE(number);
    EXPECT_EQ(7, number->value);
}

TEST(COW, ANullHolderIsFilledByTheFirstWriteAndNotByReads) {
    auto number = COW<Number>::CreateNull();
    EXPECT_EQ(nullptr, number.GetConst());
    EXPECT_EQ(nullptr, number.Share());
    EXPECT_FALSE(number);
    number->value = 8;
    EXPECT_EQ(8, number.GetConst()->value);
    number = nullptr;
    EXPECT_EQ(nullptr, number);
}

TEST(COW, CopiesShareUntilOneIsWritten) {
    COW<Number> first;
    auto second = first;
    EXPECT_EQ(first, second);
    EXPECT_EQ(first.GetConst(), second.GetConst());
    second->value = 9;
    EXPECT_EQ(7, first.GetConst()->value);
    EXPECT_EQ(9, second.GetConst()->value);
    EXPECT_EQ(1u, first.GetConst()->GetCount());
    EXPECT_EQ(1u, second.GetConst()->GetCount());
}

TEST(COW, ASoleHolderWritesInPlace) {
    COW<Number> number;
    auto const before = number.GetConst();
    number->value = 1;
    EXPECT_EQ(before, number.GetConst());
    { auto const copy = number; }
    (*number).value = 2;
    EXPECT_EQ(before, number.GetConst());
}

TEST(COW, ReadsNeverCopyAlsoThroughANonConstHolder) {
    COW<Number> first;
    COW<Number> const second = first;
    EXPECT_EQ(7, first.GetConst()->value);
    EXPECT_EQ(7, second->value);
    EXPECT_EQ(7, (*second).value);
    EXPECT_EQ(first, second);
}

TEST(COW, AnOutsideOwnerCountsAsASharer) {
    auto const owner = MakeCounted<Number>();
    COW<Number> number = owner;
    number->value = 1;
    EXPECT_EQ(7, owner->value);
    number = owner;
    auto const shared = number.Share();
    EXPECT_EQ(3u, owner->GetCount());
    EXPECT_EQ(owner, shared);
}

TEST(COW, TakesTheCopyFromItsTraits) {
    COW<Cells> first;
    first->value = 3;
    auto second = first;
    second->value += 1;
    EXPECT_EQ(4, second.GetConst()->value);
    EXPECT_EQ(1, second.GetConst()->copies);
    EXPECT_EQ(0, first.GetConst()->copies);
}

TEST(COW, AFailedCopyLeavesTheHolderAsItWas) {
    COW<Cells> first;
    auto second = first;
    failingCopies = true;
    EXPECT_THROW(second.GetMutable(), std::bad_alloc);
    failingCopies = false;
    EXPECT_EQ(first, second);
    EXPECT_EQ(2u, first.GetConst()->GetCount());
}

TEST(COW, ThreadsThatWriteTheirOwnCopiesNeverSeeEachOther) {
    for (int round = 0; round < 200; ++round) {
        COW<Number> original;
        std::vector<COW<Number>> copies(4, original);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&copy = copies[static_cast<std::size_t>(t)], t] {
                EXPECT_EQ(7, copy.GetConst()->value);
                copy->value = t; // the last of them may write in place: all readers have let go
                EXPECT_EQ(t, copy.GetConst()->value);
            });
        original = nullptr;
        for (auto & thread : threads)
            thread.join();
        for (int t = 0; t < 4; ++t)
            EXPECT_EQ(t, copies[static_cast<std::size_t>(t)].GetConst()->value);
    }
}
}
