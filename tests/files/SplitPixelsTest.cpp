#include "files/kernels/SplitPixels.h"

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace {
using Split = void (*)(unsigned char const *, std::size_t, void * const *);
using Join = void (*)(void const * const *, std::size_t, unsigned char *);

struct Layout {
    char const * name;
    std::size_t channels, sampleBytes;
    Split split, plainSplit;
    Join join, plainJoin;
};

#define RASTER_LAYOUT(name, channels, sample)                                                                          \
    Layout{#name,                                                                                                      \
           channels,                                                                                                   \
           sizeof(sample),                                                                                             \
           Raster::Split##name,                                                                                        \
           Raster::Scalar::Split##name,                                                                                \
           Raster::Join##name,                                                                                         \
           Raster::Scalar::Join##name},
Layout const layouts[] = {RASTER_FOR_EACH_PIXEL_LAYOUT(RASTER_LAYOUT)};

constexpr std::size_t guardBytes = 16;
constexpr unsigned char guard = 0xA5;

std::vector<unsigned char> MakePixels(std::size_t bytes) {
    std::vector<unsigned char> pixels(bytes);
    std::uint32_t state = 12345;
    for (auto & byte : pixels)
        byte = static_cast<unsigned char>((state = state * 1664525u + 1013904223u) >> 24);
    return pixels;
}

// Rows with guards behind them.
class Rows {
public:
    Rows(Layout const & layout, std::size_t count) {
        for (std::size_t channel = 0; channel < layout.channels; ++channel)
            rows.emplace_back(count * layout.sampleBytes + guardBytes, guard);
    }
    std::vector<void *> GetPointers() {
        std::vector<void *> pointers;
        for (auto & row : rows)
            pointers.push_back(row.data());
        return pointers;
    }
    std::vector<std::vector<unsigned char>> rows;
};

// Around every vector length, and up to a tile row.
std::vector<std::size_t> const counts{0, 1, 2, 3, 7, 15, 16, 17, 31, 32, 33, 63, 64, 65, 127, 128, 129, 255, 256, 257};

class OnEveryTarget : public testing::TestWithParam<Layout> {
protected:
    template<class Check>
    void ForEachTargetAndCount(Check check) {
        for (auto const target : hwy::SupportedAndGeneratedTargets()) {
            hwy::SetSupportedTargetsForTest(target);
            for (auto const count : counts) {
                SCOPED_TRACE(testing::Message() << hwy::TargetName(target) << ", " << count << " pixels");
                check(count);
            }
        }
        hwy::SetSupportedTargetsForTest(0);
    }
};

TEST_P(OnEveryTarget, SplittingEqualsThePlainWay) {
    auto const & layout = GetParam();
    ForEachTargetAndCount([&](std::size_t count) {
        auto const pixels = MakePixels(count * layout.channels * layout.sampleBytes);
        Rows actual(layout, count), expected(layout, count);
        layout.split(pixels.data(), count, actual.GetPointers().data());
        layout.plainSplit(pixels.data(), count, expected.GetPointers().data());
        EXPECT_EQ(actual.rows, expected.rows);
    });
}

TEST_P(OnEveryTarget, JoiningIsTheOppositeAndEqualsThePlainWay) {
    auto const & layout = GetParam();
    ForEachTargetAndCount([&](std::size_t count) {
        auto pixels = MakePixels(count * layout.channels * layout.sampleBytes);
        Rows rows(layout, count);
        auto const pointers = rows.GetPointers();
        layout.plainSplit(pixels.data(), count, pointers.data());
        std::vector<void const *> const sources(pointers.begin(), pointers.end());
        std::vector<unsigned char> actual(pixels.size() + guardBytes, guard), expected = actual;
        layout.join(sources.data(), count, actual.data());
        layout.plainJoin(sources.data(), count, expected.data());
        EXPECT_EQ(actual, expected);
        pixels.insert(pixels.end(), guardBytes, guard);
        EXPECT_EQ(actual, pixels);
    });
}

TEST_P(OnEveryTarget, RowsThatAreNotWantedAreLeftOut) {
    auto const & layout = GetParam();
    ForEachTargetAndCount([&](std::size_t count) {
        auto const pixels = MakePixels(count * layout.channels * layout.sampleBytes);
        for (std::size_t absent = 0; absent < layout.channels; ++absent) {
            Rows actual(layout, count), expected(layout, count);
            auto pointers = actual.GetPointers();
            pointers[absent] = nullptr;
            layout.split(pixels.data(), count, pointers.data());
            layout.plainSplit(pixels.data(), count, expected.GetPointers().data());
            expected.rows[absent].assign(expected.rows[absent].size(), guard);
            EXPECT_EQ(actual.rows, expected.rows) << "without " << absent;
        }
    });
}

INSTANTIATE_TEST_SUITE_P(SplitPixels, OnEveryTarget, testing::ValuesIn(layouts),
                         [](auto const & layout) { return layout.param.name; });

TEST(SplitPixels, SixteenBitsComeHighByteFirst) {
    unsigned char const pixels[] = {0x12, 0x34, 0xAB, 0xCD};
    std::uint16_t grey = 0, alpha = 0;
    void * const rows[] = {&grey, &alpha};
    Raster::SplitIA16(pixels, 1, rows);
    EXPECT_EQ(grey, 0x1234);
    EXPECT_EQ(alpha, 0xABCD);
}
}
