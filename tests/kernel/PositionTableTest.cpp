#include "kernel/PositionTable.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <utility>
#include <vector>

namespace Kernel {
namespace {
using Key = std::pair<std::uint64_t, std::uint64_t>;

std::optional<std::size_t> FindIn(PositionTable const & table, std::vector<Key> const & keys, Key const & key) {
    return table.Find(key.first, key.second, [&](std::size_t position) { return keys.at(position) == key; });
}

TEST(PositionTable, AnEmptyOneHasNothing) {
    PositionTable table;
    EXPECT_FALSE(FindIn(table, {}, {0, 0}));
    table.Reserve(100);
    EXPECT_FALSE(FindIn(table, {}, {0, 0}));
}

// Keys as documents have them, and keys that differ in any one bit: none may be lost, none found that isn't there.
TEST(PositionTable, FindsWhatAMapFinds) {
    for (bool const isReserved : {false, true}) {
        std::mt19937_64 random(1);
        std::vector<Key> keys;
        for (std::uint64_t i = 1; i <= 3000; ++i)
            keys.emplace_back(0x123456789abcdef0, i);
        for (int bit = 0; bit < 64; ++bit) {
            keys.emplace_back(std::uint64_t(1) << bit, 0);
            keys.emplace_back(0, std::uint64_t(1) << bit);
        }
        for (int i = 0; i < 3000; ++i)
            keys.emplace_back(random(), random());
        PositionTable table;
        if (isReserved)
            table.Reserve(keys.size());
        std::map<Key, std::size_t> expected;
        for (std::size_t i = 0; i < keys.size(); ++i) {
            EXPECT_FALSE(FindIn(table, keys, keys[i])) << i;
            table.Add(keys[i].first, keys[i].second, i);
            expected.emplace(keys[i], i);
        }
        for (auto const & [key, position] : expected)
            EXPECT_EQ(FindIn(table, keys, key), position);
        for (int i = 0; i < 3000; ++i)
            EXPECT_FALSE(FindIn(table, keys, {random(), random()}));
        EXPECT_EQ(table.GetCount(), keys.size());
        table.Clear();
        EXPECT_FALSE(FindIn(table, keys, keys[0]));
        EXPECT_EQ(table.GetCount(), 0u);
    }
}

TEST(PositionTable, OfEqualKeysTheFirstThatIsTakenIsFound) {
    PositionTable table;
    table.Reserve(3);
    for (std::size_t i = 0; i < 3; ++i)
        table.Add(5, 5, i);
    EXPECT_EQ(table.Find(5, 5, [](std::size_t) { return true; }), 0u);
    EXPECT_EQ(table.Find(5, 5, [](std::size_t position) { return position == 2; }), 2u);
    EXPECT_FALSE(table.Find(5, 5, [](std::size_t) { return false; }));
}

TEST(PositionTable, TakesNoPositionThatItCantHold) {
    PositionTable table;
    EXPECT_THROW(table.Add(1, 1, 0xFFFFFFFF), std::length_error);
    table.Add(1, 1, 0xFFFFFFFE);
    EXPECT_EQ(table.Find(1, 1, [](std::size_t) { return true; }), 0xFFFFFFFEu);
}
}
}
