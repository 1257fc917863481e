#include "storage/kernels/ScanRect.h"

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;
using ScanFunction = Rect (*)(void const *, int, int);
using Bytes = std::vector<std::uint8_t>;

bool IsNonZero(std::uint8_t const * row, int x) { return row[x] != 0; }
bool IsBelowFull(std::uint8_t const * row, int x) { return row[x] != 255; }
bool IsInAFloatBelowOne(std::uint8_t const * row, int x) {
    float value;
    std::memcpy(&value, row + x / 4 * 4, 4);
    return value < 1.0f;
}

struct Scan {
    char const * name;
    ScanFunction vector, scalar;
    bool (*isHit)(std::uint8_t const *, int);
    std::uint32_t quiet; // repeated, it holds no hit

    /// Every byte by itself.
    Rect BruteForce(Bytes const & bytes, int width, int height) const {
        Rect rect;
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                if (isHit(&bytes[std::size_t(y) * 256], x))
                    rect = rect.Unite({x, y, x + 1, y + 1});
        return rect;
    }
    Bytes MakeQuiet() const {
        Bytes bytes(65536);
        for (std::size_t i = 0; i < bytes.size(); i += 4)
            std::memcpy(&bytes[i], &quiet, 4);
        return bytes;
    }
};

void PrintTo(Scan const & scan, std::ostream * stream) { *stream << scan.name; }

Scan const scans[] = {
    {"NonZero", ScanNonZeroRect, Scalar::ScanNonZeroRect, IsNonZero, 0},
    {"BelowFull", ScanBelowFullRect, Scalar::ScanBelowFullRect, IsBelowFull, 0xFFFFFFFF},
    {"BelowOne", ScanBelowOneRect, Scalar::ScanBelowOneRect, IsInAFloatBelowOne, 0x3F800000},
};

class ScanRectTest : public testing::TestWithParam<Scan> {
protected:
    Scan const & scan = GetParam();

    void ExpectAll(Bytes const & bytes, int width, int height, std::string const & what) const {
        auto const expected = scan.BruteForce(bytes, width, height);
        EXPECT_EQ(scan.scalar(bytes.data(), width, height), expected) << what << ", " << width << " by " << height;
        EXPECT_EQ(scan.vector(bytes.data(), width, height), expected) << what << ", " << width << " by " << height;
    }
    template<class Function>
    void OnEveryTarget(Function function) const {
        for (auto const target : hwy::SupportedAndGeneratedTargets()) {
            hwy::SetSupportedTargetsForTest(target);
            function(std::string(hwy::TargetName(target)));
        }
        hwy::SetSupportedTargetsForTest(0);
    }
};

TEST_P(ScanRectTest, NothingOfInterestGivesTheZeroRect) {
    OnEveryTarget([&](std::string const & target) {
        ExpectAll(scan.MakeQuiet(), 256, 256, target);
        ExpectAll(Bytes(65536, 7), 0, 256, target);
        ExpectAll(Bytes(65536, 7), 256, 0, target);
    });
}

TEST_P(ScanRectTest, EverythingOfInterestGivesTheWhole) {
    OnEveryTarget([&](std::string const & target) {
        Bytes const bytes(65536, 7);
        for (int const width : {1, 3, 4, 5, 31, 32, 33, 100, 255, 256})
            for (int const height : {1, 3, 4, 5, 255, 256})
                EXPECT_EQ(scan.vector(bytes.data(), width, height), (Rect{0, 0, width, height})) << target;
    });
}

TEST_P(ScanRectTest, EveryColumnAndEveryRowIsSeenAlone) {
    OnEveryTarget([&](std::string const & target) {
        for (int i = 0; i < 256; ++i) {
            auto bytes = scan.MakeQuiet();
            auto const y = i * 7 % 256;
            bytes[std::size_t(y * 256 + i)] = 7;
            ExpectAll(bytes, 256, 256, target + ", hit at column " + std::to_string(i));
            ExpectAll(bytes, i, 256, target + ", clipped before it");
            ExpectAll(bytes, i + 1, 256, target + ", clipped behind it");
            ExpectAll(bytes, 256, y, target + ", clipped above it");
            ExpectAll(bytes, 256, y + 1, target + ", clipped below it");
        }
    });
}

TEST_P(ScanRectTest, RandomHitsInRandomRegions) {
    std::mt19937 random(1);
#ifdef RASTER_SANITIZED
    int const rounds = 100;
#else
    int const rounds = 1000;
#endif
    OnEveryTarget([&](std::string const & target) {
        for (int round = 0; round < rounds; ++round) {
            auto bytes = scan.MakeQuiet();
            auto const hits = random() % 6;
            for (unsigned hit = 0; hit < hits; ++hit)
                bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random());
            ExpectAll(bytes, int(random() % 257), int(random() % 257), target + ", round " + std::to_string(round));
            ExpectAll(bytes, 256, 256, target + ", round " + std::to_string(round));
        }
    });
}

// Narrow bands of noise make each of the margins matter.
TEST_P(ScanRectTest, BandsOfNoise) {
    std::mt19937 random(2);
    OnEveryTarget([&](std::string const & target) {
        for (int round = 0; round < 50; ++round) {
            auto bytes = scan.MakeQuiet();
            for (int band = 0; band < 3; ++band) {
                auto const left = random() % 256, right = left + random() % (257 - left), top = random() % 256;
                for (auto x = left; x < right; ++x)
                    bytes[top * 256 + x] = static_cast<std::uint8_t>(random());
            }
            ExpectAll(bytes, 256, 256, target + ", round " + std::to_string(round));
            ExpectAll(bytes, 200, 131, target + ", round " + std::to_string(round));
        }
    });
}

INSTANTIATE_TEST_SUITE_P(Scans, ScanRectTest, testing::ValuesIn(scans),
                         [](auto const & each) { return std::string(each.param.name); });

TEST(ScanBelowOneRect, NaNAndInfinityAreNotBelowOneButMinusZeroAndTinyNumbersAre) {
    auto const rectOf = [](float value) {
        std::vector<float> floats(16384, 1.0f);
        floats[64 * 3 + 5] = value;
        auto const rect = ScanBelowOneRect(floats.data(), 256, 256);
        EXPECT_EQ(rect, Scalar::ScanBelowOneRect(floats.data(), 256, 256));
        return rect;
    };
    using Limits = std::numeric_limits<float>;
    Rect const hit{20, 3, 24, 4};
    EXPECT_EQ(rectOf(Limits::quiet_NaN()), Rect{});
    EXPECT_EQ(rectOf(-Limits::quiet_NaN()), Rect{});
    EXPECT_EQ(rectOf(Limits::infinity()), Rect{});
    EXPECT_EQ(rectOf(std::nextafter(1.0f, 2.0f)), Rect{});
    EXPECT_EQ(rectOf(std::nextafter(1.0f, 0.0f)), hit);
    EXPECT_EQ(rectOf(-0.0f), hit);
    EXPECT_EQ(rectOf(Limits::denorm_min()), hit);
    EXPECT_EQ(rectOf(-Limits::infinity()), hit);
}

TEST(ScanBelowOneRect, AFloatThatBeginsInsideCountsAndIsCutOffAtTheWidth) {
    std::vector<float> floats(16384, 1.0f);
    floats[5] = 0; // bytes 20 to 24
    for (auto const scan : {&ScanBelowOneRect, &Scalar::ScanBelowOneRect}) {
        EXPECT_EQ(scan(floats.data(), 20, 256), Rect{});
        EXPECT_EQ(scan(floats.data(), 21, 256), (Rect{20, 0, 21, 1}));
        EXPECT_EQ(scan(floats.data(), 23, 256), (Rect{20, 0, 23, 1}));
        EXPECT_EQ(scan(floats.data(), 25, 256), (Rect{20, 0, 24, 1}));
    }
}
}
}
