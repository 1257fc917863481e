#include "kernel/Consolidated.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <unordered_set>
#include <vector>

namespace {
using Kernel::Consolidated;
using Kernel::Counted;
using Kernel::MakeCounted;

struct Tallies {
    std::atomic<int> alive{0}, announced{0}, compared{0};
};
Tallies tallies;

class Word : public Kernel::Consolidatable {
public:
    explicit Word(int number, std::uint64_t bucket) : value(number), hash(bucket) { ++tallies.alive; }
    explicit Word(int number) : Word(number, static_cast<std::uint64_t>(number)) {}
    Word(Word const & other) : Countable(other), Consolidatable(other), value(other.value), hash(other.hash) {
        ++tallies.alive;
    }
    ~Word() override { --tallies.alive; }

    std::uint64_t GetConsolidationHash() const override { return hash; }
    bool IsEqualTo(Consolidatable const & other) const override {
        ++tallies.compared;
        return value == dynamic_cast<Word const &>(other).value;
    }
    void OnConsolidated() const override { ++tallies.announced; }

    int const value;

private:
    std::uint64_t const hash;
};

class OtherWord : public Word {
public:
    using Word::Word;
};

class ConsolidatedTest : public testing::Test {
protected:
    ConsolidatedTest() { tallies.alive = tallies.announced = tallies.compared = 0; }
    ~ConsolidatedTest() override { EXPECT_EQ(0, tallies.alive); }
};

Consolidated<Word> MakeWord(int value) { return Consolidated<Word>(MakeCounted<Word>(value)); }

TEST_F(ConsolidatedTest, EqualValuesShareTheFirstObject) {
    auto const first = MakeWord(1);
    auto const second = MakeWord(1);
    auto const other = MakeWord(2);
    EXPECT_EQ(first, second);
    EXPECT_NE(first, other);
    EXPECT_EQ(2, tallies.alive);
    EXPECT_EQ(2, tallies.announced);
    EXPECT_EQ(2u, first->GetCount());
    EXPECT_EQ(2u, (std::unordered_set<Consolidated<Word>>{first, second, other}.size()));
}

TEST_F(ConsolidatedTest, EqualHashesAloneDoNotMakeObjectsEqual) {
    Consolidated<Word> const first(MakeCounted<Word>(1, 99u)), second(MakeCounted<Word>(2, 99u));
    Consolidated<Word> const third(MakeCounted<Word>(2, 99u));
    EXPECT_NE(first, second);
    EXPECT_EQ(second, third);
}

TEST_F(ConsolidatedTest, ObjectsOfDifferentTypesAreNeverEqual) {
    auto const word = MakeWord(1);
    Consolidated<Word> const other(MakeCounted<OtherWord>(1));
    EXPECT_NE(word, other);
    EXPECT_EQ(0, tallies.compared);
}

TEST_F(ConsolidatedTest, TheTableKeepsNothingAlive) {
    auto word = MakeWord(1);
    word.Reset();
    EXPECT_EQ(0, tallies.alive);
    word = MakeWord(1);
    EXPECT_EQ(2, tallies.announced);
    EXPECT_EQ(0, tallies.compared);
}

TEST_F(ConsolidatedTest, ConsolidatingTwiceAnnouncesOnce) {
    auto const object = MakeCounted<Word>(1);
    Consolidated<Word> const first(object), second(object);
    EXPECT_EQ(first, second);
    EXPECT_EQ(object.Get(), first.Get());
    EXPECT_EQ(1, tallies.announced);
}

TEST_F(ConsolidatedTest, NullStaysNull) {
    Consolidated<Word> const word{Counted<Word>()};
    EXPECT_EQ(nullptr, word);
    EXPECT_EQ(Consolidated<Word>(), word);
}

TEST_F(ConsolidatedTest, ACopyOfAConsolidatedObjectIsNotConsolidated) {
    auto const word = MakeWord(1);
    auto const copy = MakeCounted<Word>(*word);
    EXPECT_TRUE(word->IsConsolidated());
    EXPECT_FALSE(copy->IsConsolidated());
    EXPECT_EQ(nullptr, Consolidated<Word>::FromConsolidated(copy.Get()));
    EXPECT_EQ(word, Consolidated<Word>::FromConsolidated(word.Get()));
    EXPECT_EQ(word, Consolidated<Word>(copy));
}

// Registers itself, and a companion, while it is announced: neither may meet a held lock.
class Nesting : public Kernel::Consolidatable {
public:
    explicit Nesting(int levels) : depth(levels) {}
    std::uint64_t GetConsolidationHash() const override { return 5; }
    bool IsEqualTo(Consolidatable const & other) const override {
        return depth == dynamic_cast<Nesting const &>(other).depth;
    }
    void OnConsolidated() const override;
    int const depth;
};
std::vector<Consolidated<Nesting>> registered;
void Nesting::OnConsolidated() const {
    registered.push_back(Consolidated<Nesting>::FromConsolidated(this));
    if (depth > 0)
        Consolidated<Nesting>(MakeCounted<Nesting>(depth - 1));
}

TEST_F(ConsolidatedTest, AnnouncementsMayConsolidateAgain) {
    Consolidated<Nesting>(MakeCounted<Nesting>(3));
    ASSERT_EQ(4u, registered.size());
    EXPECT_EQ(3, registered.front()->depth);
    EXPECT_EQ(0, registered.back()->depth);
    registered.clear();
}

class Throwing : public Word {
public:
    using Word::Word;
    bool IsEqualTo(Consolidatable const &) const override { throw std::runtime_error("compare"); }
};

TEST_F(ConsolidatedTest, AThrowingComparisonLeavesTheTableUsable) {
    Consolidated<Word> const first(MakeCounted<Throwing>(1));
    EXPECT_THROW(Consolidated<Word>(MakeCounted<Throwing>(1)), std::runtime_error);
    EXPECT_EQ(1, tallies.alive);
    EXPECT_EQ(1u, first->GetCount());
    EXPECT_NE(nullptr, MakeWord(1));
}

TEST_F(ConsolidatedTest, ThreadsAgreeOnOneObjectPerValue) {
    constexpr int Threads = 8, Rounds = 100, Values = 10;
    for (int round = 0; round < Rounds; ++round) {
        tallies.announced = 0;
        std::vector<std::vector<Consolidated<Word>>> found(Threads);
        std::vector<std::thread> threads;
        for (auto & mine : found)
            threads.emplace_back([&mine] {
                for (int value = 0; value < Values; ++value)
                    mine.emplace_back(MakeCounted<Word>(value, 3u)); // one bucket for all
            });
        for (auto & thread : threads)
            thread.join();
        for (auto const & mine : found)
            EXPECT_EQ(found[0], mine);
        EXPECT_EQ(Values, tallies.announced);
        EXPECT_EQ(Values, tallies.alive);
    }
}

TEST_F(ConsolidatedTest, ObjectsMayGoWhileOthersLookThemUp) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 2000; ++i) {
                auto const word = Consolidated<Word>(MakeCounted<Word>((i + t) % 3, 3u));
                EXPECT_EQ((i + t) % 3, word->value);
                EXPECT_TRUE(word->IsConsolidated());
            }
        });
    for (auto & thread : threads)
        thread.join();
}

TEST_F(ConsolidatedTest, ThreadsThatConsolidateTheSameObjectAnnounceItOnce) {
    for (int round = 0; round < 100; ++round) {
        tallies.announced = 0;
        auto const object = MakeCounted<Word>(1);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([object] { EXPECT_EQ(object.Get(), Consolidated<Word>(object).Get()); });
        for (auto & thread : threads)
            thread.join();
        EXPECT_EQ(1, tallies.announced);
    }
}
}
