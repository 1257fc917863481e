#include "storage/kernels/ReduceArea.h"

#include "pixel/Half.h"

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

namespace Raster {
namespace {
using Reduction = void (*)(ReductionArea const &);
constexpr std::size_t tileBytes = 65536;
#ifdef RASTER_SANITIZED
constexpr int areaRounds = 12, wordRounds = 4;
#else
constexpr int areaRounds = 120, wordRounds = 60;
#endif

/// Five planes on each side, as large as tiles, the destinations filled with a guard byte.
struct Planes {
    std::array<std::vector<std::uint8_t>, 5> source, dest;

    Planes() {
        for (auto & plane : source)
            plane.resize(tileBytes);
        Clear();
    }
    void Clear() {
        for (auto & plane : dest)
            plane.assign(tileBytes, 0xA5);
    }
    template<class Sample>
    Sample * Get(std::size_t plane) {
        return reinterpret_cast<Sample *>(source[plane].data());
    }
    template<class Sample>
    ReductionArea GetArea(int planes, int alphaPlane, int width, int height, std::size_t sourceOffset = 0,
                          std::size_t destOffset = 0) {
        ReductionArea area;
        area.planeCount = planes;
        area.alphaPlane = alphaPlane;
        area.sourceWidth = width;
        area.sourceHeight = height;
        for (std::size_t i = 0; i < 5; ++i) {
            area.source[i] = source[i].data() + sourceOffset * sizeof(Sample);
            area.dest[i] = dest[i].data() + destOffset * sizeof(Sample);
        }
        return area;
    }
};

template<class Sample>
bool AreSame(std::vector<std::uint8_t> const & one, std::vector<std::uint8_t> const & other) {
    if constexpr (std::is_same_v<Sample, float>) {
        for (std::size_t i = 0; i < tileBytes; i += 4) {
            float a, b;
            std::memcpy(&a, one.data() + i, 4);
            std::memcpy(&b, other.data() + i, 4);
            if (std::memcmp(&a, &b, 4) != 0 && !(std::isnan(a) && std::isnan(b)))
                return false;
        }
        return true;
    } else {
        return one == other;
    }
}

template<class Sample>
void ExpectEqualOnEveryTarget(Reduction reduce, Reduction twin, Planes & planes, ReductionArea const & area,
                              std::string const & what) {
    planes.Clear();
    twin(area);
    auto const expected = planes.dest;
    for (auto const target : hwy::SupportedAndGeneratedTargets()) {
        hwy::SetSupportedTargetsForTest(target);
        planes.Clear();
        reduce(area);
        for (std::size_t i = 0; i < 5; ++i)
            EXPECT_TRUE(AreSame<Sample>(expected[i], planes.dest[i]))
                << hwy::TargetName(target) << ", plane " << i << ", " << what;
    }
    hwy::SetSupportedTargetsForTest(0);
}

template<class Sample>
Sample MakeSample(std::mt19937 & random) {
    auto const bits = static_cast<std::uint32_t>(random());
    if constexpr (std::is_same_v<Sample, float>) {
        switch (bits % 61) {
        case 0:
            return std::numeric_limits<float>::quiet_NaN();
        case 1:
            return std::numeric_limits<float>::infinity();
        case 2:
            return -1.0f;
        case 3:
            return std::numeric_limits<float>::denorm_min();
        case 4:
            return std::numeric_limits<float>::max();
        default:
            return static_cast<float>(bits >> 8) / static_cast<float>(1 << 20) - 4.0f;
        }
    } else {
        return static_cast<Sample>(bits >> 16);
    }
}

template<class Sample>
Sample MakeAlpha(std::mt19937 & random, int kind) {
    auto const full = std::is_same_v<Sample, float> ? Sample(1) : static_cast<Sample>(-1);
    switch (kind) {
    case 0:
        return full;
    case 1:
        return 0;
    case 2:
        return random() % 8 == 0 ? MakeSample<Sample>(random) : full;
    case 3:
        return random() % 2 ? full : Sample(0);
    case 4:
        return static_cast<Sample>(random() % 3);
    default:
        return MakeSample<Sample>(random);
    }
}

template<class Sample>
void TestRandomAreas(Reduction reduce, Reduction twin) {
    std::mt19937 random(11);
    Planes planes;
    int const across = 256 / static_cast<int>(sizeof(Sample));
    for (int i = 0; i < areaRounds; ++i) {
        int const planeCount = 1 + static_cast<int>(random() % 5);
        int const alphaPlane = static_cast<int>(random() % static_cast<unsigned>(planeCount + 1)) - 1;
        int const width = i < 8 ? across : 1 + static_cast<int>(random() % static_cast<unsigned>(across));
        int const height = 1 + static_cast<int>(random() % 12);
        for (int plane = 0; plane < planeCount; ++plane)
            for (std::size_t s = 0; s < tileBytes / 16 / sizeof(Sample); ++s)
                planes.Get<Sample>(static_cast<std::size_t>(plane))[s] =
                    plane == alphaPlane ? MakeAlpha<Sample>(random, i % 6) : MakeSample<Sample>(random);
        std::size_t const sourceOffset = static_cast<std::size_t>(across - width) / 2 * 2;
        auto const area =
            planes.GetArea<Sample>(planeCount, alphaPlane, width, height, sourceOffset, sourceOffset / 2 + 1);
        ExpectEqualOnEveryTarget<Sample>(reduce, twin, planes, area,
                                         std::to_string(width) + " by " + std::to_string(height) + ", case " +
                                             std::to_string(i));
    }
}
}

TEST(ReduceArea, Reduces8BitsAsItsTwin) { TestRandomAreas<std::uint8_t>(ReduceArea8, Scalar::ReduceArea8); }
TEST(ReduceArea, Reduces16BitsAsItsTwin) { TestRandomAreas<std::uint16_t>(ReduceArea16, Scalar::ReduceArea16); }
TEST(ReduceArea, ReducesFloatsAsItsTwin) { TestRandomAreas<float>(ReduceAreaFloat, Scalar::ReduceAreaFloat); }

// Four equal pixels have their own mean, so these are all quotients that a colour and an alpha of bytes can give.
TEST(ReduceArea, DividesEveryByteByEveryAlpha) {
    Planes planes;
    for (int half = 0; half < 2; ++half) {
        for (std::size_t y = 0; y < 256; ++y)
            for (std::size_t x = 0; x < 256; ++x) {
                planes.Get<std::uint8_t>(0)[y * 256 + x] = static_cast<std::uint8_t>(x / 2 + 128 * half);
                planes.Get<std::uint8_t>(1)[y * 256 + x] = static_cast<std::uint8_t>(y / 2);
                planes.Get<std::uint8_t>(2)[y * 256 + x] = static_cast<std::uint8_t>(y / 2 + 128);
            }
        for (int const alphaPlane : {1, 2})
            ExpectEqualOnEveryTarget<std::uint8_t>(ReduceArea8, Scalar::ReduceArea8, planes,
                                                   planes.GetArea<std::uint8_t>(3, alphaPlane, 256, 256),
                                                   "half " + std::to_string(half));
    }
}

// Each product stands beside opaque colours of 0 to 3: with one of them the quarter of the sum tells it from the next.
TEST(ReduceArea, WeighsEveryByteByEveryAlpha) {
    Planes planes;
    auto * const colours = planes.Get<std::uint8_t>(0);
    auto * const alphas = planes.Get<std::uint8_t>(1);
    for (std::size_t part = 0; part < 16; ++part) {
        std::fill_n(alphas, tileBytes, std::uint8_t(0)); // the lower two corners count nothing
        for (std::size_t y = 0; y < 128; ++y)
            for (std::size_t x = 0; x < 128; ++x) {
                std::size_t const corner = y * 512 + x * 2;
                colours[corner] = static_cast<std::uint8_t>(x + part % 2 * 128);
                alphas[corner] = static_cast<std::uint8_t>(y + part / 2 % 2 * 128);
                colours[corner + 1] = static_cast<std::uint8_t>(part / 4);
                alphas[corner + 1] = 255;
            }
        ExpectEqualOnEveryTarget<std::uint8_t>(ReduceArea8, Scalar::ReduceArea8, planes,
                                               planes.GetArea<std::uint8_t>(2, 1, 256, 256), std::to_string(part));
    }
}

TEST(ReduceArea, DividesWordsByAnyAlpha) {
    Planes planes;
    std::mt19937 random(4);
    for (int round = 0; round < wordRounds; ++round) {
        for (std::size_t y = 0; y < 256; y += 2)
            for (std::size_t x = 0; x < 128; x += 2) {
                auto alpha = static_cast<std::uint16_t>(random());
                if (round % 4 == 0)
                    alpha = static_cast<std::uint16_t>(round / 4 * 8192 + static_cast<int>(y * 64 + x) / 2);
                if (round % 4 == 1)
                    alpha = static_cast<std::uint16_t>(alpha % 600);
                if (round % 4 == 2)
                    alpha = static_cast<std::uint16_t>(65535 - alpha % 600);
                auto const colour = static_cast<std::uint16_t>(round % 3 == 0 ? 65535 - random() % 3 : random());
                for (std::size_t const corner : {std::size_t(0), std::size_t(1), std::size_t(128), std::size_t(129)}) {
                    planes.Get<std::uint16_t>(0)[y * 128 + x + corner] = colour;
                    planes.Get<std::uint16_t>(1)[y * 128 + x + corner] = alpha;
                }
            }
        ExpectEqualOnEveryTarget<std::uint16_t>(ReduceArea16, Scalar::ReduceArea16, planes,
                                                planes.GetArea<std::uint16_t>(2, 1, 128, 256), std::to_string(round));
    }
}

TEST(ReduceArea, ColourUnderAlphaZeroIsLeftOutWhateverItIs) {
    float const odd[]{std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(),
                      std::numeric_limits<float>::quiet_NaN(), -5.0f, std::numeric_limits<float>::max()};
    Planes clean, poisoned;
    std::mt19937 random(15);
    for (std::size_t i = 0; i < tileBytes / 4; ++i) {
        float const alpha = random() % 3 == 0 ? static_cast<float>(random() % 100 + 1) / 100.0f : 0.0f;
        float const colour = static_cast<float>(random() % 100) / 10.0f;
        clean.Get<float>(1)[i] = poisoned.Get<float>(1)[i] = alpha;
        clean.Get<float>(0)[i] = alpha == 0.0f ? 0.0f : colour;
        poisoned.Get<float>(0)[i] = alpha == 0.0f ? odd[random() % std::size(odd)] : colour;
    }
    auto const area = poisoned.GetArea<float>(2, 1, 64, 256);
    Scalar::ReduceAreaFloat(clean.GetArea<float>(2, 1, 64, 256));
    Scalar::ReduceAreaFloat(area);
    EXPECT_EQ(clean.dest, poisoned.dest);
    ExpectEqualOnEveryTarget<float>(ReduceAreaFloat, Scalar::ReduceAreaFloat, poisoned, area, "odd colours");

    Planes halves;
    for (std::size_t i = 0; i < 4; ++i) {
        halves.Get<Half>(0)[i / 2 * 128 + i % 2] = ToHalf(i == 0 ? 3.0f : std::numeric_limits<float>::infinity());
        halves.Get<Half>(1)[i / 2 * 128 + i % 2] = ToHalf(i == 0 ? 0.5f : 0.0f);
    }
    Scalar::ReduceAreaHalf(halves.GetArea<Half>(2, 1, 2, 2));
    Half result;
    std::memcpy(&result, halves.dest[0].data(), sizeof result);
    EXPECT_EQ(ToHalf(3.0f), result);
}

TEST(ReduceArea, OddSizesCountTheLastColumnAndRowTwice) {
    Planes planes;
    auto * const samples = planes.Get<std::uint8_t>(0);
    samples[0] = 10;
    samples[1] = 20;
    samples[2] = 70;
    samples[256] = 30;
    samples[257] = 40;
    samples[258] = 90;
    samples[512] = 50;
    samples[513] = 60;
    samples[514] = 80;
    ReduceArea8(planes.GetArea<std::uint8_t>(1, -1, 3, 3));
    EXPECT_EQ(25, planes.dest[0][0]);
    EXPECT_EQ(80, planes.dest[0][1]);
    EXPECT_EQ(55, planes.dest[0][256]);
    EXPECT_EQ(80, planes.dest[0][257]);
    EXPECT_EQ(0xA5, planes.dest[0][2]);
    EXPECT_EQ(0xA5, planes.dest[0][512]);
}

TEST(ReduceArea, HalvesAreRoundedOnceAfterAllIsDone) {
    Planes planes;
    Half const colours[4]{ToHalf(1.0f), ToHalf(0.1f), ToHalf(0.3f), ToHalf(1000.0f)};
    Half const alphas[4]{ToHalf(0.1f), ToHalf(0.7f), ToHalf(1.0f), ToHalf(0.0f)};
    float colour = 0, alpha = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        planes.Get<Half>(1)[i / 2 * 128 + i % 2] = colours[i];
        planes.Get<Half>(0)[i / 2 * 128 + i % 2] = alphas[i];
        colour += ToFloat(colours[i]) * ToFloat(alphas[i]);
        alpha += ToFloat(alphas[i]);
    }
    Scalar::ReduceAreaHalf(planes.GetArea<Half>(2, 0, 2, 2));
    auto const result = [&](std::size_t plane) {
        Half value;
        std::memcpy(&value, planes.dest[plane].data(), sizeof value);
        return value;
    };
    EXPECT_EQ(ToHalf(alpha / 4), result(0));
    EXPECT_EQ(ToHalf(colour / 4 / (alpha / 4)), result(1));
}

TEST(ReduceArea, ComplexSamplesAreTwoPicturesSideBySide) {
    Planes planes, first, second;
    std::mt19937 random(8);
    for (std::size_t plane = 0; plane < 2; ++plane)
        for (std::size_t y = 0; y < 5; ++y)
            for (std::size_t x = 0; x < 7; ++x) {
                auto & sample = planes.Get<ComplexFloat>(plane)[y * 32 + x];
                sample = {static_cast<float>(random() % 1000) / 999.0f, static_cast<float>(random() % 1000) / 999.0f};
                first.Get<float>(plane)[y * 64 + x] = sample.first;
                second.Get<float>(plane)[y * 64 + x] = sample.second;
            }
    Scalar::ReduceAreaComplex(planes.GetArea<ComplexFloat>(2, 0, 7, 5));
    Scalar::ReduceAreaFloat(first.GetArea<float>(2, 0, 7, 5));
    Scalar::ReduceAreaFloat(second.GetArea<float>(2, 0, 7, 5));
    for (std::size_t plane = 0; plane < 2; ++plane)
        for (std::size_t y = 0; y < 3; ++y)
            for (std::size_t x = 0; x < 4; ++x) {
                auto const bytes = planes.dest[plane].data() + y * 256 + x * 8;
                EXPECT_EQ(0, std::memcmp(bytes, first.dest[plane].data() + y * 256 + x * 4, 4));
                EXPECT_EQ(0, std::memcmp(bytes + 4, second.dest[plane].data() + y * 256 + x * 4, 4));
            }
}
}
