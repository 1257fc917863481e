#include "kernel/kernels/PredictSamples.h"

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <random>
#include <vector>

namespace Kernel {
namespace {
using Bytes = std::vector<std::uint8_t>;
using Function = void (*)(std::uint8_t const *, std::uint8_t *, int);
constexpr std::size_t blockBytes = 65536, guardBytes = 64;
constexpr std::uint8_t guard = 0xA5;

// Runs a kernel between guards, from an address that is not aligned to anything, to another one.
Bytes RunBetweenGuards(Function kernel, Bytes const & source, int sampleBytes) {
    Bytes from(1, guard), to(guardBytes + 3 + blockBytes + guardBytes, guard);
    from.insert(from.end(), source.begin(), source.end());
    kernel(from.data() + 1, to.data() + guardBytes + 3, sampleBytes);
    auto const begin = to.begin() + guardBytes + 3, end = begin + blockBytes;
    EXPECT_TRUE(std::all_of(to.begin(), begin, [](auto byte) { return byte == guard; })) << "written before the block";
    EXPECT_TRUE(std::all_of(end, to.end(), [](auto byte) { return byte == guard; })) << "written behind the block";
    EXPECT_TRUE(std::equal(source.begin(), source.end(), from.begin() + 1)) << "the source has changed";
    return Bytes(begin, end);
}

Bytes MakeNoise(unsigned seed) {
    std::mt19937 random(seed);
    Bytes bytes(blockBytes);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<std::uint8_t>(random()); });
    return bytes;
}

// Noise, and what carries run through: all bytes full, steps at the ends of samples, vectors and rows.
std::vector<Bytes> MakeBlocks() {
    std::vector<Bytes> blocks{Bytes(blockBytes, 0), Bytes(blockBytes, 1), Bytes(blockBytes, 255)};
    for (unsigned seed = 1; seed <= 8; ++seed)
        blocks.push_back(MakeNoise(seed));
    for (std::size_t const period : {2, 3, 15, 16, 17, 255, 256, 257}) {
        Bytes bytes(blockBytes);
        for (std::size_t i = 0; i < blockBytes; ++i)
            bytes[i] = i % period == 0 ? 255 : i % period == 1 ? 128 : 0;
        blocks.push_back(std::move(bytes));
    }
    return blocks;
}

class PredictSamplesTest : public testing::TestWithParam<int> {
protected:
    int const sampleBytes = GetParam();

    template<class Check>
    void OnEveryTarget(Check check) const {
        for (auto const target : hwy::SupportedAndGeneratedTargets()) {
            hwy::SetSupportedTargetsForTest(target);
            SCOPED_TRACE(hwy::TargetName(target));
            check();
        }
        hwy::SetSupportedTargetsForTest(0);
    }
};

TEST_P(PredictSamplesTest, EqualsItsScalarTwinOnEveryTarget) {
    OnEveryTarget([&] {
        for (auto const & block : MakeBlocks()) {
            EXPECT_EQ(RunBetweenGuards(PredictSamples, block, sampleBytes),
                      RunBetweenGuards(Scalar::PredictSamples, block, sampleBytes));
            EXPECT_EQ(RunBetweenGuards(RestoreSamples, block, sampleBytes),
                      RunBetweenGuards(Scalar::RestoreSamples, block, sampleBytes));
        }
    });
}

TEST_P(PredictSamplesTest, RestoresWhatItPredictedOnEveryTarget) {
    OnEveryTarget([&] {
        for (auto const & block : MakeBlocks()) {
            EXPECT_EQ(
                RunBetweenGuards(RestoreSamples, RunBetweenGuards(PredictSamples, block, sampleBytes), sampleBytes),
                block);
            EXPECT_EQ(
                RunBetweenGuards(PredictSamples, RunBetweenGuards(RestoreSamples, block, sampleBytes), sampleBytes),
                block);
        }
    });
}

// What docs/document-format.md says, byte by byte.
TEST_P(PredictSamplesTest, PutsEachByteOfADifferenceWhereTheFormatSays) {
    auto const raw = MakeNoise(99);
    auto const predicted = RunBetweenGuards(PredictSamples, raw, sampleBytes);
    auto const size = static_cast<std::size_t>(sampleBytes), perRow = 256 / size;
    for (std::size_t row = 0; row < 256; ++row)
        for (std::size_t i = 0; i < perRow; ++i) {
            int borrow = 0;
            for (std::size_t p = 0; p < size; ++p) {
                int const here = raw[row * 256 + i * size + p];
                int const before = i == 0 ? 0 : raw[row * 256 + (i - 1) * size + p];
                int const difference = here - before - borrow;
                borrow = difference < 0 ? 1 : 0;
                ASSERT_EQ(predicted[p * blockBytes / size + row * perRow + i], difference & 255)
                    << "byte " << p << " of sample " << i << " of row " << row;
            }
        }
}

INSTANTIATE_TEST_SUITE_P(SampleBytes, PredictSamplesTest, testing::Values(1, 2, 4, 8));

TEST(PredictSamples, DoesNothingForOtherSizes) {
    auto const block = MakeNoise(5);
    for (int const sampleBytes : {-1, 0, 3, 5, 16})
        for (Function const kernel : {PredictSamples, RestoreSamples, Scalar::PredictSamples, Scalar::RestoreSamples})
            EXPECT_EQ(RunBetweenGuards(kernel, block, sampleBytes), Bytes(blockBytes, guard)) << sampleBytes;
}
}
}
