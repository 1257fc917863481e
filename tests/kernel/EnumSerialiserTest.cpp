#include "kernel/EnumSerialiser.h"

#include <gtest/gtest.h>

using namespace Kernel;

namespace {
/// An enum that was born with two values, was renumbered when it grew to four, and lost one and gained two later.
class GrownEnum final : public EnumSerialiser {
public:
    GrownEnum() {
        EnumEntry const first[]{{0, nullptr}, {1, nullptr}};
        EnumEntry const second[]{{10, nullptr}, {11, nullptr}, {12, nullptr}, {13, nullptr}};
        EnumEntry const third[]{{10, nullptr}, {12, nullptr}, {13, nullptr}, {14, nullptr}, {15, nullptr}};
        RegisterEnumSet(first, 2);
        RegisterEnumSet(second, 4);
        RegisterEnumSet(third, 5);
    }
};

class EmptyEnum final : public EnumSerialiser {};
}

TEST(EnumSerialiser, StoresTheIndexInTheNewestTable) {
    GrownEnum const serialiser;
    EXPECT_EQ(serialiser.Store(12), (StoredEnum{5, 1}));
    EXPECT_EQ(serialiser.Store(15), (StoredEnum{5, 4}));
    EXPECT_EQ(serialiser.Store(11), std::nullopt) << "dropped from the newest table";
    EXPECT_EQ(serialiser.Store(0), std::nullopt);
}

TEST(EnumSerialiser, LoadsByTheTableOfTheFilesVersion) {
    GrownEnum const serialiser;
    EXPECT_EQ(serialiser.Load({2, 1}), 1);
    EXPECT_EQ(serialiser.Load({4, 1}), 11);
    EXPECT_EQ(serialiser.Load({5, 1}), 12);
}

TEST(EnumSerialiser, GivesBackEveryValueThatItStored) {
    GrownEnum const serialiser;
    for (int const value : {10, 12, 13, 14, 15})
        EXPECT_EQ(serialiser.Load(*serialiser.Store(value)), value);
}

TEST(EnumSerialiser, LoadsNothingForUnknownCountsAndIndices) {
    GrownEnum const serialiser;
    for (std::uint32_t const count : {0u, 1u, 3u, 6u, 0xffffffffu})
        EXPECT_EQ(serialiser.Load({count, 0}), std::nullopt) << count;
    EXPECT_EQ(serialiser.Load({5, 5}), std::nullopt);
    EXPECT_EQ(serialiser.Load({5, 0xffffffffu}), std::nullopt);
}

TEST(EnumSerialiser, CopiesItsTables) {
    GrownEnum const copy = GrownEnum(GrownEnum());
    EXPECT_EQ(copy.Store(12), (StoredEnum{5, 1}));
}

TEST(EnumSerialiser, WithoutTablesStoresNothing) {
    EXPECT_EQ(EmptyEnum().Store(0), std::nullopt);
    EXPECT_EQ(EmptyEnum().Load({0, 0}), std::nullopt);
}
