#include "pixel/EnumSerialisers.h"

#include <gtest/gtest.h>

#include <limits>
#include <set>
#include <type_traits>
#include <utility>
#include <vector>

namespace Raster {
namespace {
struct Case {
    char const * name;
    Kernel::EnumSerialiser const * serialiser;
    std::uint32_t count;
};
std::vector<Case> GetCases() {
    return {{"Format", &FormatEnumSerialiser::GetInstance(), 11},
            {"ColourSpace", &ColourSpaceEnumSerialiser::GetInstance(), 6},
            {"MipmapMode", &MipmapModeEnumSerialiser::GetInstance(), 5},
            {"ExtendType", &ExtendTypeEnumSerialiser::GetInstance(), 6},
            {"ResamplerType", &ResamplerTypeEnumSerialiser::GetInstance(), 9},
            {"FileType", &FileTypeEnumSerialiser::GetInstance(), 14},
            {"Intent", &IntentEnumSerialiser::GetInstance(), 4},
            {"SubMode", &SubModeEnumSerialiser::GetInstance(), 2},
            {"BitStreamFormat", &BitStreamFormatEnumSerialiser::GetInstance(), 2},
            {"BlendModeType", &BlendModeTypeEnumSerialiser::GetInstance(), 30}};
}
std::vector<int> const badValues{
    -1, 30, 31, 255, 65536, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()};
}

TEST(EnumSerialisers, NewestTableHoldsEachValueFromZeroAtItsOwnIndex) {
    for (auto const & [name, serialiser, count] : GetCases()) {
        for (std::uint32_t value = 0; value < count; ++value) {
            auto const stored = serialiser->Store(static_cast<int>(value));
            ASSERT_TRUE(stored) << name << " " << value;
            EXPECT_EQ((Kernel::StoredEnum{count, value}), *stored) << name;
            EXPECT_EQ(static_cast<int>(value), serialiser->Load(*stored)) << name;
        }
        EXPECT_FALSE(serialiser->Store(static_cast<int>(count))) << name;
        EXPECT_FALSE(serialiser->Load({count, count})) << name;
        for (int const value : badValues)
            EXPECT_FALSE(serialiser->Store(value)) << name << " " << value;
    }
}

TEST(EnumSerialisers, TablesOfOtherSizesLoadNothing) {
    for (auto const & [name, serialiser, count] : GetCases())
        for (std::uint32_t size = 0; size < 40; ++size) {
            bool const known = size == count || (count == 30 && (size == 25 || size == 28 || size == 29));
            EXPECT_EQ(known, serialiser->Load({size, 0}).has_value()) << name << ", table of " << size;
            EXPECT_FALSE(serialiser->Load({size, size})) << name << ", table of " << size;
            EXPECT_FALSE(serialiser->Load({size, 0xFFFFFFFFu})) << name << ", table of " << size;
        }
}

TEST(EnumSerialisers, OlderBlendModeTablesMapBack) {
    // By version: the size of its table, and the values that it doesn't have yet.
    std::pair<std::uint32_t, std::set<int>> const versions[] = {
        {25, {2, 5, 7, 16, 29}}, {28, {5, 29}}, {29, {5}}, {30, {}}};
    auto const & serialiser = BlendModeTypeEnumSerialiser::GetInstance();
    for (auto const & [size, absent] : versions) {
        std::uint32_t index = 0;
        for (int value = 0; value < 30; ++value)
            if (!absent.contains(value)) {
                EXPECT_EQ(value, serialiser.Load({size, index})) << "table of " << size << ", index " << index;
                ++index;
            }
        EXPECT_EQ(size, index);
    }
}

TEST(EnumSerialisers, FileTypesBehindTheStoredSetAreNotStored) {
    auto const & serialiser = FileTypeEnumSerialiser::GetInstance();
    EXPECT_FALSE(serialiser.Store(FileTypeHEIF));
    EXPECT_TRUE(serialiser.Store(FileTypeHDR));
    EXPECT_TRUE(serialiser.Store(12)); // names nothing, but is in the set
    EXPECT_TRUE(serialiser.Store(13));
}

TEST(EnumSerialisers, InstanceIsOneAndCopiesAreWorthAsMuch) {
    EXPECT_EQ(&FormatEnumSerialiser::GetInstance(), &FormatEnumSerialiser::GetInstance());
    auto copy = BlendModeTypeEnumSerialiser::GetInstance();
    auto const moved = std::move(copy);
    EXPECT_EQ(29, moved.Load({29, 28}));
    EXPECT_EQ((Kernel::StoredEnum{30, 5}), moved.Store(5));
    EXPECT_FALSE(std::is_default_constructible_v<FormatEnumSerialiser>);
}

TEST(Vocabulary, NumbersAreThoseThatDocumentsAndFilesHold) {
    EXPECT_EQ(0u, FileTypeJPEG);
    EXPECT_EQ(1u, FileTypePNG);
    EXPECT_EQ(2u, FileTypeTIFF);
    EXPECT_EQ(3u, FileTypeWEBP);
    EXPECT_EQ(4u, FileTypeHDPhoto);
    EXPECT_EQ(5u, FileTypeRAW);
    EXPECT_EQ(6u, FileTypeGIF);
    EXPECT_EQ(7u, FileTypeJPEG2000);
    EXPECT_EQ(8u, FileTypeBMP);
    EXPECT_EQ(9u, FileTypeTGA);
    EXPECT_EQ(10u, FileTypeOpenEXR);
    EXPECT_EQ(11u, FileTypeHDR);
    EXPECT_EQ(14u, FileTypeHEIF);
    EXPECT_EQ(0u, static_cast<std::uint32_t>(Intent::Perceptual));
    EXPECT_EQ(1u, static_cast<std::uint32_t>(Intent::RelativeColorimetric));
    EXPECT_EQ(2u, static_cast<std::uint32_t>(Intent::Saturation));
    EXPECT_EQ(3u, static_cast<std::uint32_t>(Intent::AbsoluteColorimetric));
    EXPECT_EQ(4u, sizeof(Format));
    EXPECT_EQ(4u, sizeof(ColourSpace));
    EXPECT_EQ(4u, sizeof(FileType));
}
}
